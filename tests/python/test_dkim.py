"""DKIM: `quillo dkim keygen` makes RSA and Ed25519 keys, `send --dkim-key`
and quillo.Mailer(dkim_key=...) sign what they deliver, and two independent
verifiers (dkimpy, and OpenDKIM's opendkim-testmsg looking the key up in a
loopback DNS) accept the messages as they arrived at aiosmtpd, and reject
them once a signed header or the body is changed, by as little as one byte."""
import os
import re
import stat
import sys

import pytest

from test_cli import cli, smtp_server, welcome_campaign  # noqa: F401 (fixtures)

dkim = pytest.importorskip("dkim", reason="python3-dkim (dkimpy) is installed by ./run")


def keygen(cli, algorithm):
    key = cli.folder / ("dkim-%s.pem" % algorithm)
    out = cli.out("dkim", "keygen", "--algorithm", algorithm, "--key", str(key), "--selector",
                  "s2026", "--domain", "quillo.example")
    assert stat.S_IMODE(os.stat(key).st_mode) == 0o600
    record = re.search(r'^s2026\._domainkey\.quillo\.example\. IN TXT "(.*)"$', out, re.M)
    assert record, out
    return key, record.group(1).encode()


def verifies(raw, record):
    def dns(name, timeout=5):
        return record if name.rstrip(b".") == b"s2026._domainkey.quillo.example" else None
    return dkim.verify(raw, dnsfunc=dns)


def raw_messages(server):
    """The messages as they went on the wire: the Maildir keeps LF line ends."""
    import mailbox
    return [m.as_bytes().replace(b"\r\n", b"\n").replace(b"\n", b"\r\n")
            for m in mailbox.Maildir(str(server.box), create=False)]


@pytest.mark.parametrize("algorithm", ["rsa", "ed25519"])
def test_sent_messages_carry_a_signature_an_independent_verifier_accepts(cli, smtp_server,
                                                                         algorithm):
    server = smtp_server()
    welcome_campaign(cli)
    key, record = keygen(cli, algorithm)
    assert record.startswith(b"v=DKIM1; k=%s; p=" % (b"rsa" if algorithm == "rsa" else
                                                      b"ed25519"))
    done = cli.run("send", "--campaign", "Welcome", "--date", "2026-03-01", "--smtp",
                   "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example",
                   "--dkim-key", str(key), "--dkim-selector", "s2026", "-q")
    assert done.returncode == 0, done.stderr
    messages = raw_messages(server)
    assert len(messages) == 2
    for raw in messages:
        header = re.search(rb"DKIM-Signature:((?:[^\r]|\r\n[ \t])*)", raw).group(1)
        tags = dict(t.strip().split(b"=", 1) for t in re.sub(rb"\s+", b"", header).split(b";"))
        assert tags[b"a"] == (b"rsa" if algorithm == "rsa" else b"ed25519") + b"-sha256"
        assert (tags[b"c"], tags[b"d"], tags[b"s"]) == (b"relaxed/relaxed", b"quillo.example",
                                                       b"s2026")
        assert verifies(raw, record)
        # A changed subject, a second From or a changed body breaks it.
        assert not verifies(re.sub(rb"\nSubject: [^\r\n]*", b"\nSubject: Changed", raw), record)
        assert not verifies(raw.replace(b"\r\n\r\n", b"\r\nFrom: evil@example.test\r\n\r\n", 1),
                            record)
        assert not verifies(raw + b"P.S. added\r\n", record)


sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                                "support"))
from opendkim_verify import OpenDkim  # noqa: E402


def one_byte_changes(raw):
    """The message with one byte changed in a signed header, in the body, and
    in the signature itself."""
    head, body = raw.split(b"\r\n\r\n", 1)
    subject = head.index(b"\nSubject: ") + len(b"\nSubject: ")
    signature = re.search(rb"[\s;]b=", head).end() + 8
    flip = lambda data, at: data[:at] + bytes([data[at] ^ 0x01]) + data[at + 1:]  # noqa: E731
    return {"subject": flip(head, subject) + b"\r\n\r\n" + body,
            "body": head + b"\r\n\r\n" + flip(body, len(body) // 2),
            "signature": flip(head, signature) + b"\r\n\r\n" + body}


@pytest.mark.parametrize("algorithm", ["rsa", "ed25519"])
def test_opendkim_accepts_what_we_sign_and_refuses_a_one_byte_change(cli, smtp_server,
                                                                     algorithm):
    why = OpenDkim.unavailable()
    if why:
        pytest.skip(why)
    server = smtp_server()
    welcome_campaign(cli)
    key, record = keygen(cli, algorithm)
    cli.run("send", "--campaign", "Welcome", "--date", "2026-03-01", "--smtp",
            "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example",
            "--dkim-key", str(key), "--dkim-selector", "s2026", "-q")
    messages = raw_messages(server)
    assert len(messages) == 2
    with OpenDkim({"s2026._domainkey.quillo.example": record}) as opendkim:
        for raw in messages:
            assert opendkim.verify(raw) == (True, "")
            assert verifies(raw, record)
            for where, changed in one_byte_changes(raw).items():
                ok, said = opendkim.verify(changed)
                assert not ok, where
                assert "signature" in said.lower() or "verif" in said.lower(), said
                assert not verifies(changed, record), where


def test_bad_dkim_options_are_refused_before_sending(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    base = ["send", "--campaign", "Welcome", "--date", "2026-03-01", "--smtp",
            "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example", "-q"]
    (cli.folder / "not-a-key.pem").write_text("hello\n")
    bad = cli.run(*base, "--dkim-key", str(cli.folder / "not-a-key.pem"), "--dkim-selector", "s",
                  check=False)
    assert bad.returncode == 1 and "holds no PEM private key" in bad.stderr
    key, _ = keygen(cli, "rsa")
    bad = cli.run(*base, "--dkim-key", str(key), check=False)
    assert bad.returncode == 1 and "--dkim-key needs --dkim-selector" in bad.stderr
    bad = cli.run(*base, "--dkim-key", str(key), "--dkim-selector", "s", "--compat", check=False)
    assert bad.returncode == 1 and "not with --compat" in bad.stderr
    again = cli.run("dkim", "keygen", "--key", str(key), "--selector", "s", "--domain", "x.test",
                    check=False)
    assert again.returncode == 1 and "must not exist" in again.stderr
    assert server.messages() == {}


def test_python_mailer_signs_with_its_dkim_key(quillo, cli, smtp_server):
    server = smtp_server()
    key, record = keygen(cli, "ed25519")
    template = cli.folder / "t.txt"
    template.write_text("[HEADER]\nReplace: FIRST\n[/HEADER]\nHello <!--FIRST-->\n")
    client = quillo.CreateObject("dmclients")
    client.First = "Ada"
    client.Email = "ada@example.test"
    mailer = quillo.Mailer(host="127.0.0.1", port=server.port, from_address="news@quillo.example",
                           dkim_key=str(key), dkim_selector="s2026")
    outcome = mailer.send(str(template), client, "Hi")
    mailer.close()
    assert outcome["outcome"] == "accepted", outcome
    (raw,) = raw_messages(server)
    assert verifies(raw, record)
    with pytest.raises(ValueError):
        quillo.Mailer(host="127.0.0.1", from_address="news@quillo.example",
                      dkim_key=str(cli.folder / "missing.pem"), dkim_selector="s")

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
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                                "support"))
from opendkim_verify import OpenDkim  # noqa: E402


def keygen(cli, algorithm):
    key = cli.folder / ("dkim-%s.pem" % algorithm)
    out = cli.out("dkim", "keygen", "--algorithm", algorithm, "--key", str(key), "--selector",
                  "s2026", "--domain", "quillo.example")
    assert stat.S_IMODE(os.stat(key).st_mode) == 0o600
    record = re.search(r'^s2026\._domainkey\.quillo\.example\. IN TXT "(.*)"$', out, re.M)
    assert record, out
    return key, record.group(1).encode()


def dkimpy_verifies(raw, names):
    return dkim.verify(raw, dnsfunc=lambda name, timeout=5: names.get(name.decode().rstrip(".")))


def verifies(raw, record, domain="quillo.example"):
    """dkimpy's verdict on `raw`, after checking that OpenDKIM gives the same
    one (where it can run). `record` is the TXT record of selector s2026, or
    a dict of them by selector."""
    records = record if isinstance(record, dict) else {"s2026": record}
    names = {"%s._domainkey.%s" % (selector, domain): r for selector, r in records.items()}
    verdict = dkimpy_verifies(raw, names)
    if not OpenDkim.unavailable():
        with OpenDkim(names) as opendkim:
            assert opendkim.verify(raw)[0] == verdict, "the two DKIM verifiers disagree"
    return verdict


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
    names = {"s2026._domainkey.quillo.example": record}
    with OpenDkim(names) as opendkim:
        for raw in messages:
            assert opendkim.verify(raw) == (True, "")
            assert dkimpy_verifies(raw, names)
            for where, changed in one_byte_changes(raw).items():
                ok, said = opendkim.verify(changed)
                assert not ok, where
                assert "signature" in said.lower() or "verif" in said.lower(), said
                assert not dkimpy_verifies(changed, names), where


def test_bad_dkim_options_are_refused_before_sending(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    base = ["send", "--campaign", "Welcome", "--date", "2026-03-01", "--smtp",
            "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example", "-q"]
    (cli.folder / "not-a-key.pem").write_text("hello\n")
    os.chmod(cli.folder / "not-a-key.pem", 0o600)
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


def signature_tags(raw):
    header = re.search(rb"DKIM-Signature:((?:[^\r]|\r\n[ \t])*)", raw)
    if not header:
        return None
    return dict(t.strip().split(b"=", 1)
                for t in re.sub(rb"\s+", b"", header.group(1)).split(b";") if t)


def test_keys_kept_per_domain_and_per_account_sign_without_options(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    domain_key, domain_record = keygen(cli, "rsa")
    account_key = cli.folder / "account.pem"
    out = cli.out("dkim", "keygen", "--algorithm", "ed25519", "--key", str(account_key),
                  "--selector", "news", "--domain", "quillo.example")
    account_record = re.search(r'IN TXT "(.*)"', out).group(1).encode()
    assert "quillo dkim add --sender quillo.example --selector news --key " in out
    cli.run("dkim", "add", "--sender", "Quillo.Example", "--selector", "s2026", "--key",
            str(domain_key))
    cli.run("dkim", "add", "--sender", "News@quillo.example", "--selector", "news", "--key",
            str(account_key))
    listing = cli.out("dkim", "list")
    assert "quillo.example" in listing and "news@quillo.example" in listing
    base = ["send", "--smtp", "smtp://127.0.0.1:%d" % server.port, "--campaign", "Welcome", "-q"]

    # The account's own key first.
    cli.run(*base, "--date", "2026-03-01", "--from", "news@quillo.example")
    first = raw_messages(server)
    assert len(first) == 2
    for raw in first:
        tags = signature_tags(raw)
        assert (tags[b"d"], tags[b"s"], tags[b"a"]) == (b"quillo.example", b"news",
                                                         b"ed25519-sha256")
        assert verifies(raw, {"news": account_record, "s2026": domain_record})
    # Without it, the domain's key.
    cli.run("dkim", "remove", "--sender", "news@quillo.example")
    cli.run(*base, "--date", "2026-03-03", "--from", "news@quillo.example")
    later = [m for m in raw_messages(server) if m not in first]
    assert len(later) == 2
    for raw in later:
        tags = signature_tags(raw)
        assert (tags[b"s"], tags[b"a"]) == (b"s2026", b"rsa-sha256")
        assert verifies(raw, domain_record)
    bad = cli.run("dkim", "remove", "--sender", "news@quillo.example", check=False)
    assert bad.returncode == 1 and "no DKIM key is kept for" in bad.stderr


def test_a_key_others_can_read_is_refused(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    key, _ = keygen(cli, "rsa")
    os.chmod(key, 0o644)
    bad = cli.run("dkim", "add", "--sender", "quillo.example", "--selector", "s2026", "--key",
                  str(key), check=False)
    assert bad.returncode == 1 and "can be read by others (mode 0644)" in bad.stderr
    bad = cli.run("send", "--campaign", "Welcome", "--date", "2026-03-01", "--smtp",
                  "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example",
                  "--dkim-key", str(key), "--dkim-selector", "s2026", "-q", check=False)
    assert bad.returncode == 1 and "chmod 600" in bad.stderr
    assert server.messages() == {}
    # A key kept in the database that has since become readable stops the send too:
    # nothing goes out unsigned by surprise.
    os.chmod(key, 0o600)
    cli.run("dkim", "add", "--sender", "quillo.example", "--selector", "s2026", "--key", str(key))
    os.chmod(key, 0o640)
    bad = cli.run("send", "--campaign", "Welcome", "--date", "2026-03-01", "--smtp",
                  "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example", "-q",
                  check=False)
    assert bad.returncode == 1 and "can be read by others" in bad.stderr
    assert server.messages() == {}

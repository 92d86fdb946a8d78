"""Returned mail: `quillo bounces show` reads every message of the corpus
(delivery status notifications in the shapes of Postfix, Exim, Sendmail,
Exchange and Gmail, feedback reports, and messages that are neither) as the
corpus says, and as flufl.bounce sees it wherever flufl sees it at all;
`quillo bounces import` reads it from a folder, a Maildir and an mbox (both
written by Python's own mailbox module), suppresses what it must, counts the
rest, reports what it cannot read and reads nothing twice; a VERP return path
names the client even when the report does not, and the next send skips it."""
import email
import email.policy
import json
import mailbox
import pathlib
import sqlite3

from flufl.bounce import all_failures

from test_cli import cli, smtp_server, welcome_campaign  # noqa: F401 (fixtures)

CORPUS = pathlib.Path(__file__).resolve().parents[1] / "data" / "bounces"
EXPECTED = json.loads((CORPUS / "expected.json").read_text())


def parse_show(text):
    """`bounces show` output as {file name: (format, [(address, kind, status)])}."""
    shown = {}
    current = None
    for line in text.splitlines():
        if line.startswith("  "):
            address, kind, status = line.split()
            shown[current][1].append((address, kind, "" if status == "-" else status))
        else:
            name, rest = line.split(": ", 1)
            current = pathlib.Path(name).name
            shown[current] = (rest.split(":")[0], [])
    return shown


FORMATS = {"dsn": "delivery status", "arf": "feedback report", "unknown": "not understood"}


def corpus_folder(tmp_path):
    """The corpus' messages alone, without its manifest."""
    folder = tmp_path / "corpus"
    folder.mkdir(exist_ok=True)
    for name in EXPECTED:
        (folder / name).write_bytes((CORPUS / name).read_bytes())
    return folder


def test_every_corpus_message_reads_as_the_corpus_says(cli, tmp_path):
    shown = parse_show(cli.out("bounces", "show", str(corpus_folder(tmp_path))))
    assert sorted(shown) == sorted(EXPECTED)
    assert sum(e["format"] == "dsn" for e in EXPECTED.values()) >= 20
    assert sum(e["format"] == "arf" for e in EXPECTED.values()) >= 3
    for name, expected in EXPECTED.items():
        form, recipients = shown[name]
        assert form == FORMATS[expected["format"]], name
        want = [(r["address"], r["kind"], r["status"]) for r in expected["recipients"]]
        assert [(a.lower(), k, s) for a, k, s in recipients] == want, name


def test_we_agree_with_flufl_bounce_wherever_it_sees_anything(cli, tmp_path):
    shown = parse_show(cli.out("bounces", "show", str(corpus_folder(tmp_path))))
    seen_by_flufl = 0
    for name in EXPECTED:
        with open(CORPUS / name, "rb") as f:
            msg = email.message_from_binary_file(f, policy=email.policy.compat32)
        temporary, permanent = all_failures(msg)
        if not temporary and not permanent:
            continue
        seen_by_flufl += 1
        ours = shown[name][1]
        failed = {a.lower() for a, kind, _ in ours if kind in ("hard", "soft")}
        delayed = {a.lower() for a, kind, _ in ours if kind == "delayed"}
        assert {a.decode().lower() for a in permanent} == failed, name
        assert {a.decode().lower() for a in temporary} == delayed, name
    # flufl reads every delivery status notification of the corpus.
    assert seen_by_flufl >= sum(e["format"] == "dsn" for e in EXPECTED.values())


def expected_suppressions():
    """What importing the whole corpus must suppress, from the corpus' own labels."""
    want = {}
    soft = {}
    for entry in EXPECTED.values():
        for r in entry["recipients"]:
            if r["kind"] == "hard":
                want.setdefault(r["address"], "bounced")
            elif r["kind"] == "complaint":
                want.setdefault(r["address"], "complained")
            elif r["kind"] == "soft":
                soft.setdefault(r["address"], []).append(entry["date"])
    import datetime
    for address, dates in soft.items():
        times = sorted(datetime.datetime.fromisoformat(d) for d in dates)
        if any((times[i + 2] - times[i]).days < 30 for i in range(len(times) - 2)):
            want.setdefault(address, "bounced")
    return want


def suppressions(cli):
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    rows = dict(db.execute("SELECT Email, Reason FROM quillo_suppressions").fetchall())
    db.close()
    return rows


def totals():
    kinds = {}
    for entry in EXPECTED.values():
        for r in entry["recipients"]:
            kinds[r["kind"]] = kinds.get(r["kind"], 0) + 1
    return kinds


def check_import(cli, path):
    out = cli.out("bounces", "import", str(path))
    k = totals()
    unknown = sum(e["format"] == "unknown" for e in EXPECTED.values())
    assert "read %d messages" % len(EXPECTED) in out
    assert ("hard bounces %d, soft bounces %d, delay warnings %d, delivered %d, complaints %d"
            % (k.get("hard", 0), k.get("soft", 0), k.get("delayed", 0), k.get("delivered", 0),
               k.get("complaint", 0))) in out
    want = expected_suppressions()
    assert "suppressed %d addresses" % len(want) in out
    assert "not understood %d" % unknown in out
    assert suppressions(cli) == want
    assert "soft@example.org" in want and "spread@example.org" not in want
    # A second read of the same mailbox changes nothing.
    again = cli.out("bounces", "import", str(path))
    assert "(%d imported before)" % (len(EXPECTED) - unknown) in again
    assert "suppressed 0 addresses" in again
    assert suppressions(cli) == want


def test_importing_the_corpus_folder_suppresses_hard_bounces_complaints_and_repeated_soft_ones(
        cli, tmp_path):
    check_import(cli, corpus_folder(tmp_path))


def corpus_messages():
    for name in sorted(EXPECTED):
        yield (CORPUS / name).read_bytes()


def test_a_maildir_reads_like_the_folder(cli, tmp_path):
    box = mailbox.Maildir(str(tmp_path / "Bounces"), create=True)
    for data in corpus_messages():
        box.add(mailbox.MaildirMessage(data))
    box.close()
    check_import(cli, tmp_path / "Bounces")


def test_an_mbox_reads_like_the_folder(cli, tmp_path):
    box = mailbox.mbox(str(tmp_path / "bounces.mbox"), create=True)
    for data in corpus_messages():
        box.add(mailbox.mboxMessage(data))
    box.close()
    check_import(cli, tmp_path / "bounces.mbox")


def test_what_cannot_be_read_is_named_with_its_reason(cli, tmp_path):
    out = cli.out("bounces", "import", str(corpus_folder(tmp_path)))
    for name, entry in EXPECTED.items():
        if entry["format"] == "unknown":
            assert name + ": " in out
    assert "other-01-out-of-office.eml: not a delivery status notification or feedback report" \
        in out


def test_a_missing_mailbox_is_a_clear_error(cli):
    done = cli.run("bounces", "import", str(cli.folder / "nowhere"), check=False)
    assert done.returncode == 1
    assert "does not exist" in done.stderr


def dsn_to(verp, final_recipient):
    return ("From: MAILER-DAEMON@mx.example.net\r\nTo: %s\r\n"
            "Date: Tue, 1 Sep 2026 10:00:00 +0000\r\nSubject: Undelivered Mail\r\n"
            "MIME-Version: 1.0\r\n"
            "Content-Type: multipart/report; report-type=delivery-status; boundary=B\r\n\r\n"
            "--B\r\nContent-Type: text/plain\r\n\r\nGone.\r\n"
            "--B\r\nContent-Type: message/delivery-status\r\n\r\n"
            "Reporting-MTA: dns; mx.example.net\r\n\r\n"
            "Final-Recipient: rfc822; %s\r\nAction: failed\r\nStatus: 5.1.1\r\n\r\n"
            "--B--\r\n" % (verp, final_recipient))


def test_a_verp_return_path_names_the_client_and_the_next_send_skips_it(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    smtp = "smtp://127.0.0.1:%d" % server.port
    cli.run("send", "--campaign", "Welcome", "--date", "2026-03-01", "--smtp", smtp, "--from",
            "news@quillo.example", "--verp", "bounce@quillo.example", "-q")
    got = server.messages()
    paths = {to: str(msgs[0]["X-MailFrom"]).strip() for to, msgs in got.items()}
    assert sorted(paths) == ["ada@example.test", "alan@example.test"]
    for path in paths.values():
        assert path.startswith("bounce+") and path.endswith("@quillo.example")
    assert paths["ada@example.test"] != paths["alan@example.test"]
    # Ada's mail was forwarded and the forward bounced: the report names the
    # forward, only the return path names Ada.
    (cli.folder / "dsn.eml").write_text(dsn_to(paths["ada@example.test"], "ada@elsewhere.example"))
    # A report to a forged return path names no client; its own address is used.
    forged = paths["alan@example.test"].replace("bounce+", "bounce+X")
    (cli.folder / "forged.eml").write_text(dsn_to(forged, "someone@elsewhere.example"))
    out = cli.out("bounces", "import", str(cli.folder / "dsn.eml"))
    assert "suppressed 1 addresses" in out
    cli.out("bounces", "import", str(cli.folder / "forged.eml"))
    assert suppressions(cli) == {"ada@example.test": "bounced",
                                 "someone@elsewhere.example": "bounced"}
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    campaign = db.execute("SELECT RecID FROM dmmrktcmp").fetchone()[0]
    assert db.execute("SELECT CampaignRecID FROM quillo_suppressions WHERE Email = "
                      "'ada@example.test'").fetchone() == (campaign,)
    db.close()
    done = cli.run("send", "--campaign", "Welcome", "--date", "2026-03-03", "--smtp", smtp,
                   "--from", "news@quillo.example", "--verp", "bounce@quillo.example", "-q")
    assert "suppressed 1 messages" in done.stdout
    assert len(server.messages()["ada@example.test"]) == 1
    assert len(server.messages()["alan@example.test"]) == 2


def test_a_bad_verp_address_is_refused(cli):
    welcome_campaign(cli)
    done = cli.run("send", "--campaign", "Welcome", "--date", "2026-03-01", "--smtp",
                   "smtp://127.0.0.1:9", "--from", "news@quillo.example", "--verp",
                   "not an address", check=False)
    assert done.returncode == 1
    assert "not a valid e-mail address" in done.stderr


def test_bounce_import_output_names_no_secret(cli, tmp_path):
    out = cli.run("bounces", "import", str(corpus_folder(tmp_path)))
    key = sqlite3.connect(str(cli.folder / "quillo.db")).execute(
        "SELECT Value FROM quillo_meta WHERE Name = 'unsubscribe_key'").fetchone()[0]
    assert key not in out.stdout + out.stderr

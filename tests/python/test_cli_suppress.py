"""The suppression list: an address on it is never sent anything, by send or
by tick, whatever its case; the ledger and the status say so; taking it off
lets what is due go out; the report counts unsubscribes and bounces."""
import datetime
import sqlite3

from test_cli import cli, smtp_server, welcome_campaign  # noqa: F401 (fixtures)
from test_report import charts_of


def send(cli, server, date="2026-03-01"):
    return cli.run("send", "--campaign", "Welcome", "--date", date, "--smtp",
                   "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example", "-q")


def test_a_suppressed_address_gets_nothing_until_it_is_taken_off(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    out = cli.out("suppress", "add", "ADA@example.test", "--reason", "unsubscribed",
                  "--campaign", "Welcome", "--note", "replied STOP")
    assert "suppressed ada@example.test (unsubscribed)" in out
    listing = cli.out("suppress", "list")
    assert "ada@example.test" in listing and "unsubscribed" in listing and "STOP" in listing
    run = cli.out("run", "--campaign", "Welcome", "--date", "2026-03-01", "--queue",
                  str(cli.folder / "q.txt"))
    assert "1 of them to suppressed addresses: send will skip those" in run
    done = send(cli, server)
    assert "sent 1," in done.stdout
    assert "suppressed 1 messages to addresses on the suppression list" in done.stdout
    assert list(server.messages()) == ["alan@example.test"]
    assert "suppressed 1" in " ".join(cli.out("status", "--campaign", "Welcome").split())
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    assert db.execute("SELECT State, LastReply FROM quillo_deliveries WHERE Email = "
                      "'ada@example.test'").fetchall() == [("suppressed",
                                                            "suppressed: unsubscribed")]
    assert db.execute("SELECT COUNT(*) FROM dmsentitems").fetchone() == (1,)
    db.close()
    # Again: still nothing for her.
    send(cli, server, "2026-03-02")
    assert list(server.messages()) == ["alan@example.test"]
    cli.run("suppress", "remove", "ada@example.test")
    send(cli, server, "2026-03-03")
    assert sorted(server.messages()) == ["ada@example.test", "alan@example.test"]


def test_bad_suppression_input_is_refused(cli):
    welcome_campaign(cli)
    bad = cli.run("suppress", "add", "not-an-address", check=False)
    assert bad.returncode == 1 and "not a valid e-mail address" in bad.stderr
    bad = cli.run("suppress", "add", "a@example.test", "--reason", "annoyed", check=False)
    assert bad.returncode == 1 and "--reason must be" in bad.stderr
    bad = cli.run("suppress", "add", "a@example.test", "--campaign", "Nope", check=False)
    assert bad.returncode == 1 and "unknown campaign" in bad.stderr
    bad = cli.run("suppress", "remove", "never@example.test", check=False)
    assert bad.returncode == 1 and "is not suppressed" in bad.stderr
    assert "(none)" in cli.out("suppress", "list")


def test_tick_honours_the_suppression_list(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    cli.run("suppress", "add", "alan@example.test", "--reason", "bounced")
    out = cli.out("tick", "--date", "2026-03-01", "--smtp", "smtp://127.0.0.1:%d" % server.port,
                  "--from", "news@quillo.example")
    assert 'campaign="Welcome" date=2026-03-01 done: all delivered messages=2 sent=1' in out
    assert "suppressed=1" in out
    assert list(server.messages()) == ["ada@example.test"]


def test_the_report_counts_unsubscribes_bounces_and_suppressed_messages(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    cli.run("suppress", "add", "alan@example.test", "--reason", "bounced", "--campaign",
            "Welcome")
    cli.run("suppress", "add", "grace@example.test", "--reason", "unsubscribed", "--campaign",
            "Welcome")
    send(cli, server)
    today = datetime.datetime.now(datetime.timezone.utc).date().isoformat()
    # Messages count on their campaign date, suppressions on the day they were made.
    out = cli.out("report", "--campaign", "Welcome", "--date", today, "--days", "400",
                  "--html", "r.html")
    header = [line.split() for line in out.splitlines() if line.startswith("DATE")][0]
    assert header[1:] == ["QUEUED", "ACCEPTED", "DEFERRED", "REFUSED", "FAILED", "IN-DOUBT",
                          "SUPPRESSED", "UNSUBSCRIBED", "BOUNCED"]
    rows = {line.split()[0]: line.split()[1:] for line in out.splitlines()
            if line[:4] in ("2026", "2027", "tota")}
    assert rows["2026-03-01"][:7] == ["0", "1", "0", "0", "0", "0", "1"]
    assert rows[today][7:] == ["1", "1"]
    assert rows["total"] == ["0", "1", "0", "0", "0", "0", "1", "1", "1"]
    page = (cli.folder / "r.html").read_text()
    assert 'data-state="suppressed" data-count="1"' in page
    assert 'class="lost" data-day="%s" data-kind="unsubscribed" data-count="1"' % today in page
    assert 'data-kind="bounced" data-count="1"' in page
    assert len(charts_of(page).bars) == 2

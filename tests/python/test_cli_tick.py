"""quillo tick over a simulated month, on SQLite and on PostgreSQL: one
sequential campaign, one incremental campaign and one campaign of each
family of schedule codes, ticked daily with a missed stretch caught up and
two ticks started at once. Each client gets what the kinds and schedules
say, in order, once; each campaign runs once on each of its due dates."""
import datetime
import re
import subprocess

import mailbox
import email
import email.policy
import pytest

from test_cli import QUILLO, Cli, cli, fresh_postgresql_database, smtp_server  # noqa: F401

MARCH = [datetime.date(2026, 3, d) for d in range(1, 32)]


@pytest.fixture(params=["sqlite", "postgresql"])
def db_cli(request, tmp_path):
    cli = Cli(tmp_path)
    if request.param == "postgresql":
        cli.db = fresh_postgresql_database("quillo_tick")
    cli.run("init")
    return cli


def arrivals(server):
    """(recipient, subject) of every message, in the order the server took them."""
    box = mailbox.Maildir(str(server.box), create=False)
    keyed = []
    for key, msg in box.items():
        count = int(re.search(r"Q(\d+)", key).group(1))
        parsed = email.message_from_bytes(msg.as_bytes(), policy=email.policy.default)
        keyed.append((count, parsed["To"].addresses[0].addr_spec, parsed["Subject"]))
    return [(to, subject) for _, to, subject in sorted(keyed)]


def history(cli, sql):
    if cli.db.startswith("sqlite:"):
        import sqlite3
        db = sqlite3.connect(cli.db[len("sqlite:"):])
        try:
            return db.execute(sql).fetchall()
        finally:
            db.close()
    out = subprocess.run(["psql", cli.db, "-At", "-F", "|", "-c", sql], capture_output=True,
                         text=True, timeout=60, check=True).stdout
    return [tuple(line.split("|")) for line in out.splitlines() if line]


def run_dates(cli):
    rows = history(cli, "SELECT c.CampaignName, h.EffectiveDate FROM dmmrktcmphistory h, "
                        "dmmrktcmp c WHERE c.RecID = h.CampaignRecID")
    dates = {}
    for name, when in rows:
        dates.setdefault(name, []).append(str(when)[:10])
    return {name: sorted(d) for name, d in dates.items()}


def setup_month(cli):
    template = cli.folder / "t.txt"
    template.write_text("[HEADER]\nReplace: FIRST\n[/HEADER]\nHello <!--FIRST-->\n")
    for address in ("a@example.test", "b@example.test", "c@example.test"):
        cli.run("client", "add", "--email", address, "--first", address[0].upper())

    def campaign(name, kind, items, clients, *extra):
        cli.run("campaign", "add", "--name", name, "--type", str(kind), *extra)
        for interval, subject in items:
            cli.run("campaign", "item", "--campaign", name, "--file", str(template),
                    "--interval", str(interval), "--description", subject)
        for address, day in clients:
            cli.run("enrol", "add", "--campaign", name, "--client", address, "--date", day)

    campaign("Seq", 1, [(0, "Seq 0"), (3, "Seq 3"), (10, "Seq 10")],
             [("a@example.test", "2026-03-01"), ("b@example.test", "2026-03-01"),
              ("c@example.test", "2026-03-05")])
    campaign("Inc", 2, [(1, "Inc 1"), (2, "Inc 2"), (3, "Inc 3")],
             [("a@example.test", "2026-03-01")])
    campaign("Tuesdays", 101, [(0, "Tuesday")], [("b@example.test", "2026-03-01")])
    campaign("Mid", 201, [(0, "Mid-month")], [("c@example.test", "2026-03-01")])
    campaign("FirstMonday", 300, [(0, "First Monday")], [("a@example.test", "2026-03-01")])
    campaign("Weekly", 406, [(0, "Every 7 days")], [("c@example.test", "2026-03-01")],
             "--interval", "7", "--effective", "2026-03-01")
    cli.run("campaign", "add", "--name", "ByHand", "--type", "0")


def tick(cli, server, day, *extra, check=True):
    done = subprocess.run([QUILLO, "--db", cli.db, "tick", "--date", day.isoformat(), "--smtp",
                           "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example",
                           *extra], cwd=cli.folder, capture_output=True, text=True, timeout=300)
    if check:
        assert done.returncode == 0, done.stdout + done.stderr
    return done


def test_a_month_of_ticks_runs_each_due_date_once_and_sends_each_message_once(db_cli,
                                                                              smtp_server):
    cli = db_cli
    server = smtp_server("--seconds", "600")
    setup_month(cli)
    # Two ticks started at once on the first day.
    first = [subprocess.Popen([QUILLO, "--db", cli.db, "tick", "--date", "2026-03-01", "--smtp",
                               "smtp://127.0.0.1:%d" % server.port, "--from",
                               "news@quillo.example"], cwd=cli.folder, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True) for _ in range(2)]
    outputs = [p.communicate(timeout=300)[0] for p in first]
    assert [p.returncode for p in first] == [0, 0], outputs
    # The machine is off from the 9th to the 11th; the tick of the 12th
    # catches up. Every later day is ticked twice.
    for day in MARCH[1:]:
        if datetime.date(2026, 3, 9) <= day <= datetime.date(2026, 3, 11):
            continue
        out = tick(cli, server, day).stdout
        if day == datetime.date(2026, 3, 12):
            for caught in ("2026-03-10", "2026-03-11"):
                assert 'date=%s done' % caught in out, out
        assert "kind 0 has no schedule" in out
        again = tick(cli, server, day).stdout
        assert " done:" not in again, again

    tuesdays = [d.isoformat() for d in MARCH if d.weekday() == 1]
    every_day = [d.isoformat() for d in MARCH]
    assert run_dates(cli) == {
        "Seq": every_day,
        "Inc": every_day,
        "Tuesdays": tuesdays,
        "Mid": ["2026-03-15"],
        "FirstMonday": ["2026-03-02"],
        "Weekly": ["2026-03-01", "2026-03-08", "2026-03-15", "2026-03-22", "2026-03-29"],
    }

    got = arrivals(server)
    assert len(got) == len(set(got)), "a message arrived twice"
    by_client = {}
    for to, subject in got:
        by_client.setdefault(to, []).append(subject)
    # Each client's messages in the order they arrived: by date, and within
    # a date by campaign name, the order a tick runs them in (but for the
    # first day, which two ticks shared). An item goes to a client once,
    # whatever the kind.
    by_client["a@example.test"][:2] = sorted(by_client["a@example.test"][:2])
    assert by_client == {
        "a@example.test": ["Inc 1", "Seq 0", "First Monday", "Inc 2", "Inc 3", "Seq 3",
                           "Seq 10"],
        "b@example.test": ["Seq 0", "Tuesday", "Seq 3", "Seq 10"],
        "c@example.test": ["Every 7 days", "Seq 0", "Seq 3", "Mid-month", "Seq 10"],
    }
    # The report counts the same, on this engine too.
    report = cli.out("report", "--campaign", "Seq", "--date", "2026-03-31", "--days", "31")
    total = [line.split() for line in report.splitlines() if line.startswith("total")][0]
    assert total[1:] == ["0", "9", "0", "0", "0", "0", "0", "0", "0"], report
    assert 'day 10     3 clients got "Seq 10"' in report


def test_dry_run_counts_without_writing(cli, smtp_server):
    server = smtp_server()
    setup_month(cli)
    out = tick(cli, server, datetime.date(2026, 3, 1), "--dry-run").stdout
    assert 'campaign="Seq" date=2026-03-01 would run: 2 messages' in out
    assert 'campaign="Inc" date=2026-03-01 would run: 1 messages' in out
    assert 'campaign="Weekly" date=2026-03-01 would run: 1 messages' in out
    assert run_dates(cli) == {}
    assert server.messages() == {}
    assert history(cli, "SELECT COUNT(*) FROM dmsentitems") == [(0,)]


def test_due_dates_past_the_catch_up_window_are_reported_once_not_skipped_silently(
        cli, smtp_server):
    server = smtp_server()
    setup_month(cli)
    tick(cli, server, datetime.date(2026, 3, 3))
    done = tick(cli, server, datetime.date(2026, 3, 20), "--catch-up", "4", check=False)
    assert done.returncode == 1
    assert 'campaign="Tuesdays" missed 1 due date from 2026-03-10 to 2026-03-10, past the ' \
        'catch-up of 4 days' in done.stdout, done.stdout
    assert 'campaign="Seq" missed 13 due dates from 2026-03-04 to 2026-03-16' in done.stdout
    assert 'campaign="Tuesdays" date=2026-03-17 done' in done.stdout
    assert 'campaign="Seq" date=2026-03-17 done' in done.stdout
    assert 'campaign="Seq" date=2026-03-16 done' not in done.stdout
    assert run_dates(cli)["Tuesdays"] == ["2026-03-03", "2026-03-17"]
    # Reported once: the next tick goes on from there.
    again = tick(cli, server, datetime.date(2026, 3, 21), "--catch-up", "4")
    assert "missed" not in again.stdout
    assert 'campaign="Seq" date=2026-03-21 done' in again.stdout


def test_disabled_campaigns_are_not_ticked(cli, smtp_server):
    server = smtp_server()
    setup_month(cli)
    cli.run("campaign", "disable", "Seq")
    out = tick(cli, server, datetime.date(2026, 3, 1)).stdout
    assert 'campaign="Seq" skipped: disabled' in out
    assert "Seq" not in run_dates(cli)


def test_what_a_tick_could_not_deliver_goes_out_at_the_next_tick_once(cli, smtp_server,
                                                                       tmp_path):
    setup_month(cli)
    # No server at first: the run is made, nothing is delivered.
    dead = subprocess.run([QUILLO, "--db", cli.db, "tick", "--date", "2026-03-01", "--smtp",
                           "smtp://127.0.0.1:9", "--from", "news@quillo.example", "--timeout",
                           "2"], cwd=cli.folder, capture_output=True, text=True, timeout=300)
    assert dead.returncode == 3, dead.stdout + dead.stderr
    assert 'campaign="Seq" date=2026-03-01 failed' in dead.stdout
    assert "kept for the next tick" in dead.stdout
    server = smtp_server()
    out = tick(cli, server, datetime.date(2026, 3, 2)).stdout
    assert 'campaign="Seq" date=2026-03-01 (kept queue) done: all delivered' in out
    got = arrivals(server)
    assert sorted(got) == sorted(set(got))
    assert ("a@example.test", "Seq 0") in got and ("b@example.test", "Seq 0") in got
    assert history(cli, "SELECT COUNT(*) FROM quillo_tick_queues") == [(0,)]
    # Nothing is left to send again.
    again = tick(cli, server, datetime.date(2026, 3, 2)).stdout
    assert "kept queue" not in again
    assert len(arrivals(server)) == len(got)


def test_python_ticks_with_the_same_job_and_gets_plain_values(quillo, cli, smtp_server):
    server = smtp_server()
    setup_month(cli)
    smtp = "smtp://127.0.0.1:%d" % server.port
    dry = quillo.tick(cli.db, date="2026-03-01", dry_run=True, smtp=smtp,
                      from_address="news@quillo.example")
    would = {e["campaign"]: e["messages"] for e in dry["events"] if e["status"] == "would run"}
    assert would == {"Inc": 1, "Seq": 2, "Weekly": 1}
    assert server.messages() == {}

    done = quillo.tick(cli.db, date="2026-03-01", smtp=smtp, from_address="news@quillo.example")
    assert (done["runs"], done["not_delivered"], done["problems"]) == (3, 0, 0)
    seq = [e for e in done["events"] if e["campaign"] == "Seq"][0]
    assert seq["status"] == "done" and seq["date"] == "2026-03-01"
    assert (seq["messages"], seq["sent"], seq["refused"], seq["in_doubt"]) == (2, 2, 0, 0)
    statuses = {e["campaign"]: e["status"] for e in done["events"]}
    assert statuses["ByHand"] == "skipped" and statuses["Tuesdays"] == "nothing due"
    assert sorted(arrivals(server)) == sorted([("a@example.test", "Inc 1"),
                                               ("a@example.test", "Seq 0"),
                                               ("b@example.test", "Seq 0"),
                                               ("c@example.test", "Every 7 days")])
    # The command's tick on the same day finds it done.
    again = tick(cli, server, datetime.date(2026, 3, 1)).stdout
    assert " done:" not in again
    with pytest.raises(ValueError):
        quillo.tick(cli.db, tls="sometimes")
    with pytest.raises(RuntimeError, match="unknown|no database|catch-up"):
        quillo.tick(cli.db, catch_up=0)


def test_python_tick_takes_the_sending_engine_options(quillo, cli, smtp_server):
    server = smtp_server()
    setup_month(cli)
    smtp = "smtp://127.0.0.1:%d" % server.port
    done = quillo.tick(cli.db, date="2026-03-01", smtp=smtp, from_address="news@quillo.example",
                       connections=2, rate="100/s", domain_rate="50/s", retry_for="30m")
    assert (done["runs"], done["not_delivered"], done["problems"]) == (3, 0, 0)
    assert len(arrivals(server)) == 4
    # A bad option stops the tick before it claims a day, so no day is lost.
    with pytest.raises(RuntimeError, match="--connections wants 1 to 64"):
        quillo.tick(cli.db, date="2026-03-02", smtp=smtp, from_address="news@quillo.example",
                    connections=0)
    later = quillo.tick(cli.db, date="2026-03-02", smtp=smtp, from_address="news@quillo.example")
    assert later["problems"] == 0
    assert {e["status"] for e in later["events"] if e["date"] == "2026-03-02"} == {"done"}

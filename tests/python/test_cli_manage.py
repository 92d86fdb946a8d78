"""Fixing data with the command: edit, delete (asking first when other rows
go with it), disable and enable, for clients, enrolments, campaigns, items
and accounts. Bad input changes nothing; disabled rows get nothing sent."""
import sqlite3

from test_cli import cli, smtp_server, welcome_campaign  # noqa: F401 (fixtures)


def rows(cli, sql):
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    try:
        return db.execute(sql).fetchall()
    finally:
        db.close()


def count(cli, table, where="1 = 1"):
    return rows(cli, "SELECT COUNT(*) FROM %s WHERE %s" % (table, where))[0][0]


def failing(cli, *args, input=None):
    done = cli.run(*args, check=False, input=input)
    assert done.returncode == 1, (done.stdout, done.stderr)
    return done.stderr


def item_ids(cli):
    return [r[0] for r in rows(cli, "SELECT RecID FROM dmmrktcmpitems ORDER BY Interval")]


def send_today(cli, server, date="2026-03-01"):
    return cli.run("send", "--campaign", "Welcome", "--date", date, "--smtp",
                   "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example", "-q")


def test_client_edit_changes_only_the_fields_given(cli):
    welcome_campaign(cli)
    out = cli.out("client", "edit", "ada@example.test", "--first", "Augusta", "--city", "London")
    assert "client ada@example.test changed (2 fields)" in out
    assert rows(cli, "SELECT First, Last, City FROM dmclients WHERE EMail = 'ada@example.test'") \
        == [("Augusta", "Client", "London")]


def test_client_edit_refuses_a_bad_or_taken_address_and_changes_nothing(cli):
    welcome_campaign(cli)
    before = rows(cli, "SELECT * FROM dmclients ORDER BY Account")
    assert "not a valid e-mail address" in failing(cli, "client", "edit", "ada@example.test",
                                                   "--email", "a b@c", "--first", "X")
    assert "exists already" in failing(cli, "client", "edit", "ada@example.test", "--email",
                                       "ALAN@example.test")
    assert "nothing to change" in failing(cli, "client", "edit", "ada@example.test")
    assert "unknown client" in failing(cli, "client", "edit", "nobody@example.test", "--first",
                                       "X")
    assert rows(cli, "SELECT * FROM dmclients ORDER BY Account") == before
    # Its own address in another case is not "taken".
    cli.run("client", "edit", "ada@example.test", "--email", "Ada@Example.test")
    assert count(cli, "dmclients", "EMail = 'Ada@Example.test'") == 1


def test_deleting_a_client_with_enrolments_asks_first(cli):
    welcome_campaign(cli)
    err = failing(cli, "client", "delete", "ada@example.test", input="n\n")
    assert "also deletes 1 enrolments" in err and "nothing deleted" in err
    assert count(cli, "dmclients") == 2 and count(cli, "dmclientsmrktcmp") == 2
    # No answer at all (stdin closed, as under cron) is a no.
    failing(cli, "client", "delete", "ada@example.test", input="")
    assert count(cli, "dmclients") == 2
    out = cli.run("client", "delete", "ada@example.test", input="y\n").stdout
    assert "deleted client ada@example.test and its 1 enrolments" in out
    assert count(cli, "dmclients") == 1 and count(cli, "dmclientsmrktcmp") == 1
    assert count(cli, "dmclients", "EMail = 'ada@example.test'") == 0


def test_deleting_a_client_without_other_rows_does_not_ask(cli):
    cli.run("client", "add", "--email", "lone@example.test")
    out = cli.out("client", "delete", "lone@example.test")
    assert "deleted client lone@example.test" in out
    assert count(cli, "dmclients") == 0


def test_deleting_a_campaign_takes_its_items_enrolments_runs_and_sent_items(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    send_today(cli, server)
    assert count(cli, "dmsentitems") == 2 and count(cli, "dmmrktcmphistory") == 1
    err = failing(cli, "campaign", "delete", "Welcome")
    assert "also deletes 2 items, 2 enrolments, 1 runs, 2 sent items" in err
    assert count(cli, "dmmrktcmp") == 1
    cli.run("campaign", "delete", "Welcome", "--yes")
    for table in ("dmmrktcmp", "dmmrktcmpitems", "dmclientsmrktcmp", "dmmrktcmphistory",
                  "dmsentitems"):
        assert count(cli, table) == 0, table
    assert count(cli, "dmclients") == 2


def test_campaign_edit_checks_type_and_name(cli):
    welcome_campaign(cli)
    cli.run("campaign", "add", "--name", "Other", "--type", "2")
    assert "neither a campaign kind nor a schedule code" in failing(
        cli, "campaign", "edit", "Welcome", "--type", "999")
    assert "exists already" in failing(cli, "campaign", "edit", "Welcome", "--name", "Other")
    assert "whole number" in failing(cli, "campaign", "edit", "Welcome", "--interval", "7x")
    assert "YYYY-MM-DD" in failing(cli, "campaign", "edit", "Welcome", "--effective", "March")
    cli.run("campaign", "edit", "Welcome", "--name", "Hello", "--type", "2", "--interval", "3",
            "--effective", "2026-04-01")
    assert rows(cli, "SELECT CampaignName, CampaignType, Interval, CampaignEffectiveDate FROM "
                     "dmmrktcmp WHERE CampaignName = 'Hello'") == [
        ("Hello", 2, 3, "2026-04-01 00:00:00")]


def test_item_edit_checks_the_template_and_stores_its_absolute_path(cli, tmp_path):
    welcome_campaign(cli)
    first = item_ids(cli)[0]
    assert "no template file" in failing(cli, "item", "edit", first, "--file", "missing.txt")
    broken = tmp_path / "broken.txt"
    broken.write_text("[HEADER]\n: x\n[/HEADER]\nbody\n")
    assert "the template cannot be used" in failing(cli, "item", "edit", first, "--file",
                                                    "broken.txt")
    (tmp_path / "sub").mkdir()
    (tmp_path / "sub" / "new.txt").write_text("Hello again\n")
    cli.run("item", "edit", first, "--file", "sub/new.txt", "--interval", "1")
    assert rows(cli, "SELECT MessageFileName, Interval FROM dmmrktcmpitems WHERE RecID = '%s'"
                % first) == [(str(tmp_path / "sub" / "new.txt"), 1)]
    assert "unknown item" in failing(cli, "item", "edit", "NOPE", "--interval", "1")


def test_deleting_an_item_that_was_sent_asks_and_takes_its_sent_items(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    send_today(cli, server)
    first, second = item_ids(cli)
    cli.run("item", "delete", second)  # never sent: nothing else goes, no question
    assert "also deletes 2 sent items" in failing(cli, "item", "delete", first, input="no\n")
    cli.run("item", "delete", first, input="yes\n")
    assert count(cli, "dmmrktcmpitems") == 0 and count(cli, "dmsentitems") == 0


def test_disabled_enrolments_and_items_get_nothing_until_enabled(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    cli.run("enrol", "disable", "--campaign", "Welcome", "ada@example.test")
    out = send_today(cli, server).stdout
    assert "skipped 1 messages of disabled" in out
    assert list(server.messages()) == ["alan@example.test"]
    cli.run("enrol", "enable", "--campaign", "Welcome", "ada@example.test")
    cli.run("item", "disable", item_ids(cli)[1])
    send_today(cli, server, "2026-03-02")
    assert sorted(server.messages()) == ["ada@example.test", "alan@example.test"]
    out = send_today(cli, server, "2026-03-03").stdout  # day two's item is disabled
    assert "skipped 2 messages of disabled" in out
    cli.run("item", "enable", item_ids(cli)[1])
    send_today(cli, server, "2026-03-04")
    got = server.messages()
    assert [len(got[a]) for a in sorted(got)] == [2, 2]
    assert "unknown client" in failing(cli, "enrol", "disable", "--campaign", "Welcome",
                                        "nobody@example.test")


def test_enrolment_edit_and_delete(cli):
    welcome_campaign(cli)
    cli.run("enrol", "edit", "--campaign", "Welcome", "ada@example.test", "--date", "2026-05-01")
    assert rows(cli, "SELECT e.EffectiveDate FROM dmclientsmrktcmp e JOIN dmclients c ON "
                     "c.Account = e.Account WHERE c.EMail = 'ada@example.test'") == [
        ("2026-05-01 00:00:00",)]
    cli.run("client", "add", "--email", "new@example.test")
    assert "is not enrolled in campaign" in failing(cli, "enrol", "delete", "--campaign",
                                                    "Welcome", "new@example.test")
    cli.run("enrol", "delete", "--campaign", "Welcome", "ada@example.test")
    assert count(cli, "dmclientsmrktcmp") == 1 and count(cli, "dmclients") == 3


def test_account_edit_disable_and_delete(cli, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    cli.run("account", "add", "--email", "news@quillo.example", "--server", "127.0.0.1",
            "--port", "1", "--password-env", "NEWS_PW", "--default")
    assert "wants yes or no" in failing(cli, "account", "edit", "news@quillo.example", "--auth",
                                        "maybe")
    assert "may not be empty" in failing(cli, "account", "edit", "news@quillo.example",
                                         "--server", " ")
    cli.run("account", "edit", "news@quillo.example", "--port", str(server.port))
    cli.run("account", "disable", "news@quillo.example")
    done = cli.run("send", "--campaign", "Welcome", "--date", "2026-03-01", "--account",
                   "news@quillo.example", "-q", check=False)
    assert done.returncode == 1 and "is disabled" in done.stderr
    assert server.messages() == {}
    cli.run("account", "enable", "news@quillo.example")
    cli.run("send", "--campaign", "Welcome", "--date", "2026-03-01", "-q")
    assert sorted(server.messages()) == ["ada@example.test", "alan@example.test"]
    cli.run("account", "delete", "news@quillo.example")
    assert count(cli, "dmsmtpaccounts") == 0
    assert count(cli, "quillo_account_secrets") == 0

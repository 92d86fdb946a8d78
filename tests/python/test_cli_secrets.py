"""No password leaves the command: a full run-and-send with --verbose, over
both delivery paths, with the password given by an account's variable, by a
file, by QUILLO_SMTP_PASSWORD and refused by the server, prints nothing and
writes nothing that holds the password in any of the forms it takes on the
wire (as typed, or Base64 inside AUTH PLAIN and AUTH LOGIN)."""
import base64
import os
import sqlite3

from test_cli import cli, smtp_server  # noqa: F401 (fixtures)

USER = "mailer"
PASSWORD = "Tr0ub4dor&3-secret"


def forms(password):
    """The password as typed and as AUTH PLAIN or AUTH LOGIN carries it."""
    b64 = lambda b: base64.b64encode(b).decode()  # noqa: E731
    raw = password.encode()
    return [password, b64(raw), b64(b"\0" + USER.encode() + b"\0" + raw),
            b64(USER.encode() + b"\0" + raw)]


def assert_nowhere(password, texts, folder, db_path):
    for text in texts:
        for form in forms(password):
            assert form not in text, "a form of the password was printed"
    for root, _, files in os.walk(folder):
        for name in files:
            path = os.path.join(root, name)
            if path == db_path or name.startswith("quillo.db"):
                continue
            data = open(path, "rb").read()
            for form in forms(password):
                assert form.encode() not in data, "a form of the password is in " + path
    # The database keeps what the command logged (sent items, the ledger,
    # the run history); only the account row may hold a password, and then
    # only when one was stored there.
    db = sqlite3.connect(db_path)
    tables = [r[0] for r in db.execute("SELECT name FROM sqlite_master WHERE type = 'table'")]
    for table in tables:
        if table == "dmsmtpaccounts":
            continue
        for row in db.execute('SELECT * FROM "%s"' % table):
            for form in forms(password):
                assert form not in repr(row), "a form of the password is in " + table
    db.close()


def campaign(cli):
    path = cli.folder / "item.txt"
    path.write_text("[HEADER]\nReplace: FIRST\n[/HEADER]\nDear <!--FIRST-->,\n")
    cli.run("campaign", "add", "--name", "Drip", "--type", "1")
    cli.run("campaign", "item", "--campaign", "Drip", "--file", str(path), "--interval", "0",
            "--description", "Hello")
    for n in range(3):
        address = "client%d@example.test" % n
        cli.run("client", "add", "--email", address, "--first", "C%d" % n)
        cli.run("enrol", "add", "--campaign", "Drip", "--client", address, "--date", "2026-03-01")


def test_a_verbose_send_with_the_password_from_a_variable_shows_it_nowhere(cli, smtp_server):
    server = smtp_server("--auth", "%s:%s" % (USER, PASSWORD))
    cli.run("account", "add", "--email", "news@quillo.example", "--server", "127.0.0.1", "--port",
            str(server.port), "--user", USER, "--auth", "--password-env", "MAILER_PW",
            "--default")
    campaign(cli)
    env = dict(os.environ, MAILER_PW=PASSWORD)
    texts = []
    for path in (["--compat"], []):
        date = "2026-03-01" if path else "2026-03-02"
        done = cli.run("--verbose", "send", "--campaign", "Drip", "--date", date,
                       "--allow-plaintext-auth", *path, env=env, check=False)
        texts += [done.stdout, done.stderr]
        assert done.returncode == 0, done.stderr
    # The run of 2026-03-01 sent the item; the compat path did the delivery.
    assert sorted(server.messages()) == ["client%d@example.test" % n for n in range(3)]
    assert any("AUTH" in t for t in texts), "the verbose transcript shows the dialogue"
    texts += [cli.run("status", "--campaign", "Drip").stdout,
              cli.run("record", "export", "dmsmtpaccounts", "news@quillo.example",
                      check=False).stdout]
    assert_nowhere(PASSWORD, texts, str(cli.folder), str(cli.folder / "quillo.db"))


def test_a_verbose_send_with_the_password_from_a_file_or_the_environment_shows_it_nowhere(
        cli, smtp_server):
    server = smtp_server("--auth", "%s:%s" % (USER, PASSWORD))
    secret_file = cli.folder / "secrets" / "smtp.pw"
    secret_file.parent.mkdir()
    secret_file.write_text(PASSWORD + "\n")
    cli.run("account", "add", "--email", "news@quillo.example", "--server", "127.0.0.1", "--port",
            str(server.port), "--user", USER, "--auth", "--password-file", str(secret_file),
            "--default")
    campaign(cli)
    texts = []
    done = cli.run("--verbose", "send", "--campaign", "Drip", "--date", "2026-03-01",
                   "--allow-plaintext-auth", check=False)
    texts += [done.stdout, done.stderr]
    assert done.returncode == 0, done.stderr
    queue = cli.folder / "q.txt"
    cli.run("run", "--campaign", "Drip", "--date", "2026-03-01", "--queue", str(queue), "-q")
    url = "smtp://%s@127.0.0.1:%d" % (USER, server.port)
    env = dict(os.environ, QUILLO_SMTP_PASSWORD=PASSWORD)
    done = cli.run("--verbose", "send", "--queue", str(queue), "--smtp", url, "--from",
                   "news@quillo.example", "--allow-plaintext-auth", "--resend-in-doubt",
                   env=env, check=False)
    texts += [done.stdout, done.stderr]
    secret_file.unlink()  # only the command's own output is checked below
    assert_nowhere(PASSWORD, texts, str(cli.folder), str(cli.folder / "quillo.db"))
    assert len(server.messages()) == 3


def test_a_refused_password_is_not_printed_in_the_failure(cli, smtp_server):
    # aiosmtpd answers a wrong password with silence, so the sends end in a
    # (short) reply timeout after the masked AUTH line.
    server = smtp_server("--auth", "%s:%s" % (USER, "the-right-one"))
    campaign(cli)
    queue = cli.folder / "q.txt"
    cli.run("run", "--campaign", "Drip", "--date", "2026-03-01", "--queue", str(queue), "-q")
    url = "smtp://%s@127.0.0.1:%d" % (USER, server.port)
    env = dict(os.environ, QUILLO_SMTP_PASSWORD=PASSWORD)
    texts = []
    for path in (["--compat"], []):
        done = cli.run("--verbose", "send", "--queue", str(queue), "--smtp", url, "--from",
                       "news@quillo.example", "--allow-plaintext-auth", "--timeout", "3", *path,
                       env=env, check=False)
        texts += [done.stdout, done.stderr]
        assert done.returncode != 0, done.stdout
    assert server.messages() == {}
    assert_nowhere(PASSWORD, texts, str(cli.folder), str(cli.folder / "quillo.db"))

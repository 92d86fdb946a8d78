"""The quillo command end to end: a SQLite file made by `init`, records added
through the commands, a campaign run into a queue file, and the queue sent to a
real SMTP server (aiosmtpd) on loopback that files what it receives in a
Maildir, read back with Python's own MIME parser."""
import email
import email.policy
import mailbox
import sqlite3
import os
import subprocess
import sys
import time

import pytest

_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
_BUILD = os.environ.get("QUILLO_BUILD_DIR") or os.path.join(_ROOT, "build", "release")
QUILLO = os.path.join(_BUILD, "cli", "quillo")
SMTPD = os.path.join(_ROOT, "tests", "support", "maildir_smtpd.py")


class Cli:
    def __init__(self, folder):
        self.folder = folder
        self.db = "sqlite:" + str(folder / "quillo.db")

    def run(self, *args, check=True, env=None, input=None):
        done = subprocess.run([QUILLO, "--db", self.db, *args], cwd=self.folder,
                              capture_output=True, text=True, timeout=120, env=env,
                              input=input if input is not None else "")
        if check:
            assert done.returncode == 0, done.stderr
        return done

    def out(self, *args):
        return self.run(*args).stdout

    def template(self, name, header, body):
        path = self.folder / name
        lines = ["[HEADER]", *header, "[/HEADER]", *body]
        path.write_bytes(("\r\n".join(lines) + "\r\n").encode())
        return str(path)


@pytest.fixture
def cli(tmp_path):
    if not os.path.exists(QUILLO):
        pytest.fail("the quillo command is not built: " + QUILLO)
    c = Cli(tmp_path)
    c.run("init")
    return c


class MaildirServer:
    """aiosmtpd on loopback, filing what it accepts in a Maildir; stops by itself."""

    def __init__(self, folder, *options):
        self.box = folder / "Maildir"
        port_file = folder / "smtp.port"
        self.process = subprocess.Popen([sys.executable, SMTPD, "--maildir", str(self.box),
                                         "--port-file", str(port_file), "--seconds", "60",
                                         *options])
        for _ in range(200):
            if port_file.exists() and port_file.read_text().strip():
                break
            time.sleep(0.05)
        else:
            self.stop()
            pytest.fail("the SMTP server did not start")
        self.port = int(port_file.read_text())

    def messages(self):
        found = {}
        for _key, msg in mailbox.Maildir(str(self.box), create=False).items():
            parsed = email.message_from_bytes(msg.as_bytes(), policy=email.policy.default)
            # Keyed by the recipient's address: our own delivery path adds the
            # client's name to To, the documented classes do not.
            found.setdefault(parsed["To"].addresses[0].addr_spec, []).append(parsed)
        return found

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=10)


@pytest.fixture
def smtp_server(tmp_path):
    servers = []

    def start(*options):
        servers.append(MaildirServer(tmp_path, *options))
        return servers[-1]

    yield start
    for server in servers:
        server.stop()


def welcome_campaign(cli):
    cli.run("campaign", "add", "--name", "Welcome", "--type", "1")
    first = cli.template("welcome.txt", ["Replace: FIRST"], ["Dear <!--FIRST-->,", "welcome."])
    later = cli.template("later.txt", ["Replace: FIRST"], ["Two days on, <!--FIRST-->."])
    cli.run("campaign", "item", "--campaign", "Welcome", "--file", first, "--interval", "0",
            "--description", "Welcome!")
    cli.run("campaign", "item", "--campaign", "Welcome", "--file", later, "--interval", "2",
            "--description", "Day two")
    for mail, first_name in [("ada@example.test", "Ada"), ("alan@example.test", "Alan")]:
        cli.run("client", "add", "--email", mail, "--first", first_name, "--last", "Client")
        cli.run("enrol", "add", "--campaign", "Welcome", "--client", mail, "--date", "2026-03-01")


def test_init_on_a_new_file_creates_an_empty_store(cli):
    listing = cli.out("campaign", "list")
    assert listing.split("\n")[0].split() == ["ID", "NAME", "TYPE", "INTERVAL", "EFFECTIVE",
                                               "DESCRIPTION"]
    assert listing.strip().split("\n")[1:] == ["(none)"]


def test_added_records_are_listed(cli):
    welcome_campaign(cli)
    assert "Welcome" in cli.out("campaign", "list")
    items = cli.out("campaign", "items", "--campaign", "Welcome")
    assert "welcome.txt" in items and "later.txt" in items
    clients = cli.out("client", "list")
    assert "ada@example.test" in clients and "alan@example.test" in clients
    enrolled = cli.out("enrol", "list", "--campaign", "Welcome")
    assert enrolled.count("2026-03-01") == 2


def test_client_import_reads_every_csv_row(cli, tmp_path):
    rows = ["email,first,last,company,address,city,state,zip,country"]
    rows += ["c%d@example.test,C%d,Client,Co,%d Main St,Springfield,IL,62701,USA" % (i, i, i)
             for i in range(25)]
    (tmp_path / "clients.csv").write_text("\n".join(rows) + "\n")
    cli.run("client", "import", str(tmp_path / "clients.csv"))
    listing = cli.out("client", "list")
    assert sum(1 for i in range(25) if "c%d@example.test" % i in listing) == 25


def test_keys_made_by_the_command_begin_with_the_time_they_were_made(cli, tmp_path):
    # So that rows made one after another sit together in a key's index.
    rows = ["email,first,last"] + ["k%d@example.test,K%d,Client" % (i, i) for i in range(50)]
    (tmp_path / "clients.csv").write_text("\n".join(rows) + "\n")
    before = int(time.time() * 1000)
    cli.run("client", "import", str(tmp_path / "clients.csv"))
    after = int(time.time() * 1000)
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    keys = [k for (k,) in db.execute("SELECT Account FROM dmclients")]
    db.close()
    assert len(keys) == 50 and len(set(keys)) == 50
    for key in keys:
        assert len(key) == 32 and all(c in "0123456789ABCDEF" for c in key), key
        assert before <= int(key[:12], 16) <= after, key


def test_run_queues_the_items_due_on_the_date(cli, tmp_path):
    welcome_campaign(cli)
    queue = tmp_path / "day0.txt"
    cli.run("run", "--campaign", "Welcome", "--date", "2026-03-01", "--queue", str(queue), "-q")
    assert cli.out("queue", "count", str(queue)).strip() == "2"
    shown = cli.out("queue", "show", str(queue))
    assert "ada@example.test" in shown and "alan@example.test" in shown
    assert "welcome.txt" in shown and "later.txt" not in shown


def test_preview_personalises_the_template_for_the_client(cli):
    welcome_campaign(cli)
    raw = cli.out("preview", "--compat", "--template", str(cli.folder / "welcome.txt"),
                  "--client", "ada@example.test", "--subject", "Welcome!")
    message = email.message_from_string(raw, policy=email.policy.default)
    assert message["To"] == "ada@example.test"
    assert message["Subject"] == "Welcome!"
    assert "Dear Ada," in raw


def test_unknown_campaign_is_a_clear_error(cli):
    done = cli.run("campaign", "items", "--campaign", "Nope", check=False)
    assert done.returncode != 0
    assert "unknown campaign 'Nope'" in done.stderr


def test_a_connection_text_without_an_engine_is_refused(tmp_path):
    done = subprocess.run([QUILLO, "--db", "mysql:x", "init"], capture_output=True, text=True,
                          timeout=60, cwd=tmp_path)
    assert done.returncode != 0
    assert "cannot open database 'mysql:x'" in done.stderr


def test_sending_to_a_closed_port_fails_without_losing_the_queue(cli, tmp_path):
    welcome_campaign(cli)
    queue = tmp_path / "q.txt"
    cli.run("run", "--campaign", "Welcome", "--date", "2026-03-01", "--queue", str(queue), "-q")
    done = cli.run("send", "--queue", str(queue), "--smtp", "smtp://127.0.0.1:1", "--timeout", "5",
                   "-q", check=False)
    assert done.returncode != 0
    assert "cannot reach SMTP server 127.0.0.1:1" in done.stderr
    assert cli.out("queue", "count", str(queue)).strip() == "2"


def queue_for_day0(cli, tmp_path):
    queue = tmp_path / "q.txt"
    cli.run("run", "--campaign", "Welcome", "--date", "2026-03-01", "--queue", str(queue), "-q")
    return queue


def test_send_delivers_personalised_mail_to_a_real_server(cli, tmp_path, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    cli.run("account", "add", "--email", "news@quillo.example", "--server", "127.0.0.1", "--port",
            str(server.port), "--friendly", "Quillo News", "--default")
    assert "news@quillo.example" in cli.out("account", "list")
    queue = queue_for_day0(cli, tmp_path)
    summary = cli.out("send", "--queue", str(queue), "--templates", str(tmp_path), "-q")
    assert "sent 2, refused 0, failed 0" in summary

    got = server.messages()
    assert sorted(got) == ["ada@example.test", "alan@example.test"]
    for mail, name in [("ada@example.test", "Ada"), ("alan@example.test", "Alan")]:
        (parsed,) = got[mail]
        assert parsed["Subject"] == "Welcome!"
        assert "news@quillo.example" in str(parsed["From"])
        assert "Dear %s," % name in parsed.get_content()


def test_sending_a_queue_twice_does_not_repeat_accepted_messages(cli, tmp_path, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    queue = queue_for_day0(cli, tmp_path)
    url = "smtp://127.0.0.1:%d" % server.port
    cli.run("send", "--queue", str(queue), "--smtp", url, "-q")
    again = cli.out("send", "--queue", str(queue), "--smtp", url, "-q")
    assert "sent 0" in again and "already sent 2" in again
    assert {k: len(v) for k, v in server.messages().items()} == {"ada@example.test": 1,
                                                                 "alan@example.test": 1}


def test_a_refused_recipient_is_not_logged_and_never_sent_again(cli, tmp_path, smtp_server):
    server = smtp_server("--refuse", "alan@example.test")
    welcome_campaign(cli)
    queue = queue_for_day0(cli, tmp_path)
    url = "smtp://127.0.0.1:%d" % server.port
    first = cli.run("send", "--queue", str(queue), "--smtp", url, "-q", check=False)
    assert "sent 1, refused 1" in first.stdout
    assert first.returncode == 3
    again = cli.run("send", "--queue", str(queue), "--smtp", url, "-q", check=False)
    assert "sent 0, refused 1" in again.stdout and "already sent 1" in again.stdout
    # A refusal (5xx) is final: the rerun reports it and tries nothing.
    assert "refused before 1 (a refusal is final: not sent again)" in again.stdout
    assert sorted(server.messages()) == ["ada@example.test"]
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    assert db.execute("SELECT State, Attempts FROM quillo_deliveries WHERE Email = "
                      "'alan@example.test'").fetchall() == [("refused", 1)]
    db.close()


def test_auth_login_takes_the_password_from_the_environment(cli, tmp_path, smtp_server):
    server = smtp_server("--auth", "mailer:s3cret")
    welcome_campaign(cli)
    queue = queue_for_day0(cli, tmp_path)
    url = "smtp://mailer@127.0.0.1:%d" % server.port
    env = dict(os.environ, QUILLO_SMTP_PASSWORD="s3cret")
    done = cli.run("--verbose", "send", "--queue", str(queue), "--smtp", url,
                   "--allow-plaintext-auth", "-q", env=env)
    assert "sent 2" in done.stdout
    assert "s3cret" not in done.stdout + done.stderr
    assert sorted(server.messages()) == ["ada@example.test", "alan@example.test"]


def test_auth_without_a_password_is_a_clear_error(cli, tmp_path, smtp_server):
    server = smtp_server("--auth", "mailer:s3cret")
    welcome_campaign(cli)
    queue = queue_for_day0(cli, tmp_path)
    env = {k: v for k, v in os.environ.items() if k != "QUILLO_SMTP_PASSWORD"}
    done = subprocess.run([QUILLO, "--db", cli.db, "send", "--queue", str(queue), "--smtp",
                           "smtp://mailer@127.0.0.1:%d" % server.port, "-q"],
                          cwd=tmp_path, capture_output=True, text=True, timeout=60, env=env,
                          stdin=subprocess.DEVNULL)
    assert done.returncode != 0
    assert "QUILLO_SMTP_PASSWORD" in done.stderr
    assert server.messages() == {}


def test_smtps_sends_over_implicit_tls_to_a_trusted_certificate(cli, tmp_path, smtp_server):
    cert, key = tmp_path / "cert.pem", tmp_path / "key.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                    "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
                    "-keyout", str(key), "-out", str(cert)], check=True, capture_output=True,
                   timeout=60)
    server = smtp_server("--tls", "%s:%s" % (cert, key))
    welcome_campaign(cli)
    queue = queue_for_day0(cli, tmp_path)
    done = cli.run("send", "--queue", str(queue), "--smtp", "smtps://127.0.0.1:%d" % server.port,
                   "--ca-file", str(cert), "-q")
    assert "sent 2" in done.stdout
    assert sorted(server.messages()) == ["ada@example.test", "alan@example.test"]


def test_smtps_refuses_an_untrusted_certificate(cli, tmp_path, smtp_server):
    cert, key = tmp_path / "cert.pem", tmp_path / "key.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                    "-subj", "/CN=127.0.0.1", "-keyout", str(key), "-out", str(cert)],
                   check=True, capture_output=True, timeout=60)
    server = smtp_server("--tls", "%s:%s" % (cert, key))
    welcome_campaign(cli)
    queue = queue_for_day0(cli, tmp_path)
    done = cli.run("send", "--queue", str(queue), "--smtp", "smtps://127.0.0.1:%d" % server.port,
                   "--timeout", "10", "-q", check=False)
    assert done.returncode != 0
    assert server.messages() == {}


def test_run_and_send_in_one_go(cli, tmp_path, smtp_server):
    server = smtp_server()
    welcome_campaign(cli)
    done = cli.run("send", "--campaign", "Welcome", "--date", "2026-03-03", "--smtp",
                   "smtp://127.0.0.1:%d" % server.port, "--templates", str(tmp_path), "-q")
    assert "sent" in done.stdout
    subjects = sorted(m["Subject"] for msgs in server.messages().values() for m in msgs)
    assert "Day two" in subjects


def test_record_export_then_import_round_trips_a_row(cli, tmp_path):
    cli.run("client", "add", "--email", "grace@example.test", "--first", "Grace", "--city", "Arlington")
    account = cli.out("client", "list").split("\n")[1].split()[0]
    xml = cli.out("record", "export", "dmclients", account)
    assert "<EMAIL>grace@example.test</EMAIL>" in xml
    assert "<CITY>Arlington</CITY>" in xml

    other = Cli(tmp_path / "other")
    os.mkdir(other.folder)
    other.run("init")
    (tmp_path / "row.xml").write_text(xml.replace("Arlington", "Boston"))
    # A key that no row has is saved as a new row under a fresh key, which the command prints.
    fresh = other.out("record", "import", "dmclients", str(tmp_path / "row.xml")).strip()
    assert len(fresh) == 32 and fresh != account
    again = other.out("record", "export", "dmclients", fresh)
    assert "<EMAIL>grace@example.test</EMAIL>" in again
    assert "<CITY>Boston</CITY>" in again


def test_schedule_shows_the_run_dates_and_the_code_text(cli):
    cli.run("campaign", "add", "--name", "Monthly", "--type", "203", "--interval", "15")
    shown = cli.out("schedule", "--campaign", "Monthly", "--date", "2026-03-01")
    lines = dict(line.split(":", 1) for line in shown.strip().split("\n"))
    assert lines["code"].strip().startswith("203")
    assert lines["next"].strip() == "2026-03-15"
    assert lines["previous"].strip() == "2026-02-15"


def test_enrol_import_reads_email_and_date_rows(cli, tmp_path):
    welcome_campaign(cli)
    cli.run("client", "add", "--email", "grace@example.test")
    (tmp_path / "enrol.csv").write_text("email,date\ngrace@example.test,2026-02-27\n")
    cli.run("enrol", "import", "--campaign", "Welcome", str(tmp_path / "enrol.csv"))
    assert "2026-02-27" in cli.out("enrol", "list", "--campaign", "Welcome")


@pytest.mark.parametrize("args, message", [
    (["run", "--campaign", "Welcome", "--date", "2026-02-30"], "date"),
    (["run", "--campaign", "Welcome", "--date", "yesterday"], "date"),
    (["enrol", "add", "--campaign", "Welcome", "--client", "nobody@example.test"], "nobody"),
    (["queue", "count", "no-such-queue.txt"], "no-such-queue.txt"),
    (["record", "export", "nosuchtable", "x"], "nosuchtable"),
    (["record", "import", "dmclients", "missing.xml"], "missing.xml"),
    (["preview", "--template", "missing.txt", "--client", "ada@example.test"], "missing.txt"),
    (["send", "--queue", "q.txt", "--smtp", "ftp://127.0.0.1"], "ftp://127.0.0.1"),
])
def test_bad_input_is_a_one_line_error(cli, args, message):
    welcome_campaign(cli)
    (cli.folder / "q.txt").write_text("")
    done = cli.run(*args, check=False)
    assert done.returncode != 0
    assert done.stderr.startswith("quillo: error: "), done.stderr
    assert done.stderr.strip().count("\n") == 0
    assert message in done.stderr


def test_every_command_has_help(cli):
    for command in ["init", "campaign", "client", "enrol", "account", "run", "send", "schedule",
                    "queue", "record", "preview"]:
        assert "Usage" in cli.out(command, "--help")


def fresh_postgresql_database(prefix):
    """The URI of a new, empty database of its own on the PostgreSQL test
    server, so that the tables it gets meet no other suite's; skips the
    test where there is no server."""
    uri = os.environ.get("QUILLO_TEST_PG")
    if not uri:
        pytest.skip("QUILLO_TEST_PG names no PostgreSQL test server")
    name = "%s_%d" % (prefix, os.getpid())
    admin = subprocess.run(["psql", uri, "-qc", "DROP DATABASE IF EXISTS %s" % name, "-c",
                            "CREATE DATABASE %s" % name], capture_output=True, text=True,
                           timeout=60)
    assert admin.returncode == 0, admin.stderr
    return uri.rsplit("/", 1)[0] + "/" + name


def test_a_postgresql_uri_works_like_a_file(tmp_path):
    cli = Cli(tmp_path)
    cli.db = fresh_postgresql_database("quillo_cli")
    cli.run("init")
    name = "Pg campaign %d" % os.getpid()
    cli.run("campaign", "add", "--name", name, "--type", "2")
    assert name in cli.out("campaign", "list")

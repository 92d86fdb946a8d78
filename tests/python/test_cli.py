"""The quillo command end to end: a SQLite file made by `init`, records added
through the commands, a campaign run into a queue file, and the queue sent to a
real SMTP server (aiosmtpd) on loopback that files what it receives in a
Maildir, read back with Python's own MIME parser."""
import email
import email.policy
import mailbox
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

    def run(self, *args, check=True, env=None):
        done = subprocess.run([QUILLO, "--db", self.db, *args], cwd=self.folder,
                              capture_output=True, text=True, timeout=120, env=env)
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


@pytest.fixture
def maildir_server(tmp_path):
    box = tmp_path / "Maildir"
    port_file = tmp_path / "smtp.port"
    server = subprocess.Popen([sys.executable, SMTPD, "--maildir", str(box), "--port-file", str(port_file),
                               "--seconds", "60"])
    try:
        for _ in range(200):
            if port_file.exists() and port_file.read_text().strip():
                break
            time.sleep(0.05)
        else:
            pytest.fail("the SMTP server did not start")
        yield int(port_file.read_text()), box
    finally:
        server.terminate()
        server.wait(timeout=10)


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
    raw = cli.out("preview", "--template", str(cli.folder / "welcome.txt"), "--client",
                  "ada@example.test", "--subject", "Welcome!")
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


def test_send_delivers_personalised_mail_to_a_real_server(cli, tmp_path, maildir_server):
    port, box = maildir_server
    welcome_campaign(cli)
    cli.run("account", "add", "--email", "news@quillo.example", "--server", "127.0.0.1", "--port",
            str(port), "--friendly", "Quillo News", "--default")
    queue = tmp_path / "q.txt"
    cli.run("run", "--campaign", "Welcome", "--date", "2026-03-01", "--queue", str(queue), "-q")
    cli.run("send", "--queue", str(queue), "--templates", str(tmp_path), "-q")

    got = {}
    for _key, msg in mailbox.Maildir(str(box), create=False).items():
        parsed = email.message_from_bytes(msg.as_bytes(), policy=email.policy.default)
        got[str(parsed["To"])] = parsed
    assert sorted(got) == ["ada@example.test", "alan@example.test"]
    for mail, name in [("ada@example.test", "Ada"), ("alan@example.test", "Alan")]:
        parsed = got[mail]
        assert parsed["Subject"] == "Welcome!"
        assert "news@quillo.example" in str(parsed["From"])
        assert "Dear %s," % name in parsed.get_content()


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

"""The command's own delivery path end to end: `quillo send` and `quillo preview`
compose standard messages and deliver them to a real SMTP server (aiosmtpd) on
loopback; hostile content in templates and client fields reaches the server
as exactly one intended message, or is refused up front with a reason; and
--compat still selects the library's documented classes."""
import email
import email.policy
import os
import subprocess

import pytest

# The command and its aiosmtpd server, as the other command tests use them.
from test_cli import QUILLO, cli, smtp_server  # noqa: F401 (fixtures)


def campaign(cli, body, *, header=("Replace: FIRST",), description="Hello <!--FIRST-->",
             clients=(("ada@example.test", "Ada", "Lovelace"),), line_end="\r\n"):
    """One sequential campaign with one item due on enrolment, for `clients`."""
    path = cli.folder / "item.txt"
    lines = ["[HEADER]", *header, "[/HEADER]", *body] if header is not None else list(body)
    path.write_bytes((line_end.join(lines) + line_end).encode())
    cli.run("campaign", "add", "--name", "Drip", "--type", "1")
    cli.run("campaign", "item", "--campaign", "Drip", "--file", str(path), "--interval", "0",
            "--description", description)
    for address, first, last in clients:
        cli.run("client", "add", "--email", address, "--first", first, "--last", last)
        cli.run("enrol", "add", "--campaign", "Drip", "--client", address, "--date", "2026-03-01")
    queue = cli.folder / "q.txt"
    cli.run("run", "--campaign", "Drip", "--date", "2026-03-01", "--queue", str(queue), "-q")
    return queue


def send(cli, queue, server, *extra, check=False, env=None):
    return cli.run("send", "--queue", str(queue), "--smtp", "smtp://127.0.0.1:%d" % server.port,
                   "--from", "news@quillo.example", "--from-name", "Quillo News", "-q", *extra,
                   check=check, env=env)


def only_message(server, address):
    got = server.messages()
    assert list(got) == [address], got
    (message,) = got[address]
    return message


def test_send_composes_a_standard_message_by_default(cli, smtp_server):
    server = smtp_server()
    queue = campaign(cli, ["Dear <!--FIRST-->,", "welcome."])
    done = send(cli, queue, server)
    assert done.returncode == 0, done.stderr
    assert "sent 1, refused 0, failed 0" in done.stdout
    message = only_message(server, "ada@example.test")
    assert message["Message-ID"].startswith("<") and message["Message-ID"].endswith(
        "@quillo.example>")
    assert message["Date"].datetime is not None
    assert message["MIME-Version"] == "1.0"
    assert message["X-Mailer"].startswith("quillo ")
    assert message["Subject"] == "Hello Ada"
    assert message["From"].addresses[0].display_name == "Quillo News"
    assert message["To"].addresses[0].display_name == "Ada Lovelace"
    assert message.get_content_charset() == "utf-8"
    assert message.get_content() == "Dear Ada,\nwelcome.\n"
    assert message.defects == []


def test_a_lone_dot_line_arrives_as_text_and_ends_nothing(cli, smtp_server):
    server = smtp_server()
    body = ["first line", ".", "MAIL FROM:<evil@example.test>", "RCPT TO:<victim@example.test>",
            ".hidden dot", "last line"]
    queue = campaign(cli, body, header=None)
    done = send(cli, queue, server)
    assert done.returncode == 0, done.stderr
    message = only_message(server, "ada@example.test")
    assert message.get_content() == "\n".join(body) + "\n"


def test_a_line_break_in_a_client_name_refuses_that_message_only(cli, smtp_server):
    server = smtp_server()
    queue = campaign(cli, ["Hi <!--FIRST-->"], clients=[
        ("ada@example.test", "Ada", "Lovelace"),
        ("eve@example.test", "Eve\r\nBcc: victim@example.test", "X"),
    ])
    done = send(cli, queue, server)
    assert done.returncode == 3
    assert "sent 1, refused 1" in done.stdout
    assert "eve@example.test refused: not sent:" in done.stderr
    assert list(server.messages()) == ["ada@example.test"]
    again = send(cli, queue, server)
    assert "already sent 1" in again.stdout and "refused 1" in again.stdout


def test_a_line_break_in_the_description_never_becomes_a_header(cli, smtp_server):
    server = smtp_server()
    queue = campaign(cli, ["Hi"], description="Hi\r\nBcc: victim@example.test")
    done = send(cli, queue, server)
    assert done.returncode == 3
    assert "refused: not sent:" in done.stderr
    assert server.messages() == {}


def test_templates_with_lf_line_endings_work_like_crlf_ones(cli, smtp_server):
    server = smtp_server()
    queue = campaign(cli, ["Dear <!--FIRST-->,", "bye."], line_end="\n")
    done = send(cli, queue, server)
    assert done.returncode == 0, done.stderr
    message = only_message(server, "ada@example.test")
    assert message.get_content() == "Dear Ada,\nbye.\n"
    assert "Replace" not in message.get_content()


def test_non_ascii_names_and_subjects_are_encoded_words(cli, smtp_server):
    server = smtp_server()
    queue = campaign(cli, ["Grüße, <!--FIRST--> 🎉"], description="Für <!--FIRST--> ✉",
                     clients=[("zoe@example.test", "Zoë", "Ñúñez")])
    done = send(cli, queue, server)
    assert done.returncode == 0, done.stderr
    message = only_message(server, "zoe@example.test")
    assert message["Subject"] == "Für Zoë ✉"
    assert message["To"].addresses[0].display_name == "Zoë Ñúñez"
    assert message.get_content() == "Grüße, Zoë 🎉\n"
    raw_headers = message.as_bytes().split(b"\n\n", 1)[0]
    assert b"=?utf-8?" in raw_headers.lower()


def test_a_refused_recipient_makes_send_exit_non_zero(cli, smtp_server):
    server = smtp_server("--refuse", "ada@example.test")
    queue = campaign(cli, ["Hi"])
    done = send(cli, queue, server)
    assert done.returncode == 3
    assert "ada@example.test refused: " in done.stderr
    assert "550" in done.stderr


def test_auth_is_never_sent_in_clear_without_allow_plaintext_auth(cli, smtp_server):
    server = smtp_server("--auth", "mailer:s3cret")
    queue = campaign(cli, ["Hi"])
    env = dict(os.environ, QUILLO_SMTP_PASSWORD="s3cret")
    done = cli.run("--verbose", "send", "--queue", str(queue), "--smtp",
                   "smtp://mailer@127.0.0.1:%d" % server.port, "-q", check=False, env=env)
    assert done.returncode != 0
    assert "s3cret" not in done.stdout + done.stderr
    assert server.messages() == {}


def make_certificate(folder, name="127.0.0.1"):
    cert, key = folder / "cert.pem", folder / "key.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                    "-subj", "/CN=" + name, "-addext", "subjectAltName=IP:127.0.0.1",
                    "-keyout", str(key), "-out", str(cert)], check=True, capture_output=True,
                   timeout=60)
    return cert, key


def test_starttls_required_sends_auth_inside_tls(cli, smtp_server, tmp_path):
    cert, key = make_certificate(tmp_path)
    server = smtp_server("--starttls", "%s:%s" % (cert, key), "--auth", "mailer:s3cret")
    queue = campaign(cli, ["Hi"])
    env = dict(os.environ, QUILLO_SMTP_PASSWORD="s3cret")
    done = cli.run("send", "--queue", str(queue), "--smtp",
                   "smtp://mailer@127.0.0.1:%d" % server.port, "--tls", "required", "--ca-file",
                   str(cert), "--from", "news@quillo.example", "-q", check=False, env=env)
    assert done.returncode == 0, done.stderr
    assert list(server.messages()) == ["ada@example.test"]


def test_starttls_required_refuses_an_untrusted_certificate(cli, smtp_server, tmp_path):
    cert, key = make_certificate(tmp_path)
    server = smtp_server("--starttls", "%s:%s" % (cert, key))
    queue = campaign(cli, ["Hi"])
    done = send(cli, queue, server, "--tls", "required")
    assert done.returncode != 0
    assert "certificate" in done.stderr.lower()
    assert server.messages() == {}


def test_starttls_required_refuses_a_server_without_it(cli, smtp_server):
    server = smtp_server()
    queue = campaign(cli, ["Hi"])
    done = send(cli, queue, server, "--tls", "required")
    assert done.returncode != 0
    assert "STARTTLS" in done.stderr
    assert server.messages() == {}


def test_preview_shows_the_standard_message(cli):
    path = cli.folder / "t.txt"
    path.write_bytes(b"[HEADER]\nReplace: FIRST\nX-Campaign: spring\nMAILACCOUNT: x@y.test\n"
                     b"[/HEADER]\nDear <!--FIRST-->,\n.\nbye\n")
    cli.run("client", "add", "--email", "ada@example.test", "--first", "Ada", "--last", "L")
    raw = cli.run("preview", "--template", str(path), "--client", "ada@example.test",
                  "--subject", "Hi <!--FIRST-->").stdout
    message = email.message_from_string(raw, policy=email.policy.default)
    assert message["Subject"] == "Hi Ada"
    assert message["X-Campaign"] == "spring"
    assert message["MAILACCOUNT"] is None
    assert message["Message-ID"] is not None
    assert message.get_content() == "Dear Ada,\n.\nbye\n"


def test_compat_sends_through_the_documented_classes(cli, smtp_server):
    server = smtp_server()
    queue = campaign(cli, ["Dear <!--FIRST-->,"])
    done = send(cli, queue, server, "--compat")
    assert done.returncode == 0, done.stderr
    message = only_message(server, "ada@example.test")
    # The documented classes give no Message-ID and leave To without a name.
    assert message["Message-ID"] is None
    assert str(message["To"]) == "ada@example.test"


def test_a_closed_connection_is_a_clear_failure(cli):
    queue = campaign(cli, ["Hi"])
    done = cli.run("send", "--queue", str(queue), "--smtp", "smtp://127.0.0.1:1", "-q",
                   check=False)
    assert done.returncode == 1
    assert "cannot reach SMTP server 127.0.0.1:1" in done.stderr


def many_clients(cli, n):
    """A campaign with one item due on enrolment, and `n` enrolled clients."""
    clients = cli.folder / "clients.csv"
    clients.write_text("email,first,last\n" +
                       "".join("c%04d@example.test,First%d,Last\n" % (i, i) for i in range(n)))
    enrolments = cli.folder / "enrol.csv"
    enrolments.write_text("email,date\n" +
                          "".join("c%04d@example.test,2026-03-01\n" % i for i in range(n)))
    path = cli.folder / "item.txt"
    path.write_bytes(b"[HEADER]\r\nReplace: FIRST\r\n[/HEADER]\r\nHi <!--FIRST-->\r\n")
    cli.run("campaign", "add", "--name", "Drip", "--type", "1")
    cli.run("campaign", "item", "--campaign", "Drip", "--file", str(path), "--interval", "0",
            "--description", "Hi")
    cli.run("client", "import", str(clients))
    cli.run("enrol", "import", "--campaign", "Drip", str(enrolments))
    queue = cli.folder / "q.txt"
    cli.run("run", "--campaign", "Drip", "--date", "2026-03-01", "--queue", str(queue), "-q")
    assert cli.out("queue", "count", str(queue)).strip() == str(n)
    return queue


def test_two_senders_on_one_queue_send_each_message_once(cli, smtp_server):
    server = smtp_server()
    queue = many_clients(cli, 300)
    args = [QUILLO, "--db", cli.db, "send", "--queue", str(queue), "--smtp",
            "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example", "-q"]
    senders = [subprocess.Popen(args, cwd=cli.folder, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True) for _ in range(2)]
    results = [s.communicate(timeout=120) for s in senders]
    for sender, (out, err) in zip(senders, results):
        assert sender.returncode == 0, err
    got = server.messages()
    assert len(got) == 300
    assert all(len(messages) == 1 for messages in got.values())
    sent = sum(int(out.split("sent ")[1].split(",")[0]) for out, _ in results)
    assert sent == 300


def test_claims_of_a_stopped_sender_are_reported_and_not_resent(cli, smtp_server):
    import sqlite3
    server = smtp_server()
    queue = campaign(cli, ["Hi"], clients=[("ada@example.test", "Ada", "L"),
                                           ("alan@example.test", "Alan", "T")])
    cli.run("status")  # creates the ledger table
    line = [l for l in queue.read_text().splitlines() if "ada@example.test" in l][0]
    fields = [f.strip('"') for f in line.split('","')]
    client_key, item_id, campaign_id = fields[2], fields[3], fields[5]
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    db.execute("INSERT INTO quillo_deliveries (CampaignRecID, CampaignItemRecID, Account, Email,"
               " State, Attempts, Worker, Updated) VALUES (?, ?, ?, ?, 'claimed', 0, ?,"
               " '2026-01-01 00:00:00')",
               (campaign_id, item_id, client_key, "ada@example.test", "gone.example:1"))
    db.commit()
    db.close()
    done = send(cli, queue, server)
    assert done.returncode == 3
    assert "ada@example.test in doubt" in done.stderr
    assert "in doubt 1" in done.stdout
    assert list(server.messages()) == ["alan@example.test"]
    status = cli.out("status", "--campaign", "Drip")
    assert "in-doubt   1" in status and "ada@example.test" in status
    again = send(cli, queue, server, "--resend-in-doubt")
    assert again.returncode == 0, again.stderr
    assert sorted(server.messages()) == ["ada@example.test", "alan@example.test"]


def test_opportunistic_tls_upgrades_when_starttls_is_offered(cli, smtp_server, tmp_path):
    cert, key = make_certificate(tmp_path)
    # The server refuses mail on a connection that did not start TLS.
    server = smtp_server("--starttls", "%s:%s" % (cert, key), "--require-starttls")
    queue = campaign(cli, ["Hi"])
    done = cli.run("send", "--queue", str(queue), "--smtp", "smtp://127.0.0.1:%d" % server.port,
                   "--ca-file", str(cert), "--from", "news@quillo.example", "-q", check=False)
    assert done.returncode == 0, done.stderr
    assert list(server.messages()) == ["ada@example.test"]


def test_tls_none_never_starts_tls(cli, smtp_server, tmp_path):
    cert, key = make_certificate(tmp_path)
    server = smtp_server("--starttls", "%s:%s" % (cert, key), "--require-starttls")
    queue = campaign(cli, ["Hi"])
    done = send(cli, queue, server, "--tls", "none")
    assert done.returncode != 0
    assert "530" in done.stderr  # The server wants STARTTLS, which was never sent.
    assert server.messages() == {}


class RecordingServer:
    """A minimal SMTP server on loopback that records the command lines it gets."""

    def __init__(self):
        import socket
        import threading
        self.commands = []
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(5)
        self.listener.settimeout(30)
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        connection, _ = self.listener.accept()
        connection.settimeout(30)
        stream = connection.makefile("rwb")
        stream.write(b"220 recorder ESMTP\r\n")
        stream.flush()
        for raw in stream:
            line = raw.decode().rstrip("\r\n")
            self.commands.append(line)
            verb = line.split(" ")[0].upper()
            if verb == "DATA":
                stream.write(b"354 go on\r\n")
                stream.flush()
                for data in stream:
                    if data == b".\r\n":
                        break
                stream.write(b"250 2.0.0 queued\r\n")
            elif verb == "QUIT":
                stream.write(b"221 bye\r\n")
                stream.flush()
                break
            else:
                stream.write(b"250 ok\r\n")
            stream.flush()
        connection.close()
        self.listener.close()


def test_ehlo_gives_the_accounts_domain(cli):
    server = RecordingServer()
    cli.run("account", "add", "--email", "news@quillo.example", "--server", "127.0.0.1", "--port",
            str(server.port), "--domain", "mta.quillo.example", "--default")
    queue = campaign(cli, ["Hi"])
    done = cli.run("send", "--queue", str(queue), "-q", check=False)
    assert done.returncode == 0, done.stderr
    server.thread.join(30)
    assert server.commands[0] == "EHLO mta.quillo.example"
    assert server.commands[1] == "MAIL FROM:<news@quillo.example>"


def test_the_password_is_read_from_the_accounts_variable_at_send_time(cli, smtp_server):
    server = smtp_server("--auth", "mailer:env-s3cret")
    cli.run("account", "add", "--email", "news@quillo.example", "--server", "127.0.0.1", "--port",
            str(server.port), "--user", "mailer", "--auth", "--password-env", "MAILER_PW",
            "--default")
    queue = campaign(cli, ["Hi"])
    unset = cli.run("send", "--queue", str(queue), "--allow-plaintext-auth", "-q", check=False)
    assert unset.returncode == 1 and "$MAILER_PW, which is not set" in unset.stderr
    env = dict(os.environ, MAILER_PW="env-s3cret")
    done = cli.run("--verbose", "send", "--queue", str(queue), "--allow-plaintext-auth", "-q",
                   env=env, check=False)
    assert done.returncode == 0, done.stderr
    assert "env-s3cret" not in done.stdout + done.stderr
    assert list(server.messages()) == ["ada@example.test"]


def test_disabled_campaigns_and_clients_are_skipped_and_counted(cli, smtp_server):
    server = smtp_server()
    queue = campaign(cli, ["Hi"], clients=[("ada@example.test", "Ada", "L"),
                                           ("alan@example.test", "Alan", "T")])
    cli.run("client", "disable", "alan@example.test")
    done = send(cli, queue, server)
    assert done.returncode == 0, done.stderr
    assert "sent 1," in done.stdout
    assert "skipped 1 messages of disabled campaigns, clients, enrolments or items" in done.stdout
    assert list(server.messages()) == ["ada@example.test"]
    cli.run("campaign", "disable", "Drip")
    run = cli.out("run", "--campaign", "Drip", "--date", "2026-03-02")
    assert "campaign Drip is disabled: not run" in run
    both = cli.out("send", "--campaign", "Drip", "--date", "2026-03-02", "--smtp",
                   "smtp://127.0.0.1:%d" % server.port, "--from", "news@quillo.example", "-q")
    assert "campaign Drip is disabled: nothing run or sent" in both
    cli.run("client", "enable", "alan@example.test")
    cli.run("campaign", "enable", "Drip")
    again = send(cli, queue, server)
    assert again.returncode == 0, again.stderr
    assert sorted(server.messages()) == ["ada@example.test", "alan@example.test"]

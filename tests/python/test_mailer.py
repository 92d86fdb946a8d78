"""quillo.Mailer: our own delivery path from Python, with a structured outcome
per message, against a real SMTP server (aiosmtpd) on loopback."""
from test_cli import smtp_server  # noqa: F401 (a fixture)


def client(quillo, address, first="Ada"):
    c = quillo.CreateObject("dmclients")
    c.Email = address
    c.First = first
    c.Last = "Lovelace"
    return c


def test_send_returns_the_outcome_of_each_message(quillo, tmp_path, smtp_server):
    server = smtp_server("--refuse", "alan@example.test")
    template = tmp_path / "t.txt"
    template.write_bytes(b"[HEADER]\nReplace: FIRST\n[/HEADER]\nDear <!--FIRST-->,\n")
    mailer = quillo.Mailer(host="127.0.0.1", port=server.port, tls="none",
                           from_address="news@quillo.example", from_name="Quillo News")
    accepted = mailer.send(str(template), client(quillo, "ada@example.test"), "Hi <!--FIRST-->")
    refused = mailer.send(str(template), client(quillo, "alan@example.test", "Alan"), "Hi")
    broken = mailer.send(str(tmp_path / "missing.txt"), client(quillo, "ada@example.test"), "Hi")
    mailer.close()

    assert accepted["outcome"] == "accepted"
    assert accepted["code"] == 250
    assert accepted["message_id"].endswith("@quillo.example>")
    assert accepted["recipient"] == "ada@example.test"
    assert refused["outcome"] == "refused"
    assert refused["code"] == 550 and refused["enhanced"] == "5.1.1"
    assert "RCPT TO refused" in refused["reason"]
    assert broken["outcome"] == "refused" and broken["code"] == 0
    assert broken["reason"].startswith("not sent:") and "missing.txt" in broken["reason"]
    got = server.messages()
    assert list(got) == ["ada@example.test"]
    (message,) = got["ada@example.test"]
    assert message["Subject"] == "Hi Ada"
    assert message["Message-ID"] == accepted["message_id"]


def test_an_unreachable_server_is_a_failed_outcome(quillo, tmp_path):
    template = tmp_path / "t.txt"
    template.write_bytes(b"Hi\r\n")
    mailer = quillo.Mailer(host="127.0.0.1", port=1, tls="none", from_address="a@quillo.example")
    outcome = mailer.send(str(template), client(quillo, "ada@example.test"), "Hi")
    assert outcome["outcome"] == "failed"
    assert outcome["code"] == 0 and outcome["reason"]


def test_a_bad_tls_mode_is_a_value_error(quillo):
    import pytest
    with pytest.raises(ValueError):
        quillo.Mailer(host="127.0.0.1", tls="sometimes", from_address="a@quillo.example")

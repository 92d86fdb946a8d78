"""Our message composer over a corpus of hostile content, read back by two
independent MIME parsers: Python's `email` (policy.default) and GMime (the
gmime_check program). For every case the message either parses with zero
defects into exactly the intended body and files, byte for byte, or is
refused up front with a clear reason."""
import email
import email.policy
import hashlib
import os
import subprocess

import pytest

_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
_BUILD = os.environ.get("QUILLO_BUILD_DIR") or os.path.join(_ROOT, "build", "release")
GMIME_CHECK = os.path.join(_BUILD, "tests", "gmime_check")


def client(quillo, first="Ada", last="Lovelace", address="ada@example.test"):
    c = quillo.CreateObject("dmclients")
    c.First = first
    c.Last = last
    c.Email = address
    return c


def compose(quillo, tmp_path, template, *, name="t.txt", subject="Hello", who=None,
            sender="news@quillo.example", sender_name="Quillo News", files=None):
    for file_name, data in (files or {}).items():
        (tmp_path / file_name).write_bytes(data)
    path = tmp_path / name
    path.write_bytes(template if isinstance(template, bytes) else template.encode())
    raw = quillo.compose_message(str(path), who or client(quillo), subject,
                                 from_address=sender, from_name=sender_name)
    return raw


def crlf(text):
    return text.replace("\r\n", "\n").replace("\n", "\r\n")


def check_both_parsers(tmp_path, raw, body, files=()):
    """Both parsers report no defects; the text part and the files decode to
    `body` and `files` ((name, bytes) pairs) exactly."""
    for line in raw.split(b"\r\n"):
        assert len(line) <= 998
    header_block = raw.split(b"\r\n\r\n", 1)[0]
    for line in header_block.split(b"\r\n"):
        assert len(line) <= 78, line
    assert b"\n" not in raw.replace(b"\r\n", b"")
    assert b"\r" not in raw.replace(b"\r\n", b"")

    message = email.message_from_bytes(raw, policy=email.policy.default)
    assert message.defects == []
    leaves = [p for p in message.walk() if not p.is_multipart()]
    for part in message.walk():
        assert part.defects == [], part.defects
    text_parts = [p for p in leaves if p.get_filename() is None]
    assert len(text_parts) == 1
    assert text_parts[0].get_content_charset() == "utf-8"
    assert text_parts[0].get_content() == crlf(body)
    got_files = [(p.get_filename(), p.get_payload(decode=True)) for p in leaves
                 if p.get_filename()]
    assert got_files == list(files)

    if not os.path.exists(GMIME_CHECK):
        pytest.fail("gmime_check is not built: " + GMIME_CHECK)
    message_file = tmp_path / "message.eml"
    message_file.write_bytes(raw)
    out = subprocess.run([GMIME_CHECK, str(message_file)], capture_output=True, text=True,
                         timeout=60, check=True).stdout.splitlines()
    assert [l for l in out if l.startswith("warning")] == []
    parts = [l.split(" ", 4) for l in out if l.startswith("part ")]
    body_hash = hashlib.sha256(crlf(body).encode()).hexdigest()
    assert [p[1] for p in parts if p[4] == "-"] == [body_hash]
    assert [(p[4], p[1]) for p in parts if p[4] != "-"] == [
        (n, hashlib.sha256(d).hexdigest()) for n, d in files]
    return message, out


def test_lone_dots_and_dot_lines_are_plain_text(quillo, tmp_path):
    body = "first\r\n.\r\n.x\r\n..\r\nlast\r\n"
    raw = compose(quillo, tmp_path, body)
    check_both_parsers(tmp_path, raw, body)


def test_a_line_that_looks_like_a_boundary_stays_in_the_body(quillo, tmp_path):
    body = "a\r\n--=_quillo_0123456789abcdef01234567\r\n--boundary--\r\nb\r\n"
    raw = compose(quillo, tmp_path, "[HEADER]\r\nAttach: a.bin\r\n[/HEADER]\r\n" + body,
                  files={"a.bin": b"\x00\x01"})
    check_both_parsers(tmp_path, raw, body, [("a.bin", b"\x00\x01")])


def test_boundaries_differ_between_messages_made_in_the_same_second(quillo, tmp_path):
    template = "[HEADER]\r\nAttach: a.bin\r\n[/HEADER]\r\nhi\r\n"
    first = compose(quillo, tmp_path, template, files={"a.bin": b"x"})
    second = compose(quillo, tmp_path, template, files={"a.bin": b"x"})
    b1 = email.message_from_bytes(first, policy=email.policy.default).get_boundary()
    b2 = email.message_from_bytes(second, policy=email.policy.default).get_boundary()
    assert b1 and b2 and b1 != b2
    id1 = email.message_from_bytes(first, policy=email.policy.default)["Message-ID"]
    id2 = email.message_from_bytes(second, policy=email.policy.default)["Message-ID"]
    assert id1 != id2


def test_a_2000_character_line_is_wrapped_and_restored(quillo, tmp_path):
    body = "x" * 2000 + "\r\n" + "y " * 700 + "\r\n"
    raw = compose(quillo, tmp_path, body)
    assert b"quoted-printable" in raw
    check_both_parsers(tmp_path, raw, body)


def test_non_ascii_names_subjects_bodies_and_emoji(quillo, tmp_path):
    body = "Grüße, Zoë! 🎉 — ça va?\r\n"
    who = client(quillo, first="Zoë", last="Ñúñez", address="zoe@example.test")
    raw = compose(quillo, tmp_path, "[HEADER]\r\nReplace: FIRST\r\n[/HEADER]\r\n" + body,
                  who=who, subject="Für <!--FIRST--> ✉ " + "ü" * 60, sender_name="Büro Süd")
    message, gmime = check_both_parsers(tmp_path, raw, body)
    assert message["Subject"] == "Für Zoë ✉ " + "ü" * 60
    assert message["To"].addresses[0].display_name == "Zoë Ñúñez"
    assert message["From"].addresses[0].display_name == "Büro Süd"
    assert "subject Für Zoë ✉ " + "ü" * 60 in gmime
    assert "to Zoë Ñúñez zoe@example.test" in gmime
    assert raw.isascii()


def test_non_ascii_and_odd_file_names(quillo, tmp_path):
    files = {"prix été.pdf": b"%PDF-1.4\x00\xff", "\"quoted\"; name.txt": "déjà vu\n".encode(),
             "ﬁle_" + "ü" * 40 + ".bin": b""}
    header = "".join("Attach: %s\r\n" % n for n in files)
    raw = compose(quillo, tmp_path, "[HEADER]\r\n" + header + "[/HEADER]\r\nSee the files.\r\n",
                  files=files)
    check_both_parsers(tmp_path, raw, "See the files.\r\n", list(files.items()))


def test_inline_parts_sit_in_multipart_related_with_a_content_id(quillo, tmp_path):
    gif = b"GIF89a\x01\x00\x01\x00\x00\x00\x00;"
    raw = compose(quillo, tmp_path,
                  "[HEADER]\r\nInline: logo.gif, logo01\r\n[/HEADER]\r\n<img src=\"cid:logo01\">\r\n",
                  name="t.html", files={"logo.gif": gif})
    message, gmime = check_both_parsers(tmp_path, raw, "<img src=\"cid:logo01\">\r\n",
                                        [("logo.gif", gif)])
    assert message.get_content_type() == "multipart/related"
    parts = list(message.iter_parts())
    assert parts[0].get_content_type() == "text/html"
    assert parts[1]["Content-ID"] == "<logo01>"
    assert any("logo01" in line for line in gmime)


def test_lf_only_templates_read_like_crlf_ones(quillo, tmp_path):
    lf = compose(quillo, tmp_path, "[HEADER]\nReplace: FIRST\nX-Tag: spring\n[/HEADER]\nHi <!--FIRST-->\nbye\n")
    message, _ = check_both_parsers(tmp_path, lf, "Hi Ada\r\nbye\r\n")
    assert message["X-Tag"] == "spring"


@pytest.mark.parametrize("field, value", [
    ("first", "Eve\r\nBcc: victim@example.test"),
    ("first", "Eve\n.\nMAIL FROM:<x@y>"),
    ("last", "Mallory\rX-Injected: 1"),
    ("address", "ada@example.test\r\nBcc: victim@example.test"),
    ("address", "ada@example.test>\r\n.\r\nRCPT TO:<victim@example.test"),
    ("address", "not-an-email"),
    ("address", "a b@c.test"),
])
def test_line_breaks_and_bad_addresses_in_client_fields_are_refused(quillo, tmp_path, field,
                                                                    value):
    who = client(quillo, **{field: value})
    with pytest.raises(ValueError) as refused:
        compose(quillo, tmp_path, "Hi\r\n", who=who)
    assert "recipient" in str(refused.value)


@pytest.mark.parametrize("subject", ["Hi\r\nBcc: victim@example.test", "a\r\n.\r\nQUIT",
                                     "Hi <!--FIRST-->"])
def test_line_breaks_in_the_subject_are_refused(quillo, tmp_path, subject):
    who = client(quillo, first="Eve\r\nBcc: victim@example.test")
    with pytest.raises(ValueError) as refused:
        compose(quillo, tmp_path, "Hi\r\n", subject=subject, who=who)
    assert "line break" in str(refused.value)


@pytest.mark.parametrize("template, reason", [
    ("[HEADER]\r\n: x\r\n[/HEADER]\r\nbody\r\n", "t.txt:2: a header line has no name"),
    ("[HEADER]\r\nReplace: FIRST\r\nbody without end\r\n", "t.txt:1: \"[HEADER]\" has no closing"),
    ("[HEADER]\r\nInline: logo.gif\r\n[/HEADER]\r\nbody\r\n", "t.txt:2: an Inline line needs"),
    ("[HEADER]\r\nReplace: NOSUCH\r\n[/HEADER]\r\nbody\r\n", "t.txt:2: Replace names no known"),
    ("[HEADER]\r\nX-Bad Name: 1\r\n[/HEADER]\r\nbody\r\n", "X-Bad Name"),
    ("[HEADER]\r\nBcc: victim@example.test\r\n[/HEADER]\r\nbody\r\n", "Bcc"),
    ("[HEADER]\r\nAttach: missing.pdf\r\n[/HEADER]\r\nbody\r\n", "missing.pdf"),
])
def test_malformed_templates_are_refused_with_file_and_line(quillo, tmp_path, template, reason):
    with pytest.raises(ValueError) as refused:
        compose(quillo, tmp_path, template)
    assert reason in str(refused.value)


def test_control_parameters_never_become_header_fields(quillo, tmp_path):
    template = ("[HEADER]\r\nMAILACCOUNT: other@quillo.example\r\nTIMEOUT: 5\r\n"
                "X-MAILER: old\r\nSUBJECT: From the template, <!--FIRST-->\r\n"
                "REPLY-TO: help@quillo.example\r\nX-PRIORITY: 1\r\n[/HEADER]\r\nbody\r\n")
    raw = compose(quillo, tmp_path, template)
    message, _ = check_both_parsers(tmp_path, raw, "body\r\n")
    assert message["MAILACCOUNT"] is None and message["TIMEOUT"] is None
    assert message["X-Mailer"].startswith("quillo ")
    assert message["Subject"] == "From the template, Ada"
    assert message["Reply-To"] == "help@quillo.example"
    assert message["X-Priority"] == "1"


def test_a_body_that_is_not_utf8_is_refused(quillo, tmp_path):
    with pytest.raises(ValueError) as refused:
        compose(quillo, tmp_path, b"caf\xe9\r\n")
    assert "UTF-8" in str(refused.value)


def test_the_date_has_a_zone_and_the_message_id_the_senders_domain(quillo, tmp_path):
    raw = compose(quillo, tmp_path, "hi\r\n")
    message = email.message_from_bytes(raw, policy=email.policy.default)
    assert message["Date"].datetime.tzinfo is not None
    assert message["Message-ID"].endswith("@quillo.example>")
    assert message["MIME-Version"] == "1.0"


def test_tags_in_client_data_are_text_and_never_multiply_the_message(quillo, tmp_path):
    # A name made of tags, and the same tag listed again and again: each tag
    # of the template gets the value once, and a tag inside the value stays
    # as text (without this, every Replace line multiplies the message).
    first = "<!--FIRST--><!--LAST--><!--FIRST--><!--FIRST-->"
    header = "\n".join(["Replace: FIRST", "Replace: LAST"] * 20)
    raw = compose(quillo, tmp_path, "[HEADER]\n%s\n[/HEADER]\nDear <!--FIRST--> <!--LAST-->,\n"
                  % header, who=client(quillo, first=first, last="<!--FIRST-->"),
                  subject="For <!--FIRST-->")
    assert len(raw) < 4096
    check_both_parsers(tmp_path, raw, "Dear %s <!--FIRST-->,\n" % first)
    parsed = email.message_from_bytes(raw, policy=email.policy.default)
    assert parsed["Subject"] == "For " + first


def parts_of(tmp_path, raw):
    """(type, decoded text) of every text part, by Python's parser and by
    GMime, which must agree; and the structure as Python sees it."""
    message = email.message_from_bytes(raw, policy=email.policy.default)
    assert message.defects == []
    python_parts = [(p.get_content_type(), p.get_content()) for p in message.walk()
                    if p.get_content_maintype() == "text"]
    message_file = tmp_path / "message.eml"
    message_file.write_bytes(raw)
    out = subprocess.run([GMIME_CHECK, str(message_file)], capture_output=True, text=True,
                         timeout=60, check=True).stdout.splitlines()
    assert [l for l in out if l.startswith("warning")] == []
    gmime = [(l.split(" ")[2], l.split(" ")[1]) for l in out if l.startswith("part ")
             and l.split(" ")[2].startswith("text/")]
    assert gmime == [(t, hashlib.sha256(c.encode()).hexdigest()) for t, c in python_parts]
    structure = [p.get_content_type() for p in message.walk()]
    return {t: c.replace("\r\n", "\n") for t, c in python_parts}, structure


def test_an_html_template_goes_out_with_a_derived_text_part(quillo, tmp_path):
    html = ("[HEADER]\nReplace: FIRST\n[/HEADER]\n<html><head><style>p {color: red}</style>"
            "</head><body><h1>News</h1><p>Hello <!--FIRST-->,</p>\n<p>Visit <a "
            "href=\"https://shop.example/?a=1&amp;b=2\">our shop</a> &amp; save &euro;5.</p>"
            "<ul><li>one</li><li>two</li></ul><script>alert(1)</script></body></html>\n")
    raw = compose(quillo, tmp_path, html, name="news.html",
                  who=client(quillo, first="<script>x</script> & \"Co\""))
    parts, structure = parts_of(tmp_path, raw)
    assert structure == ["multipart/alternative", "text/plain", "text/html"]
    # Markup in a client's field arrives escaped in HTML, as text in text.
    assert "Hello &lt;script&gt;x&lt;/script&gt; &amp; &quot;Co&quot;," in parts["text/html"]
    assert "<script>x" not in parts["text/html"]
    assert parts["text/plain"] == (
        "News\n\nHello <script>x</script> & \"Co\",\n\n"
        "Visit our shop (https://shop.example/?a=1&b=2) & save \u20ac5.\n\n- one\n- two\n")


def test_an_html_template_with_a_text_twin_uses_it(quillo, tmp_path):
    (tmp_path / "welcome.txt").write_text("[HEADER]\nReplace: FIRST\n[/HEADER]\n"
                                          "Dear <!--FIRST-->, the text version.\n")
    (tmp_path / "logo.gif").write_bytes(b"GIF89a\x01\x00\x01\x00\x00\x00\x00;")
    raw = compose(quillo, tmp_path, "[HEADER]\nReplace: FIRST\nInline: logo.gif, logo1\n"
                  "[/HEADER]\n<p><img src=\"cid:logo1\" alt=\"Logo\">Dear <!--FIRST-->.</p>\n",
                  name="welcome.html")
    parts, structure = parts_of(tmp_path, raw)
    assert structure == ["multipart/related", "multipart/alternative", "text/plain",
                         "text/html", "image/gif"]
    message = email.message_from_bytes(raw, policy=email.policy.default)
    assert message.get_param("type") == "multipart/alternative"
    assert parts["text/plain"] == "Dear Ada, the text version.\n"
    assert parts["text/html"] == "<p><img src=\"cid:logo1\" alt=\"Logo\">Dear Ada.</p>\n"


def test_plain_text_templates_stay_single_part(quillo, tmp_path):
    raw = compose(quillo, tmp_path, "Hello <b>not html</b>\n", name="t.txt")
    parts, structure = parts_of(tmp_path, raw)
    assert structure == ["text/plain"] and parts["text/plain"] == "Hello <b>not html</b>\n"

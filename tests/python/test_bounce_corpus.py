"""Checks the corpus of returned mail in tests/data/bounces.

The corpus feeds the bounce importer's tests; these checks involve no quillo
code.  They make sure that expected.json describes each message as the
message itself says (delivery-status and feedback-report fields, Date
header), and compare the manifest with what Debian's flufl.bounce detects in
the same messages.
"""

import datetime
import email
import email.policy
import email.utils
import json
import os
import re

import pytest

CORPUS = os.path.join(
    os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
    "data", "bounces")

with open(os.path.join(CORPUS, "expected.json"), encoding="utf-8") as _f:
    MANIFEST = json.load(_f)

FILES = sorted(name for name in os.listdir(CORPUS) if name.endswith(".eml"))

# Files where flufl.bounce reports something other than the manifest says,
# with the reason.  Every message in the corpus currently agrees with
# flufl.bounce, so this is empty; an entry here must come with the exact
# (temporary, permanent) pair flufl reports in FLUFL_REPORTS_INSTEAD.
FLUFL_DIFFERS = {}
FLUFL_REPORTS_INSTEAD = {}

RETURN_PATH = "bounces@news.example.com"
KINDS = {"hard", "soft", "delayed", "delivered", "complaint"}
DOCUMENTATION_NETS = ("192.0.2.", "198.51.100.", "203.0.113.", "127.")


def read_bytes(name):
    with open(os.path.join(CORPUS, name), "rb") as f:
        return f.read()


def load(name):
    return email.message_from_bytes(read_bytes(name),
                                    policy=email.policy.compat32)


def field_blocks(part):
    """The header blocks of a message/delivery-status or
    message/feedback-report part."""
    payload = part.get_payload()
    if isinstance(payload, list):
        return payload
    return [email.message_from_string(payload.lstrip("\r\n"),
                                      policy=email.policy.compat32)]


def typed_parts(msg, content_type):
    return [part for part in msg.walk()
            if part.get_content_type() == content_type]


def unfold(value):
    return " ".join(str(value).split())


def address_field(value):
    """`rfc822; someone@example.org` -> `someone@example.org`."""
    kind, _, address = unfold(value).partition(";")
    assert kind.strip().lower() == "rfc822", value
    return address.strip().strip("<>").lower()


def recipients_from_delivery_status(msg):
    """Per-recipient entries read from the message/delivery-status parts."""
    found = []
    for part in typed_parts(msg, "message/delivery-status"):
        blocks = field_blocks(part)
        # The first block describes the message, the others one recipient
        # each.
        assert blocks[0].get("Reporting-MTA"), "no Reporting-MTA"
        for block in blocks[1:]:
            if not block.keys():
                continue
            source = block.get("Original-Recipient") or block["Final-Recipient"]
            found.append({
                "address": address_field(source),
                "action": unfold(block["Action"]).lower(),
                "status": unfold(block["Status"]).split()[0],
            })
    return found


def complainants_from_feedback_report(msg):
    reports = typed_parts(msg, "message/feedback-report")
    assert len(reports) == 1
    fields = field_blocks(reports[0])[0]
    assert unfold(fields["Feedback-Type"]).lower() == "abuse"
    assert unfold(fields["Version"]) == "1"
    for name in ("User-Agent", "Original-Mail-From", "Arrival-Date",
                 "Reported-Domain", "Source-IP"):
        assert fields.get(name), name
    rcpt_to = fields.get("Original-Rcpt-To")
    if rcpt_to:
        return [unfold(rcpt_to).strip("<>").lower()]
    returned = msg.get_payload()[2]
    if returned.get_content_type() == "message/rfc822":
        headers = returned.get_payload(0)
    else:
        headers = email.message_from_string(returned.get_payload(decode=True)
                                            .decode("ascii"))
    return [email.utils.parseaddr(headers["To"])[1].lower()]


def kind_of(action, status):
    if action == "failed":
        return "hard" if status.startswith("5.") else "soft"
    if action == "delayed":
        return "delayed"
    return "delivered"


def entries(**wanted):
    return sorted(name for name, entry in MANIFEST.items()
                  if all(entry[key] == value for key, value in wanted.items()))


# --- the manifest against the files -----------------------------------------

def test_manifest_lists_exactly_the_corpus_files():
    assert sorted(MANIFEST) == FILES


def test_corpus_has_enough_messages_of_each_format():
    assert len(entries(format="dsn")) >= 20
    assert len(entries(format="arf")) >= 3
    assert 2 <= len(entries(format="unknown")) <= 3
    for name, entry in MANIFEST.items():
        assert name.startswith({"dsn": "dsn-", "arf": "arf-",
                                "unknown": "other-"}[entry["format"]]), name


def test_each_mail_system_style_has_several_reports():
    for style in ("postfix", "exim", "sendmail", "exchange", "gmail"):
        names = entries(format="dsn", style=style)
        assert len(names) >= 3, style
        assert all("-%s-" % style in name for name in names)


@pytest.mark.parametrize("name", FILES)
def test_file_parses_as_mail_without_defects(name):
    msg = load(name)
    assert msg["Date"] and msg["From"] and msg["To"] and msg["Subject"]
    for part in msg.walk():
        assert not part.defects, (part.get_content_type(), part.defects)


@pytest.mark.parametrize("name", FILES)
def test_manifest_date_is_the_date_header(name):
    parsed = email.utils.parsedate_to_datetime(load(name)["Date"])
    assert parsed.isoformat() == MANIFEST[name]["date"]


@pytest.mark.parametrize("name", FILES)
def test_manifest_addresses_appear_in_the_file(name):
    text = read_bytes(name).decode("ascii").lower()
    for recipient in MANIFEST[name]["recipients"]:
        assert recipient["address"] in text


@pytest.mark.parametrize("name", FILES)
def test_recipient_kind_follows_action_and_status(name):
    entry = MANIFEST[name]
    for recipient in entry["recipients"]:
        assert recipient["kind"] in KINDS
        assert recipient["address"] == recipient["address"].lower()
        assert re.fullmatch(r"[a-z0-9.]+@([a-z0-9-]+\.)*example\.(org|net|com)",
                            recipient["address"])
        if entry["format"] == "arf":
            assert (recipient["kind"], recipient["action"],
                    recipient["status"]) == ("complaint", "", "")
        else:
            assert recipient["kind"] == kind_of(recipient["action"],
                                                recipient["status"])
    if entry["format"] == "unknown":
        assert entry["recipients"] == []


@pytest.mark.parametrize("name", entries(format="dsn"))
def test_dsn_recipients_are_the_delivery_status_fields(name):
    msg = load(name)
    assert msg.get_content_type() == "multipart/report"
    assert msg.get_param("report-type").lower() == "delivery-status"
    assert email.utils.parseaddr(msg["To"])[1].lower() == RETURN_PATH
    expected = [{key: r[key] for key in ("address", "action", "status")}
                for r in MANIFEST[name]["recipients"]]
    assert recipients_from_delivery_status(msg) == expected


@pytest.mark.parametrize("name", entries(format="dsn"))
def test_dsn_has_readable_status_and_returned_parts(name):
    parts = load(name).get_payload()
    assert len(parts) == 3
    assert parts[0].get_content_maintype() in ("text", "multipart")
    assert parts[1].get_content_type() == "message/delivery-status"
    assert parts[1]["Content-Transfer-Encoding"] in (None, "7bit")
    assert parts[2].get_content_type() in ("message/rfc822",
                                           "text/rfc822-headers")


@pytest.mark.parametrize("name", entries(format="arf"))
def test_arf_complainant_is_the_rcpt_to_or_the_returned_to(name):
    msg = load(name)
    assert msg.get_content_type() == "multipart/report"
    assert msg.get_param("report-type").lower() == "feedback-report"
    assert complainants_from_feedback_report(msg) == [
        r["address"] for r in MANIFEST[name]["recipients"]]


@pytest.mark.parametrize("name", entries(format="unknown"))
def test_other_messages_carry_no_report_the_importer_knows(name):
    msg = load(name)
    assert not typed_parts(msg, "message/delivery-status")
    assert not typed_parts(msg, "message/feedback-report")
    if msg.get_content_type() == "multipart/report":
        assert msg.get_param("report-type").lower() not in (
            "delivery-status", "feedback-report")


def test_exactly_one_file_uses_crlf_line_endings():
    crlf = [name for name in FILES if b"\r" in read_bytes(name)]
    assert crlf == entries_with_case("crlf-line-endings")
    data = read_bytes(crlf[0])
    assert data.count(b"\r\n") == data.count(b"\n")


def entries_with_case(case):
    return sorted(name for name, entry in MANIFEST.items()
                  if case in entry["cases"])


def test_every_required_case_is_covered():
    for case, at_least in {
            "user-unknown": 1, "no-such-domain": 1, "mailbox-disabled": 1,
            "policy-reject": 1, "message-too-large": 1, "soft": 4,
            "delayed": 2, "several-recipients": 1, "no-original-recipient": 1,
            "human-readable-quoted-printable": 1,
            "returned-headers-base64": 1, "folded-diagnostic-code": 1,
            "content-type-mixed-case-quoted-parameters": 1,
            "crlf-line-endings": 1, "no-original-rcpt-to": 1}.items():
        assert len(entries_with_case(case)) >= at_least, case


def test_labelled_cases_show_in_the_messages():
    for name in entries_with_case("human-readable-quoted-printable"):
        assert any(p.get_content_maintype() == "text"
                   and p["Content-Transfer-Encoding"] == "quoted-printable"
                   for p in load(name).get_payload(0).walk())
    for name in entries_with_case("returned-headers-base64"):
        assert load(name).get_payload(2)["Content-Transfer-Encoding"] == "base64"
    for name in entries_with_case("folded-diagnostic-code"):
        assert re.search(rb"\nDiagnostic-Code:[^\n]*\n[ \t]", read_bytes(name))
    for name in entries_with_case("content-type-mixed-case-quoted-parameters"):
        assert re.search(rb'\nContent-Type: Multipart/Report;[^\n]*="delivery-status"',
                         read_bytes(name))
    for name in entries_with_case("no-original-recipient"):
        assert b"Original-Recipient:" not in read_bytes(name)
    for name in entries_with_case("several-recipients"):
        kinds = [r["kind"] for r in MANIFEST[name]["recipients"]]
        assert kinds.count("hard") == 2 and kinds.count("delivered") == 1


def soft_dates(address):
    return sorted(entry["date"][:10] for entry in MANIFEST.values()
                  for r in entry["recipients"]
                  if r["address"] == address and r["kind"] == "soft")


def test_repeated_soft_bounces_for_one_address():
    assert soft_dates("soft@example.org") == [
        "2026-09-01", "2026-09-10", "2026-09-20"]


def test_soft_bounces_spread_more_than_thirty_days_apart():
    dates = [datetime.date.fromisoformat(d)
             for d in soft_dates("spread@example.org")]
    assert [d.isoformat() for d in dates] == [
        "2026-07-01", "2026-08-05", "2026-09-12"]
    assert all((b - a).days > 30 for a, b in zip(dates, dates[1:]))


@pytest.mark.parametrize("name", FILES)
def test_ip_addresses_are_documentation_or_loopback(name):
    text = read_bytes(name).decode("ascii")
    # Dotted quads next to a slash are program versions such as sendmail's
    # "(8.17.1.9/8.17.1.9)", not addresses.
    for match in re.finditer(r"(?<![\w./])\d{1,3}(?:\.\d{1,3}){3}(?![\w./])",
                             text):
        assert match.group().startswith(DOCUMENTATION_NETS), match.group()


# --- cross-check with flufl.bounce -------------------------------------------

def flufl_failures(name):
    from flufl.bounce import all_failures
    return all_failures(load(name))


def manifest_failures(name):
    recipients = MANIFEST[name]["recipients"]
    temporary = {r["address"].encode("ascii") for r in recipients
                 if r["kind"] == "delayed"}
    permanent = {r["address"].encode("ascii") for r in recipients
                 if r["action"] == "failed"}
    return temporary, permanent


@pytest.mark.parametrize("name", FILES)
def test_flufl_bounce_agrees_with_the_manifest(name):
    temporary, permanent = flufl_failures(name)
    if name in FLUFL_DIFFERS:
        assert (temporary, permanent) == FLUFL_REPORTS_INSTEAD[name]
        assert (temporary, permanent) != manifest_failures(name)
    elif temporary or permanent:
        assert (temporary, permanent) == manifest_failures(name)
    # Files where flufl finds nothing are listed by
    # test_list_files_flufl_does_not_see.


def test_flufl_sees_every_report_with_failures():
    # Each message with a failed or delayed recipient is found by flufl,
    # unless a recorded difference says otherwise.
    for name in FILES:
        wanted = manifest_failures(name)
        if (wanted[0] or wanted[1]) and name not in FLUFL_DIFFERS:
            assert flufl_failures(name) == wanted, name


def test_recorded_flufl_differences_are_complete():
    assert set(FLUFL_DIFFERS) == set(FLUFL_REPORTS_INSTEAD)
    for name, reason in FLUFL_DIFFERS.items():
        assert name in MANIFEST and reason


def test_list_files_flufl_does_not_see():
    unseen = [name for name in FILES if flufl_failures(name) == (set(), set())]
    print("flufl.bounce finds nothing in:", ", ".join(unseen) or "-")

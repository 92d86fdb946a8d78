"""dmMessage and dmMessageParm driven by name from Python."""

import pytest

import quillo


TEMPLATE = (
    b"Some note for editors\r\n"
    b"[HEADER]\r\n"
    b"Replace: FIRST\r\n"
    b"Replace: CSZ\r\n"
    b"Attach: docs\\price list.pdf\r\n"
    b"Inline: img\\logo.gif, logo01\r\n"
    b"SUBJECT: Hello\r\n"
    b"X-PRIORITY: 1\r\n"
    b"[/HEADER]\r\n"
    b"Dear <!--FIRST-->, <!--CSZ-->\r\n"
)


def values(collection):
    return [(quillo.Get(p, "Name"), quillo.Get(p, "Value")) for p in collection]


def test_parm_parse_by_name():
    parm = quillo.CreateObject("dmMessageParm")
    parm.FullString = " Subject :  Hi there "
    assert parm.Parse() is True
    assert parm.Name == "Subject"
    assert parm.Value == "Hi there"
    parm.FullString = "abc"
    assert parm.Parse() is False
    assert parm.Name == "" and parm.Value == ""


def test_template_file_is_parsed_into_four_lists(tmp_path):
    path = tmp_path / "letter.htm"
    path.write_bytes(TEMPLATE)
    message = quillo.CreateObject("dmMessage")
    message.MessageFileName = str(path)
    assert message.Error is False
    assert message.ContentType == "text/html"
    assert message.Message == ""
    assert message.MessageBody == "Dear <!--FIRST-->, <!--CSZ-->\r\n"
    assert values(message.ReplacementVariables) == [("Replace", "FIRST"), ("Replace", "CSZ")]
    assert values(message.Attachments) == [("Attach", "docs\\price list.pdf")]
    assert values(message.InlineAttachments) == [("Inline", "img\\logo.gif, logo01")]
    assert values(message.MessageParameters) == [("SUBJECT", "Hello"), ("X-PRIORITY", "1")]
    assert len(message.MessageParameters) == 2
    assert quillo.Get(message, "MessageParameter", 2).Value == "1"


def test_missing_file_sets_error_without_raising(tmp_path):
    message = quillo.CreateObject("dmMessage")
    message.MessageFileName = str(tmp_path / "missing.txt")
    assert message.Error is True
    assert message.ContentType == "text/plain"


def test_indexed_accessor_out_of_range_raises_9():
    message = quillo.CreateObject("dmMessage")
    with pytest.raises(quillo.RuntimeError) as info:
        quillo.Get(message, "Attachment", 1)
    assert info.value.number == 9


def test_personalised_body_for_a_client():
    client = quillo.CreateObject("dmclients")
    client.First = "John"
    client.city = "Springfield"
    client.state = "IL"
    client.zip = "62701"
    message = quillo.CreateObject("dmMessage")
    message.Client = client
    message.Message = TEMPLATE.decode("ascii")
    message.Subject = "Hi <!--FIRST-->"
    assert message.GetReplacedMessageBody() == "Dear John, Springfield IL 62701\r\n"
    assert message.Subject == "Hi <!--FIRST-->"


def test_personalising_without_client_gives_empty_values():
    message = quillo.CreateObject("dmMessage")
    message.Message = "[HEADER]\r\nReplace: FULLNAME\r\n[/HEADER]\r\n[<!--FULLNAME-->]"
    assert message.GetReplacedMessageBody() == "[]"


def test_send_without_smtp_client_raises_91():
    message = quillo.CreateObject("dmMessage")
    message.Message = "body"
    with pytest.raises(quillo.RuntimeError) as info:
        message.Send()
    assert info.value.number == 91


class RecordingSmtp:
    """A Python object standing in for ardESMTP: Send reaches it by name."""

    def __init__(self):
        self.calls = []
        self.Port = 25

    def __setattr__(self, name, value):
        if name not in ("calls",):
            self.calls.append("%s=%s" % (name, value))
        object.__setattr__(self, name, value)

    def AddCustomHeader(self, text):
        self.calls.append("AddCustomHeader(%s)" % text)

    def ClearAttachments(self):
        self.calls.append("ClearAttachments()")

    def AddAttachment(self, name, content_type=None, content_type_name=None):
        self.calls.append("AddAttachment(%s)" % name)

    def AddAttachmentAsInline(self, name, cid=None, content_type=None, content_type_name=None):
        self.calls.append("AddAttachmentAsInline(%s, %s)" % (name, cid))

    def ClearRecipients(self):
        self.calls.append("ClearRecipients()")

    def AddRecipient(self, address):
        self.calls.append("AddRecipient(%s)" % address)

    def Send(self):
        self.calls.append("Send()")
        return -5


def test_send_drives_a_python_smtp_stand_in_by_name():
    smtp = RecordingSmtp()
    smtp.calls.clear()
    client = quillo.CreateObject("dmclients")
    client.First = "Ann"
    client.Email = "ann@example.com"
    message = quillo.CreateObject("dmMessage")
    message.esmtp = smtp
    message.Client = client
    message.Subject = "For <!--FIRST-->"
    message.Message = (
        "[HEADER]\r\nReplace: FIRST\r\nX-PRIORITY: 2.5\r\nX-Campaign: spring\r\n"
        "Inline: a.gif, img1\r\nInline: a,b,c\r\n[/HEADER]\r\nDear <!--FIRST-->"
    )
    assert message.Send() == -5
    assert smtp.calls == [
        "MsgContentType=text/plain",
        "MsgSubject=For Ann",
        "MsgBody=Dear Ann",
        "XPriority=2",
        "AddCustomHeader(X-Campaign: spring)",
        "ClearAttachments()",
        "AddAttachmentAsInline(a.gif, img1)",
        "ClearRecipients()",
        "AddRecipient(ann@example.com)",
        "Send()",
    ]


def test_inline_without_comma_fails_send_with_9():
    message = quillo.CreateObject("dmMessage")
    message.esmtp = RecordingSmtp()
    message.Message = "[HEADER]\r\nInline: a.gif\r\n[/HEADER]\r\nbody"
    with pytest.raises(quillo.RuntimeError) as info:
        message.Send()
    assert info.value.number == 9

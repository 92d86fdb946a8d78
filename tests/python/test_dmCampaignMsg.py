"""dmCampaignMsg driven by name: nine text properties, stored unchanged."""
import quillo

FIELDS = ["CampaignType", "HistoryRecID", "Email", "Account", "CampaignRecID",
          "CampaignItemRecID", "MessageFileName", "SendDate", "CampaignName"]


def test_every_property_starts_empty():
    msg = quillo.CreateObject("dmCampaignMsg")
    for name in FIELDS:
        assert quillo.Get(msg, name) == ""


def test_each_property_keeps_its_own_text():
    msg = quillo.CreateObject("dmCampaignMsg")
    for name in FIELDS:
        quillo.Put(msg, name, "value of " + name)
    for name in FIELDS:
        assert quillo.Get(msg, name) == "value of " + name


def test_text_with_commas_and_quotes_is_kept_unchanged():
    msg = quillo.CreateObject("dmCampaignMsg")
    msg.CampaignName = 'Spring, Summer, and "Fall"'
    msg.Email = " ann@example.com "
    assert msg.CampaignName == 'Spring, Summer, and "Fall"'
    assert msg.Email == " ann@example.com "


def test_names_are_case_insensitive():
    msg = quillo.CreateObject("dmcampaignmsg")
    quillo.Put(msg, "email", "a@b.c")
    assert quillo.Get(msg, "EMAIL") == "a@b.c"

"""dmmrktcmpitems driven by name: one message of a campaign."""
import campaign_record_checks as checks

CLASS = "dmmrktcmpitems"
ELEMENT = "DMMRKTCMPITEMS"
FIELDS = [("CampaignRecID", "text"), ("Description", "text"), ("Interval", "long"),
          ("MessageFileName", "text"), ("RecID", "text")]


def test_fields_start_empty():
    checks.check_fields_start_empty(CLASS, FIELDS)


def test_each_field_keeps_its_value():
    checks.check_each_field_keeps_its_value(CLASS, FIELDS)


def test_number_fields_take_numeric_text_and_refuse_other_text():
    checks.check_number_fields_refuse_text(CLASS, FIELDS)


def test_xml_lists_the_fields_in_table_order():
    checks.check_xml_lists_the_fields_in_table_order(CLASS, FIELDS, ELEMENT)


def test_save_load_and_xml_round_trip(tmp_path):
    checks.check_save_load_and_xml_round_trip(CLASS, FIELDS, tmp_path)


def test_delete_removes_the_row(tmp_path):
    checks.check_delete_removes_the_row(CLASS, tmp_path)

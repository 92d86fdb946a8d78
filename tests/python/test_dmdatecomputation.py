"""dmdatecomputation driven by name: the schedule rules and their failures."""
from datetime import datetime

import pytest

import quillo


def calculator(code, reference, interval=0, effective=datetime(1899, 12, 30)):
    campaign = quillo.CreateObject("dmmrktcmp")
    campaign.CampaignType = code
    campaign.Interval = interval
    campaign.CampaignEffectiveDate = effective
    calc = quillo.CreateObject("dmdatecomputation")
    calc.Campaign = campaign
    calc.ReferenceDate = reference
    return calc


@pytest.mark.parametrize("code", [0, 1, 2, 107, 250, 350, 450])
def test_codes_without_a_rule_give_the_reference_date(code):
    calc = calculator(code, datetime(2026, 3, 18, 12, 0))
    assert calc.getNextRunDate() == datetime(2026, 3, 18, 12, 0)
    assert calc.getPreviousRunDate() == datetime(2026, 3, 18, 12, 0)


def test_day_of_month():
    calc = calculator(201, datetime(2026, 3, 15))
    assert calc.getNextRunDate() == datetime(2026, 3, 15)
    assert calc.getPreviousRunDate() == datetime(2026, 2, 15)
    calc = calculator(201, datetime(2026, 3, 16))
    assert calc.getNextRunDate() == datetime(2026, 4, 15)
    assert calc.getPreviousRunDate() == datetime(2026, 3, 15)
    assert calculator(202, datetime(2024, 2, 1)).getNextRunDate() == datetime(2024, 2, 28)
    assert calculator(200, datetime(2026, 1, 1)).getPreviousRunDate() == datetime(2025, 12, 1)


def test_weekly():
    calc = calculator(100, datetime(2026, 3, 16))  # A Monday.
    assert calc.getNextRunDate() == datetime(2026, 3, 16)
    assert calc.getPreviousRunDate() == datetime(2026, 3, 9)


def test_weekday_of_month():
    assert calculator(300, datetime(2026, 3, 3)).getNextRunDate() == datetime(2026, 4, 6)
    assert calculator(328, datetime(2016, 2, 23)).getPreviousRunDate() == datetime(2016, 2, 22)


def test_every_n_days():
    calc = calculator(403, datetime(2026, 1, 15), effective=datetime(2026, 1, 1))
    assert calc.getNextRunDate() == datetime(2026, 1, 15)
    assert calc.getPreviousRunDate() == datetime(2026, 1, 8)
    calc = calculator(403, datetime(2026, 1, 16), effective=datetime(2026, 1, 1))
    assert calc.getNextRunDate() == datetime(2026, 1, 22)
    assert calc.getPreviousRunDate() == datetime(1900, 1, 13)


def test_failures(raises_error):
    with raises_error(9):
        calculator(105, datetime(2026, 3, 18)).getNextRunDate()
    with raises_error(9):
        calculator(340, datetime(2026, 3, 18)).getPreviousRunDate()
    with raises_error(11):
        calculator(420, datetime(2026, 3, 18)).getNextRunDate()
    with raises_error(6):
        calculator(406, datetime(2026, 3, 18), interval=40000).getNextRunDate()


def test_a_rule_that_reads_the_campaign_fails_without_one(raises_error):
    calc = calculator(203, datetime(2026, 3, 18), interval=5)
    with raises_error(91):
        calc.Campaign = None
    with raises_error(91):
        calc.getNextRunDate()


def test_day_names():
    calc = quillo.CreateObject("dmdatecomputation")
    assert [calc.GetDayOfWeekInWords(n) for n in range(1, 8)] == [
        "Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"]
    assert calc.GetDayOfWeekInWords(0) == ""
    assert calc.GetDayOfWeekInWords(8) == ""


def test_the_reference_date_cannot_be_read(raises_error):
    calc = quillo.CreateObject("dmdatecomputation")
    with raises_error(438):
        quillo.Get(calc, "ReferenceDate")

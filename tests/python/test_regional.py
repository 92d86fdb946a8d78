"""quillo.Regional reads and sets the named date and time formats."""

import datetime

import pytest


@pytest.fixture(autouse=True)
def restore_regional(quillo):
    yield
    quillo.Regional.reset()


def test_defaults_are_en_us(quillo):
    assert quillo.Regional["Short Date"] == "m/d/yyyy"
    assert quillo.Regional["Long Date"] == "dddd, mmmm d, yyyy"
    assert quillo.Regional.short_time == "hh:nn"
    assert quillo.Regional.long_time == "h:nn:ss AM/PM"
    assert quillo.Regional.date_separator == "/"
    assert quillo.Regional.time_separator == ":"


def test_dates_become_text_with_the_short_date_format(t):
    t.Text = datetime.datetime(2005, 3, 1)
    assert t.Text == "3/1/2005"


def test_setting_a_format_changes_how_dates_become_text(quillo, t):
    quillo.Regional.short_date = "dd/mm/yyyy"
    t.Text = datetime.datetime(2005, 3, 1)
    assert t.Text == "01/03/2005"
    quillo.Regional["long time"] = "hh:nn:ss"
    t.Text = datetime.datetime(2005, 3, 1, 14, 5, 9)
    assert t.Text == "01/03/2005 14:05:09"


def test_reset_restores_the_defaults(quillo):
    quillo.Regional.short_date = "yyyy-mm-dd"
    quillo.Regional.reset()
    assert quillo.Regional.short_date == "m/d/yyyy"


def test_unknown_format_name_is_a_key_error(quillo):
    with pytest.raises(KeyError):
        quillo.Regional["Shortest Date"]

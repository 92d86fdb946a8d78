"""Every value kind crosses the boundary both ways, through Echo and through
the typed properties of QuilloTestClass."""

import datetime
import decimal
import struct

import pytest


def as_single(x):
    return struct.unpack("f", struct.pack("f", x))[0]


def test_none_is_empty_and_comes_back_as_none(t):
    assert t.Echo(None) is None


def test_null_is_the_null_singleton(quillo, t):
    assert t.Echo(quillo.Null) is quillo.Null
    assert repr(quillo.Null) == "quillo.Null"
    assert type(quillo.Null)() is quillo.Null


def test_null_where_a_value_is_needed_is_error_94(quillo, t):
    with pytest.raises(quillo.RuntimeError) as e:
        t.Text = quillo.Null
    assert e.value.number == 94


def test_int_that_fits_32_bits_is_a_long(t):
    for n in (0, 7, -7, 2**31 - 1, -2**31):
        back = t.Echo(n)
        assert back == n
        assert type(back) is int


def test_int_beyond_32_bits_becomes_a_double(t):
    back = t.Echo(2**31)
    assert type(back) is float
    assert back == 2147483648.0
    assert t.Echo(-2**40) == -1099511627776.0


def test_long_property_round_trips_and_overflows(quillo, t):
    t.Count = 123456
    assert t.Count == 123456 and type(t.Count) is int
    with pytest.raises(quillo.RuntimeError) as e:
        t.Count = 2**31
    assert e.value.number == 6


def test_integer_property_is_an_int_and_rounds_half_to_even(t):
    t.Small = -12
    assert t.Small == -12 and type(t.Small) is int
    t.Small = 12.5
    assert t.Small == 12
    t.Small = 13.5
    assert t.Small == 14


def test_float_is_a_double(t):
    assert t.Echo(0.1) == 0.1
    assert type(t.Echo(0.1)) is float
    t.Amount = 1234.5678
    assert t.Amount == 1234.5678


def test_single_property_keeps_single_precision(t):
    t.Ratio = 0.1
    assert t.Ratio == as_single(0.1)
    assert type(t.Ratio) is float
    t.Ratio = 0.25
    assert t.Ratio == 0.25


def test_decimal_is_currency(t):
    back = t.Echo(decimal.Decimal("3.5"))
    assert isinstance(back, decimal.Decimal)
    assert back == decimal.Decimal("3.5")


def test_currency_keeps_four_decimals_rounding_half_to_even(t):
    t.Money = decimal.Decimal("1.23456")
    assert t.Money == decimal.Decimal("1.2346")
    t.Money = decimal.Decimal("0.00005")
    assert t.Money == decimal.Decimal("0")
    t.Money = decimal.Decimal("0.00015")
    assert t.Money == decimal.Decimal("0.0002")
    t.Money = decimal.Decimal("-922337203685477.5808")
    assert t.Money == decimal.Decimal("-922337203685477.5808")


def test_currency_out_of_range_is_overflow(quillo, t):
    with pytest.raises(quillo.RuntimeError) as e:
        t.Money = decimal.Decimal("922337203685477.5808")
    assert e.value.number == 6


def test_float_into_currency_property(t):
    t.Money = 2.5
    assert t.Money == decimal.Decimal("2.5")


def test_datetime_is_a_date(t):
    when = datetime.datetime(2005, 3, 1, 14, 5, 9)
    assert t.Echo(when) == when
    t.When = when
    assert t.When == when
    assert type(t.When) is datetime.datetime


def test_date_keeps_milliseconds(t):
    when = datetime.datetime(2005, 3, 1, 14, 5, 9, 123000)
    assert t.Echo(when) == when


def test_plain_date_is_midnight(t):
    t.When = datetime.date(2005, 3, 1)
    assert t.When == datetime.datetime(2005, 3, 1)


def test_date_is_a_day_count_from_1899_12_30(t):
    t.Amount = datetime.datetime(2005, 3, 1)
    assert t.Amount == 38412.0
    t.Amount = datetime.datetime(1899, 12, 30, 12, 0)
    assert t.Amount == 0.5


def test_dates_before_the_zero_date_use_the_negative_encoding(t):
    t.Amount = datetime.datetime(1899, 12, 29, 6, 0)
    assert t.Amount == -1.25
    t.When = -1.25
    assert t.When == datetime.datetime(1899, 12, 29, 6, 0)
    early = datetime.datetime(1800, 1, 1, 18, 30)
    assert t.Echo(early) == early


def test_date_outside_the_automation_range_is_overflow(quillo, t):
    with pytest.raises(quillo.RuntimeError) as e:
        t.When = datetime.datetime(99, 12, 31)
    assert e.value.number == 6


def test_text_becomes_a_date_in_a_date_property(t):
    t.When = "2005-03-01"
    assert t.When == datetime.datetime(2005, 3, 1)


def test_str_is_a_string(t):
    assert t.Echo("héllo wörld") == "héllo wörld"
    t.Text = "ünïcode ✓"
    assert t.Text == "ünïcode ✓"
    assert t.Echo("") == ""


def test_strings_may_hold_nul(t):
    t.Text = "a\x00b"
    assert t.Text == "a\x00b"


def test_arbitrary_bytes_survive_surrogateescape(t):
    raw = bytes(range(256))
    text = raw.decode("utf-8", "surrogateescape")
    back = t.Echo(text)
    assert back == text
    assert back.encode("utf-8", "surrogateescape") == raw
    t.Text = text
    assert t.Text.encode("utf-8", "surrogateescape") == raw


def test_bytes_are_accepted_as_text(t):
    t.Text = b"\x00\xffabc"
    assert t.Text == "\x00\udcffabc"
    assert t.Echo(bytearray(b"\xc3\xa9")) == "é"


def test_bool_is_a_boolean(t):
    assert t.Echo(True) is True
    assert t.Echo(False) is False
    t.Flag = True
    assert t.Flag is True
    t.Flag = 0
    assert t.Flag is False
    t.Flag = "True"
    assert t.Flag is True


def test_numbers_become_text_as_cstr_writes_them(t):
    t.Text = 3.5
    assert t.Text == "3.5"
    t.Text = -2
    assert t.Text == "-2"
    t.Text = 0.5
    assert t.Text == "0.5"
    t.Text = 1e20
    assert t.Text == "1E+20"
    t.Text = True
    assert t.Text == "True"


def test_objects_come_back_as_the_same_wrapper(quillo, t):
    other = quillo.CreateObject("QuilloTestClass")
    assert t.Child is None
    t.Child = other
    assert t.Child == other
    assert t.Echo(t) == t
    t.Child = None
    assert t.Child is None


def test_object_where_text_is_needed_is_type_mismatch(quillo, t):
    with pytest.raises(quillo.RuntimeError) as e:
        t.Text = quillo.CreateObject("QuilloTestClass")
    assert e.value.number == 13

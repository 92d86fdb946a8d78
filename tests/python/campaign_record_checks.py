"""Checks shared by the pytest files of the five campaign table classes: each
class is driven by name exactly as a host drives it, with its own field list."""
import datetime
import re

import pytest

import quillo

ZERO_DATE = datetime.datetime(1899, 12, 30)
SAMPLE = {
    "text": ["Spring, Summer, and \"Fall\"", "o'clock & <tags>"],
    "long": [2147483647, -2147483648],
    "date": [datetime.datetime(2026, 3, 1, 9, 30, 15), datetime.datetime(1900, 1, 1)],
}
EMPTY = {"text": "", "long": 0, "date": ZERO_DATE}


def store(tmp_path):
    connection = quillo.OpenConnection("sqlite:" + str(tmp_path / "records.db"))
    quillo.CreateSchema(connection)
    return connection, quillo.CreateObject("idgen")


def check_fields_start_empty(cls, fields):
    record = quillo.CreateObject(cls)
    for name, kind in fields:
        assert quillo.Get(record, name) == EMPTY[kind], name
    assert record.IsNew is True


def check_each_field_keeps_its_value(cls, fields):
    record = quillo.CreateObject(cls)
    for value_index in range(2):
        for name, kind in fields:
            quillo.Put(record, name, SAMPLE[kind][value_index])
        for name, kind in fields:
            assert quillo.Get(record, name) == SAMPLE[kind][value_index], name


def check_number_fields_refuse_text(cls, fields):
    record = quillo.CreateObject(cls)
    for name, kind in fields:
        if kind != "long":
            continue
        quillo.Put(record, name, "42")
        assert quillo.Get(record, name) == 42
        with pytest.raises(quillo.RuntimeError) as caught:
            quillo.Put(record, name, "forty-two")
        assert caught.value.number == 13


def check_xml_lists_the_fields_in_table_order(cls, fields, element):
    xml = quillo.CreateObject(cls).XML
    assert xml.startswith("<%s>" % element)
    children = re.findall(r"<([A-Z0-9]+)(?:/>|>)", xml)[1:]
    assert children == [name.upper() for name, _kind in fields]


def check_save_load_and_xml_round_trip(cls, fields, tmp_path):
    connection, ids = store(tmp_path)
    record = quillo.CreateObject(cls)
    record.Connection = connection
    record.IDGenerator = ids
    for name, kind in fields:
        if name != "RecID":
            quillo.Put(record, name, SAMPLE[kind][0])
    assert record.SaveData() is True, record.ErrorMessage
    key = record.RecID
    assert len(key) == 32 and record.IsNew is False

    loaded = quillo.CreateObject(cls)
    loaded.Connection = connection
    loaded.RecID = key
    loaded.LoadData()
    assert loaded.Error is False, loaded.ErrorMessage
    for name, kind in fields:
        expected = key if name == "RecID" else SAMPLE[kind][0]
        assert quillo.Get(loaded, name) == expected, name

    copy = quillo.CreateObject(cls)
    copy.XML = loaded.XML
    assert copy.Error is False, copy.ErrorMessage
    for name, _kind in fields:
        assert quillo.Get(copy, name) == quillo.Get(loaded, name), name


def check_delete_removes_the_row(cls, tmp_path):
    connection, ids = store(tmp_path)
    record = quillo.CreateObject(cls)
    record.Connection = connection
    record.IDGenerator = ids
    assert record.SaveData() is True, record.ErrorMessage
    key = record.RecID
    record.Delete()
    assert record.Error is False, record.ErrorMessage
    # The row is gone: saving again finds no row with the key and inserts
    # under a fresh one.
    assert record.SaveData() is True, record.ErrorMessage
    assert record.RecID != key and len(record.RecID) == 32


def define_tests(namespace, cls, element, fields):
    """Puts this class's tests into a test module's namespace, where pytest finds them."""

    def test_fields_start_empty():
        check_fields_start_empty(cls, fields)

    def test_each_field_keeps_its_value():
        check_each_field_keeps_its_value(cls, fields)

    def test_number_fields_take_numeric_text_and_refuse_other_text():
        check_number_fields_refuse_text(cls, fields)

    def test_xml_lists_the_fields_in_table_order():
        check_xml_lists_the_fields_in_table_order(cls, fields, element)

    def test_save_load_and_xml_round_trip(tmp_path):
        check_save_load_and_xml_round_trip(cls, fields, tmp_path)

    def test_delete_removes_the_row(tmp_path):
        check_delete_removes_the_row(cls, tmp_path)

    for name, test in list(locals().items()):
        if name.startswith("test_"):
            namespace[name] = test

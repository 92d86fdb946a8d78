"""Collections from Python: Count, Item from 1, len() and iteration."""

import pytest


def test_collection_property_is_created_empty(t):
    items = t.Items
    assert items.Count == 0
    assert len(items) == 0
    assert list(items) == []


def test_items_are_one_based_in_insertion_order(t):
    t.Items.Add("first")
    t.Items.Add("second")
    assert t.Items.Count == 2
    assert len(t.Items) == 2
    assert t.Items.Item(1) == "first"
    assert t.Items.Item(2) == "second"
    assert list(t.Items) == ["first", "second"]
    assert [x for x in t.Items] == ["first", "second"]


def test_the_same_collection_each_time(t):
    t.Items.Add("a")
    assert t.Items == t.Items
    assert t.Items.Count == 1


def test_item_out_of_range_is_9(quillo, t):
    t.Items.Add("a")
    for n in (0, 2, -1):
        with pytest.raises(quillo.RuntimeError) as e:
            t.Items.Item(n)
        assert e.value.number == 9


def test_remove_by_position(t):
    for s in ("a", "b", "c"):
        t.Items.Add(s)
    t.Items.Remove(2)
    assert list(t.Items) == ["a", "c"]


def test_items_convert_to_text(t):
    t.Items.Add(12)
    assert t.Items.Item(1) == "12"

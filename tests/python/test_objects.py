"""The by-name model from Python: Get/Put/Call, attribute sugar, names
ignoring case, optional arguments, error numbers and private classes."""

import pytest


def error_number(quillo, fn, *args):
    with pytest.raises(quillo.RuntimeError) as e:
        fn(*args)
    return e.value.number


def test_get_put_and_call_by_name(quillo, t):
    quillo.Put(t, "Text", "value")
    assert quillo.Get(t, "Text") == "value"
    assert quillo.Call(t, "Echo", 42) == 42
    assert quillo.Call(t, "Describe", "a", 5, "z") == "a|5|z"


def test_names_are_case_insensitive(quillo, t):
    quillo.Put(t, "tExT", "x")
    assert quillo.Get(t, "TEXT") == "x"
    assert t.text == "x"
    t.TEXT = "y"
    assert t.Text == "y"
    assert t.echo(1) == 1
    assert quillo.CreateObject("quillotestclass").Text == ""


def test_property_without_parameters_reads_as_a_value(t):
    t.Count = 5
    assert t.Count == 5
    assert not callable(t.Count)


def test_methods_read_as_callables(t):
    assert callable(t.Describe)
    assert t.Describe("a") == "a|2|none"


def test_optional_arguments_may_be_left_out(t):
    assert t.Describe("a") == "a|2|none"
    assert t.Describe("a", 7) == "a|7|none"
    assert t.Describe("a", None, "z") == "a|2|z"


def test_raise_error_gives_number_and_description(quillo, t):
    with pytest.raises(quillo.RuntimeError) as e:
        t.RaiseError(1234, "custom failure")
    assert e.value.number == 1234
    assert e.value.description == "custom failure"
    assert "custom failure" in str(e.value)
    assert isinstance(e.value, Exception)


def test_raise_error_without_description_uses_the_standard_text(quillo, t):
    with pytest.raises(quillo.RuntimeError) as e:
        t.RaiseError(11)
    assert e.value.number == 11
    assert e.value.description == "Division by zero"


def test_unknown_member_is_438(quillo, t):
    assert error_number(quillo, quillo.Get, t, "NoSuchMember") == 438
    assert error_number(quillo, quillo.Call, t, "NoSuchMember") == 438
    assert error_number(quillo, quillo.Put, t, "Items", 1) == 438
    with pytest.raises(quillo.RuntimeError) as e:
        t.NoSuchMember
    assert e.value.number == 438


def test_unknown_member_is_also_an_attribute_error(quillo, t):
    with pytest.raises(AttributeError):
        t.NoSuchMember
    assert not hasattr(t, "NoSuchMember")
    assert hasattr(t, "Text")
    assert getattr(t, "NoSuchMember", "default") == "default"


def test_wrong_number_of_arguments_is_450(quillo, t):
    assert error_number(quillo, t.Echo) == 450
    assert error_number(quillo, quillo.Call, t, "Echo", 1, 2) == 450
    assert error_number(quillo, quillo.Get, t, "Text", 1) == 450
    assert error_number(quillo, t.Describe) == 450


def test_wrong_type_is_13(quillo, t):
    assert error_number(quillo, setattr, t, "Count", "many") == 13
    assert error_number(quillo, setattr, t, "Child", "text") == 13
    assert error_number(quillo, quillo.Call, t, "RaiseError", "x") == 13


def test_overflow_is_6(quillo, t):
    assert error_number(quillo, setattr, t, "Small", 40000) == 6
    assert error_number(quillo, setattr, t, "Ratio", 1e300) == 6


def test_creating_an_unknown_class_is_429(quillo):
    assert error_number(quillo, quillo.CreateObject, "NoSuchClass") == 429


def test_private_class_is_not_creatable_but_reachable_for_tests(quillo):
    assert error_number(quillo, quillo.CreateObject, "QuilloPrivateTestClass") == 429
    p = quillo.testing.CreatePrivateObject("QuilloPrivateTestClass")
    p.Value = "v"
    assert p.Value == "v"
    from quillo.testing import CreatePrivateObject
    assert CreatePrivateObject("QuilloTestClass") is not None


def test_calls_on_nothing_are_91(quillo):
    assert error_number(quillo, quillo.Get, None, "Text") == 91


def test_wrappers_know_their_class(quillo, t):
    assert isinstance(t, quillo.Object)
    assert "QuilloTestClass" in repr(t)
    assert "Describe" in dir(t)
    assert bool(t)


def test_wrappers_compare_by_identity_of_the_object(quillo, t):
    t.Child = quillo.CreateObject("QuilloTestClass")
    assert t.Child == t.Child
    assert hash(t.Child) == hash(t.Child)
    assert t.Child != t

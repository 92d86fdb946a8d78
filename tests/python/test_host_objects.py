"""A Python object with the right method stands where the library calls an
object by name (an identifier generator that a host supplies)."""

import pytest


class Generator:
    def __init__(self):
        self.calls = 0

    def GetNextRecordID(self):
        self.calls += 1
        return "PY%04d" % self.calls


def test_library_calls_the_python_generator_by_name(t):
    gen = Generator()
    assert t.CallGenerator(gen) == "PY0001"
    assert t.CallGenerator(gen) == "PY0002"
    assert gen.calls == 2


def test_method_names_match_ignoring_case(t):
    class Lower:
        def getnextrecordid(self):
            return "lower"

    assert t.CallGenerator(Lower()) == "lower"


def test_result_converts_to_text(t):
    class Numeric:
        def GetNextRecordID(self):
            return 42

    assert t.CallGenerator(Numeric()) == "42"


def test_a_plain_attribute_answers_a_call_without_arguments(t):
    class Fixed:
        GetNextRecordID = "fixed-id"

    assert t.CallGenerator(Fixed()) == "fixed-id"


def test_missing_method_is_438(quillo, t):
    with pytest.raises(quillo.RuntimeError) as e:
        t.CallGenerator(object())
    assert e.value.number == 438


def test_quillo_error_raised_by_the_python_object_keeps_its_number(quillo, t):
    class Failing:
        def GetNextRecordID(self):
            raise quillo.RuntimeError(5, "no identifiers left")

    with pytest.raises(quillo.RuntimeError) as e:
        t.CallGenerator(Failing())
    assert e.value.number == 5
    assert e.value.description == "no identifiers left"


def test_other_python_exceptions_come_back_unchanged(t):
    class Broken:
        def GetNextRecordID(self):
            raise KeyError("boom")

    with pytest.raises(KeyError):
        t.CallGenerator(Broken())


def test_python_object_comes_back_as_itself(t):
    gen = Generator()
    assert t.Echo(gen) is gen
    t.Child = gen
    assert t.Child is gen


def test_get_put_and_call_reach_python_objects(quillo):
    class Plain:
        def __init__(self):
            self.Name = "n"

        def Twice(self, x):
            return x * 2

    p = Plain()
    assert quillo.Get(p, "name") == "n"
    quillo.Put(p, "Name", "changed")
    assert p.Name == "changed"
    assert quillo.Call(p, "twice", 21) == 42


def test_values_reaching_python_are_mapped(t):
    import datetime

    received = []

    class Recorder:
        def GetNextRecordID(self):
            received.append(True)
            return datetime.datetime(2005, 3, 1)

    assert t.CallGenerator(Recorder()) == "3/1/2005"
    assert received == [True]

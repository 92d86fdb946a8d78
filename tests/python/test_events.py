"""Events reach Python sinks with their arguments positionally."""

import pytest


def test_sink_receives_the_event_arguments(quillo, t):
    seen = []
    quillo.Advise(t, "Ping", lambda message, n: seen.append((message, n)))
    t.RaisePing("hello", 3)
    t.RaisePing("again", 4)
    assert seen == [("hello", 3), ("again", 4)]


def test_event_names_are_case_insensitive(quillo, t):
    seen = []
    quillo.Advise(t, "PING", lambda *args: seen.append(args))
    t.RaisePing("x", 1)
    assert seen == [("x", 1)]


def test_every_sink_is_called_in_order(quillo, t):
    seen = []
    quillo.Advise(t, "Ping", lambda m, n: seen.append("first"))
    quillo.Advise(t, "Ping", lambda m, n: seen.append("second"))
    t.RaisePing("x", 1)
    assert seen == ["first", "second"]


def test_unadvise_stops_delivery(quillo, t):
    seen = []
    cookie = quillo.Advise(t, "Ping", lambda m, n: seen.append(n))
    t.RaisePing("x", 1)
    quillo.Unadvise(t, cookie)
    t.RaisePing("x", 2)
    assert seen == [1]


def test_exception_in_a_sink_reaches_the_caller(quillo, t):
    def sink(message, n):
        raise ValueError("sink failed")

    quillo.Advise(t, "Ping", sink)
    with pytest.raises(ValueError, match="sink failed"):
        t.RaisePing("x", 1)


def test_sink_may_call_back_into_the_object(quillo, t):
    quillo.Advise(t, "Ping", lambda m, n: setattr(t, "Text", "%s-%d" % (m, n)))
    t.RaisePing("seen", 5)
    assert t.Text == "seen-5"


def test_advise_on_nothing_is_91(quillo):
    with pytest.raises(quillo.RuntimeError) as e:
        quillo.Advise(None, "Ping", print)
    assert e.value.number == 91

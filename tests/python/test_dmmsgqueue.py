"""dmmsgqueue driven by name: paths, the record format, round trips, damaged files."""
import pytest

import quillo


def make_message(n, **fields):
    msg = quillo.CreateObject("dmCampaignMsg")
    msg.Email = "client%d@example.com" % n
    msg.MessageFileName = "item%d.txt" % n
    msg.Account = "ACC%d" % n
    msg.CampaignItemRecID = "ITEM%d" % n
    msg.CampaignName = "Campaign %d" % n
    msg.CampaignRecID = "CAMP"
    msg.HistoryRecID = "HIST"
    msg.CampaignType = "1"
    msg.SendDate = "2026-03-01"
    for name, value in fields.items():
        quillo.Put(msg, name, value)
    return msg


def write_queue(path, messages):
    queue = quillo.CreateObject("dmmsgqueue")
    queue.MessageQueueFileName = str(path)
    assert queue.OpenQueueWrite() is True
    for msg in messages:
        queue.WriteMessage(msg)
    queue.CloseQueue()


def read_queue(path):
    queue = quillo.CreateObject("dmmsgqueue")
    queue.MessageQueueFileName = str(path)
    assert queue.OpenQueueRead() is True
    out = []
    while True:
        msg = queue.ReadMessage()
        if msg is None:
            break
        out.append(msg)
    assert queue.ReadMessage() is None
    queue.CloseQueue()
    return out


def test_record_format_byte_for_byte(tmp_path):
    path = tmp_path / "q.txt"
    write_queue(path, [make_message(1)])
    assert path.read_bytes() == (
        b'"client1@example.com","item1.txt","ACC1","ITEM1","Campaign 1","CAMP","HIST","1",'
        b'"2026-03-01"\r\n')


def test_three_messages_read_back_in_order_and_count_three(tmp_path):
    path = tmp_path / "q.txt"
    write_queue(path, [make_message(n) for n in range(3)])
    assert [m.Email for m in read_queue(path)] == [
        "client0@example.com", "client1@example.com", "client2@example.com"]
    queue = quillo.CreateObject("dmmsgqueue")
    queue.MessageQueueFileName = str(path)
    assert queue.Count() == 3


def test_root_folder_with_or_without_trailing_separator(tmp_path):
    for folder in (str(tmp_path), str(tmp_path) + "/"):
        queue = quillo.CreateObject("dmmsgqueue")
        queue.RootFolder = folder
        assert queue.OpenQueueWrite() is True
        queue.CloseQueue()
        assert queue.MessageQueueFileName == str(tmp_path) + "/~mqueue.txt"


def test_opening_for_writing_empties_the_queue(tmp_path):
    path = tmp_path / "q.txt"
    write_queue(path, [make_message(1), make_message(2)])
    write_queue(path, [])
    queue = quillo.CreateObject("dmmsgqueue")
    queue.MessageQueueFileName = str(path)
    assert queue.Count() == 0


def test_comma_reads_back_intact_and_a_quote_does_not(tmp_path):
    path = tmp_path / "q.txt"
    write_queue(path, [make_message(1, CampaignName="A, B"), make_message(2, CampaignName='A "B"')])
    first, second = read_queue(path)
    assert first.CampaignName == "A, B"
    assert second.CampaignName != 'A "B"'


def test_write_without_an_open_file_raises_the_file_error(raises_error):
    queue = quillo.CreateObject("dmmsgqueue")
    with raises_error(52):
        queue.WriteMessage(make_message(1))


def test_missing_file_opens_false_and_counts_zero(tmp_path):
    queue = quillo.CreateObject("dmmsgqueue")
    queue.MessageQueueFileName = str(tmp_path / "missing.txt")
    assert queue.OpenQueueRead() is False
    assert queue.ReadMessage() is None
    assert queue.Count() == 0


@pytest.mark.parametrize("count", [0, 1, 1000])
def test_round_trip(tmp_path, count):
    path = tmp_path / "q.txt"
    write_queue(path, [make_message(n) for n in range(count)])
    back = read_queue(path)
    assert [(m.Email, m.Account, m.SendDate) for m in back] == [
        ("client%d@example.com" % n, "ACC%d" % n, "2026-03-01") for n in range(count)]


GOOD = b'"a@x","m","A","I","N","C","H","1","2026-01-01"\r\n'


@pytest.mark.parametrize("bad", [
    b'"b@x","m","A"\r\n',                      # fewer than nine fields
    b'"b@x","m","A","I","N,"C\r\n',             # unterminated quote
    b"\r\n",                                     # blank line
    bytes(range(256)) * 10,                      # binary junk
    b"x" * (10 << 20) + b"\r\n",                 # a 10 MB line
])
def test_a_damaged_record_ends_the_reading(tmp_path, bad):
    path = tmp_path / "q.txt"
    path.write_bytes(GOOD + bad + GOOD)
    assert [m.Email for m in read_queue(path)] == ["a@x"]


def test_a_truncated_file_gives_the_whole_records_before_the_cut(tmp_path):
    path = tmp_path / "q.txt"
    path.write_bytes(GOOD + GOOD[:20])
    assert [m.Email for m in read_queue(path)] == ["a@x"]

"""dmCampaignProcessor driven by name, end to end: a database made through the
record classes, campaigns of each kind, and a sequence of daily runs logged in
dmsentitems as a sender would, checking the drip over time."""
from datetime import datetime, timedelta

import pytest

import quillo

START = datetime(2026, 3, 1)


class Store:
    """A fresh SQLite database with the schema, and record helpers."""

    def __init__(self, path):
        self.conn = quillo.OpenConnection("sqlite:" + str(path))
        quillo.CreateSchema(self.conn)
        self.ids = quillo.CreateObject("idgen")

    def record(self, cls, **fields):
        rec = quillo.CreateObject(cls)
        rec.Connection = self.conn
        rec.IDGenerator = self.ids
        for name, value in fields.items():
            quillo.Put(rec, name, value)
        assert rec.SaveData() is True, rec.ErrorMessage
        return rec

    def campaign(self, name, kind, items):
        camp = self.record("dmmrktcmp", CampaignName=name, CampaignType=kind,
                           CampaignEffectiveDate=START)
        for interval, file_name in items:
            self.record("dmmrktcmpitems", CampaignRecID=camp.RecID, Interval=interval,
                        MessageFileName=file_name, Description=file_name)
        return camp.RecID

    def client(self, email):
        return self.record("dmclients", Email=email).Account

    def enrol(self, account, campaign, day):
        self.record("dmclientsmrktcmp", Account=account, CampaignRecID=campaign,
                    EffectiveDate=START + timedelta(days=day))

    def rows(self, sql):
        rs = quillo.CreateObject("Recordset")
        rs.Open(sql, self.conn, 3, 1, 1)
        count = rs.RecordCount
        rs.Close()
        return count


def run(store, campaign, day, queue=None):
    """One run for START + day; logs each message as sent. Returns
    ([(email, file), ...], [(message, cnt, total), ...])."""
    proc = quillo.CreateObject("dmCampaignProcessor")
    proc.Connection = store.conn
    proc.IDGenerator = store.ids
    proc.CampaignRecID = campaign
    proc.CurrentDate = START + timedelta(days=day)
    events = []
    quillo.Advise(proc, "StatusChange", lambda msg, cnt, total: events.append((msg, cnt, total)))
    if queue is not None:
        proc.UseMessageQueue = True
        proc.MessageQueue = queue
    proc.LoadData()
    proc.Process()
    produced = []
    for msg in proc.Messages():
        produced.append((msg.Email, msg.MessageFileName))
        assert msg.SendDate == (START + timedelta(days=day)).strftime("%Y-%m-%d")
        assert msg.HistoryRecID == proc.History.RecID
        store.record("dmsentitems", Account=msg.Account, CampaignRecID=msg.CampaignRecID,
                     CampaignItemRecID=msg.CampaignItemRecID, HistoryRecID=msg.HistoryRecID,
                     SentDate=START + timedelta(days=day))
    assert proc.LastRunDate == datetime(1899, 12, 30)
    return produced, events


@pytest.fixture
def store(tmp_path):
    return Store(tmp_path / "drip.db")


def test_sequential_offset_drips_each_item_on_its_day(store):
    camp = store.campaign("Welcome", 1, [(7, "week.txt"), (0, "hello.txt"), (3, "tips.txt")])
    ann = store.client("ann@x.com")
    bob = store.client("bob@x.com")
    tmp = store.client("~TMP001@x.com")
    late = store.client("zed@x.com")
    store.enrol(ann, camp, 0)
    store.enrol(bob, camp, 2)
    store.enrol(tmp, camp, 0)
    store.enrol(late, camp, 30)
    drip = {}
    for day in range(11):
        produced, events = run(store, camp, day)
        for email, file_name in produced:
            drip.setdefault(email, []).append((day, file_name))
        enrolled = 2 if day < 2 else 3
        assert [cnt for _, cnt, _ in events] == list(range(1, enrolled + 1))
        assert all(total == enrolled for _, _, total in events)
    assert drip == {
        "ann@x.com": [(0, "hello.txt"), (3, "tips.txt"), (7, "week.txt")],
        "bob@x.com": [(2, "hello.txt"), (5, "tips.txt"), (9, "week.txt")],
    }
    assert store.rows("SELECT RecID FROM dmmrktcmphistory") == 11
    assert store.rows("SELECT RecID FROM dmsentitems") == 6


def test_a_late_first_run_sends_every_missed_item_at_once(store):
    camp = store.campaign("Welcome", 1, [(0, "a.txt"), (7, "b.txt"), (14, "c.txt")])
    store.enrol(store.client("ann@x.com"), camp, 0)
    produced, _ = run(store, camp, 10)
    assert produced == [("ann@x.com", "a.txt"), ("ann@x.com", "b.txt")]
    assert run(store, camp, 11)[0] == []
    assert run(store, camp, 14)[0] == [("ann@x.com", "c.txt")]


def test_incremental_gives_one_new_item_per_run(store):
    camp = store.campaign("Course", 2, [(1, "one.txt"), (2, "two.txt"), (3, "three.txt")])
    store.enrol(store.client("ann@x.com"), camp, 0)
    store.enrol(store.client("bob@x.com"), camp, 1)
    log = [run(store, camp, day)[0] for day in range(5)]
    assert log == [
        [("ann@x.com", "one.txt")],
        [("ann@x.com", "two.txt"), ("bob@x.com", "one.txt")],
        [("ann@x.com", "three.txt"), ("bob@x.com", "two.txt")],
        [("bob@x.com", "three.txt")],
        [],
    ]


@pytest.mark.parametrize("kind", [0, 3])
def test_standard_list_sends_everything_every_run(store, kind):
    camp = store.campaign("News", kind, [(0, "a.txt"), (5, "b.txt")])
    store.enrol(store.client("ann@x.com"), camp, 0)
    store.enrol(store.client("~tmp@x.com"), camp, 0)
    store.enrol(store.client("bob@x.com"), camp, 0)
    for day in range(3):
        produced, events = run(store, camp, day)
        assert produced == [("ann@x.com", "a.txt"), ("ann@x.com", "b.txt"),
                            ("bob@x.com", "a.txt"), ("bob@x.com", "b.txt")]
        assert events == []


def test_queued_messages_match_the_list(store, tmp_path):
    camp = store.campaign("News", 0, [(0, "a.txt")])
    store.enrol(store.client("ann@x.com"), camp, 0)
    store.enrol(store.client("bob@x.com"), camp, 0)
    queue = quillo.CreateObject("dmmsgqueue")
    queue.RootFolder = str(tmp_path)
    assert queue.OpenQueueWrite() is True
    produced, _ = run(store, camp, 0, queue)
    queue.CloseQueue()
    assert queue.Count() == 2
    assert queue.OpenQueueRead() is True
    back = [(m.Email, m.MessageFileName) for m in iter(queue.ReadMessage, None)]
    queue.CloseQueue()
    assert back == produced


def test_queueing_without_an_open_queue_fails_after_the_history_row(store, raises_error):
    camp = store.campaign("News", 0, [(0, "a.txt")])
    store.enrol(store.client("ann@x.com"), camp, 0)
    proc = quillo.CreateObject("dmCampaignProcessor")
    proc.Connection = store.conn
    proc.IDGenerator = store.ids
    proc.CampaignRecID = camp
    proc.UseMessageQueue = True
    proc.LoadData()
    with raises_error(52):
        proc.Process()
    assert proc.Messages().Count == 1
    assert store.rows("SELECT RecID FROM dmmrktcmphistory") == 1


def test_delete_removes_the_last_runs_history_row(store):
    camp = store.campaign("News", 0, [])
    proc = quillo.CreateObject("dmCampaignProcessor")
    proc.Delete()
    proc.Connection = store.conn
    proc.IDGenerator = store.ids
    proc.CampaignRecID = camp
    proc.LoadData()
    proc.Process()
    assert store.rows("SELECT RecID FROM dmmrktcmphistory") == 1
    proc.Delete()
    assert store.rows("SELECT RecID FROM dmmrktcmphistory") == 0


def test_process_without_load_data_is_error_91(raises_error):
    proc = quillo.CreateObject("dmCampaignProcessor")
    with raises_error(91):
        proc.Process()

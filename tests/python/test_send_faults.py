"""Sending exactly once under faults, each test bounded and with exact counts:
three senders at once on one database (SQLite and PostgreSQL), senders killed
with SIGKILL at random moments and a rerun, a server that defers every third
message, a server that dies mid-run and comes back, and a database locked for
longer than the busy timeout. The sink writes one line per accepted message,
flushed before its 250 reply, so its log is what the world received."""
import collections
import os
import random
import signal
import sqlite3
import subprocess
import sys
import threading
import time

import pytest

from test_cli import QUILLO, Cli, cli, fresh_postgresql_database  # noqa: F401 (fixtures)

SINK = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "support",
                    "fault_sink.py")


class Sink:
    """fault_sink.py on loopback; stop() ends it, start() brings it back on the same port."""

    def __init__(self, folder, *options, port=0):
        self.folder = folder
        self.log = folder / "sink.log"
        self.options = options
        self.port = port
        self.process = None
        self.start()

    def start(self, *extra):
        port_file = self.folder / "sink.port"
        if port_file.exists():
            port_file.unlink()
        self.process = subprocess.Popen([sys.executable, SINK, "--log", str(self.log),
                                         "--port-file", str(port_file), "--port", str(self.port),
                                         "--seconds", "300", *self.options, *extra])
        for _ in range(400):
            if port_file.exists():
                break
            time.sleep(0.025)
        else:
            self.stop()
            pytest.fail("the sink did not start")
        self.port = int(port_file.read_text())

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.terminate()
        if self.process:
            self.process.wait(timeout=30)

    def lines(self, kind):
        if not self.log.exists():
            return []
        return [line.split()[1:] for line in self.log.read_text().splitlines()
                if line.startswith(kind + " ")]

    def accepted(self):
        """Recipient -> how many times it was accepted."""
        return collections.Counter(fields[0] for fields in self.lines("ACCEPTED"))

    @property
    def url(self):
        return "smtp://127.0.0.1:%d" % self.port


@pytest.fixture
def sink(tmp_path):
    made = []

    def start(*options):
        made.append(Sink(tmp_path, *options))
        return made[-1]

    yield start
    for s in made:
        s.stop()


def addresses(n):
    return ["c%04d@example.test" % i for i in range(n)]


def campaign_of(cli, n, run=True):
    """A campaign with one item due on enrolment for `n` clients, run into a
    queue file (unless `run` is false)."""
    (cli.folder / "clients.csv").write_text(
        "email,first,last\n" + "".join("%s,First%d,Last\n" % (a, i)
                                        for i, a in enumerate(addresses(n))))
    (cli.folder / "enrol.csv").write_text(
        "email,date\n" + "".join("%s,2026-03-01\n" % a for a in addresses(n)))
    item = cli.folder / "item.txt"
    item.write_bytes(b"[HEADER]\r\nReplace: FIRST\r\n[/HEADER]\r\nHi <!--FIRST-->\r\n")
    cli.run("campaign", "add", "--name", "Drip", "--type", "1")
    cli.run("campaign", "item", "--campaign", "Drip", "--file", str(item), "--interval", "0",
            "--description", "Hi")
    cli.run("client", "import", str(cli.folder / "clients.csv"))
    cli.run("enrol", "import", "--campaign", "Drip", str(cli.folder / "enrol.csv"))
    if not run:
        return None
    queue = cli.folder / "q.txt"
    cli.run("run", "--campaign", "Drip", "--date", "2026-03-01", "--queue", str(queue), "-q")
    assert cli.out("queue", "count", str(queue)).strip() == str(n)
    return queue


def send_args(cli, queue, sink, *extra):
    return [QUILLO, "--db", cli.db, "send", "--queue", str(queue), "--smtp", sink.url, "--from",
            "news@quillo.example", "-q", *extra]


def send(cli, queue, sink, *extra):
    """One `quillo send` of the queue to the sink, run to its end."""
    return subprocess.run(send_args(cli, queue, sink, *extra), cwd=cli.folder,
                          capture_output=True, text=True, timeout=600)


def ledger_states(cli):
    out = cli.out("status", "--campaign", "Drip")
    counts = {}
    for line in out.splitlines():
        words = line.split()
        if len(words) == 2 and words[1].isdigit():
            counts[words[0]] = int(words[1])
    return counts


def three_senders_at_once(cli, sink, n):
    queue = campaign_of(cli, n)
    senders = [subprocess.Popen(send_args(cli, queue, sink), cwd=cli.folder,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
               for _ in range(3)]
    results = [s.communicate(timeout=600) for s in senders]
    for s, (out, err) in zip(senders, results):
        assert s.returncode == 0, err
    got = sink.accepted()
    assert sorted(got) == addresses(n)  # No loss.
    assert set(got.values()) == {1}  # No duplicate.
    assert sum(int(out.split("sent ")[1].split(",")[0]) for out, _ in results) == n
    assert ledger_states(cli).get("accepted") == n


def test_three_senders_at_once_on_sqlite_send_2000_messages_once(cli, sink):
    three_senders_at_once(cli, sink(), 2000)
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    assert db.execute("SELECT COUNT(*), COUNT(DISTINCT Account) FROM dmsentitems").fetchone() == (
        2000, 2000)
    db.close()


def test_three_senders_at_once_on_postgresql_send_2000_messages_once(tmp_path, sink):
    cli = Cli(tmp_path)
    cli.db = fresh_postgresql_database("quillo_faults")
    cli.run("init")

    def analyzed():
        out = subprocess.run(
            ["psql", cli.db, "-tAc", "SELECT relname FROM pg_stat_user_tables WHERE last_analyze "
             "IS NOT NULL AND relname IN ('quillo_deliveries', 'dmsentitems') ORDER BY relname"],
            capture_output=True, text=True, timeout=60, check=True)
        return out.stdout.split()

    assert analyzed() == []
    three_senders_at_once(cli, sink(), 2000)
    # The senders brought the statistics of the tables they filled up to
    # date, so that the server's plans for their lookups use the indexes.
    assert analyzed() == ["dmsentitems", "quillo_deliveries"]


@pytest.mark.parametrize("connections,options,sink_options", [
    # Slowed down so that each kill lands mid-run; messages go one at a time.
    (2, ("--rate", "400/s"), ()),
    # At full speed against a slower server, where a connection announces its
    # next message with the end of the data and a commit waits for two
    # connections' groups.
    (8, (), ("--data-delay", "0.01")),
])
def test_senders_killed_at_random_moments_lose_nothing_and_resend_only_when_asked(
        cli, sink, connections, options, sink_options):
    server = sink(*sink_options)
    n = 2000
    queue = campaign_of(cli, n)
    rng = random.Random(20261124)
    args = send_args(cli, queue, server, "--connections", str(connections), *options)
    for _ in range(10):
        p = subprocess.Popen(args, cwd=cli.folder, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
        time.sleep(rng.uniform(0.3, 1.5))
        p.send_signal(signal.SIGKILL)
        p.wait(timeout=30)
    before = server.accepted()
    assert set(before.values()) <= {1}
    done = send(cli, queue, server)
    after = server.accepted()
    assert set(after.values()) == {1}  # Nothing went out twice.
    states = ledger_states(cli)
    in_doubt = states.get("in-doubt", 0)
    assert in_doubt > 0
    # A kill leaves at most one group of 32 per connection in doubt.
    assert in_doubt <= 10 * connections * 32
    # Every message is delivered or reported in doubt: nothing is lost.
    assert states.get("accepted", 0) + in_doubt == n
    assert len(after) >= states["accepted"]
    assert "in doubt %d" % in_doubt in done.stdout
    assert done.returncode == 3
    status = cli.out("status", "--campaign", "Drip")
    doubtful = [a for a in addresses(n) if a in status]
    assert len(doubtful) == in_doubt
    # Only what was in doubt can arrive twice, and only when asked.
    again = send(cli, queue, server, "--resend-in-doubt")
    assert again.returncode == 0, again.stderr
    final = server.accepted()
    assert sorted(final) == addresses(n)
    twice = {a for a, k in final.items() if k > 1}
    assert twice <= set(doubtful)
    assert set(final.values()) <= {1, 2}
    assert ledger_states(cli).get("accepted") == n


def test_a_server_deferring_every_third_message_gets_each_once(cli, sink):
    server = sink("--defer-every", "3")
    queue = campaign_of(cli, 300)
    done = send(cli, queue, server)
    assert done.returncode == 0, done.stderr
    assert "sent 300, refused 0, failed 0, deferred 0" in done.stdout
    assert len(server.lines("DEFERRED")) == 100
    got = server.accepted()
    assert sorted(got) == addresses(300) and set(got.values()) == {1}
    assert ledger_states(cli).get("accepted") == 300


def test_a_server_that_dies_mid_run_and_comes_back_gets_each_message_once(cli, sink):
    server = sink("--stop-after", "150")
    queue = campaign_of(cli, 400)
    p = subprocess.Popen(send_args(cli, queue, server), cwd=cli.folder, stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, text=True)
    server.process.wait(timeout=120)  # It died after 150 messages ...
    time.sleep(1.0)
    server.options = ()
    server.start()  # ... and is back on the same port a second later.
    out, err = p.communicate(timeout=300)
    assert p.returncode == 0, err
    assert "sent 400, refused 0, failed 0, deferred 0" in out
    got = server.accepted()
    assert sorted(got) == addresses(400) and set(got.values()) == {1}


def test_a_database_locked_past_the_busy_timeout_stops_send_before_anything_goes_out(cli, sink):
    server = sink()
    queue = campaign_of(cli, 50)
    cli.run("status")  # The ledger exists.
    locked = threading.Event()
    release = threading.Event()

    def hold_lock():
        db = sqlite3.connect(str(cli.folder / "quillo.db"), isolation_level=None)
        db.execute("BEGIN EXCLUSIVE")
        locked.set()
        release.wait(60)
        db.execute("ROLLBACK")
        db.close()

    holder = threading.Thread(target=hold_lock)
    holder.start()
    try:
        assert locked.wait(10)
        done = send(cli, queue, server)
    finally:
        release.set()
        holder.join()
    assert done.returncode == 1
    assert "database is locked" in done.stderr
    assert server.accepted() == {}  # Nothing went out unclaimed.
    again = send(cli, queue, server)
    assert again.returncode == 0, again.stderr
    got = server.accepted()
    assert sorted(got) == addresses(50) and set(got.values()) == {1}


def test_a_database_locked_mid_send_stops_it_cleanly_while_other_connections_send(cli, sink):
    server = sink()
    n = 1000
    queue = campaign_of(cli, n)
    cli.db += ";busy_timeout=300"
    # Slowed down so that the lock lands while the connections are sending.
    p = subprocess.Popen(send_args(cli, queue, server, "--connections", "4", "--rate", "250/s"),
                         cwd=cli.folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    while len(server.accepted()) < 100:
        assert p.poll() is None
        time.sleep(0.05)
    db = sqlite3.connect(str(cli.folder / "quillo.db"), isolation_level=None)
    db.execute("BEGIN EXCLUSIVE")
    try:
        out, err = p.communicate(timeout=60)
    finally:
        db.execute("ROLLBACK")
        db.close()
    # A clear error and an orderly end, not a crash.
    assert p.returncode == 1, err
    assert "database is locked" in err
    first = server.accepted()
    assert 100 <= len(first) < n and set(first.values()) == {1}
    again = send(cli, queue, server)
    assert again.returncode in (0, 3), again.stderr
    got = server.accepted()
    assert set(got.values()) == {1}  # Nothing went out twice.
    states = ledger_states(cli)
    # What the stopped send had on its way is in doubt; everything else went.
    assert states.get("accepted", 0) + states.get("in-doubt", 0) == n
    assert states.get("in-doubt", 0) <= 4 * 32
    assert len(got) >= states["accepted"]


def test_connections_share_the_work_and_are_capped_and_rate_limited(cli, sink):
    server = sink()
    queue = campaign_of(cli, 200)
    done = send(cli, queue, server, "--connections", "4")
    assert done.returncode == 0, done.stderr
    per_session = collections.Counter(fields[1] for fields in server.lines("ACCEPTED"))
    assert len(server.lines("SESSION")) == 4 and len(per_session) == 4
    assert sum(per_session.values()) == 200


def test_a_cap_per_connection_opens_new_connections(tmp_path, sink):
    cli = Cli(tmp_path)
    cli.run("init")
    server = sink()
    queue = campaign_of(cli, 100)
    done = send(cli, queue, server, "--connections", "1", "--per-connection", "10")
    assert done.returncode == 0, done.stderr
    per_session = collections.Counter(fields[1] for fields in server.lines("ACCEPTED"))
    assert len(per_session) == 10 and set(per_session.values()) == {10}


def test_a_rate_limit_spaces_the_messages(tmp_path, sink):
    cli = Cli(tmp_path)
    cli.run("init")
    server = sink()
    queue = campaign_of(cli, 21)
    done = send(cli, queue, server, "--rate", "20/s")
    assert done.returncode == 0, done.stderr
    times = sorted(float(fields[2]) for fields in server.lines("ACCEPTED"))
    assert len(times) == 21
    # 21 messages at 20 a second cannot all arrive within less than a second.
    assert times[-1] - times[0] >= 0.95


@pytest.mark.parametrize("option,value,message", [
    ("--connections", "0", "--connections wants 1 to 64"),
    ("--rate", "fast", "--rate wants messages per second"),
    ("--domain-rate", "5/day", "--domain-rate wants messages per second"),
    ("--retry-for", "soon", "--retry-for wants a duration"),
])
def test_bad_sending_options_are_refused_before_anything_is_sent(cli, sink, option, value,
                                                                 message):
    server = sink()
    queue = campaign_of(cli, 3)
    done = send(cli, queue, server, option, value)
    assert done.returncode == 1 and message in done.stderr
    assert server.accepted() == {}


def test_workers_on_other_machines_share_what_tick_queues_on_postgresql(tmp_path, sink):
    cli = Cli(tmp_path)
    cli.db = fresh_postgresql_database("quillo_workers")
    cli.run("init")
    server = sink()
    n = 1500
    campaign_of(cli, n, run=False)
    worker_args = [QUILLO, "--db", cli.db, "send", "--worker", "--wait", "60", "--smtp",
                   server.url, "--from", "news@quillo.example", "--connections", "2",
                   "--rate", "600/s", "-q"]
    workers = [subprocess.Popen(worker_args, cwd=cli.folder, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True) for _ in range(2)]
    tick = cli.run("tick", "--date", "2026-03-01", "--smtp", server.url, "--from",
                   "news@quillo.example", "--connections", "2", "--rate", "600/s", check=False)
    results = [w.communicate(timeout=300) for w in workers]
    for w, (out, err) in zip(workers, results):
        assert w.returncode == 0, err
    assert tick.returncode == 0, tick.stdout + tick.stderr
    assert "messages=%d" % n in tick.stdout, tick.stdout + tick.stderr
    got = server.accepted()
    assert sorted(got) == addresses(n) and set(got.values()) == {1}
    by_workers = [int(out.split("sent ")[1].split(",")[0]) for out, _ in results]
    by_tick = int(tick.stdout.split(" sent=")[1].split()[0])
    assert sum(by_workers) + by_tick == n
    assert all(k > 0 for k in by_workers)  # Each worker took a share.
    assert ledger_states(cli).get("accepted") == n


def test_worker_refuses_a_queue_or_campaign_of_its_own(cli, sink):
    server = sink()
    done = cli.run("send", "--worker", "--campaign", "Drip", "--smtp", server.url, check=False)
    assert done.returncode == 1 and "--worker sends the queues tick keeps" in done.stderr


def test_deferred_messages_of_a_long_queue_read_in_parts_are_each_sent_once(cli, sink):
    # The queue is read 8,192 messages at a time: the deferred ones of the
    # first part wait while the second is sent, then go out.
    server = sink("--defer-every", "1000")
    queue = campaign_of(cli, 9000)
    done = send(cli, queue, server)
    assert done.returncode == 0, done.stderr
    assert "sent 9000, refused 0, failed 0, deferred 0" in done.stdout
    assert len(server.lines("DEFERRED")) == 9
    got = server.accepted()
    assert sorted(got) == addresses(9000) and set(got.values()) == {1}

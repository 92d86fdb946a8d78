"""quillo report after a few days of ticks: the terminal table and the HTML
charts count what the database holds, and the HTML file opens in headless
Chromium, renders, and fetches nothing."""
import datetime
import html.parser
import http.server
import os
import re
import shutil
import socketserver
import sqlite3
import struct
import subprocess
import threading
import zlib

import pytest

from test_cli import QUILLO, cli, smtp_server  # noqa: F401 (fixtures)
from test_cli_tick import setup_month, tick


class Charts(html.parser.HTMLParser):
    """The data attributes of the report's chart elements."""

    def __init__(self):
        super().__init__()
        self.bars, self.reach, self.scripts, self.urls = [], [], 0, []

    def handle_starttag(self, tag, attrs):
        a = dict(attrs)
        if tag == "script":
            self.scripts += 1
        for key in ("src", "href"):
            if key in a:
                self.urls.append(a[key])
        if tag == "rect" and a.get("class") == "bar":
            self.bars.append((a["data-day"], a["data-state"], int(a["data-count"])))
        if tag == "rect" and a.get("class") == "reach":
            self.reach.append((a["data-item"], int(a["data-count"])))


def charts_of(text):
    parser = Charts()
    parser.feed(text)
    return parser


def database_counts(cli, campaign):
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    try:
        cid = db.execute("SELECT RecID FROM dmmrktcmp WHERE CampaignName = ?",
                         (campaign,)).fetchone()[0]
        by_day = db.execute("SELECT RunDate, State, COUNT(*) FROM quillo_deliveries WHERE "
                            "CampaignRecID = ? GROUP BY RunDate, State", (cid,)).fetchall()
        reach = db.execute("SELECT i.RecID, COUNT(DISTINCT s.Account) FROM dmmrktcmpitems i "
                           "LEFT JOIN dmsentitems s ON s.CampaignItemRecID = i.RecID WHERE "
                           "i.CampaignRecID = ? GROUP BY i.RecID", (cid,)).fetchall()
        enrolled = db.execute("SELECT COUNT(*) FROM dmclientsmrktcmp WHERE CampaignRecID = ?",
                              (cid,)).fetchone()[0]
    finally:
        db.close()
    names = {"claimed": "queued", "in-doubt": "in doubt"}
    return ({(d, names.get(s, s), n) for d, s, n in by_day}, set(reach) | {("", enrolled)})


@pytest.fixture
def reported(cli, smtp_server):
    server = smtp_server()
    setup_month(cli)
    for day in range(1, 13):
        tick(cli, server, datetime.date(2026, 3, day))
    out = cli.out("report", "--campaign", "Seq", "--date", "2026-03-12", "--days", "12",
                  "--html", "report.html")
    return out, (cli.folder / "report.html").read_text()


def test_the_terminal_report_counts_what_the_database_holds(cli, reported):
    out, _ = reported
    by_day, _ = database_counts(cli, "Seq")
    lines = out.splitlines()
    assert lines[0] == ("campaign Seq: 2026-03-01 to 2026-03-12 (12 days), by the campaign "
                        "date of each message")
    table = {line.split()[0]: [int(n) for n in line.split()[1:]] for line in lines[2:]
             if line[:4] in ("2026", "tota")}
    states = ["queued", "accepted", "deferred", "refused", "failed", "in doubt", "suppressed",
              "unsubscribed", "bounced"]
    expected = {}
    for day, state, n in by_day:
        expected.setdefault(day, [0] * 9)[states.index(state)] += n
    assert {d: v for d, v in table.items() if d != "total"} == expected
    assert table["total"] == [sum(v[i] for v in expected.values()) for i in range(9)]
    # a and b (enrolled on the 1st) got all three items, c (the 5th) two.
    assert table["total"][1] == 8
    assert "enrolled   3 clients" in out


def test_the_html_report_is_self_contained_and_its_charts_match_the_database(cli, reported):
    _, page = reported
    charts = charts_of(page)
    by_day, reach = database_counts(cli, "Seq")
    assert set(charts.bars) == by_day
    assert set(charts.reach) == reach
    assert charts.scripts == 0 and charts.urls == []
    assert "http" not in page


def png_colours(path):
    """The distinct pixel colours of an 8-bit RGB or RGBA PNG."""
    data = open(path, "rb").read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    pos, idat, width, height, kind = 8, b"", 0, 0, 0
    while pos < len(data):
        length, chunk = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if chunk == b"IHDR":
            width, height, depth, kind = struct.unpack(">IIBB", body[:10])
            assert depth == 8 and kind in (2, 6)
        elif chunk == b"IDAT":
            idat += body
        pos += 12 + length
    bpp = 3 if kind == 2 else 4
    raw, stride, prev, colours, i = zlib.decompress(idat), width * bpp, bytearray(width * bpp), \
        set(), 0
    for _ in range(height):
        f, line = raw[i], bytearray(raw[i + 1:i + 1 + stride])
        i += 1 + stride
        for x in range(stride):
            a = line[x - bpp] if x >= bpp else 0
            b, c = prev[x], prev[x - bpp] if x >= bpp else 0
            if f == 1:
                line[x] = (line[x] + a) & 255
            elif f == 2:
                line[x] = (line[x] + b) & 255
            elif f == 3:
                line[x] = (line[x] + (a + b) // 2) & 255
            elif f == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[x] = (line[x] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        colours.update(bytes(line[x:x + 3]) for x in range(0, stride, bpp))
        prev = line
    return colours


class RecordingProxy:
    """A proxy that records the host of each request a browser makes
    through it, and answers none."""

    # Chromium's own services, which it calls whatever the page is.
    BROWSER_HOSTS = re.compile(r"(^|\.)(googleapis\.com|google\.com|gvt1\.com|gstatic\.com)$")

    def __init__(self):
        self.hosts = []
        proxy = self

        class Handler(socketserver.BaseRequestHandler):
            def handle(self):
                self.request.settimeout(5)
                try:
                    line = self.request.recv(4096).split(b"\r\n")[0].decode("latin-1")
                except OSError:
                    line = ""
                if not line:
                    # Chromium opens spare connections to its proxy ahead of
                    # need; one that carries no request fetched nothing.
                    return
                target = line.split(" ")[1] if line.count(" ") >= 2 else line
                host = re.sub(r"^[a-z]+://", "", target).split("/")[0].split(":")[0]
                proxy.hosts.append(host)

        self.server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
        self.port = self.server.server_address[1]
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def page_requests(self):
        return [h for h in self.hosts if not self.BROWSER_HOSTS.search(h)]

    def close(self):
        self.server.shutdown()
        self.server.server_close()


def chromium(*args, proxy, profile):
    binary = shutil.which("chromium")
    if not binary:
        pytest.skip("Chromium is not installed")
    return subprocess.run([binary, "--headless=new", "--no-sandbox", "--disable-gpu",
                           "--no-first-run", "--disable-background-networking",
                           "--disable-component-update", "--disable-sync",
                           "--disable-default-apps", "--user-data-dir=" + str(profile),
                           "--proxy-server=http://127.0.0.1:%d" % proxy.port,
                           "--proxy-bypass-list=<-loopback>", *args],
                          capture_output=True, text=True, timeout=120)


def test_chromium_renders_the_report_without_a_network_request(cli, reported, tmp_path):
    proxy = RecordingProxy()
    try:
        page = cli.folder / "report.html"
        shot = tmp_path / "report.png"
        done = chromium("--screenshot=" + str(shot), "--window-size=900,700", page.as_uri(),
                        proxy=proxy, profile=tmp_path / "profile")
        if not shot.exists():
            pytest.skip("Chromium could not start here: " + done.stderr[-500:])
        dom = chromium("--dump-dom", page.as_uri(), proxy=proxy, profile=tmp_path / "profile")
        # The chart as the browser built it counts what the file says.
        assert set(charts_of(dom.stdout).bars) == set(charts_of(page.read_text()).bars)
        colours = png_colours(str(shot))
        accepted = bytes.fromhex("2f9e44")
        assert accepted in colours, "the accepted bars are drawn"
        assert proxy.page_requests() == [], "the report made a network request"

        # The proxy does see a page that fetches something.
        fetching = tmp_path / "fetching.html"
        fetching.write_text('<img src="http://quillo.example/pixel.png">')
        chromium("--dump-dom", fetching.as_uri(), proxy=proxy, profile=tmp_path / "profile")
        assert "quillo.example" in proxy.page_requests()
    finally:
        proxy.close()


def test_python_gets_the_report_as_plain_values(quillo, cli, reported):
    out, page = reported
    conn = quillo.OpenConnection(cli.db)
    db = sqlite3.connect(str(cli.folder / "quillo.db"))
    cid = db.execute("SELECT RecID FROM dmmrktcmp WHERE CampaignName = 'Seq'").fetchone()[0]
    db.close()
    report = quillo.campaign_report(conn, cid, "2026-03-12", 12)
    assert report["campaign_name"] == "Seq"
    assert (report["first_day"], report["last_day"]) == ("2026-03-01", "2026-03-12")
    assert len(report["days"]) == 12 and report["days"][0]["day"] == "2026-03-01"
    assert report["totals"]["accepted"] == 8 and report["totals"]["in_doubt"] == 0
    assert report["enrolled"] == 3
    assert [(i["description"], i["clients"]) for i in report["funnel"]] == [
        ("Seq 0", 3), ("Seq 3", 3), ("Seq 10", 2)]
    assert set(charts_of(report["html"]).bars) == set(charts_of(page).bars)
    with pytest.raises(Exception):
        quillo.campaign_report(conn, "no-such-campaign", "2026-03-12", 12)

"""One-click unsubscribe: every campaign message carries List-Unsubscribe
(https and mailto), List-Unsubscribe-Post and List-Id, and a per-recipient
link in the body; `quillo serve` takes the one-click POST with the token
from a real sent message, records the opt-out, and the next send skips the
client; forged, truncated and other clients' tokens get 400."""
import re
import subprocess
import urllib.error
import urllib.request

import pytest

from test_cli import QUILLO, cli, smtp_server  # noqa: F401 (fixtures)
from test_dkim import raw_messages, verifies

dkim = pytest.importorskip("dkim", reason="python3-dkim (dkimpy) is installed by ./run")


@pytest.fixture
def server_of(cli):
    started = []

    def start():
        p = subprocess.Popen([QUILLO, "--db", cli.db, "serve", "--listen", "127.0.0.1:0",
                              "--seconds", "120"], stdout=subprocess.PIPE, text=True)
        line = p.stdout.readline()
        match = re.match(r"listening on (http://127\.0\.0\.1:\d+)", line)
        assert match, line
        started.append(p)
        return match.group(1)

    yield start
    for p in started:
        p.terminate()
        p.wait(timeout=10)


def request(url, method="GET", body=None):
    req = urllib.request.Request(url, data=body, method=method)
    if body is not None:
        req.add_header("Content-Type", "application/x-www-form-urlencoded")
    try:
        with urllib.request.urlopen(req, timeout=10) as r:
            return r.status, r.read().decode()
    except urllib.error.HTTPError as e:
        return e.code, e.read().decode()


def campaign(cli):
    path = cli.folder / "item.txt"
    path.write_text("[HEADER]\nReplace: FIRST\n[/HEADER]\nDear <!--FIRST-->,\n\n"
                    "<!--UNSUBSCRIBE-->\n")
    cli.run("campaign", "add", "--name", "News", "--type", "1")
    cli.run("campaign", "item", "--campaign", "News", "--file", str(path), "--interval", "0",
            "--description", "Hello")
    cli.run("campaign", "item", "--campaign", "News", "--file", str(path), "--interval", "1",
            "--description", "Day two")
    for address, first in (("ada@example.test", "Ada"), ("alan@example.test", "Alan")):
        cli.run("client", "add", "--email", address, "--first", first)
        cli.run("enrol", "add", "--campaign", "News", "--client", address, "--date", "2026-03-01")


def send(cli, smtp, base, date, *extra):
    return cli.run("send", "--campaign", "News", "--date", date, "--smtp",
                   "smtp://127.0.0.1:%d" % smtp.port, "--from", "news@quillo.example",
                   "--unsubscribe-url", base + "/quillo/", "--unsubscribe-mailto",
                   "unsubscribe@quillo.example", "-q", *extra)


def test_a_one_click_post_from_a_sent_message_unsubscribes_that_client(cli, smtp_server,
                                                                       server_of):
    smtp = smtp_server()
    base = server_of()
    campaign(cli)
    key = cli.folder / "dkim.pem"
    out = cli.out("dkim", "keygen", "--key", str(key), "--selector", "s", "--domain",
                  "quillo.example")
    record = re.search(r'IN TXT "(.*)"', out).group(1).encode()
    send(cli, smtp, base, "2026-03-01", "--dkim-key", str(key), "--dkim-selector", "s")
    got = smtp.messages()
    (ada,) = got["ada@example.test"]
    (alan,) = got["alan@example.test"]
    links = {}
    for address, message in (("ada", ada), ("alan", alan)):
        header = " ".join(str(message["List-Unsubscribe"]).split())
        url = re.match(r"<(http://127\.0\.0\.1:\d+/quillo/u/[^>]+)>, "
                       r"<mailto:unsubscribe@quillo\.example\?subject=unsubscribe>$", header)
        assert url, header
        links[address] = url.group(1)
        assert message["List-Unsubscribe-Post"] == "List-Unsubscribe=One-Click"
        assert message["List-Id"].startswith('"News" <')
        assert "Unsubscribe: " + links[address] in message.get_content()
    for raw in raw_messages(smtp):
        assert b"list-unsubscribe:list-unsubscribe-post" in re.sub(rb"\s", b"", raw)
        assert dkim.verify(raw, dnsfunc=lambda name, timeout=5: record)
        assert verifies(raw, {"s": record})  # And OpenDKIM agrees.
    assert links["ada"] != links["alan"]
    # The server answers at the path under its own root.
    ada_path = links["ada"].split("/quillo", 1)[1]
    alan_path = links["alan"].split("/quillo", 1)[1]

    status, page = request(base + ada_path)
    assert status == 200 and "<form method=\"post\"" in page and "<script" not in page
    assert "ada@example.test" not in cli.out("suppress", "list")

    # Forged, truncated, altered, another client's token: 400, nothing said.
    client, camp, token = ada_path.split("/")[2:5]
    alan_client = alan_path.split("/")[2]
    forged = "A" * len(token) if token[0] != "A" else "B" * len(token)
    for bad in ("/u/%s/%s/%s" % (client, camp, forged), "/u/%s/%s/%s" % (client, camp, token[:-2]),
                "/u/%s/%s/%s" % (alan_client, camp, token), "/u/%s/%s" % (client, camp),
                "/u/%s/%s/%s" % (client, "X" + camp[1:], token)):
        status, body = request(base + bad, "POST", b"List-Unsubscribe=One-Click")
        assert (status, body) == (400, "Bad request\n"), bad
    assert "(none)" in cli.out("suppress", "list")

    status, _ = request(base + ada_path, "POST", b"List-Unsubscribe=One-Click")
    assert status == 200
    listing = cli.out("suppress", "list")
    assert "ada@example.test" in listing and "unsubscribed" in listing
    assert "alan@example.test" not in listing
    # Replayed: still fine, nothing new.
    assert request(base + ada_path, "POST", b"List-Unsubscribe=One-Click")[0] == 200
    assert request(base + "/health")[0] == 200

    # The next day's send skips her.
    done = send(cli, smtp, base, "2026-03-02")
    assert "suppressed 1 messages" in done.stdout
    got = smtp.messages()
    assert len(got["ada@example.test"]) == 1 and len(got["alan@example.test"]) == 2


def test_a_bad_unsubscribe_url_is_refused(cli, smtp_server):
    smtp = smtp_server()
    campaign(cli)
    done = cli.run("send", "--campaign", "News", "--date", "2026-03-01", "--smtp",
                   "smtp://127.0.0.1:%d" % smtp.port, "--from", "news@quillo.example",
                   "--unsubscribe-url", "ftp://example.test/u", "-q", check=False)
    assert done.returncode == 1 and "--unsubscribe-url must start with https://" in done.stderr
    assert smtp.messages() == {}


def headless_chromium(profile):
    """Debian's Chromium under chromedriver, headless; skips the test only
    when it cannot start here."""
    webdriver = pytest.importorskip("selenium.webdriver",
                                    reason="python3-selenium is installed by ./run")
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--no-first-run", "--user-data-dir=" + str(profile),
                "--proxy-server=http://127.0.0.1:9", "--proxy-bypass-list=127.0.0.1"):
        options.add_argument(arg)
    try:
        return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    except Exception as e:  # noqa: BLE001 (any failure to start is the same to us)
        pytest.skip("Chromium could not start here: %s" % str(e)[:300])


def test_chromium_opens_the_unsubscribe_page_and_submits_it(cli, smtp_server, server_of,
                                                            tmp_path):
    smtp = smtp_server()
    base = server_of()
    campaign(cli)
    send(cli, smtp, base, "2026-03-01")
    (ada,) = smtp.messages()["ada@example.test"]
    # The server answers at the path under its own root (a web server maps /quillo/ to it).
    link = re.search(r"Unsubscribe: (\S+)", ada.get_content()).group(1).replace("/quillo/", "/")
    browser = headless_chromium(tmp_path / "profile")
    try:
        browser.set_page_load_timeout(30)
        browser.get(link)
        assert browser.title == "Unsubscribe"
        # No script on the page: the form works with JavaScript off.
        assert browser.execute_script("return document.scripts.length") == 0
        assert "ada@example.test" not in cli.out("suppress", "list")
        browser.find_element("css selector", "form button[type=submit]").click()
        from selenium.webdriver.support.ui import WebDriverWait
        WebDriverWait(browser, 20).until(
            lambda b: b.find_element("css selector", "h1").text == "Unsubscribed")
        assert "You will get no more mail from this list." in browser.page_source
    finally:
        browser.quit()
    listing = cli.out("suppress", "list")
    assert "ada@example.test" in listing and "unsubscribed" in listing
    assert "alan@example.test" not in listing
    done = send(cli, smtp, base, "2026-03-02")
    assert "suppressed 1 messages" in done.stdout
    assert len(smtp.messages()["ada@example.test"]) == 1

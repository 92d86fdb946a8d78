"""The README's tour runs word for word: its shell block is taken from the
README, run from a copy of the repository's root (examples/tour and the
build) against aiosmtpd on loopback, and what arrived is checked."""
import os
import re
import shutil
import subprocess

from test_cli import QUILLO, _ROOT, smtp_server  # noqa: F401 (fixture)


def tour_block():
    text = open(os.path.join(_ROOT, "README.md"), encoding="utf-8").read()
    section = text[text.index("## A five-minute tour of the command"):]
    return re.search(r"```sh\n(.*?)```", section, re.S).group(1)


def test_the_readme_tour_runs_as_written_and_delivers_the_campaign(tmp_path, smtp_server):
    server = smtp_server()
    root = tmp_path / "clone"
    shutil.copytree(os.path.join(_ROOT, "examples"), root / "examples")
    # The tour names the command as build/release/cli/quillo under the root.
    (root / "build" / "release" / "cli").mkdir(parents=True)
    os.symlink(QUILLO, root / "build" / "release" / "cli" / "quillo")
    env = dict(os.environ, MAILHOST="127.0.0.1", MAILPORT=str(server.port))
    done = subprocess.run(["bash", "-c", "set -euo pipefail\n" + tour_block()], cwd=root,
                          env=env, capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr

    got = server.messages()
    assert sorted(got) == ["ada@example.test", "alan@example.test", "grace@example.test"]
    for address, messages in got.items():
        subjects = sorted(m["Subject"] for m in messages)
        assert subjects == ["Three days in", "Welcome!"], (address, subjects)
        assert all(m["From"].addresses[0].display_name == "Example News" for m in messages)
    def body(address, subject):
        (m,) = [m for m in got[address] if m["Subject"] == subject]
        return m.get_content()

    alan_day3 = body("alan@example.test", "Three days in")
    assert "Hello Alan," in alan_day3 and "Hut 8, Bletchley Park" in alan_day3
    assert body("ada@example.test", "Welcome!").startswith("Dear Ada,\n")
    # The second send of the same day found nothing new to send.
    assert "sent 0, refused 0, failed 0" in done.stdout
    assert "ada@example.test" in (root / "examples" / "tour" / "ada.xml").read_text()
    # The tick ran the next day, which had nothing for anyone; the report is written.
    assert re.search(r"tick campaign=\"Welcome\" date=2026-03-06 done: all delivered messages=0 ", done.stdout), done.stdout
    assert "<svg" in (root / "examples" / "tour" / "report.html").read_text()

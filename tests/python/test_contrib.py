"""The service units and the cron line in contrib/ are valid as shipped and
run the daily tick when pointed at a real folder."""
import os
import shutil
import subprocess

import pytest

from test_cli import QUILLO, _ROOT

CONTRIB = os.path.join(_ROOT, "contrib")


def test_the_systemd_units_verify(tmp_path):
    analyze = shutil.which("systemd-analyze")
    if not analyze:
        pytest.skip("systemd-analyze is not installed")
    for name in ("quillo-tick.service", "quillo-tick.timer"):
        text = open(os.path.join(CONTRIB, name)).read()
        assert "ExecStart=/usr/local/bin/quillo " in text or name.endswith(".timer")
        # The installed command's path, here the built one.
        (tmp_path / name).write_text(text.replace("/usr/local/bin/quillo", QUILLO))
    done = subprocess.run([analyze, "verify", "--man=no", str(tmp_path / "quillo-tick.service"),
                           str(tmp_path / "quillo-tick.timer")], capture_output=True, text=True,
                          timeout=60)
    assert done.returncode == 0 and done.stderr.strip() == "", done.stderr


def test_the_cron_line_runs_a_tick_and_logs_it(tmp_path):
    lines = [line for line in open(os.path.join(CONTRIB, "quillo.cron"))
             if line.strip() and not line.startswith("#")]
    assert len(lines) == 1
    fields = lines[0].split(None, 5)
    assert fields[:5] == ["15", "6", "*", "*", "*"]
    command = fields[5].replace("/srv/quillo", str(tmp_path)).replace("/usr/local/bin/quillo",
                                                                      QUILLO)
    subprocess.run([QUILLO, "--db", "sqlite:" + str(tmp_path / "quillo.db"), "init"], check=True,
                   capture_output=True, timeout=60)
    done = subprocess.run(["/bin/sh", "-c", command], capture_output=True, text=True,
                          timeout=120)
    assert done.returncode == 0
    log = (tmp_path / "tick.log").read_text()
    assert "tick ran 0 campaign dates" in log

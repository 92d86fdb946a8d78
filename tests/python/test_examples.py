"""The two example hosts in examples/ run to the end and queue what they say."""
import os
import subprocess
import sys

_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
_BUILD = os.environ.get("QUILLO_BUILD_DIR") or os.path.join(_ROOT, "build", "release")
_PYTHON_DIR = os.environ.get("QUILLO_PYTHON_DIR") or os.path.join(_BUILD, "python")


def test_cpp_host_runs_each_campaign_kind(tmp_path):
    done = subprocess.run([os.path.join(_BUILD, "cpp_host"), str(tmp_path / "host.db")],
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    for kind in ("kind 0:", "kind 1:", "kind 2:"):
        assert kind in done.stdout
    assert (tmp_path / "host.db").exists()


def test_python_host_queues_its_messages(tmp_path):
    env = dict(os.environ, PYTHONPATH=_PYTHON_DIR)
    done = subprocess.run([sys.executable, os.path.join(_ROOT, "examples", "python_host.py"),
                           str(tmp_path)], capture_output=True, text=True, timeout=120, env=env)
    assert done.returncode == 0, done.stderr
    assert "queued 4 messages in" in done.stdout
    assert (tmp_path / "queue.txt").exists()

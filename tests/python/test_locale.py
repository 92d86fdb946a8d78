"""Numbers keep "." as the point whatever LC_NUMERIC the host sets."""

import os
import shutil
import subprocess
import sys

import pytest

CHECK = r"""
import locale, sys
locale.setlocale(locale.LC_ALL, "de_DE.UTF-8")
assert locale.localeconv()["decimal_point"] == ",", locale.localeconv()
import quillo
t = quillo.CreateObject("QuilloTestClass")
t.Text = 3.5
assert t.Text == "3.5", t.Text
t.Text = 1.5e-07
assert t.Text == "1.5E-07", t.Text
t.Amount = "2.5"
assert t.Amount == 2.5, t.Amount
t.Count = "12.5"
assert t.Count == 12, t.Count
print("ok")
"""


@pytest.fixture(scope="module")
def german_locale_dir(tmp_path_factory):
    localedef = shutil.which("localedef")
    if localedef is None:
        pytest.skip("localedef is not installed")
    folder = tmp_path_factory.mktemp("locales")
    result = subprocess.run(
        [localedef, "-i", "de_DE", "-f", "UTF-8", str(folder / "de_DE.UTF-8")],
        capture_output=True, text=True, timeout=120)
    if not (folder / "de_DE.UTF-8").exists():
        pytest.skip("cannot build the de_DE locale: " + result.stderr)
    return folder


def test_numbers_ignore_a_comma_decimal_locale(quillo, german_locale_dir):
    env = dict(os.environ)
    env["LOCPATH"] = str(german_locale_dir)
    env["PYTHONPATH"] = os.path.dirname(quillo.__file__)
    result = subprocess.run([sys.executable, "-c", CHECK], env=env, capture_output=True,
                            text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == "ok"

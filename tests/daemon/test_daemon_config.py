"""The daemon binary refuses a bad configuration before it starts anything,
and stops promptly on SIGTERM while its connects are still blocked."""

from __future__ import annotations

import json
import subprocess
import time

import pytest

from conftest import DAEMON


# Every field's rule: test_config.cpp. Here the program's side: exit status
# 2, the file and the field named, nothing started.
@pytest.mark.parametrize("config, field", [
    ({"platforms": {"manage": {"port": 70000}}}, "platforms.manage.port"),
    ([1, 2], "not a JSON object"),
    (None, "cannot read"),  # no file at all
])
def test_bad_configuration_is_refused_naming_the_field(tmp_path, config, field):
    root = tmp_path / "root"
    if isinstance(config, dict):
        config.setdefault("root", str(root))
    path = tmp_path / "bad.json"
    if config is not None:
        path.write_text(json.dumps(config))
    done = subprocess.run([DAEMON, "-c", str(path)], capture_output=True, text=True, timeout=10)
    assert done.returncode == 2
    assert field in done.stderr and str(path) in done.stderr
    assert not (root / "var").exists()  # nothing was started


def test_sigterm_while_platforms_do_not_answer(gateway):
    gateway.start_daemon()  # no simulator: every connect waits for answers
    gateway.daemon.wait_line("connecting the cube platform", 10)
    time.sleep(0.5)
    started = time.monotonic()
    assert gateway.daemon.stop() == 0
    assert time.monotonic() - started < 6

"""State shared by the servers of one simulator run."""

from __future__ import annotations

import string
import threading
from typing import Any

from .config import Config
from .digest import request_key
from .recorder import Recorder
from .script import Script


class Context:
    def __init__(self, config: Config, recorder: Recorder, script: Script, stop: threading.Event) -> None:
        self.config = config
        self.recorder = recorder
        self.stop = stop
        self.ports: dict[str, int] = dict(config.ports)  # replaced by the bound ports
        self._script = script
        self._lock = threading.Lock()
        self._devrnd: str | None = None

    @property
    def script(self) -> Script:
        with self._lock:
            return self._script

    def replace_script(self, script: Script) -> None:
        with self._lock:
            self._script = script

    def note_devrnd(self, value: str) -> None:
        """The manage platform's proof keys hang on the gateway's latest DevRND."""
        with self._lock:
            self._devrnd = value

    def address(self, name: str) -> str:
        return f"{self.config.advertise}:{self.ports[name]}"

    def placeholders(self) -> dict[str, str]:
        with self._lock:
            devrnd = self._devrnd
        values = {"HOST": self.config.advertise, "SERIAL": self.config.serial or "",
                  "DEVRND": devrnd or ""}
        for name, port in self.ports.items():
            values[name.upper()] = self.address(name)
            values[f"{name.upper()}_PORT"] = str(port)
        values["KEY"] = request_key(devrnd, self.config.serial) if devrnd and self.config.serial else ""
        return values

    def expand(self, value: Any) -> Any:
        """Fill ${NAME} placeholders in every string of a scripted value."""
        return _expand(value, self.placeholders())

    def scaled(self, seconds: float) -> float:
        return seconds * self.config.time_scale


def _expand(value: Any, names: dict[str, str]) -> Any:
    if isinstance(value, str):
        return string.Template(value).safe_substitute(names)
    if isinstance(value, dict):
        return {k: _expand(v, names) for k, v in value.items()}
    if isinstance(value, list):
        return [_expand(v, names) for v in value]
    return value

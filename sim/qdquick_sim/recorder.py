"""Every message in and out, as JSON lines for test assertions."""

from __future__ import annotations

import json
import sys
import threading
import time
from typing import Any, Callable, TextIO

Record = dict[str, Any]


_OUT_LOCK = threading.Lock()


def say(line: str, out: TextIO | None = None) -> None:
    """Writes one whole line and flushes it. print() writes the text and its
    newline separately, so lines printed from several threads could run
    into each other (a reader of the ready line would then misread it)."""
    out = out if out is not None else sys.stdout
    with _OUT_LOCK:
        out.write(line + "\n")
        out.flush()


def parse_json(text: str) -> Any:
    """The parsed message, or None when the text is not JSON."""
    try:
        return json.loads(text)
    except ValueError:
        return None


def to_text(obj: Any) -> str:
    """Compact JSON: the gateway reads platform replies into 512 bytes."""
    return json.dumps(obj, separators=(",", ":"), ensure_ascii=False)


class Recorder:
    """Keeps records in memory (for the control port) and appends each one to
    the record file, flushed per line so a test can read it at any moment."""

    def __init__(self, path: str | None, echo: TextIO | None = None) -> None:
        self._file: TextIO | None = open(path, "a", encoding="utf-8") if path else None
        self._echo = echo
        self._records: list[Record] = []
        self._cond = threading.Condition()

    def add(self, platform: str, transport: str, direction: str, peer: str,
            text: str | None, **fields: Any) -> Record:
        record: Record = {
            "seq": 0,
            "time": round(time.time(), 6),
            "platform": platform,
            "transport": transport,
            "direction": direction,
            "peer": peer,
            "text": text,
            "json": parse_json(text) if text is not None else None,
        }
        record.update({k: v for k, v in fields.items() if v is not None})
        with self._cond:
            record["seq"] = len(self._records) + 1
            self._records.append(record)
            if self._file is not None:
                self._file.write(json.dumps(record, ensure_ascii=False) + "\n")
                self._file.flush()
            self._cond.notify_all()
        if self._echo is not None:
            summary = text if text is None or len(text) < 300 else text[:300] + "..."
            extra = {k: v for k, v in fields.items() if v is not None}
            say(f"[{record['seq']}] {platform}/{transport} {direction} {peer} {extra} {summary}", self._echo)
        return record

    def snapshot(self, since: int = 0) -> list[Record]:
        with self._cond:
            return list(self._records[since:])

    def last_seq(self) -> int:
        with self._cond:
            return len(self._records)

    def wait_for(self, match: Callable[[Record], bool], since: int, timeout: float) -> Record | None:
        """First record after `since` (a sequence number) that matches, waiting
        up to `timeout` seconds for it to arrive."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for record in self._records[since:]:
                    if match(record):
                        return record
                since = len(self._records)
                left = deadline - time.monotonic()
                if left <= 0:
                    return None
                self._cond.wait(left)

    def close(self) -> None:
        with self._cond:
            if self._file is not None:
                self._file.close()
                self._file = None


def stderr_echo(verbose: bool) -> TextIO | None:
    return sys.stderr if verbose else None

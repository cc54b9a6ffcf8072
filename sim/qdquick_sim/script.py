"""The per-test script: how each platform and the message server answer.

The format is described in sim/README.md. A script is loaded once (file or
control port) and consumed as the gateway talks: each scripted answer and
each scripted send is used once, in order.
"""

from __future__ import annotations

import json
import threading
from dataclasses import dataclass, field
from typing import Any

PLATFORMS = ("cube", "manage", "plugin")
ACTIONS = ("answer", "silence", "close")
INTERVAL_KINDS = ("boot", "register", "heartbeat")

DEFAULT_INTERVAL = 60
# The gateway treats >= 1 as success for cube and manage, only 0 for plugin.
DEFAULT_REGISTER_RESULT = {"cube": 1, "manage": 1, "plugin": 0}
# -3 makes the gateway retry Register after one second (a plain -1 would be
# taken for an unusable reply and slow it down to 60 s retries).
DEFAULT_BAD_CHECKSN_RESULT = -3
DEFAULT_BAD_PUSH_RESULT = 1
# The gateway reads its Register reply with one recv; a command sent right
# behind it could land in that same read and be lost, hence a pause.
DEFAULT_SEND_DELAY = 1.0

_ANSWER_CONTROL_KEYS = {"delay", "action", "set", "drop", "replace", "raw"}
_PLATFORM_KEYS = {"interval", "intervals", "register_result", "bad_checksn_result",
                  "extra", "answers", "push", "udp_send"}
_TOP_KEYS = {"platforms", "message", "bad_checksn_result", "appstore", "jobmanager"}
_MESSAGE_KEYS = {"bad_result", "answers"}
_STORE_KEYS = {"token", "answers"}
STORE_KINDS = ("token", "getbind", "connect", "unknown", "invalid")


class ScriptError(ValueError):
    """The script text does not describe a valid script."""


@dataclass
class Answer:
    """One scripted answer; keys of `set` go over the default answer."""
    action: str = "answer"
    delay: float = 0.0
    set: dict[str, Any] = field(default_factory=dict)
    drop: list[str] = field(default_factory=list)
    replace: bool = False
    raw: str | None = None


@dataclass
class Send:
    """A command the simulator sends on its own, once a platform registered."""
    delay: float
    message: Any
    text: str | None


@dataclass
class PlatformScript:
    intervals: dict[str, int] = field(default_factory=lambda: dict.fromkeys(INTERVAL_KINDS, DEFAULT_INTERVAL))
    register_result: int = 1
    bad_checksn_result: int = DEFAULT_BAD_CHECKSN_RESULT
    extra: dict[str, dict[str, Any]] = field(default_factory=dict)
    answers: dict[str, list[Answer]] = field(default_factory=dict)
    push: list[Send] = field(default_factory=list)
    udp_send: list[Send] = field(default_factory=list)


def _need(cond: bool, where: str, what: str) -> None:
    if not cond:
        raise ScriptError(f"{where}: {what}")


def _check_keys(obj: Any, allowed: set[str], where: str) -> dict[str, Any]:
    _need(isinstance(obj, dict), where, "must be a JSON object")
    unknown = sorted(set(obj) - allowed)
    _need(not unknown, where, f"unknown key(s) {', '.join(unknown)}; allowed: {', '.join(sorted(allowed))}")
    return obj


def _number(value: Any, where: str) -> float:
    _need(isinstance(value, (int, float)) and not isinstance(value, bool) and value >= 0,
          where, "must be a number of seconds >= 0")
    return float(value)


def _integer(value: Any, where: str) -> int:
    _need(isinstance(value, int) and not isinstance(value, bool), where, "must be an integer")
    return int(value)


def parse_answer(entry: Any, where: str) -> Answer:
    """A string ("answer", "silence", "close") or an object whose control keys
    (delay, action, set, drop, replace, raw) steer the answer and whose other
    keys are added to it."""
    if isinstance(entry, str):
        _need(entry in ACTIONS, where, f"must be one of {', '.join(ACTIONS)}")
        return Answer(action=entry)
    _need(isinstance(entry, dict), where, "must be a string or a JSON object")
    answer = Answer()
    answer.action = entry.get("action", "answer")
    _need(answer.action in ACTIONS, f"{where}.action", f"must be one of {', '.join(ACTIONS)}")
    answer.delay = _number(entry.get("delay", 0), f"{where}.delay")
    extra = entry.get("set", {})
    _need(isinstance(extra, dict), f"{where}.set", "must be a JSON object")
    answer.set = {**extra, **{k: v for k, v in entry.items() if k not in _ANSWER_CONTROL_KEYS}}
    answer.drop = entry.get("drop", [])
    _need(isinstance(answer.drop, list) and all(isinstance(k, str) for k in answer.drop),
          f"{where}.drop", "must be a list of key names")
    answer.replace = entry.get("replace", False)
    _need(isinstance(answer.replace, bool), f"{where}.replace", "must be true or false")
    answer.raw = entry.get("raw")
    _need(answer.raw is None or isinstance(answer.raw, str), f"{where}.raw", "must be a string")
    return answer


def parse_answer_list(entries: Any, where: str) -> list[Answer]:
    _need(isinstance(entries, list), where, "must be a list of answers")
    return [parse_answer(e, f"{where}[{i}]") for i, e in enumerate(entries)]


def parse_send(entry: Any, where: str) -> Send:
    _check_keys(entry, {"delay", "message", "text"}, where)
    _need(("message" in entry) != ("text" in entry), where, "needs exactly one of message, text")
    text = entry.get("text")
    _need(text is None or isinstance(text, str), f"{where}.text", "must be a string")
    return Send(_number(entry.get("delay", DEFAULT_SEND_DELAY), f"{where}.delay"),
                entry.get("message"), text)


def _parse_platform(name: str, obj: Any, bad_default: int) -> PlatformScript:
    where = f"platforms.{name}"
    _check_keys(obj, _PLATFORM_KEYS, where)
    plat = PlatformScript(register_result=DEFAULT_REGISTER_RESULT[name], bad_checksn_result=bad_default)
    if "interval" in obj:
        plat.intervals = dict.fromkeys(INTERVAL_KINDS, _integer(obj["interval"], f"{where}.interval"))
    for kind, value in _check_keys(obj.get("intervals", {}), set(INTERVAL_KINDS), f"{where}.intervals").items():
        plat.intervals[kind] = _integer(value, f"{where}.intervals.{kind}")
    if "register_result" in obj:
        plat.register_result = _integer(obj["register_result"], f"{where}.register_result")
    if "bad_checksn_result" in obj:
        plat.bad_checksn_result = _integer(obj["bad_checksn_result"], f"{where}.bad_checksn_result")
    extra = obj.get("extra", {})
    _need(isinstance(extra, dict) and all(isinstance(v, dict) for v in extra.values()),
          f"{where}.extra", "must map message types to JSON objects")
    plat.extra = extra
    answers = obj.get("answers", {})
    _need(isinstance(answers, dict), f"{where}.answers", "must map message types to lists")
    plat.answers = {key: parse_answer_list(v, f"{where}.answers.{key}") for key, v in answers.items()}
    for which in ("push", "udp_send"):
        entries = obj.get(which, [])
        _need(isinstance(entries, list), f"{where}.{which}", "must be a list")
        setattr(plat, which, [parse_send(e, f"{where}.{which}[{i}]") for i, e in enumerate(entries)])
    return plat


@dataclass
class StoreScript:
    """The app store: a fixed token value and answers per request kind."""
    token: str | None = None
    answers: dict[str, list[Answer]] = field(default_factory=dict)


def _parse_store(obj: Any) -> StoreScript:
    _check_keys(obj, _STORE_KEYS, "appstore")
    token = obj.get("token")
    _need(token is None or (isinstance(token, str) and token != ""), "appstore.token", "must be a non-empty string")
    answers = _check_keys(obj.get("answers", {}), set(STORE_KINDS), "appstore.answers")
    return StoreScript(token, {k: parse_answer_list(v, f"appstore.answers.{k}") for k, v in answers.items()})


class Script:
    """A parsed script; consuming answers and sends is thread-safe."""

    def __init__(self, platforms: dict[str, PlatformScript] | None = None,
                 message_bad_result: int = DEFAULT_BAD_PUSH_RESULT,
                 message_answers: list[Answer] | None = None,
                 store: StoreScript | None = None,
                 jobmanager_answers: list[Answer] | None = None) -> None:
        self.platforms = {name: PlatformScript(register_result=DEFAULT_REGISTER_RESULT[name])
                          for name in PLATFORMS}
        self.platforms.update(platforms or {})
        self.message_bad_result = message_bad_result
        self._message_answers = list(message_answers or [])
        self._store = store or StoreScript()
        self._jobmanager_answers = list(jobmanager_answers or [])
        self._lock = threading.Lock()

    @classmethod
    def from_obj(cls, obj: Any) -> "Script":
        top = _check_keys(obj, _TOP_KEYS, "script")
        bad_default = DEFAULT_BAD_CHECKSN_RESULT
        if "bad_checksn_result" in top:
            bad_default = _integer(top["bad_checksn_result"], "script.bad_checksn_result")
        plats_obj = top.get("platforms", {})
        _need(isinstance(plats_obj, dict), "platforms", "must be a JSON object")
        unknown = sorted(set(plats_obj) - set(PLATFORMS))
        _need(not unknown, "platforms", f"unknown platform(s) {', '.join(unknown)}")
        platforms = {name: _parse_platform(name, plats_obj.get(name, {}), bad_default) for name in PLATFORMS}
        msg = _check_keys(top.get("message", {}), _MESSAGE_KEYS, "message")
        bad_result = _integer(msg.get("bad_result", DEFAULT_BAD_PUSH_RESULT), "message.bad_result")
        answers = parse_answer_list(msg.get("answers", []), "message.answers")
        jobmanager = _check_keys(top.get("jobmanager", {}), {"answers"}, "jobmanager")
        return cls(platforms, bad_result, answers, _parse_store(top.get("appstore", {})),
                   parse_answer_list(jobmanager.get("answers", []), "jobmanager.answers"))

    @classmethod
    def load(cls, path: str) -> "Script":
        try:
            with open(path, encoding="utf-8") as f:
                obj = json.load(f)
        except (OSError, ValueError) as exc:
            raise ScriptError(f"{path}: {exc}") from exc
        return cls.from_obj(obj)

    def next_answer(self, platform: str, keys: list[str]) -> Answer | None:
        """Take the next scripted answer under the first key that has one left."""
        with self._lock:
            for key in keys:
                queue = self.platforms[platform].answers.get(key)
                if queue:
                    return queue.pop(0)
        return None

    def next_message_answer(self) -> Answer | None:
        with self._lock:
            return self._message_answers.pop(0) if self._message_answers else None

    def next_jobmanager_answer(self) -> Answer | None:
        with self._lock:
            return self._jobmanager_answers.pop(0) if self._jobmanager_answers else None

    @property
    def store_token(self) -> str | None:
        return self._store.token

    def next_store_answer(self, kind: str) -> Answer | None:
        with self._lock:
            queue = self._store.answers.get(kind)
            return queue.pop(0) if queue else None

    def take_sends(self, platform: str, which: str) -> list[Send]:
        """Scripted commands fire once: the first registration takes them all."""
        with self._lock:
            plat = self.platforms[platform]
            sends: list[Send] = getattr(plat, which)
            setattr(plat, which, [])
            return sends

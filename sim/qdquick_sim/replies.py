"""What a platform answers to a message from the gateway.

Pure decisions (no sockets): the platform servers feed each parsed message
in and carry the outcome out over UDP or TCP.
"""

from __future__ import annotations

import threading
from dataclasses import dataclass, field
from typing import Any

from .context import Context
from .digest import check_sn, new_challenge, user_id
from .recorder import parse_json, to_text
from .script import Answer

KINDS = {"BootFirst": "boot", "Boot": "boot",
         "RegisterFirst": "register", "Register": "register",
         "Hb": "heartbeat", "Heartbeat": "heartbeat"}


@dataclass
class Outcome:
    kind: str
    action: str = "none"          # answer | silence | close | none (nothing to answer)
    text: str | None = None
    delay: float = 0.0
    registered: bool = False      # a Register answered with the gateway's success code
    verdicts: dict[str, Any] = field(default_factory=dict)


def kind_of(msg: Any) -> str:
    """boot, register, heartbeat; reply (carries "Result"); command; invalid."""
    if not isinstance(msg, dict):
        return "invalid"
    method = msg.get("RPCMethod")
    if isinstance(method, str) and method in KINDS:
        return KINDS[method]
    return "reply" if "Result" in msg else "command"


def is_success(platform: str, result: Any) -> bool:
    """The gateway's own rule: plugin needs 0, cube and manage 1 or more."""
    if not isinstance(result, int) or isinstance(result, bool):
        return False
    return result == 0 if platform == "plugin" else result >= 1


class Responder:
    def __init__(self, ctx: Context) -> None:
        self._ctx = ctx
        self._lock = threading.Lock()
        # Challenge per platform and gateway address, and the newest per
        # platform for a Register that comes from elsewhere (UDP -> TCP fallback).
        self._challenges: dict[tuple[str, str], str] = {}
        self._latest: dict[str, str] = {}

    def respond(self, platform: str, peer: str, msg: Any) -> Outcome:
        kind = kind_of(msg)
        outcome = Outcome(kind=kind)
        if kind == "invalid":
            outcome.verdicts["note"] = "not a JSON object"
            return outcome
        if platform == "manage" and isinstance(msg.get("DevRND"), str):
            self._ctx.note_devrnd(msg["DevRND"])
        method = msg.get("RPCMethod") if isinstance(msg.get("RPCMethod"), str) else None
        plat = self._ctx.script.platforms[platform]

        default: dict[str, Any] | None
        if kind == "boot":
            default = {"Result": 0, "ChallengeCode": new_challenge(), "Interval": plat.intervals["boot"]}
            default.update(self._extra(platform, method, kind))
        elif kind == "register":
            good = self._check_register(platform, peer, msg, outcome.verdicts)
            if good:
                default = {"Result": plat.register_result,
                           "HeartbeatIPAddr": self._ctx.address(platform),
                           "MessageServer": self._ctx.address("message"),
                           "Interval": plat.intervals["register"]}
                default.update(self._extra(platform, method, kind))
            elif outcome.verdicts.get("challenge_known") is False:
                # No Boot of this gateway seen (this platform restarted in
                # between, say): a retry with the same challenge could never
                # succeed, so the gateway is sent back to Boot.
                default = {"Result": -2}
            else:
                default = {"Result": plat.bad_checksn_result}
        elif kind == "heartbeat":
            default = {"Result": 0, "Interval": plat.intervals["heartbeat"]}
            default.update(self._extra(platform, method, kind))
        else:
            default = None  # replies and unknown commands get an answer only when scripted

        keys = [method, kind] if method else [kind]
        scripted = self._ctx.script.next_answer(platform, keys)
        self.apply(outcome, default, scripted)
        if kind == "boot" and isinstance(outcome.text, str):
            self._remember_challenge(platform, peer, outcome.text)
        if kind == "register" and outcome.action == "answer" and outcome.text is not None:
            answer = parse_json(outcome.text)
            outcome.registered = isinstance(answer, dict) and is_success(platform, answer.get("Result"))
        return outcome

    def apply(self, outcome: Outcome, default: dict[str, Any] | None, scripted: Answer | None) -> None:
        """Fill the outcome from the default answer and an optional scripted one."""
        if scripted is None:
            if default is not None:
                outcome.action = "answer"
                outcome.text = to_text(self._ctx.expand(default))
            return
        outcome.verdicts["scripted"] = True
        outcome.action = scripted.action
        outcome.delay = self._ctx.scaled(scripted.delay)
        if scripted.action != "answer":
            return
        if scripted.raw is not None:
            outcome.text = self._ctx.expand(scripted.raw)
            return
        answer = {} if scripted.replace or default is None else dict(default)
        answer.update(scripted.set)
        for key in scripted.drop:
            answer.pop(key, None)
        outcome.text = to_text(self._ctx.expand(answer))

    def _extra(self, platform: str, method: str | None, kind: str) -> dict[str, Any]:
        extra = self._ctx.script.platforms[platform].extra
        merged = dict(extra.get(kind, {}))
        if method:
            merged.update(extra.get(method, {}))
        return merged

    def _check_register(self, platform: str, peer: str, msg: dict[str, Any], verdicts: dict[str, Any]) -> bool:
        serial = self._ctx.config.serial
        if serial is None:
            return True  # nothing to check against: accept, verdicts stay unset
        with self._lock:
            challenge = self._challenges.get((platform, peer), self._latest.get(platform))
        verdicts["challenge_known"] = challenge is not None
        verdicts["checksn_ok"] = challenge is not None and msg.get("CheckSN") == check_sn(challenge, serial)
        loid = self._ctx.config.loid
        if platform == "manage" and loid is not None:
            verdicts["userid_ok"] = msg.get("UserID") == user_id(serial, loid)
        return bool(verdicts["checksn_ok"]) and verdicts.get("userid_ok", True)

    def _remember_challenge(self, platform: str, peer: str, text: str) -> None:
        answer = parse_json(text)
        if isinstance(answer, dict) and isinstance(answer.get("ChallengeCode"), str):
            with self._lock:
                self._challenges[(platform, peer)] = answer["ChallengeCode"]
                self._latest[platform] = answer["ChallengeCode"]

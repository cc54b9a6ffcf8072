"""The message server's check of signed MessagePush frames."""

from __future__ import annotations

import base64
import socket

import pytest
from conftest import SERIAL, TcpGateway, md5u

EVENT = '{"Event":"wan up","detail":"é"}'


def signed_push(event: str = EVENT, mac: str = "00:11:22:33:44:55", serial: str = SERIAL) -> dict[str, str]:
    time_text = "20240305070809"
    message = base64.b64encode(event.encode()).decode()
    return {"RPCMethod": "MessagePush", "Plugin_Name": "", "time": time_text,
            "MD5": md5u(time_text + message + mac + serial), "mac": mac, "Message": message}


def send_push(sim, push) -> dict:
    gw = TcpGateway(sim.ports["message"])
    reply = gw.ask(push)
    assert gw.sock.recv(10) == b""          # one push per connection
    return reply


# Each signed field's part in the digest (the library's own push is checked
# against this in tests/unit/test_session_msg.cpp).
@pytest.mark.parametrize("field,value", [
    (None, None),                            # as signed
    ("time", "20240305070810"),
    ("Message", base64.b64encode(b"wan down").decode()),
    ("mac", "00:11:22:33:44:56"),
    ("MD5", signed_push()["MD5"].lower()),   # the digest text is upper case only
    ("RPCMethod", "Push"),
])
def test_push_checked_and_event_recorded(make_sim, field, value):
    sim = make_sim()
    push = signed_push()
    if field:
        push[field] = value
    assert send_push(sim, push) == {"Result": 0 if field is None else 1}
    record = sim.wait(platform="message")
    assert record["signature_ok"] is (field is None)
    if field is None:
        assert record["event"] == EVENT


def test_wrong_serial_and_scripted_answers(make_sim):
    sim = make_sim({"message": {"bad_result": 7, "answers": [{"Result": 3}, "close", "silence"]}})
    assert send_push(sim, signed_push()) == {"Result": 3}
    closed = TcpGateway(sim.ports["message"])
    closed.send(signed_push())
    assert closed.sock.recv(10) == b""
    silent = TcpGateway(sim.ports["message"])
    silent.send(signed_push())
    with pytest.raises(socket.timeout):
        silent.recv(timeout=0.3)
    assert send_push(sim, signed_push(serial="SN-OTHER")) == {"Result": 7}

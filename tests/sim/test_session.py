"""Boot, Register and Heartbeat as each platform answers them by default."""

from __future__ import annotations

import socket
import struct
import time

import pytest
from conftest import HOST, LOID, SERIAL, TcpGateway, UdpGateway, boot_register, frame, md5u

# platform, transport, Boot, Register, Heartbeat, result of a good Register
SESSIONS = [
    ("cube", "udp", "BootFirst", "RegisterFirst", None, 1),
    ("manage", "udp", "Boot", "Register", "Hb", 1),
    ("manage", "tcp", "Boot", "Register", "Hb", 1),
    ("plugin", "tcp", "Boot", "Register", "Heartbeat", 0),
    ("plugin", "udp", "Boot", "Register", "Heartbeat", 0),
]


@pytest.mark.parametrize("platform,transport,boot,register,heartbeat,good_result", SESSIONS)
def test_session_good_and_wrong_checksn(make_sim, platform, transport, boot, register, heartbeat, good_result):
    sim = make_sim()
    port = sim.ports[platform]
    extra = {"UserID": md5u(SERIAL + LOID)} if platform == "manage" else {}
    gw = TcpGateway(port) if transport == "tcp" else UdpGateway(port)

    # No Boot seen from this gateway (the platform restarted in between): back to Boot.
    assert gw.ask({"RPCMethod": register, "CheckSN": "0" * 32, **extra}) == {"Result": -2}

    # A wrong serial gives a wrong CheckSN: refused with the documented -3.
    booted, refused = boot_register(gw, boot, register, serial="OTHER", **extra)
    assert booted["Result"] == 0 and len(booted["ChallengeCode"]) >= 8 and booted["Interval"] == 60
    assert refused == {"Result": -3}

    booted2, accepted = boot_register(gw, boot, register, **extra)
    assert booted2["ChallengeCode"] != booted["ChallengeCode"]
    assert accepted == {"Result": good_result, "HeartbeatIPAddr": f"{HOST}:{port}",
                        "MessageServer": f"{HOST}:{sim.ports['message']}", "Interval": 60}
    if heartbeat:
        assert gw.ask({"RPCMethod": heartbeat, "MAC": "m"}) == {"Result": 0, "Interval": 60}

    registers = [r for r in sim.file_records() if r.get("kind") == "register"]
    assert [r["checksn_ok"] for r in registers] == [False, False, True]
    assert all(r["platform"] == platform and r["transport"] == transport for r in registers)


def test_manage_register_with_wrong_userid_is_refused(make_sim):
    sim = make_sim()
    _, reply = boot_register(UdpGateway(sim.ports["manage"]), "Boot", "Register", UserID=md5u(LOID + SERIAL))
    assert reply == {"Result": -3}
    record = sim.wait(kind="register")
    assert record["checksn_ok"] is True and record["userid_ok"] is False


def test_frame_split_across_segments_and_stream_stays_in_step(make_sim):
    sim = make_sim()
    gw = TcpGateway(sim.ports["plugin"])
    gw.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    data = frame(b'{"RPCMethod": "Boot", "MAC": "00:11:22:33:44:55"}')
    for piece in (data[:1], data[1:4], data[4:9], data[9:20], data[20:]):
        gw.sock.sendall(piece)
        time.sleep(0.05)
    assert gw.recv()["Result"] == 0
    # Two frames in one segment are two messages.
    gw.sock.sendall(frame(b'{"RPCMethod": "Heartbeat"}') * 2)
    assert gw.recv() == gw.recv() == {"Result": 0, "Interval": 60}


@pytest.mark.parametrize("bad", [b"not json", b"[1,2]", b"\xff\xfe{"])
def test_garbage_is_recorded_unanswered_and_survived(make_sim, bad):
    sim = make_sim()
    udp = UdpGateway(sim.ports["manage"])
    udp.sock.sendto(bad, udp.server)
    record = sim.wait(platform="manage", kind="invalid")
    assert record["action"] == "none" and not isinstance(record["json"], dict)
    with pytest.raises(socket.timeout):
        udp.recv(timeout=0.3)
    # A frame longer than the gateway's limit drops the connection, not the simulator.
    tcp = TcpGateway(sim.ports["manage"])
    tcp.sock.sendall(struct.pack(">I", 102401))
    assert tcp.sock.recv(10) == b""
    assert udp.ask({"RPCMethod": "Boot"})["Result"] == 0

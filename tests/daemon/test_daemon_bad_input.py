"""Bad input on the plugin platform's persistent channel: malformed JSON and
commands with every key their handler reads of the wrong type. Each gets the
gateway's answer or none, the channel stays up, the next command is
answered, and threads and descriptors come back to their baseline. (Frames
of bad lengths are the frame reader's: its fuzz target and unit tests.)"""

from __future__ import annotations

import json
import socket

from conftest import HOST, answers_and_settles, up

WRONG = [5, -1, 1e300, None, True, [], ["x", 1], {}, {"a": {}}, "", "!!!!", "A" * 300, "B" * 10221]
KEYS = {
    "UnInstall": ["Plugin_Name", "Version"], "Stop": ["Plugin_Name", "Version"], "Run": ["Plugin_Name", "Version"],
    "Install_query": ["Plugin_Name", "Version"], "FactoryPlugin": ["Plugin_Name", "Version"],
    "Post1": ["Parameter"], "ListPlugin": ["RPCMethod"],
}
REST = '"RPCMethod":"%s","Plugin_Name":"no.such.plugin","Version":"1.0","Parameter":"e30="}'
MALFORMED = ["{", "[]", "null", '"text"', '{"RPCMethod":', '{"a":1}{"b":2}', "[" * 300, '{"Result":"x"}']


def test_bad_commands_on_the_plugin_channel(gateway):
    g = gateway
    base = up(g, "--no-install")
    # The unknown plugin keeps the handlers from touching the sample plugin;
    # the wrong value comes first (cJSON takes the first of duplicate keys).
    texts = MALFORMED + [f'{{"{key}":{json.dumps(value)},' + REST % method
                         for method, keys in KEYS.items() for key in keys for value in WRONG]
    since = g.sim.last_seq()
    # One control connection per command keeps the flood at a pace the
    # gateway's 16 channel workers absorb: a command dropped past them would
    # never reach its handler.
    for text in texts:
        with socket.create_connection((HOST, g.sim.ports["control"]), timeout=30) as c:
            c.sendall((json.dumps({"cmd": "push", "platform": "plugin", "text": text}) + "\n").encode())
            assert json.loads(c.makefile().readline())["ok"], text[:100]
    assert g.sim.push("plugin", 30, message={"RPCMethod": "ListPlugin", "ID": "after"})["json"]["Result"] == 0
    for record in g.sim.records(platform="plugin", direction="in", kind="reply"):
        if record["seq"] > since:
            assert isinstance(record["json"], dict), record["text"][:200]
    answers_and_settles(g, base)

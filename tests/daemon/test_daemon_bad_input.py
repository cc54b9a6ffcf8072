"""Bad input on the plugin platform's persistent channel: malformed JSON and
commands with every key their handler reads of the wrong type. Each gets the
gateway's answer or none, the channel stays up, the next command is
answered, and threads and descriptors come back to their baseline. (Frames
of bad lengths are the frame reader's: its fuzz target and unit tests.)"""

from __future__ import annotations

import json

from hardening import answers_and_settles, last_seq, push_and_answer, up

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
    texts = list(MALFORMED)
    for method, keys in KEYS.items():
        for key in keys:
            for value in WRONG:
                # The unknown plugin keeps the handlers from touching the
                # sample plugin; the wrong value comes first (cJSON takes the
                # first of duplicate keys).
                texts.append(f'{{"{key}":{json.dumps(value)},' + REST % method)
    since = last_seq(g)
    for text in texts:
        r = g.control({"cmd": "push", "platform": "plugin", "text": text})
        assert r["ok"], (r, text[:100])
    assert push_and_answer(g, {"RPCMethod": "ListPlugin", "ID": "after"}, 30)["Result"] == 0
    for record in g.control({"cmd": "records", "since": since})["records"]:
        if record["platform"] == "plugin" and record["direction"] == "in" and record.get("kind") == "reply":
            assert isinstance(record["json"], dict), record["text"][:200]
    answers_and_settles(g, base)

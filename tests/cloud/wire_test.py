#!/usr/bin/env python3
"""A cloud written from docs/wire-protocol.md drives a real sfgw through
every command, query, group and scene, every refusal, and a broker outage,
and checks every answer against the document.

    wire_test.py SFGW_BINARY GATEWAY_DESCRIPTION

Exit status 0 only when every step saw what the document says and no
message broke the document's format."""

import json
import os
import shutil
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from cloud_client import (LAN_GROUP, LAN_REFUSED, LAN_REPORT, PRO_ECHO, PRO_GROUP, PRO_PRESENCE,  # noqa: E402
                          PRO_REFUSED, PRO_REPORT, PRO_SCENE, CloudClient, LanClient, Schema)
from checks import check, failures, heading  # noqa: E402
from processes import Broker, Gateway, free_port  # noqa: E402


def report_of(cid, dps):
    """A DP report's data (section 4.1); cid None for the gateway's own DPs."""
    return {"dps": dps} if cid is None else {"dps": dps, "cid": cid}


def is_report(expected):
    return lambda data: data == expected


def commands_and_echo(cloud):
    heading("DP commands: a change is reported (pro 4), a repeat is echoed (pro 16)")
    mark = cloud.inbox.mark()
    cloud.send("dp", {"devId": "plug01", "dps": {"1": True}, "sn": 1})
    check(cloud.wait_up(PRO_REPORT, is_report(report_of("plug01", {"1": True})), since=mark) is not None,
          "plug01 switch on: pro 4 {\"dps\":{\"1\":true},\"cid\":\"plug01\"}")
    mark = cloud.inbox.mark()
    cloud.send("dp", {"devId": "plug01", "dps": {"1": True}, "sn": 2})
    check(cloud.wait_up(PRO_ECHO, is_report(report_of("plug01", {"1": True})), since=mark) is not None,
          "the same command again: echo pro 16 with the held value")

    mark = cloud.inbox.mark()
    cloud.send("dp", {"dps": {"2": 40}})
    check(cloud.wait_up(PRO_REPORT, is_report(report_of(None, {"2": 40})), since=mark) is not None,
          "no devId: the gateway's own DP 2, reported without cid")

    mark = cloud.inbox.mark()
    cloud.send("dp", {"devId": "thermo01", "dps": {"2": 255, "4": "eco", "5": True}})
    check(cloud.wait_up(PRO_REPORT, is_report(report_of("thermo01", {"2": 255, "4": "eco"})), since=mark)
          is not None, "thermo01 value, enum and write-only DP: the write-only DP 5 is not reported")

    mark = cloud.inbox.mark()
    multi = {"devId": "bulb01", "ctype": 2, "mbid": "m-7", "dps": {"22": 600}}
    cloud.send("dp", multi)
    answer = cloud.wait_up(PRO_REPORT, lambda d: isinstance(d, dict) and d.get("mbid") == "m-7", since=mark)
    check(answer == multi and list(answer.keys()) == list(multi.keys()),
          "ctype 2: pro 4 with the command as received, keys in order")

    mark = cloud.inbox.mark()
    cloud.send("dp", {"devId": "bulb01", "dps": {"30": "AQIDBA=="}})
    check(cloud.wait_up(PRO_REPORT, is_report(report_of("bulb01", {"30": "AQIDBA=="})), since=mark) is not None,
          "raw DP 30: base64 in, the device reports it back as base64")


def queries(cloud):
    heading("Queries: answered by each device with its own report, pro 4")
    mark = cloud.inbox.mark()
    cloud.send("query", {"cids": ["thermo01"], "dpids": []})
    answer = cloud.wait_up(PRO_REPORT, lambda d: d.get("cid") == "thermo01" and set(d["dps"]) == {"2", "3", "4"},
                           since=mark)
    check(answer is not None and answer["dps"]["2"] == 255 and answer["dps"]["4"] == "eco",
          "dpids [] means every DP: thermo01 answers 2, 3 and 4 (5 is write-only)")

    mark = cloud.inbox.mark()
    cloud.send("query", {"cids": ["bulb01"], "dpids": [20, 21]})
    answer = cloud.wait_up(PRO_REPORT, lambda d: d.get("cid") == "bulb01" and "21" in d["dps"], since=mark)
    check(answer == report_of("bulb01", {"21": "white"}),
          "the passive DP 20 of the preprocessing bulb01 is left out of the answer")

    mark = cloud.inbox.mark()
    cloud.send("query", {"dpids": [1]})
    check(cloud.wait_up(PRO_REPORT, is_report(report_of(None, {"1": False})), since=mark) is not None,
          "no cids: the gateway answers its own DP 1, without cid")

    mark = cloud.inbox.mark()
    cloud.send("query", {"cids": ["plug01", "sensor01"], "dpids": [1]})
    plug = cloud.wait_up(PRO_REPORT, is_report(report_of("plug01", {"1": True})), since=mark)
    sensor = cloud.wait_up(PRO_REPORT, lambda d: d.get("cid") == "sensor01" and "1" in d["dps"], since=mark)
    check(plug is not None and sensor is not None, "two devices asked: each answers once with its own report")


def groups_and_scenes(cloud):
    heading("Groups (pro 203) and scenes (pro 205): one result per id of the command")
    cids = ["plug01", "lamp99", "bulb01"]
    mark = cloud.inbox.mark()
    cloud.send("group", {"action": 0, "cids": cids, "gid": "5"})
    answer = cloud.wait_up(PRO_GROUP, lambda d: d["gid"] == "5" and d["action"] == 0, since=mark)
    check(answer == {"action": 0, "rets": [0, -901, 0], "gid": "5"},
          "group add: rets[i] is the result of cids[i]; lamp99 names no device (-901)")

    mark = cloud.inbox.mark()
    cloud.send("group", {"action": 1, "cids": ["plug01"], "gid": "5"})
    check(cloud.wait_up(PRO_GROUP, lambda d: d["action"] == 1, since=mark) == {"action": 1, "rets": [0], "gid": "5"},
          "group remove")

    mark = cloud.inbox.mark()
    cloud.send("scene", {"action": 0, "cids": cids, "sid": "01", "gid": "5"})
    answer = cloud.wait_up(PRO_SCENE, lambda d: d["sid"] == "01" and d["action"] == 0, since=mark)
    check(answer == {"action": 0, "cids": ["plug01", "bulb01"], "rets": [0, 5, 0], "sid": "01", "gid": "5"},
          "scene add: rets pair with the command's cids (lamp99: 5), the answer's cids are those that succeeded")
    if answer:
        succeeded = [c for c, r in zip(cids, answer["rets"]) if r == 0]
        check(answer["cids"] == succeeded and len(answer["rets"]) == len(cids),
              "scene answer: len(rets) == len(command cids), cids == the ids whose ret is 0")

    mark = cloud.inbox.mark()
    cloud.send("scene", {"action": 1, "cids": ["bulb01"], "sid": "01", "gid": "5"})
    check(cloud.wait_up(PRO_SCENE, lambda d: d["action"] == 1, since=mark) ==
          {"action": 1, "cids": ["bulb01"], "rets": [0], "sid": "01", "gid": "5"}, "scene remove")

    mark = cloud.inbox.mark()
    ids = [f"d{i}" for i in range(256)]
    cloud.send("group", {"action": 0, "cids": ids, "gid": "6"})
    answer = cloud.wait_up(PRO_GROUP, lambda d: d["gid"] == "6", since=mark)
    check(answer is not None and answer["rets"] == [-901] * 256, "256 ids, the limit: one result each")


# Section 6: one command per reason code; (kind, document, expected devId or None, expected dp or None, code).
REFUSALS = [
    ("dp", '{"sn":101,"devId":"plug01","dps":{"1":"true"}}', "plug01", "1", "bad_type"),
    ("dp", '{"sn":102,"devId":"plug01","dps":{"1":1}}', "plug01", "1", "bad_type"),
    ("dp", '{"sn":103,"devId":"plug01","dps":{"1":null}}', "plug01", "1", "bad_type"),
    ("dp", '{"sn":104,"devId":"thermo01","dps":{"2":"210"}}', "thermo01", "2", "bad_type"),
    ("dp", '{"sn":105,"devId":"bulb01","dps":{"24":5}}', "bulb01", "24", "bad_type"),
    ("dp", '{"sn":106,"devId":"bulb01","dps":{"21":"purple"}}', "bulb01", "21", "unknown_enum"),
    ("dp", '{"sn":107,"devId":"bulb01","dps":{"21":1}}', "bulb01", "21", "bad_type"),
    ("dp", '{"sn":108,"devId":"thermo01","dps":{"2":400}}', "thermo01", "2", "out_of_range"),
    ("dp", '{"sn":109,"devId":"thermo01","dps":{"2":212}}', "thermo01", "2", "off_step"),
    ("dp", '{"sn":110,"devId":"bulb01","dps":{"24":"%s"}}' % ("x" * 256), "bulb01", "24", "too_long"),
    ("dp", '{"sn":111,"devId":"bulb01","dps":{"30":"AQI"}}', "bulb01", "30", "bad_base64"),
    ("dp", '{"sn":112,"devId":"plug01","dps":{"4":5}}', "plug01", "4", "not_writable"),
    ("dp", '{"sn":113,"devId":"sensor01","dps":{"7":"AAAA"}}', "sensor01", "7", "not_writable"),
    ("dp", '{"sn":114,"devId":123,"dps":{"1":true}}', 123, None, "bad_device_id"),
    ("dp", '{"sn":115,"devId":"lamp99","dps":{"1":true}}', "lamp99", None, "unknown_device"),
    ("dp", '{"sn":116,"devId":"plug01","dps":{"1.5":true}}', "plug01", "1.5", "bad_dp_key"),
    ("dp", '{"sn":117,"devId":"plug01","dps":{"1abc":true}}', "plug01", "1abc", "bad_dp_key"),
    ("dp", '{"sn":118,"devId":"plug01","dps":{" 1":true}}', "plug01", " 1", "bad_dp_key"),
    ("dp", '{"sn":119,"devId":"plug01","dps":{"42":true}}', "plug01", "42", "unknown_dp"),
    ("dp", '{"sn":120,"devId":"plug01","dps":{"1":true,"1":false}}', "plug01", "1", "duplicate_dp"),
    ("dp", '{"sn":121,"devId":"plug01"}', "plug01", None, "bad_shape"),
    ("dp", '{"sn":122,"devId":"plug01","ctype":2,"dps":{"1":true}}', "plug01", None, "bad_shape"),
    ("group", '{"sn":123,"action":"add","cids":["plug01"],"gid":"5"}', None, None, "bad_shape"),
    ("group", '{"sn":124,"action":0,"cids":[],"gid":"5"}', None, None, "bad_shape"),
    ("group", '{"sn":125,"action":0,"cids":["plug01",7],"gid":"5"}', 7, None, "bad_device_id"),
    ("group", '{"sn":126,"action":0,"cids":["plug01"],"gid":"123456"}', None, None, "too_long"),
    ("group", '{"sn":127,"action":0,"cids":%s,"gid":"5"}' % json.dumps(["plug01"] * 257), None, None,
     "too_many_ids"),
    ("scene", '{"sn":128,"action":0,"cids":["plug01"],"gid":"5"}', None, None, "bad_shape"),
    ("scene", '{"sn":129,"action":0,"cids":%s,"sid":"01","gid":"5"}' % json.dumps(["plug01"] * 257), None, None,
     "too_many_ids"),
    ("query", '{"sn":130,"cids":["plug01"]}', None, None, "bad_shape"),
    ("query", '{"sn":131,"cids":"plug01","dpids":[1]}', None, None, "bad_shape"),
    ("query", '{"sn":132,"cids":["lamp99"],"dpids":[1]}', "lamp99", None, "unknown_device"),
    ("query", '{"sn":133,"cids":["plug01"],"dpids":[42]}', "plug01", "42", "unknown_dp"),
    ("query", '{"sn":134,"dpids":["one"]}', None, "one", "bad_dp_key"),
    ("dp", '{"sn":135,"devId":"bulb01","dps":{"24":"on\\u0000off"}}', "bulb01", "24", "nul_in_string"),
    ("dp", '{"sn":136,"devId":"bulb01\\u0000","dps":{"24":"on"}}', "bulb01\u0000", None, "nul_in_string"),
    ("dp", '{"sn":137,"devId":"thermo01","dps":{"2":1e308}}', "thermo01", "2", "out_of_range"),
]


def refusals(cloud, gateway):
    heading("Refused commands: pro 64 with the command's sn, the device, the DP and a stable code")
    mark = cloud.inbox.mark()
    for kind, doc, _, _, _ in REFUSALS:
        cloud.send(kind, doc)
    for kind, doc, dev, dp, code in REFUSALS:
        sn = json.loads(doc)["sn"]
        answer = cloud.wait_up(PRO_REFUSED, lambda d, sn=sn: d.get("sn") == sn, since=mark)
        ok = answer is not None and answer["cmd"] == kind and answer["code"] == code
        ok = ok and answer.get("devId") == dev and answer.get("dp") == dp
        check(ok, f"{kind} {doc[:70]}: {code}" + ("" if ok else f" (got {answer})"))

    # the worked examples of section 6, word for word
    mark = cloud.inbox.mark()
    cloud.send("dp", {"sn": 3, "devId": "plug01", "dps": {"1": "true"}})
    cloud.send("dp", {"sn": "a-4", "devId": 123, "dps": {"1": True}})
    cloud.send("query", {"cids": ["lamp99"], "dpids": [1]})
    check(cloud.wait_up(PRO_REFUSED, lambda d: d.get("sn") == 3, since=mark) ==
          {"cmd": "dp", "sn": 3, "devId": "plug01", "dp": "1", "code": "bad_type",
           "reason": "DP 1 of plug01: expected true or false, got a string"}, "worked example: bad_type")
    check(cloud.wait_up(PRO_REFUSED, lambda d: d.get("sn") == "a-4", since=mark) ==
          {"cmd": "dp", "sn": "a-4", "devId": 123, "code": "bad_device_id",
           "reason": "\"devId\" must be a string, got 123"}, "worked example: bad_device_id")
    check(cloud.wait_up(PRO_REFUSED, lambda d: d.get("cmd") == "query" and "sn" not in d, since=mark) ==
          {"cmd": "query", "devId": "lamp99", "code": "unknown_device", "reason": "unknown device \"lamp99\""},
          "worked example: unknown_device, no sn in the command")
    check(gateway.wait_log("ERROR") and gateway.wait_log("dp command dropped: DP 1 of plug01: expected true or "
                                                          "false, got a string [bad_type]"),
          "the refusal is logged at error level")

    # none of them reached a device: plug01 is still on, thermo01 still at 25.5
    mark = cloud.inbox.mark()
    cloud.send("query", {"cids": ["plug01", "thermo01"], "dpids": []})
    plug = cloud.wait_up(PRO_REPORT, lambda d: d.get("cid") == "plug01" and "9" in d["dps"], since=mark)
    thermo = cloud.wait_up(PRO_REPORT, lambda d: d.get("cid") == "thermo01" and "4" in d["dps"], since=mark)
    check(plug is not None and plug["dps"]["1"] is True, "plug01 is still on after \"true\", 1 and null")
    check(thermo is not None and thermo["dps"]["2"] == 255, "thermo01's set point did not move")


def lan(cloud, schema, lan_port):
    heading("LAN: authentication, commands, answers as frames")
    intruder = LanClient(schema, lan_port)
    intruder.connect()
    intruder.send_line(json.dumps({"cmd": "auth", "key": "wrong"}))
    check(intruder.closed.wait(10) and intruder.inbox.mark() == 0, "a wrong key: closed without a word")

    client = LanClient(schema, lan_port)
    client.connect()
    check(client.authenticate(schema.local_key) is not None, "the key: greeting type 1 with gwId")

    mark, up = client.inbox.mark(), cloud.inbox.mark()
    client.send("dp", {"devId": "thermo01", "dps": {"4": "manual"}})
    expected = report_of("thermo01", {"4": "manual"})
    check(client.wait_frame(LAN_REPORT, is_report(expected), since=mark) is not None, "dp: report frame type 4")
    check(cloud.wait_up(PRO_REPORT, is_report(expected), since=up) is not None, "and the same report on MQTT")

    mark = client.inbox.mark()
    client.send("group", {"action": 0, "cids": ["plug01", "lamp99"], "gid": "7"})
    check(client.wait_frame(LAN_GROUP, lambda d: isinstance(d, dict) and d["gid"] == "7", since=mark) ==
          {"action": 0, "rets": [0, -901], "gid": "7"}, "group: frame 208 on the LAN")

    up = cloud.inbox.mark()
    client.send("scene", {"action": 0, "cids": ["plug01"], "sid": "02", "gid": "7"})
    check(cloud.wait_up(PRO_SCENE, lambda d: d["sid"] == "02", since=up) ==
          {"action": 0, "cids": ["plug01"], "rets": [0], "sid": "02", "gid": "7"}, "scene from the LAN: pro 205 on MQTT")

    mark = client.inbox.mark()
    client.send("query", {"cids": None, "dpids": [2]})
    check(client.wait_frame(LAN_REPORT, is_report(report_of(None, {"2": 40})), since=mark) is not None,
          "query: the answer as frame type 4")

    mark = client.inbox.mark()
    client.send("dp", {"sn": "lan-1", "devId": "plug01", "dps": {"1": 1}})
    refusal = client.wait_frame(LAN_REFUSED, lambda d: d.get("sn") == "lan-1", since=mark)
    check(refusal is not None and refusal["code"] == "bad_type" and refusal["dp"] == "1",
          "a refused LAN command: frame type 64, flag 1")
    return client


def outage(cloud, broker, client):
    heading("Outage: values changed while the broker is away are re-sent; raw values are not")
    broker.stop()
    mark = client.inbox.mark()
    client.send("dp", {"devId": "plug01", "dps": {"1": False}})
    client.send("dp", {"devId": "bulb01", "dps": {"30": "BQYHCA=="}})
    client.send("dp", {"devId": "thermo01", "dps": {"2": 230}})
    check(client.wait_frame(LAN_REPORT, lambda d: d.get("cid") == "thermo01" and d["dps"].get("2") == 230,
                            since=mark) is not None, "the LAN goes on during the outage")
    check(client.wait_frame(LAN_REPORT, lambda d: d.get("cid") == "bulb01" and d["dps"].get("30") == "BQYHCA==",
                            since=mark) is not None, "the raw value reaches the LAN")

    up = cloud.inbox.mark()
    broker.start()
    check(cloud.wait_status(True, timeout=20, since=up) is not None, "the gateway is back: status online")
    plug = cloud.wait_up(PRO_REPORT, lambda d: d.get("cid") == "plug01" and "1" in d["dps"], timeout=20, since=up)
    check(plug is not None and plug["dps"]["1"] is False, "plug01's switch re-sent with its latest value, off")
    thermo = cloud.wait_up(PRO_REPORT, lambda d: d.get("cid") == "thermo01" and d["dps"].get("2") == 230,
                           timeout=20, since=up)
    check(thermo is not None, "thermo01's set point re-sent (after bulb01 in list order)")
    raw = [m for m in cloud.inbox.since(up)
           if m[0] == "up" and m[1]["pro"] == PRO_REPORT and m[1]["data"].get("cid") == "bulb01"
           and "30" in m[1]["data"].get("dps", {})]
    check(raw == [], "the raw value of bulb01 is not re-sent")


def main():
    sfgw, description = sys.argv[1], sys.argv[2]
    schema = Schema(description)
    workdir = tempfile.mkdtemp(prefix="sf_wire_test.")
    broker = Broker(workdir, free_port())
    lan_port = free_port()
    # The LAN frames are checked in the plain mode on loopback: Debian's
    # Python (3.11) has no TLS 1.3 PSK in ssl (3.13 has); the TLS transport
    # is tested by tests/apps/lan_tls_wire.sh and the integration tests.
    with open(description, encoding="utf-8") as f:
        document = json.load(f)
    document.setdefault("connection", {}).setdefault("lan", {})["security"] = "plain"
    plain_lan = os.path.join(workdir, "gateway_plain_lan.json")
    with open(plain_lan, "w", encoding="utf-8") as f:
        json.dump(document, f)
    gateway = Gateway(workdir, sfgw, plain_lan, broker.port, lan_port)
    cloud = CloudClient(schema, broker.port)
    client = None
    started = time.monotonic()
    try:
        broker.start()
        cloud.connect()
        gateway.start()
        heading("Start: the gateway says it is online, then its sub-devices come online in batches (pro 25)")
        check(cloud.wait_status(True, timeout=30) is not None, "status {\"online\":true}")
        online = set()
        cloud.inbox.wait(lambda m: m[0] == "up" and m[1].get("pro") == PRO_PRESENCE
                         and online.update(m[1]["data"].get("online", [])) is None
                         and online >= {"plug01", "bulb01", "thermo01", "sensor01"}, 20)
        check(online >= {"plug01", "bulb01", "thermo01", "sensor01"}, "every sub-device online")

        commands_and_echo(cloud)
        queries(cloud)
        groups_and_scenes(cloud)
        refusals(cloud, gateway)
        client = lan(cloud, schema, lan_port)
        outage(cloud, broker, client)

        heading("Clean stop: status offline")
        mark = cloud.inbox.mark()
        check(gateway.stop() == 0, "sfgw exits 0 on SIGTERM")
        check(cloud.wait_status(False, since=mark) is not None, "status {\"online\":false}")
    finally:
        if client is not None:
            client.close()
        gateway.stop()
        cloud.close()
        broker.stop()
    violations = cloud.violations + (client.violations if client else [])
    heading("Every message against the document")
    for v in violations:
        print("   FAIL " + v)
    check(not violations, f"{len(cloud.inbox.since(0))} MQTT messages and the LAN frames follow the document")
    print(f"\n{len(failures)} failure(s) in {time.monotonic() - started:.1f} s")
    if failures:
        print("gateway log kept in " + workdir)
        return 1
    shutil.rmtree(workdir, ignore_errors=True)
    print("wire test passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())

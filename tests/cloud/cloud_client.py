"""The cloud side of the gateway's wire protocol, written from
docs/wire-protocol.md alone (it shares nothing with sfcloud).

CloudClient speaks MQTT (section 3 of the document), LanClient the LAN
channel (section 8). Both record everything they receive and check every
message against the document as it arrives: a message that does not
match is kept in `violations`, which the test reports at the end.
"""

import base64
import binascii
import json
import re
import socket
import threading
import time

import paho.mqtt.client as mqtt

# Section 3.3: protocol numbers of the uplink.
PRO_REPORT = 4
PRO_ECHO = 16
PRO_PRESENCE = 25
PRO_REFUSED = 64
PRO_GROUP = 203
PRO_SCENE = 205
PROTOCOLS = {PRO_REPORT, PRO_ECHO, PRO_PRESENCE, PRO_REFUSED, PRO_GROUP, PRO_SCENE}

# Section 8.2: LAN frame types.
LAN_AUTH_OK = 1
LAN_REPORT = 4
LAN_GROUP = 208
LAN_REFUSED = 64

# Section 6: the stable reason codes and the field order of a refusal.
REFUSAL_CODES = {
    "bad_shape", "bad_device_id", "unknown_device", "bad_dp_key", "unknown_dp", "duplicate_dp",
    "not_writable", "bad_type", "out_of_range", "off_step", "unknown_enum", "too_long", "bad_base64",
    "too_many_ids", "nul_in_string", "expired",
}
REFUSAL_KEYS = ["cmd", "sn", "mbid", "devId", "dp", "code", "reason"]
KINDS = {"dp", "group", "scene", "query"}

DP_KEY = re.compile(r"^[1-9][0-9]{0,2}$")  # section 1: decimal, no sign, space or leading zero
MAX_SERNO = 4294967295


class Schema:
    """The DP schemas of a gateway description (docs/gateway-description.md)."""

    def __init__(self, description_file):
        with open(description_file, encoding="utf-8") as f:
            doc = json.load(f)
        self.gateway_id = doc["gateway"]["id"]
        self.local_key = doc["gateway"].get("local_key", "")
        self.devices = {self.gateway_id: self._dps(doc["gateway"])}
        for device in doc.get("devices", []):
            self.devices[device["id"]] = self._dps(device)
        self.preprocess = {d["id"] for d in doc.get("devices", []) if d.get("preprocess")}

    @staticmethod
    def _dps(device):
        return {dp["id"]: dp for dp in device.get("dps", [])}

    def dp(self, device, dpid):
        return self.devices.get(device, {}).get(dpid)

    def value_fits(self, dp, value):
        """Section 1: does a reported value have the JSON form of its DP?"""
        kind = dp.get("type", "obj")
        if kind == "raw":
            if not isinstance(value, str):
                return False
            try:
                base64.b64decode(value, validate=True)
            except (binascii.Error, ValueError):
                return False
            return True
        prop = dp.get("prop")
        if prop == "bool":
            return isinstance(value, bool)
        if prop in ("value", "bitmap"):
            if isinstance(value, bool) or not isinstance(value, int):
                return False
            if prop == "value":
                return dp["min"] <= value <= dp["max"]
            return True  # bitmaps are printed signed (32 bits)
        if prop == "str":
            return isinstance(value, str) and len(value.encode()) <= dp["max_len"]
        if prop == "enum":
            return value in dp["range"]
        return False


def _check(ok, what, violations):
    if not ok:
        violations.append(what)
    return ok


def check_report(schema, data, violations, where):
    """Section 4.1: {"dps":{...},"cid":"...","t":...} in that key order."""
    if not _check(isinstance(data, dict) and "dps" in data, f"{where}: report without dps: {data}", violations):
        return
    keys = list(data.keys())
    _check(keys == [k for k in ["dps", "cid", "t"] if k in data], f"{where}: report keys {keys}", violations)
    device = data.get("cid", schema.gateway_id)
    _check(isinstance(device, str) and device in schema.devices, f"{where}: unknown cid {device}", violations)
    _check("cid" not in data or data["cid"] != schema.gateway_id, f"{where}: cid of the gateway itself", violations)
    for key, value in data["dps"].items():
        if not _check(bool(DP_KEY.match(key)), f"{where}: DP key {key!r}", violations):
            continue
        dp = schema.dp(device, int(key))
        if not _check(dp is not None, f"{where}: {device} has no DP {key}", violations):
            continue
        _check(dp.get("mode", "rw") != "wr", f"{where}: write-only DP {key} of {device} reported", violations)
        _check(dp.get("type", "obj") != "file", f"{where}: file DP {key} of {device} reported", violations)
        _check(schema.value_fits(dp, value), f"{where}: value {value!r} does not fit DP {key} of {device}", violations)


def check_refusal(data, violations, where):
    """Section 6: the refusal's fields, in their order, with a known code."""
    if not _check(isinstance(data, dict), f"{where}: refusal not an object", violations):
        return
    keys = list(data.keys())
    _check(keys == [k for k in REFUSAL_KEYS if k in data], f"{where}: refusal keys {keys}", violations)
    _check(data.get("cmd") in KINDS, f"{where}: refusal cmd {data.get('cmd')}", violations)
    _check(data.get("code") in REFUSAL_CODES, f"{where}: refusal code {data.get('code')}", violations)
    _check(isinstance(data.get("reason"), str) and data["reason"] != "", f"{where}: refusal reason", violations)
    _check("dp" not in data or isinstance(data["dp"], str), f"{where}: refusal dp not a string", violations)
    _check("sn" not in data or isinstance(data["sn"], (int, float, str)), f"{where}: refusal sn", violations)


def check_group_answer(data, violations, where):
    """Section 5.2: {"action":0,"rets":[...],"gid":"5"}."""
    ok = isinstance(data, dict) and list(data.keys()) == ["action", "rets", "gid"]
    ok = ok and data["action"] in (0, 1) and isinstance(data["gid"], str)
    ok = ok and isinstance(data["rets"], list) and 1 <= len(data["rets"]) <= 256
    ok = ok and all(isinstance(r, int) for r in data["rets"])
    _check(ok, f"{where}: group answer {data}", violations)


def check_scene_answer(data, violations, where):
    """Section 5.3: {"action":0,"cids":[...],"rets":[...],"sid":"01","gid":"5"}."""
    ok = isinstance(data, dict) and list(data.keys()) == ["action", "cids", "rets", "sid", "gid"]
    ok = ok and data["action"] in (0, 1) and isinstance(data["sid"], str) and isinstance(data["gid"], str)
    ok = ok and isinstance(data["rets"], list) and 1 <= len(data["rets"]) <= 256
    ok = ok and all(isinstance(r, int) and 0 <= r <= 5 for r in data["rets"])
    ok = ok and isinstance(data["cids"], list) and all(isinstance(c, str) for c in data["cids"])
    ok = ok and len(data["cids"]) == sum(1 for r in data["rets"] if r == 0)
    _check(ok, f"{where}: scene answer {data}", violations)


def check_presence(data, violations, where):
    """Section 4.2: {"online":[...],"offline":[...]}, an empty member left out."""
    ok = isinstance(data, dict) and data and set(data.keys()) <= {"online", "offline"}
    ok = ok and all(isinstance(v, list) and v and all(isinstance(i, str) for i in v) for v in data.values())
    _check(ok, f"{where}: presence batch {data}", violations)


class Inbox:
    """Messages received in order, and waiting on them."""

    def __init__(self):
        self._lock = threading.Condition()
        self._items = []

    def add(self, item):
        with self._lock:
            self._items.append(item)
            self._lock.notify_all()

    def mark(self):
        with self._lock:
            return len(self._items)

    def since(self, index):
        with self._lock:
            return list(self._items[index:])

    def wait(self, pred, timeout, since=0):
        """The first item from index since on that pred accepts, or None after timeout seconds."""
        deadline = time.monotonic() + timeout
        with self._lock:
            while True:
                for item in self._items[since:]:
                    if pred(item):
                        return item
                left = deadline - time.monotonic()
                if left <= 0:
                    return None
                self._lock.wait(left)


class CloudClient:
    """The cloud on MQTT: subscribes to sf/<gw>/#, publishes commands on sf/<gw>/cmd/<kind>."""

    def __init__(self, schema, port, root="sf", client_id="wire-test-cloud"):
        self.schema = schema
        self.port = port
        self.prefix = f"{root}/{schema.gateway_id}/"
        self.inbox = Inbox()
        self.violations = []
        self._connected = threading.Event()
        try:  # paho 2 wants the callback API version; paho 1 (Debian 12) does not know it
            self._mqtt = mqtt.Client(mqtt.CallbackAPIVersion.VERSION1, client_id=client_id, clean_session=False)
        except AttributeError:
            self._mqtt = mqtt.Client(client_id=client_id, clean_session=False)
        self._mqtt.on_connect = self._on_connect
        self._mqtt.on_message = self._on_message
        self._mqtt.reconnect_delay_set(min_delay=1, max_delay=1)

    def connect(self, timeout=10):
        self._mqtt.connect("127.0.0.1", self.port, keepalive=10)
        self._mqtt.loop_start()
        if not self._connected.wait(timeout):
            raise RuntimeError("no connection to the broker")

    def close(self):
        self._mqtt.loop_stop()
        self._mqtt.disconnect()

    def _on_connect(self, client, _userdata, _flags, rc):
        if rc == 0:
            # section 3.1: everything the gateway says is under sf/<gw>/
            client.subscribe(self.prefix + "#", qos=1)
            self._connected.set()

    def _on_message(self, _client, _userdata, message):
        leaf = message.topic[len(self.prefix):] if message.topic.startswith(self.prefix) else message.topic
        try:
            payload = json.loads(message.payload.decode("utf-8"))
        except ValueError:
            self.violations.append(f"{message.topic}: not JSON: {message.payload!r}")
            return
        self.check(leaf, payload)
        self.inbox.add((leaf, payload))

    def check(self, leaf, payload):
        v = self.violations
        where = f"{leaf} {json.dumps(payload)}"
        if leaf == "status":
            # section 2: {"online":bool,"session":N}, N a positive integer
            _check(isinstance(payload, dict) and list(payload.keys()) == ["online", "session"] and
                   isinstance(payload["online"], bool) and isinstance(payload["session"], int) and
                   payload["session"] > 0, f"{where}: status", v)
            return
        if leaf != "up":
            return  # our own commands (cmd/*) and the demo's simulator topics
        if not _check(isinstance(payload, dict) and list(payload.keys()) == ["serno", "pro", "data"],
                      f"{where}: uplink keys", v):
            return
        serno, pro, data = payload["serno"], payload["pro"], payload["data"]
        _check(isinstance(serno, int) and 0 <= serno <= MAX_SERNO, f"{where}: serno", v)
        _check(pro in PROTOCOLS, f"{where}: unknown pro", v)
        if pro == PRO_REPORT and isinstance(data, dict) and data.get("ctype") == 2:
            _check(isinstance(data.get("mbid"), str), f"{where}: multi-DP answer without mbid", v)
        elif pro in (PRO_REPORT, PRO_ECHO):
            check_report(self.schema, data, v, where)
        elif pro == PRO_PRESENCE:
            check_presence(data, v, where)
        elif pro == PRO_REFUSED:
            check_refusal(data, v, where)
        elif pro == PRO_GROUP:
            check_group_answer(data, v, where)
        elif pro == PRO_SCENE:
            check_scene_answer(data, v, where)

    def send(self, kind, document):
        """Publish a command; document is a dict, or a text sent as it stands."""
        text = document if isinstance(document, str) else json.dumps(document, separators=(",", ":"))
        info = self._mqtt.publish(self.prefix + "cmd/" + kind, text, qos=1)
        info.wait_for_publish()

    def wait_up(self, pro, pred=lambda data: True, timeout=10, since=0):
        """The first uplink data of protocol pro from index since that pred accepts, or None."""
        item = self.inbox.wait(lambda m: m[0] == "up" and m[1].get("pro") == pro and pred(m[1].get("data")),
                               timeout, since)
        return item[1]["data"] if item else None

    def wait_status(self, online, timeout=10, since=0):
        return self.inbox.wait(lambda m: m[0] == "status" and m[1].get("online") is online, timeout, since)


class LanClient:
    """A local app on the LAN channel: TCP, one JSON object a line."""

    def __init__(self, schema, port):
        self.schema = schema
        self.port = port
        self.inbox = Inbox()
        self.violations = []
        self.closed = threading.Event()
        self._sock = None

    def connect(self):
        self._sock = socket.create_connection(("127.0.0.1", self.port), timeout=10)
        self._sock.settimeout(None)
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        buffer = b""
        while True:
            try:
                chunk = self._sock.recv(4096)
            except OSError:
                chunk = b""
            if not chunk:
                self.closed.set()
                return
            buffer += chunk
            while b"\n" in buffer:
                line, buffer = buffer.split(b"\n", 1)
                try:
                    frame = json.loads(line.decode("utf-8"))
                except ValueError:
                    self.violations.append(f"LAN line not JSON: {line!r}")
                    continue
                self.check(frame)
                self.inbox.add(frame)

    def check(self, frame):
        v = self.violations
        where = f"LAN {json.dumps(frame)}"
        kind = frame.get("type") if isinstance(frame, dict) else None
        if kind == LAN_REPORT:
            if _check(list(frame.keys()) == ["type", "serno", "data"], f"{where}: report frame keys", v):
                data = frame["data"]
                if isinstance(data, dict) and data.get("ctype") == 2:
                    _check(isinstance(data.get("mbid"), str), f"{where}: multi-DP answer without mbid", v)
                else:
                    check_report(self.schema, data, v, where)
        elif kind == LAN_AUTH_OK:
            _check(frame == {"type": 1, "flag": 0, "data": {"gwId": self.schema.gateway_id}}, f"{where}: greeting", v)
        elif kind == LAN_GROUP:
            if _check(list(frame.keys()) == ["type", "flag", "data"], f"{where}: frame keys", v):
                if frame["flag"] == 0:
                    check_group_answer(frame["data"], v, where)
                else:
                    _check(frame["data"] == "scene oper failed", f"{where}: group failure", v)
        elif kind == LAN_REFUSED:
            if _check(list(frame.keys()) == ["type", "flag", "data"] and frame["flag"] == 1, f"{where}: keys", v):
                check_refusal(frame["data"], v, where)
        else:
            v.append(f"{where}: unknown frame type")

    def send_line(self, text):
        self._sock.sendall(text.encode("utf-8") + b"\n")

    def authenticate(self, key, timeout=10):
        self.send_line(json.dumps({"cmd": "auth", "key": key}))
        return self.inbox.wait(lambda f: f.get("type") == LAN_AUTH_OK, timeout)

    def send(self, kind, document):
        data = document if isinstance(document, str) else json.dumps(document, separators=(",", ":"))
        self.send_line('{"cmd":"%s","data":%s}' % (kind, data))

    def wait_frame(self, kind, pred=lambda data: True, timeout=10, since=0):
        item = self.inbox.wait(lambda f: f.get("type") == kind and pred(f.get("data")), timeout, since)
        return item["data"] if item else None

    def close(self):
        if self._sock is not None:
            self._sock.close()

#!/usr/bin/env python3
"""Commands are never lost: a real sfgw on a private mosquitto, stopped,
killed and restarted while a cloud publishes QoS 1 commands to it
(docs/wire-protocol.md "Delivery of commands").

    durable_test.py SFGW_BINARY DESCRIPTION PROTOCOL(5|311) [BURST]

Scenarios: SIGTERM then 100 commands; kill -9 then 100; kill -9 in the
middle of a burst of BURST (default 5000); a command with a message expiry
of 2 s while the gateway is down 5 s; a command with an old "t". The
session number rises across restarts and the retained status ends online
with the newest one. Then two gateways with one id: the take-over is told.
Exit status 0 only when every check passed."""

import json
import os
import shutil
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import paho.mqtt.client as mqtt  # noqa: E402
from paho.mqtt.packettypes import PacketTypes  # noqa: E402
from paho.mqtt.properties import Properties  # noqa: E402

from cloud_client import Inbox  # noqa: E402
from checks import check, failures, heading  # noqa: E402
from processes import Broker, Gateway, free_port  # noqa: E402

PRO_REFUSED = 64
DEVICE = "valve01"


class Cloud:
    """The cloud over MQTT 5 with a persistent session: commands out, uplinks and status in."""

    def __init__(self, port, gateway_id, client_id="durable-cloud", clean=False, v5=True):
        self.prefix = f"sf/{gateway_id}/"
        self.inbox = Inbox()
        self._connected = threading.Event()
        self._v5 = v5
        if v5:
            self._mqtt = mqtt.Client(client_id=client_id, protocol=mqtt.MQTTv5)
        else:  # a 3.1.1-only broker (RabbitMQ 3.10)
            self._mqtt = mqtt.Client(client_id=client_id, clean_session=clean, protocol=mqtt.MQTTv311)
        self._mqtt.max_inflight_messages_set(100)
        self._mqtt.on_connect = self._on_connect
        self._mqtt.on_message = self._on_message
        self._port = port
        self._clean = clean

    def connect(self, timeout=10):
        if self._v5:
            props = Properties(PacketTypes.CONNECT)
            props.SessionExpiryInterval = 0 if self._clean else 3600
            self._mqtt.connect("127.0.0.1", self._port, keepalive=30, clean_start=self._clean, properties=props)
        else:
            self._mqtt.connect("127.0.0.1", self._port, keepalive=30)
        self._mqtt.loop_start()
        if not self._connected.wait(timeout):
            raise RuntimeError("no connection to the broker")

    def close(self):
        self._mqtt.disconnect()
        self._mqtt.loop_stop()

    def _on_connect(self, client, _userdata, _flags, rc, _props=None):
        if rc == 0:
            client.subscribe([(self.prefix + "up", 1), (self.prefix + "status", 1)])
            self._connected.set()

    def _on_message(self, _client, _userdata, message):
        leaf = message.topic[len(self.prefix):]
        try:
            payload = json.loads(message.payload.decode("utf-8"))
        except ValueError:
            payload = None
        props = getattr(message, "properties", None)  # MQTT 5 only
        users = dict(getattr(props, "UserProperty", []) or [])
        self.inbox.add((leaf, payload, users, message.retain))

    def publish(self, document, expiry_s=None):
        """Publish one command at QoS 1; returns paho's MQTTMessageInfo."""
        props = None
        if expiry_s is not None:
            props = Properties(PacketTypes.PUBLISH)
            props.MessageExpiryInterval = expiry_s
        text = json.dumps(document, separators=(",", ":"))
        return self._mqtt.publish(self.prefix + "cmd/dp", text, qos=1, properties=props)

    def send_all(self, values, timeout=60):
        """Publish one command per value and wait until the broker acknowledged every one."""
        infos = [self.publish({"devId": DEVICE, "dps": {"1": v}, "sn": v}) for v in values]
        deadline = time.monotonic() + timeout
        for info in infos:
            info.wait_for_publish(max(0.1, deadline - time.monotonic()))
        return all(info.is_published() for info in infos)

    def wait_online(self, above, since=0, timeout=30):
        """The first online status with a session number above `above`: its number, or 0."""
        item = self.inbox.wait(lambda m: m[0] == "status" and isinstance(m[1], dict) and m[1].get("online") is True
                               and m[1].get("session", 0) > above, timeout, since)
        return item[1]["session"] if item else 0


class ExternalBroker:
    """A broker this test neither starts nor stops."""

    def __init__(self, port):
        self.port = port

    def start(self):
        pass

    def stop(self):
        pass


class Trace:
    """What the devices were handed: sfgw --command-trace, one line "<device> <dp>=<value>" a command,
    written before the application's callback returns, so it survives kill -9."""

    def __init__(self, path):
        self.path = path

    def lines(self):
        try:
            with open(self.path, encoding="utf-8") as f:
                return f.read().splitlines()
        except FileNotFoundError:
            return []

    def mark(self):
        return len(self.lines())

    def applied(self, since=0):
        prefix = f"{DEVICE} 1="
        return [int(line[len(prefix):]) for line in self.lines()[since:] if line.startswith(prefix)]

    def wait_applied(self, value, since, timeout):
        return wait_for(lambda: value in self.applied(since), timeout)


def wait_for(condition, timeout):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.1)
    return False


def takeovers(prom_file):
    """sf_mqtt_session_takeovers_total in a gateway's Prometheus file, 0 when absent."""
    try:
        with open(prom_file, encoding="utf-8") as f:
            for line in f:
                if line.startswith("sf_mqtt_session_takeovers_total{"):
                    return int(line.split()[-1])
    except FileNotFoundError:
        pass
    return 0


def first_occurrences(values):
    seen, out = set(), []
    for v in values:
        if v not in seen:
            seen.add(v)
            out.append(v)
    return out


def away_then_start(cloud, trace, gateway, session, how, stop, base, exact):
    """Stop the gateway with stop(), publish 100 commands, start it: all 100 applied in order. The new session."""
    heading(f"{how}, 100 commands while it is away, start: all 100 applied, in order")
    stop()
    mark, tmark = cloud.inbox.mark(), trace.mark()
    values = list(range(base, base + 100))
    check(cloud.send_all(values), "the broker acknowledged all 100 commands")
    gateway.start()
    new_session = cloud.wait_online(session, mark)
    check(new_session > session, f"the session number rose across the restart ({session} -> {new_session})")
    trace.wait_applied(values[-1], tmark, 60)
    got = [v for v in trace.applied(tmark) if base <= v < base + 100]
    if exact:  # a clean stop leaves nothing to hand on twice
        check(got == values, f"all 100 applied once each, in the order sent (got {len(got)})")
    else:
        check(first_occurrences(got) == values, f"all 100 applied, in the order sent (got {len(got)})")
    return new_session


def retained_status(port, gateway_id, timeout=10):
    """What a new subscriber is told first about the gateway's status (the retained message)."""
    box = Inbox()
    client = mqtt.Client(client_id=f"durable-probe-{time.monotonic_ns()}", protocol=mqtt.MQTTv5)
    client.on_connect = lambda c, *_: c.subscribe(f"sf/{gateway_id}/status", 1)
    client.on_message = lambda _c, _u, m: box.add(json.loads(m.payload.decode()))
    client.connect("127.0.0.1", port, keepalive=30)
    client.loop_start()
    status = box.wait(lambda _s: True, timeout)
    client.disconnect()
    client.loop_stop()
    return status


def main():
    sfgw, description, protocol = sys.argv[1], sys.argv[2], sys.argv[3]
    burst = int(sys.argv[4]) if len(sys.argv) > 4 else 5000
    gateway_id = json.load(open(description, encoding="utf-8"))["gateway"]["id"]
    workdir = tempfile.mkdtemp(prefix="sf-durable-")
    # SF_DURABLE_BROKER_PORT: a broker already running there (RabbitMQ in make test-brokers)
    external = os.environ.get("SF_DURABLE_BROKER_PORT")
    broker = ExternalBroker(int(external)) if external else Broker(workdir, free_port())
    only_first = os.environ.get("SF_DURABLE_ONLY") == "sigterm"
    trace = Trace(os.path.join(workdir, "trace.txt"))
    extra = ["--no-lan", "--state", os.path.join(workdir, "state.db"), "--mqtt-protocol", protocol,
             "--metrics-file", os.path.join(workdir, "sfgw.prom"), "--metrics-interval", "1",
             "--command-trace", trace.path]
    gateway = Gateway(workdir, sfgw, description, broker.port, 0, extra)
    twin = None
    cloud = None
    try:
        broker.start()
        cloud = Cloud(broker.port, gateway_id, v5=protocol == "5" or not external)
        cloud.connect()
        gateway.start()
        session = cloud.wait_online(0)
        check(session > 0, f"MQTT {protocol}: the gateway comes online with a session number ({session})")

        session = away_then_start(cloud, trace, gateway, session, "SIGTERM", gateway.stop, 1000, exact=True)
        if not only_first:  # SF_DURABLE_ONLY=sigterm: the first scenario only (another broker)
            session = away_then_start(cloud, trace, gateway, session, "kill -9", gateway.kill, 2000, exact=False)
            status = retained_status(broker.port, gateway_id)
            check(status == {"online": True, "session": session},
                  f"after kill -9 and a restart the retained status is online with the new number: {status}")

            heading(f"kill -9 in the middle of a burst of {burst}, start: every command applied, the last one last")
            mark, tmark = cloud.inbox.mark(), trace.mark()
            values = list(range(100000, 100000 + burst))
            infos = [cloud.publish({"devId": DEVICE, "dps": {"1": v}, "sn": v}) for v in values]
            started = trace.wait_applied(values[burst // 10], tmark, 120)
            gateway.kill()
            applied_before = len(trace.applied(tmark))
            check(started and applied_before < burst,
                  f"the gateway was killed mid-burst ({applied_before} of {burst} handed to the device before)")
            deadline = time.monotonic() + 120
            for info in infos:
                info.wait_for_publish(max(0.1, deadline - time.monotonic()))
            check(all(i.is_published() for i in infos), f"the broker acknowledged all {burst} commands")
            restart_mark = trace.mark()
            gateway.start()
            previous, session = session, cloud.wait_online(session, mark)
            trace.wait_applied(values[-1], restart_mark, 300)
            got = trace.applied(tmark)
            missing = sorted(set(values) - set(got))
            check(not missing, f"every one of the {burst} commands was applied at least once "
                  f"({len(got)} applications, {len(got) - len(set(got))} repeated, missing {missing[:5]})")
            check(got and got[-1] == values[-1], f"the device ends on the last command ({got[-1] if got else None})")
            status = retained_status(broker.port, gateway_id)
            check(status == {"online": True, "session": session},
                  f"after kill -9 and a restart the retained status is online with the new number: {status}")

            heading("message expiry 2 s while the gateway is down 5 s: never applied; one without expiry is")
            gateway.stop()
            mark, tmark = cloud.inbox.mark(), trace.mark()
            cloud.publish({"devId": DEVICE, "dps": {"1": 7777}, "sn": "expires"}, expiry_s=2).wait_for_publish(10)
            cloud.publish({"devId": DEVICE, "dps": {"1": 8888}, "sn": "stays"}).wait_for_publish(10)
            time.sleep(5)  # the outage itself, not a wait for a result
            gateway.start()
            previous, session = session, cloud.wait_online(session, mark)
            check(trace.wait_applied(8888, tmark, 30), "the command without expiry is applied")
            check(7777 not in trace.applied(tmark), "the command whose expiry passed is never applied")

            heading("a command with an old t: refused with the code expired")
            mark, tmark = cloud.inbox.mark(), trace.mark()
            cloud.publish({"devId": DEVICE, "dps": {"1": 9999}, "sn": "old-t", "t": int(time.time()) - 3600})
            refusal = cloud.inbox.wait(lambda m: m[0] == "up" and isinstance(m[1], dict) and m[1].get("pro") == PRO_REFUSED,
                                       20, mark)
            data = refusal[1]["data"] if refusal else {}
            check(data.get("code") == "expired" and data.get("sn") == "old-t" and data.get("cmd") == "dp",
                  f"refusal pro 64 with code expired: {json.dumps(data)}")
            check(gateway.wait_log("dp command dropped: issued 36", 10) and "s a command may be old [expired]" in
                  gateway.log(), "one error line names the age and the code")
            check(9999 not in trace.applied(tmark), "the old command is not applied")
            if protocol == "5":
                users = [m[2] for m in cloud.inbox.since(mark) if m[0] == "up"]
                check(users and all(u.get("session") == str(session) for u in users),
                      f"MQTT 5: every uplink carries the user property session={session}")

            heading("two gateways with one id: the take-over is told, and both back off")
            twin = Gateway(workdir, sfgw, description, broker.port, 0,
                           ["--no-lan", "--state", os.path.join(workdir, "twin.db"), "--mqtt-protocol", protocol,
                            "--metrics-file", os.path.join(workdir, "twin.prom"), "--metrics-interval", "1"],
                           name="twin")
            twin.start()
            line = "to another client: two gateways use the same id"
            told = any(g.wait_log(line, 40) for g in (gateway, twin))
            check(told, "a gateway logs at error level that another client took its session, naming the id")
            counted = wait_for(lambda: any(takeovers(os.path.join(workdir, f"{n}.prom")) > 0 for n in ("sfgw", "twin")),
                               15)
            check(counted, "sf_mqtt_session_takeovers_total counts it")
            logs = gateway.log() + twin.log()
            check(f"of client id {gateway_id} to another client" in logs and logs.count(line) <= 2,
                  "the line names the client id and is logged once per gateway")
    finally:
        if twin is not None:
            twin.stop()
        gateway.stop()
        if cloud is not None:
            cloud.close()
        broker.stop()
        if failures:
            print(f"\nlogs kept in {workdir}")
        else:
            shutil.rmtree(workdir, ignore_errors=True)
    print(f"\n{len(failures)} failed" if failures else "\nall passed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Command delivery figures of a real sfgw through its persistent session,
on a private mosquitto (docs/benchmarks.md, "Commands"):

  - intake: commands per second from the first publication to the last
    command handed to the device, the gateway connected, with the command
    journal on and off (connection.commands.journal), in the same run;
  - backlog: seconds from the gateway's start to the last of 1,000
    commands that waited at the broker while it was stopped.

    bench_commands.py SFGW_BINARY OUT_DIR [COMMANDS]

Delivery is observed with sfgw --command-trace. Prints a table and writes
OUT_DIR/sf_bench_commands.json."""

import json
import os
import shutil
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "cloud"))

from durable_test import Cloud, Trace  # noqa: E402
from processes import Broker, Gateway, free_port  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
DESCRIPTION = os.path.join(HERE, "..", "tests", "cloud", "durable_gateway.json")


def description_with(workdir, journal):
    with open(DESCRIPTION, encoding="utf-8") as f:
        doc = json.load(f)
    doc["connection"]["commands"]["journal"] = journal
    path = os.path.join(workdir, f"gateway-journal-{int(journal)}.json")
    with open(path, "w", encoding="utf-8") as f:
        json.dump(doc, f)
    return path


def run_case(sfgw, workdir, broker, journal, count, base):
    """(intake per second, seconds from start to the last of 1,000 waiting commands)."""
    trace = Trace(os.path.join(workdir, f"trace-{int(journal)}.txt"))
    state = os.path.join(workdir, f"state-{int(journal)}.db")
    gateway = Gateway(workdir, sfgw, description_with(workdir, journal), broker.port, 0,
                      ["--no-lan", "--state", state, "--command-trace", trace.path], name=f"sfgw-{int(journal)}")
    cloud = Cloud(broker.port, "gwdur01", client_id=f"bench-cloud-{int(journal)}")
    cloud.connect()
    try:
        gateway.start()
        if not cloud.wait_online(0, timeout=30):
            raise RuntimeError("the gateway did not come online")
        values = list(range(base, base + count))
        mark = trace.mark()
        started = time.monotonic()
        for v in values:
            cloud.publish({"devId": "valve01", "dps": {"1": v}})
        if not trace.wait_applied(values[-1], mark, 300):
            raise RuntimeError("the burst was not applied")
        intake = count / (time.monotonic() - started)

        gateway.stop()
        waiting = list(range(base + count, base + count + 1000))
        if not cloud.send_all(waiting, timeout=120):
            raise RuntimeError("the broker did not take the waiting commands")
        mark = trace.mark()
        started = time.monotonic()
        gateway.start()
        if not trace.wait_applied(waiting[-1], mark, 300):
            raise RuntimeError("the waiting commands were not applied")
        backlog = time.monotonic() - started
        return intake, backlog
    finally:
        gateway.stop()
        cloud.close()


def main():
    sfgw, out_dir = sys.argv[1], sys.argv[2]
    count = int(sys.argv[3]) if len(sys.argv) > 3 else 3000
    os.makedirs(out_dir, exist_ok=True)
    workdir = tempfile.mkdtemp(prefix="sf-bench-commands-")
    broker = Broker(workdir, free_port())
    rows = []
    try:
        broker.start()
        for n, journal in enumerate((True, False)):
            intake, backlog = run_case(sfgw, workdir, broker, journal, count, 10000 + n * 100000)
            rows.append({"journal": journal, "commands": count, "intake_per_s": round(intake, 1),
                         "backlog_1000_s": round(backlog, 3)})
    finally:
        broker.stop()
        shutil.rmtree(workdir, ignore_errors=True)
    print(f"{'journal':>8} {'intake (commands/s)':>20} {'start to last of 1000 waiting (s)':>34}")
    for r in rows:
        print(f"{'on' if r['journal'] else 'off':>8} {r['intake_per_s']:>20} {r['backlog_1000_s']:>34}")
    with open(os.path.join(out_dir, "sf_bench_commands.json"), "w", encoding="utf-8") as f:
        json.dump({"commands": rows}, f, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())

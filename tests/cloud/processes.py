"""The processes of the cloud test: a private mosquitto on a free loopback
port (with persistence, so a restart keeps the cloud's session) and the
gateway daemon sfgw. Each is stopped by the id it was started with."""

import os
import signal
import socket
import subprocess
import time


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_port(port, timeout):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return True
        except OSError:
            time.sleep(0.05)
    return False


def stop_process(proc, timeout=15):
    """SIGTERM, then wait; returns the exit status (None if it had to be killed)."""
    if proc is None or proc.poll() is not None:
        return proc.returncode if proc else None
    proc.send_signal(signal.SIGTERM)
    try:
        return proc.wait(timeout)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
        return None


class Broker:
    def __init__(self, workdir, port):
        self.workdir = workdir
        self.port = port
        self.proc = None
        self.conf = os.path.join(workdir, "mosquitto.conf")
        with open(self.conf, "w", encoding="utf-8") as f:
            f.write(f"listener {port} 127.0.0.1\nallow_anonymous true\npersistence true\n"
                    f"persistence_location {workdir}/\nlog_dest file {workdir}/broker.log\n"
                    # what the broker keeps for an absent gateway (docs/brokers.md): the largest burst of a test
                    f"max_queued_messages 10000\n")
            if os.getuid() == 0:
                f.write("user root\n")  # as root mosquitto would switch to a user who cannot write here

    def start(self):
        binary = next((p for p in ("/usr/sbin/mosquitto", "/usr/local/sbin/mosquitto") if os.path.exists(p)),
                      "mosquitto")
        out = open(os.path.join(self.workdir, "broker.out"), "a", encoding="utf-8")
        self.proc = subprocess.Popen([binary, "-c", self.conf], stdout=out, stderr=subprocess.STDOUT)
        if not wait_port(self.port, 10):
            raise RuntimeError(f"mosquitto did not open port {self.port}")

    def stop(self):
        stop_process(self.proc)
        self.proc = None


class Gateway:
    def __init__(self, workdir, sfgw, description, mqtt_port, lan_port, extra=(), name="sfgw"):
        self.args = [sfgw, description, "--mqtt-port", str(mqtt_port), "--lan-port", str(lan_port),
                     "--log-level", "notice", *extra]
        self.log_path = os.path.join(workdir, name + ".log")
        self.out_path = os.path.join(workdir, name + ".out")
        self.proc = None

    def start(self):
        # appended, so that the log of every run of one test stays readable
        self.proc = subprocess.Popen(self.args, stdout=open(self.out_path, "a", encoding="utf-8"),
                                     stderr=open(self.log_path, "a", encoding="utf-8"))

    def kill(self):
        """SIGKILL: no clean stop, no last write."""
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        self.proc = None

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as f:
            return f.read()

    def wait_log(self, text, timeout=10):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if text in self.log():
                return True
            time.sleep(0.05)
        return False

    def stop(self):
        status = stop_process(self.proc)
        self.proc = None
        return status

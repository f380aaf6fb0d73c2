# SPDX-License-Identifier: Apache-2.0
"""script/bench: the part that runs in the lab's gateway, with one board.

Measures every contestant round by round, so that a machine that gets slower or faster does so for
all of them alike, and leaves what it measured in $LAB_DIR/bench.json: one list per figure, an
element for each round. Units are in the names.
"""

import argparse
import json
import os
import pathlib
import shlex
import socket
import struct
import subprocess
import time

LAB = pathlib.Path(os.environ["LAB_DIR"])
SWITCH = shlex.split(os.environ["LAB_SWITCH"])
PEER_INDEX = 1000  # interface number below the first one that the peer reads
KINDS = {"bare": 0, "limit": 1, "probe": 2, "least": 3}

MESSAGES = {
    "probe": ("probe", '{"ntick":@@@@@@@@}'),
    "ping": ("ping", '{"seq":@@@@@@@@,"time":1700000000}'),
    "ports_link": ("get", "{}"),
    "ports_info": ("get", "{}"),
    "ports_conf": ("get", "{}"),
    "ports_stats": ("get", "{}"),
    "ports_client": ("get", "{}"),
}
# Requests of a round, as a share of --count: those that cost more are asked less often.
COUNTS = {"ports_conf": 0.3, "ports_stats": 0.2, "ports_client": 0.2, "snmpd": 0.2}
WINDOW = 32  # frames of answers that may be on their way at saturation, two requests at least
FRESH_SECONDS = 3.1  # a little more than snmpd keeps its tables for
SLOW_MS = (0, 20, 100, 500, 3000)  # of a module; the last is beyond the agent's patience
TO_SWITCH, TO_GATEWAY = 0x9301, 0x9303


def text_of(name):
    command, data = MESSAGES[name]
    return f'{{"mac":"bench","cmd":"{command}","subcmd":"{name}","data":{data}}}'


class Bench:
    def __init__(self, options):
        self.options = options
        self.board = json.loads(pathlib.Path(options.board).read_text(encoding="utf-8"))
        self.ports = len(self.board["ports"])
        self.mac = self.board["mac"]
        self.address = self.board["management"]["ip"]
        cpus = sorted(os.sched_getaffinity(0))
        self.cpu, self.other_cpu = cpus[0], cpus[-1]
        self.qel = self.pid("qel")
        self.morvad = self.pid("morvad")
        self.children = []
        self.out = {"ports": self.ports}
        self.out |= {key: {} for key in ("answers", "cpu_ns", "rtt_ns", "rate", "idle_ns_per_s")}

    def pid(self, name):
        pid = int((LAB / f"{name}.pid").read_text(encoding="ascii"))
        os.sched_setaffinity(pid, {self.cpu})
        return pid

    def start(self, *command, **options):
        """A process of ours inside the switch, on the one processor."""
        options.setdefault("stdout", subprocess.DEVNULL)
        child = subprocess.Popen([*SWITCH, *command], stderr=subprocess.DEVNULL, **options)
        os.sched_setaffinity(child.pid, {self.cpu})
        self.children.append(child)
        return child.pid

    def stop(self):
        for child in self.children:
            child.kill()
            child.wait()

    # --- one measurement ------------------------------------------------------------------------

    def drive(self, *arguments, cpu=None, **options):
        command = ["qel_bench_driver", *map(str, arguments)]
        command += [f"cpu={self.cpu if cpu is None else cpu}"]
        for key, value in options.items():
            command += [f"{key}={one}" for one in (value if isinstance(value, list) else [value])]
        result = json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)
        if result["lost"]:
            raise RuntimeError(f"{result['lost']} requests lost: {' '.join(command)}")
        return result

    def agent(self, name, **options):
        return self.drive("agent", "gw0", self.mac, text_of(name), **options)

    def echo(self, kind, name, **options):
        """An echo of as many frames of the mean size as the agent's answer to `name` has."""
        answer = self.out["answers"][name]
        size = round(answer["bytes"] / answer["frames"])
        head = ("echo", "gw0", self.mac, KINDS[kind], answer["frames"], size, text_of(name))
        return self.drive(*head, **options)

    def snmp(self, **options):
        rows = 28 if self.ports <= 28 else (self.ports + 1) // 2
        requests = (self.ports + rows - 1) // rows
        rows = min(rows, self.ports)
        return self.drive("snmp", self.address, PEER_INDEX, rows, requests, **options)

    def note(self, table, name, value):
        self.out[table].setdefault(name, []).append(value)

    # --- what is measured -----------------------------------------------------------------------

    def learn(self):
        for name in MESSAGES:
            result = self.agent(name, count=1)
            keys = ("frames", "bytes", "request_frames", "request_bytes")
            self.out["answers"][name] = {key: result[key] for key in keys}
        if self.snmpd:
            result = self.snmp(count=1)
            if result["bytes"] < self.ports * 3 * 15:
                raise RuntimeError("snmpd's answer does not hold the columns asked for")
            self.out["answers"]["snmpd"] = {key: result[key] for key in keys}

    def round(self):
        for name in MESSAGES:
            count = max(20, int(self.options.count * COUNTS.get(name, 1)))
            frames = self.out["answers"][name]["frames"]
            load = {"count": count, "frames": frames}
            self.record("limit:" + name, self.echo("limit", name, pid=self.echoer, **load))
            self.record(name, self.agent(name, pid=[self.qel, self.morvad], **load), both=True)
        load = {"count": self.options.count, "frames": 1}
        self.record("bare:ping", self.echo("bare", "ping", pid=self.echoer, **load))
        self.record("least:ping", self.echo("least", "ping", pid=self.echoer, **load))
        self.record("probe-limit:probe", self.echo("probe", "probe", pid=self.echoer, **load))
        if self.snmpd:
            count = max(20, int(self.options.count * COUNTS["snmpd"]))
            frames = self.out["answers"]["snmpd"]["frames"]
            self.record("snmpd", self.snmp(pid=self.snmpd, count=count, frames=frames))

    def record(self, name, result, both=False):
        count = result["count"]
        self.note("cpu_ns", name, result["cpu_ns"][0] / count)
        self.note("rtt_ns", name, result["rtt_ns"])
        if both:
            self.note("cpu_ns", name + "+morvad", sum(result["cpu_ns"]) / count)

    def saturate(self):
        """Requests a second with the sender on another processor and many of them on their way."""
        for name in MESSAGES:
            count = max(100, int(self.options.count * 3 * COUNTS.get(name, 1)))
            frames = self.out["answers"][name]["frames"]
            window = max(2, WINDOW // frames)
            load = {"count": count, "window": window, "frames": frames, "cpu": self.other_cpu}
            self.note_rate("limit:" + name, self.echo("limit", name, **load))
            self.note_rate(name, self.agent(name, **load))
        if self.snmpd:
            count = max(100, int(self.options.count * COUNTS["snmpd"]))
            frames = self.out["answers"]["snmpd"]["frames"]
            load = {"count": count, "window": WINDOW // 4, "frames": frames, "cpu": self.other_cpu}
            self.note_rate("snmpd", self.snmp(**load))

    def note_rate(self, name, result):
        self.note("rate", name, result["count"] / result["wall_ns"] * 1e9)

    def fresh(self):
        """What one read costs snmpd when it has not been asked for a while, reloading included."""
        frames = self.out["answers"]["snmpd"]["frames"]
        for _ in range(self.options.rounds):
            before = cpu_ns(self.snmpd)
            time.sleep(self.options.fresh)
            self.snmp(count=1, frames=frames)
            time.sleep(0.01)
            self.note("cpu_ns", "snmpd fresh", cpu_ns(self.snmpd) - before)

    def run(self):
        self.echoer = self.start("qel_bench_echo", "vlanif1")
        timer = self.start("qel_bench_timer")
        self.snmpd = self.start_snmpd()
        lldpd = self.start_lldpd() if self.ports == 28 else None
        time.sleep(1.5)  # what was started settles
        if self.snmpd and not alive(self.snmpd):
            self.snmpd = None
        weights = {"agent": self.qel, "morvad": self.morvad, "timer": timer, "echo": self.echoer}
        weights |= {"snmpd": self.snmpd, "lldpd": lldpd}
        self.out["start_kb"] = {name: memory(pid) for name, pid in weights.items() if alive(pid)}
        self.learn()
        for _ in range(self.options.rounds):
            self.round()
            self.saturate()
        if self.snmpd:
            self.fresh()
        self.idle(timer)
        if self.ports == 28:
            self.slow_modules()
            self.million()
            self.out["end_kb"] = {name: memory(pid) for name, pid in weights.items() if alive(pid)}
            self.first_answers()

    def idle(self, timer):
        """CPU while nothing is asked, of those that a timer wakes."""
        pids = {"agent": self.qel, "morvad": self.morvad, "timer": timer}
        if self.snmpd:
            pids["snmpd"] = self.snmpd
        seconds = self.options.idle
        for _ in range(self.options.rounds):
            before = {name: cpu_ns(pid) for name, pid in pids.items()}
            time.sleep(seconds)
            for name, pid in pids.items():
                self.note("idle_ns_per_s", name, (cpu_ns(pid) - before[name]) / seconds)

    def slow_modules(self):
        """How long a request with a module query, and a ping behind it, take with a slow module."""
        wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(TO_GATEWAY))
        wire.bind(("gw0", TO_GATEWAY))
        wire.settimeout(10)
        addresses = bytes.fromhex(self.mac.replace(":", "")) + wire.getsockname()[4]
        kept = f"/proc/{self.morvad}/root/run/morva/statistics.sock"
        os.rename(kept, kept + ".kept")
        self.out["slow_ms"] = {}
        for milliseconds in SLOW_MS:
            reply = '{"ret":0,"data":[]}'
            place = os.path.abspath(os.path.dirname(__file__)) + "/slow_module.py"
            command = ("/usr/bin/python3", place, "statistics", str(milliseconds), reply)
            self.start(*command, stdout=subprocess.PIPE)
            module = self.children.pop()
            module.stdout.readline()
            rounds = [held(wire, addresses) for _ in range(self.options.rounds)]
            self.out["slow_ms"][milliseconds] = {
                "ports_stats": [first for first, _ in rounds],
                "ping behind it": [second for _, second in rounds],
            }
            module.kill()
            module.wait()
        wire.close()
        os.rename(kept + ".kept", kept)

    def million(self):
        load = {"count": self.options.million // 4, "window": 32, "frames": 1}
        load["cpu"] = self.other_cpu
        marks = []
        for _ in range(4):
            self.agent("ping", **load)
            marks.append(memory(self.qel) | {"descriptors": descriptors(self.qel)})
        self.out["million"] = {"requests": load["count"] * 4, "marks": marks}

    def first_answers(self):
        """From exec to the first answered probe; the lab's own agent is ended for it."""
        os.kill(self.qel, 15)
        while alive(self.qel):
            time.sleep(0.01)
        text = text_of("probe").replace("@@@@@@@@", "10000000")
        stamp = str(LAB / "exec.time")
        environment = dict(os.environ, MORVA_LOG="stderr")
        for _ in range(self.options.rounds):
            asking = subprocess.Popen(
                ["qel_bench_driver", "first", "gw0", self.mac, text], stdout=subprocess.PIPE
            )
            time.sleep(0.05)
            self.start("qel_bench_driver", "exec", stamp, "qel", env=environment)
            answered = int(asking.communicate(timeout=30)[0])
            began = int(pathlib.Path(stamp).read_text(encoding="ascii"))
            self.out.setdefault("first_answer_ns", []).append(answered - began)
            child = self.children.pop()
            child.terminate()
            child.wait()

    # --- the peers ------------------------------------------------------------------------------

    def start_snmpd(self):
        if not os.access("/usr/sbin/snmpd", os.X_OK):
            return None
        # As many interfaces as the board has ports; their far ends stay on the gateway's side.
        holder = SWITCH[SWITCH.index("-t") + 1]
        lines = [
            f"link add name far{i} up type veth peer name d{i} index {PEER_INDEX + i} "
            f"netns {holder}"
            for i in range(1, self.ports + 1)
        ]
        batch = "\n".join(lines).encode() + b"\n"
        subprocess.run(["ip", "-batch", "-"], input=batch, check=True)
        lines = [f"link set dev d{i} up" for i in range(1, self.ports + 1)]
        batch = "\n".join(lines).encode() + b"\n"
        subprocess.run([*SWITCH, "ip", "-batch", "-"], input=batch, check=True)
        configuration = LAB / "snmpd.conf"
        configuration.write_text(
            f"agentaddress udp:{self.address}:161\nrocommunity public\n"
            f"[snmp] persistentDir {LAB}\n",
            encoding="ascii",
        )
        return self.start("/usr/sbin/snmpd", "-f", "-C", "-c", str(configuration), "-Ln")

    def start_lldpd(self):
        if not os.access("/usr/sbin/lldpd", os.X_OK):
            return None
        subprocess.run([*SWITCH, "mkdir", "-p", "/run/lldpd"], check=False)
        self.start("/usr/sbin/lldpd", "-d", "-u", "/run/lldpd.socket")
        time.sleep(1.0)
        return self.children[-1].pid


def frame(addresses, text):
    data = text.encode()
    header = struct.pack("!HHHH12x", TO_SWITCH, 0, 0xBABE, len(data) + 16)
    return addresses + header + data


def held(wire, addresses):
    """Milliseconds until "ports_stats" and a ping sent right behind it are answered."""
    wire.send(frame(addresses, text_of("ports_stats")))
    wire.send(frame(addresses, text_of("ping").replace("@@@@@@@@", "10000000")))
    began = time.monotonic()
    first = None
    while True:
        reply = wire.recv(65536)
        now = (time.monotonic() - began) * 1000
        if b'"ports_stats"' in reply and first is None:
            first = now
        if b'"pong"' in reply:
            return first, now


def alive(pid):
    if not pid:
        return False
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii") as file:
            return file.read().rpartition(")")[2].split()[0] != "Z"
    except FileNotFoundError:
        return False


def cpu_ns(pid):
    with open(f"/proc/{pid}/schedstat", encoding="ascii") as file:
        return int(file.read().split()[0])


def family(pid):
    """The process and its children: some daemons work in two."""
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return [pid, *map(int, file.read().split())]


def memory(pid):
    """Pss and private kilobytes."""
    total = {"pss": 0, "private": 0}
    for one in family(pid):
        with open(f"/proc/{one}/smaps_rollup", encoding="ascii") as file:
            for line in file:
                if line.startswith("Pss:"):
                    total["pss"] += int(line.split()[1])
                elif line.startswith("Private_"):
                    total["private"] += int(line.split()[1])
    return total


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--board", required=True)
    parser.add_argument("--rounds", type=int, required=True)
    parser.add_argument("--count", type=int, required=True)
    parser.add_argument("--idle", type=int, required=True)
    parser.add_argument("--million", type=int, required=True)
    parser.add_argument("--fresh", type=float, default=FRESH_SECONDS)
    bench = Bench(parser.parse_args())
    try:
        bench.run()
    finally:
        bench.stop()
    (LAB / "bench.json").write_text(json.dumps(bench.out), encoding="ascii")


if __name__ == "__main__":
    main()

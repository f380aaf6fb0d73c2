# SPDX-License-Identifier: Apache-2.0
"""Faults from outside that hit the running agent: modules that fail in the middle of any query, a
daemon killed under load, disks, descriptors and memory at their end, interfaces that go, a fifth
gateway, and a neighbour that floods.

QEL_FAULTS=N makes the random and the timed ones N times as long (script/soak does); figures are
printed, `-s` shows them.
"""

import contextlib
import json
import os
import random
import re
import signal
import socket
import threading
import time

import pytest

from gateway import GROUP, frame, message
from labkit import Lab, wait_until
from test_kill import children, name
from test_modules import double
from test_transfers import archive_of, put_program, send_chunk

LONGER = int(os.environ.get("QEL_FAULTS", "1"))
SWITCH = bytes.fromhex("0a1b2c3d4e5f")
DEADLINE_MS = 250
SHORT = {"MORVA_QUERY_DEADLINE_MS": str(DEADLINE_MS)}
SLACK = 3.0  # seconds that a busy machine may add
CHUNK = 1024


@pytest.fixture(scope="module")
def quick():
    with Lab(environment=SHORT) as running:
        yield running


def read(gateway, subcmd):
    """The texts of a report."""
    gateway.command("get", subcmd, {})
    return [one.text for one in gateway.until_probe()[:-1]]


# ---- modules ------------------------------------------------------------------------------------

CONF = ("set", "ports_conf", {"ge19": [1, "AN", 1, 0, 0, 0, 1, 1]})

# Every query that a gateway can set off, by module: the message, and what the module is asked.
QUERIES = {
    "mono": [
        (CONF, ["qel_common_update_mono_portinfo"]),
        (("set", "port_enable", {"ge20": 1}), ["qel_port_enable_set"]),
        (("set", "port_speed", {"ge20": "AN"}), ["qel_port_speed_set"]),
        (("set", "port_restart", {"ge21": 0}), ["qel_port_enable_set"]),
        (("set", "name", {"name": "desk"}), ["product_description_set"]),
    ],
    "llpp": [(CONF, ["qel_common_update_llpp_portinfo"])],
    "stp": [(CONF, ["qel_common_update_stp_portinfo"])],
    "lldp": [(CONF, ["qel_common_update_lldp_portinfo", "qel_common_update_poe_portinfo"])],
    "zebra": [
        (
            ("set", "sys_ip", {"sys_ip": "192.168.1.300", "sys_mask": 24}),
            ["manage_L3IF_info_set", "manage_L3IF_info_get"],
        )
    ],
    "poe": [(("get", "ports_poe", {}), ["poe_qel_port_config_get_all"])],
    "statistics": [(("get", "ports_stats", {}), ["port_statistic_qel_get_all"])],
    "ntp": [(("get", "qelipc", {"mdl": "ntp", "cmd": "anything"}), ["anything"])],
}
# How many messages answer it, whatever the module does.
ANSWERS = {"sys_ip": 1, "ports_poe": 1, "ports_stats": 2}


@pytest.mark.parametrize("behaviour", ["dies", "is_silent", "trickles", "floods"])
@pytest.mark.parametrize("module", QUERIES)
def test_module_that_fails_in_any_query_holds_nothing_but_that_query(quick, module, behaviour):
    pid = quick.pid("qel")
    before = read(quick.gateway, "ports_conf")
    if module == "ntp":  # a module that the platform has not, so there is nobody to put aside
        quick.switch("touch", "/var/run/morva/ntp.sock")
    with double(quick, module, behaviour):
        first = len(quick.queries())
        start = time.monotonic()
        answers = {}
        for (cmd, subcmd, data), _ in QUERIES[module]:
            quick.gateway.command(cmd, subcmd, data)
            answers[subcmd] = len(quick.gateway.until_probe()) - 1
        seconds = time.monotonic() - start
    asked = [one for one in quick.queries()[first:] if one["module"] == module]
    expected = [command for _, commands in QUERIES[module] for command in commands]
    assert [json.loads(one["request"])["cmd"] for one in asked] == expected
    assert all(one["reply_bytes"] == 0 for one in asked)
    if behaviour in ("is_silent", "trickles"):
        assert all(one["us"] >= DEADLINE_MS * 1000 for one in asked)
    assert seconds < len(asked) * DEADLINE_MS / 1000 + SLACK
    assert answers == {subcmd: ANSWERS.get(subcmd, 0) for subcmd in answers}
    after = read(quick.gateway, "ports_conf")
    if CONF not in [message for message, _ in QUERIES[module]]:
        assert after == before
    assert len(after) == 2  # what the modules took that did not fail may be in it
    assert quick.pid("qel") == pid


@pytest.mark.parametrize(
    ("module", "subcmd"), [("poe", "ports_poe"), ("statistics", "ports_stats")]
)
def test_module_that_stutters_is_heard_to_the_end(quick, module, subcmd):
    before = [without_numbers(text) for text in read(quick.gateway, subcmd)]
    length = quick.queries()[-1]["reply_bytes"]
    with double(quick, module, "stutters"):
        assert [without_numbers(text) for text in read(quick.gateway, subcmd)] == before
        assert abs(quick.queries()[-1]["reply_bytes"] - length) < 100  # counters get longer


def without_numbers(text):
    """A report's rows and what is zero in them: counters go on counting."""
    return re.sub(rb"(?<=[\[,])[1-9][0-9]*", b"N", text)


def test_setting_that_a_stuttering_module_takes_counts(quick):
    with double(quick, "mono", "stutters"):
        quick.gateway.command("set", "name", {"name": "stutter"})
        assert quick.gateway.probe().json["data"]["name"] == "stutter"


# ---- death under load ---------------------------------------------------------------------------

LOAD = [
    message("get", one, {})
    for one in "ports_info ports_conf ports_link ports_poe ports_client ports_stats".split()
] + [
    message("ping", "ping", {"a": [1, 2]}),
    message("probe", "probe", {"ntick": 1}, mac="load"),
    message("set", "port_enable", {"ge9": 1}),
    message("set", "sys_active", {"sys_active": 900000}),
    message("set", "config_upload", {"index": 0}),
]


@contextlib.contextmanager
def load(lab, every=0.002):
    """A gateway that asks for everything in turn while the block runs."""
    sender = lab.socket(socket.AF_PACKET, socket.SOCK_RAW)
    sender.bind(("gw0", 0))
    stop = threading.Event()

    def run():
        number = 0
        while not stop.wait(every):
            text = LOAD[number % len(LOAD)]
            number += 1
            with contextlib.suppress(OSError):  # the cable may be gone
                sender.send(frame(GROUP, bytes.fromhex("020000000077"), text))

    thread = threading.Thread(target=run)
    thread.start()
    try:
        yield
    finally:
        stop.set()
        thread.join()
        sender.close()


def answered(lab, seconds=20.0):
    """Asks until a probe of ours is answered; what else comes is dropped. The seconds it took."""
    gateway, start = lab.gateway, time.monotonic()
    while time.monotonic() < start + seconds:
        ntick = random.randrange(10**6, 10**9)
        with contextlib.suppress(OSError):
            gateway.command("probe", "probe", {"ntick": ntick}, SWITCH)
        until = time.monotonic() + 0.1
        while time.monotonic() < until:
            try:
                if f'"ntick":{ntick}}}'.encode() in gateway.receive(0.05).text:
                    return time.monotonic() - start
            except (AssertionError, OSError):
                break
    raise AssertionError(f"no probe was answered within {seconds:g} s; {lab.log('qel')[-2000:]}")


def daemons(lab):
    """The pids of the lab's daemons as this machine sees them."""
    shell = next(children(lab.process.pid))
    found = {}
    for keeper in children(shell):
        for pid in children(keeper):
            found[name(pid)] = pid
    return found


def test_daemons_killed_at_random_under_load_leave_nothing_broken(make_lab):
    lab = make_lab(environment={"LAB_RESPAWN": "1"})
    rng = random.Random(9)
    lab.gateway.command("set", "name", {"name": "kept"})
    lab.gateway.probe()
    keys = {line.split("=")[0] for line in settings(lab)}
    worst = 0.0
    with load(lab):
        for number in range(12 * LONGER):
            victim = "morvad" if number % 3 == 2 else "qel"
            time.sleep(rng.uniform(0.01, 0.2))
            pid = daemons(lab)[victim]
            os.kill(pid, signal.SIGKILL)
            wait_until(lambda: daemons(lab).get(victim, pid) != pid, f"another {victim}")
            worst = max(worst, answered(lab))
    print(f"{12 * LONGER} kills under load, longest until a probe was answered: {worst:.2f} s")
    answered(lab)
    drain(lab)
    assert lab.gateway.probe().json["data"]["name"] == "kept"
    kept = [line.split("=")[0] for line in settings(lab)]
    assert keys <= set(kept) and len(kept) == len(set(kept))
    assert len(read(lab.gateway, "ports_conf")) == 2
    # The interface manager and the agent have found each other again.
    lab.morvactl("link", "ge3", "down")
    wait_until(lambda: b'"ge3":[0,' in read(lab.gateway, "ports_link")[0], "the link of ge3")


def settings(lab):
    text = (lab.dir / "conf/nvram.conf").read_text(encoding="utf-8")
    assert text.endswith("\n"), text[-80:]
    return text.splitlines()


def drain(lab):
    """Drops what is still on its way to our gateway."""
    with contextlib.suppress(AssertionError):
        while True:
            lab.gateway.receive(0.3)


# ---- disks --------------------------------------------------------------------------------------

MOUNT = (
    "mkdir -p /run/keep && rm -rf /run/keep/* && cp -a /var/conf/. /run/keep && "
    "mount -t tmpfs -o size={1},mode=777 none {0}"
)
KEEP = " && cp -a /run/keep/. /var/conf"


def mount(folder, size):
    """A disk of that size over the folder; it holds the settings when they belong there."""
    return MOUNT.format(folder, size) + (KEEP if folder == "/var/conf" else "")


@contextlib.contextmanager
def full(lab, folder):
    """The folder lies on a disk that has no room left."""
    lab.switch("sh", "-c", mount(folder, "64k"))
    lab.switch("sh", "-c", f"cat /dev/zero >{folder}/ballast 2>/dev/null; :")
    try:
        yield
    finally:
        lab.switch("umount", "-l", folder)


@contextlib.contextmanager
def read_only(lab, folder):
    """The folder lies on a disk that cannot be written."""
    lab.switch("sh", "-c", mount(folder, "4m") + f" && mount -o remount,ro {folder}")
    try:
        yield
    finally:
        lab.switch("umount", "-l", folder)


def push_config(lab):
    archive = archive_of({"new.conf": b"new"})
    send_chunk(lab.gateway, "config_download", 0, True, len(archive) + 1, archive)
    return lab.gateway.receive().json["data"]["state"]


def push_image(lab):
    send_chunk(lab.gateway, "firm_download", 0, False, CHUNK, bytes(CHUNK))
    return lab.gateway.receive().json["data"]["state"]


def pull_image(lab):
    lab.gateway.command("set", "hfs_upgrade", {"upgrade_serverinfo": "http://192.168.1.1:9/x.trx"})
    return len(lab.gateway.until_probe())


def fetch_config(lab):
    lab.gateway.command("set", "config_upload", {"index": 0})
    return lab.gateway.receive(20.0).json["data"]["state"]


def save_by_vty(lab):
    """`write` of the command shell; what it says comes to the log or the shell, never to an end."""
    lab.switch(
        "sh", "-c", "printf 'enable\\nwrite\\nexit\\nexit\\n' | timeout 5 telnet 127.0.0.1 2625; :"
    )
    return None


def set_name(lab):
    lab.gateway.command("set", "name", {"name": "lost"})
    return "lost" in lab.gateway.probe().json["data"]["name"]


def set_countdown(lab):
    lab.gateway.command("set", "sys_active", {"sys_active": 3})
    lab.gateway.probe()
    return None


def switch_off_and_on(lab):
    send = (
        "import socket,sys; s=socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM);"
        "s.sendto(sys.argv[1].encode(), '/var/run/qel.udp')"
    )
    for value in (0, 1):
        event = json.dumps({"type": "cldm_conf", "qel_enable": value})
        lab.switch("python3", "-c", send, event)
    answered(lab)
    return None


# Each write of the agent and of what it sets off: where it goes, and what is answered when it fails
# on a disk that is full, and on one that is read-only.
WRITES = {
    "configuration packed for the gateway": ("/var/conf", fetch_config, 0, 0),
    # A file that cannot be opened swallows its chunks; one that cannot grow says so.
    "configuration from the gateway": ("/var/conf", push_config, 0, 2),
    "firmware image pushed": ("/tmp", push_image, -2, -2),
    "firmware image fetched": ("/tmp", pull_image, 1, 1),
    "shell's configuration": ("/var/conf", save_by_vty, None, None),
    "name": ("/var/conf", set_name, False, False),
    "countdown": ("/var/conf", set_countdown, None, None),
    "switched off and on": ("/var/conf", switch_off_and_on, None, None),
    "run files": ("/var/run/morva", switch_off_and_on, None, None),
}


@pytest.fixture(scope="module")
def disks():
    with Lab() as running:
        yield running


@pytest.mark.parametrize("disk", [full, read_only])
@pytest.mark.parametrize("write", WRITES)
def test_write_that_fails_is_answered_and_costs_nothing_else(disks, write, disk):
    folder, act, when_full, when_read_only = WRITES[write]
    pids = disks.pid("qel"), disks.pid("morvad")
    before = disks.switch("sh", "-c", "cat /var/conf/*.conf | grep -v sys_active | md5sum").stdout
    with disk(disks, folder):
        assert act(disks) == (when_full if disk is full else when_read_only)
        during = disks.switch("sh", "-c", "cat /var/conf/*.conf | grep -v sys_active | md5sum")
        assert during.stdout == before or folder != "/var/conf"
        disks.gateway.probe()
    if write.startswith("configuration"):
        # The transfer is given up: by another chunk, or by the ticks that an archive is kept.
        send_chunk(disks.gateway, "config_download", 0, True, 1, b"xx")
        disks.gateway.receive()
    disks.gateway.probe()
    assert (disks.pid("qel"), disks.pid("morvad")) == pids


# ---- descriptors and memory ---------------------------------------------------------------------


def status(lab, daemon="qel"):
    """Descriptors open, and processor time in seconds, of a daemon."""
    pid = lab.pid(daemon)
    open_ = int(lab.run("sh", "-c", f"ls /proc/{pid}/fd | wc -l").stdout)
    ticks = lab.run("cat", f"/proc/{pid}/stat").stdout.rsplit(")", 1)[1].split()
    return open_, (int(ticks[11]) + int(ticks[12])) / os.sysconf("SC_CLK_TCK")


@contextlib.contextmanager
def limited(lab, daemon, **limits):
    pid = str(lab.pid(daemon))
    arguments = [f"--{key}={value}:" for key, value in limits.items()]
    kept = [f"--{key}=" + limit_of(lab, pid, key) for key in limits]
    lab.run("prlimit", "--pid", pid, *arguments)
    try:
        yield
    finally:
        lab.run("prlimit", "--pid", pid, *kept)


def limit_of(lab, pid, key):
    row = lab.run("prlimit", "--pid", pid, f"--{key}", "--noheadings", "--output=SOFT")
    return row.stdout.strip() + ":"


def ask_everything(lab):
    """Everything that a gateway may ask, unanswered or not; the agent must come out of it alive."""
    for text in LOAD:
        lab.gateway.send(text)
    lab.gateway.command("set", "sys_ip", {"sys_ip": "192.168.1.300"})
    lab.gateway.command("set", "name", {"name": "short"})


def test_agent_without_a_descriptor_left_answers_again_when_it_has_some(make_lab):
    lab = make_lab(environment=SHORT)
    before, _ = status(lab)
    whole = [read(lab.gateway, one) for one in ("ports_conf", "ports_poe")]
    with limited(lab, "qel", nofile=before):
        ask_everything(lab)
        # No module can be asked, so there is no priority to tell; the rest of the answer is whole.
        drain(lab)
        assert b":[1," not in read(lab.gateway, "ports_poe")[0]
        assert read(lab.gateway, "ports_conf") == whole[0]
    drain(lab)
    assert lab.gateway.probe().json["data"]["sys_ip"] == "192.168.1.10"
    assert [read(lab.gateway, one) for one in ("ports_conf", "ports_poe")] == whole
    wait_until(lambda: status(lab)[0] == before, "descriptors as before", seconds=40.0)


def test_connections_that_cannot_be_taken_do_not_keep_the_agent_busy(make_lab):
    """Whoever waits at the agent's local ports while it has no descriptor left waits quietly."""
    lab = make_lab()
    before, _ = status(lab)
    callers = [lab.socket(socket.AF_INET, socket.SOCK_STREAM, inside=1) for _ in range(4)]
    with limited(lab, "qel", nofile=before):
        for number, caller in enumerate(callers):
            caller.connect(("127.0.0.1", (30056, 2625)[number % 2]))
        lab.gateway.probe()
        logged, (_, start) = len(lab.log("qel")), status(lab)
        time.sleep(1.0)  # what is measured is the rest between two events
        (_, end), said = status(lab), len(lab.log("qel")) - logged
        print(f"processor time in a second with callers waiting: {end - start:.2f} s, log {said} B")
        assert end - start < 0.3 and said < 2000
        lab.gateway.probe()
        for caller in callers:
            caller.close()
    answered(lab)
    wait_until(lambda: status(lab)[0] <= before + 1, "descriptors as before")  # one is held back


def test_platform_without_a_descriptor_left_answers_again_when_it_has_some(make_lab):
    lab = make_lab(environment=SHORT)
    before, _ = status(lab, "morvad")
    whole = read(lab.gateway, "ports_poe")
    with limited(lab, "morvad", nofile=before):
        ask_everything(lab)
        lab.gateway.until_probe()
    drain(lab)
    assert read(lab.gateway, "ports_poe") == whole
    assert status(lab, "morvad")[0] <= before


class TestMemory:
    """Sanitizers end a program whose memory ends, so the everyday run leaves this to script/soak."""

    __test__ = LONGER > 1

    @pytest.mark.parametrize("spare_kb", [0, 64, 256])
    def test_agent_at_the_end_of_its_memory_answers_again(self, make_lab, spare_kb):
        lab = make_lab()
        text = lab.run("cat", f"/proc/{lab.pid('qel')}/status").stdout
        size = int(re.search(r"VmSize:\s+(\d+) kB", text)[1])
        assert size < 1_000_000, "an agent with sanitizers: QEL_BUILD_DIR must name a build without"
        whole = shape(lab)
        with limited(lab, "qel", **{"as": (size + spare_kb) * 1024}):
            for _ in range(50):
                ask_everything(lab)
                answered(lab)
            drain(lab)
            # There is no memory for what is asked for now, and that is told.
            send_chunk(lab.gateway, "config_download", 0, True, 1 << 30, bytes(CHUNK))
            assert lab.gateway.receive().json["data"]["state"] == 0
        drain(lab)
        assert shape(lab) == whole


def shape(lab):
    """What three reports say, but for counters that go on."""
    texts = [read(lab.gateway, one) for one in ("ports_conf", "ports_poe", "ports_stats")]
    return [without_numbers(text) for report in texts for text in report]


# ---- interfaces ---------------------------------------------------------------------------------


def test_management_interface_goes_and_comes_under_load(make_lab):
    lab = make_lab()
    pid = lab.pid("qel")
    with load(lab):
        for _ in range(4 * LONGER):
            lab.switch("ip", "link", "set", "vlanif1", "down")
            lab.switch("ip", "link", "set", "vlanif1", "name", "away")
            with contextlib.suppress(AssertionError):
                lab.gateway.receive(0.05)
            lab.switch("ip", "link", "set", "away", "name", "vlanif1")
            lab.switch("ip", "link", "set", "vlanif1", "up")
            answered(lab)
    assert lab.pid("qel") == pid


# ---- gateways -----------------------------------------------------------------------------------


class Peer:
    """One of several gateways behind the lab's one cable, told apart by its address."""

    def __init__(self, lab, number):
        self.lab = lab
        self.mac = bytes([2, 0, 0, 0, 9, number])

    def probe(self, ntick):
        text = message("probe", "probe", {"ntick": ntick}, mac=self.mac.hex())
        self.lab.gateway.send_raw(frame(SWITCH, self.mac, text))
        answer = self.lab.gateway.receive()
        assert answer.destination == self.mac and f'"ntick":{ntick}}}'.encode() in answer.text


def told(lab, act, count):
    """To whom the next `count` messages went that `act` set off, and nobody else's."""
    act()
    destinations = [lab.gateway.receive().destination for _ in range(count)]
    return destinations + [one.destination for one in lab.gateway.until_probe()[:-1]]


def test_four_gateways_are_told_and_a_fifth_takes_the_firsts_place(make_lab):
    lab = make_lab()
    peers = [Peer(lab, number) for number in range(5)]
    for number, peer in enumerate(peers[:4]):
        peer.probe(number)
    addresses = [peer.mac for peer in peers]

    def link(state):
        return lambda: lab.morvactl("link", "ge4", state)

    # The lab's own gateway, whose probe ends the list, is a fifth one itself.
    assert told(lab, link("down"), 4) == addresses[:4]
    peers[4].probe(5)
    assert told(lab, link("up"), 4) == [addresses[4], *addresses[1:4]]
    peers[0].probe(6)  # the name of the first entry is still his
    assert told(lab, link("down"), 4) == addresses[:4]
    for peer in peers:
        peer.probe(7)


# ---- a storm ------------------------------------------------------------------------------------


def flood(lab, text, seconds):
    """In a process of its own: frames as fast as they can be sent. Returns its pid and a pipe with
    how many there were."""
    sender = lab.socket(socket.AF_PACKET, socket.SOCK_RAW)
    sender.bind(("gw0", 0))
    data = frame(GROUP, bytes.fromhex("020000000066"), text)
    result, end = os.pipe()
    pid = os.fork()
    if pid == 0:
        count, stop = 0, time.monotonic() + seconds
        while time.monotonic() < stop:
            for _ in range(200):
                try:
                    count += sender.send(data) == len(data)
                except OSError:
                    pass
        os.write(end, str(count).encode())
        os._exit(0)
    os.close(end)
    sender.close()
    return pid, result


@pytest.mark.parametrize(
    "text", [message("probe", "probe", {"ntick": 1}, mac="storm"), b"[" * 1500], ids=["probes", "junk"]
)
def test_storm_from_one_source_leaves_the_other_gateway_present(make_lab, text):
    lab = make_lab()
    seconds = 3.0 * LONGER
    pid, result = flood(lab, text, seconds)
    sent = good = 0
    end = time.monotonic() + seconds
    mine = frame(SWITCH, bytes.fromhex("020000000001"), message("probe", "probe", {"ntick": 424242}))
    while time.monotonic() < end - 0.1:
        lab.gateway.send_raw(mine)
        sent += 1
        until = time.monotonic() + 0.02
        while time.monotonic() < until:
            try:
                good += b'"ntick":424242}' in lab.gateway.receive(0.02).text
            except AssertionError:
                break
    with os.fdopen(result) as pipe:
        storm = int(pipe.read())
    os.waitpid(pid, 0)
    calm = answered(lab)
    print(
        f"storm of {storm / seconds:.0f} frames/s: {good} of {sent} probes of another gateway "
        f"answered, first one after it within {calm * 1000:.0f} ms"
    )
    assert good >= 1
    assert calm < 2.0

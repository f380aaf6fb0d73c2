# SPDX-License-Identifier: Apache-2.0
"""Configuration and firmware on their way between a gateway and the switch, over real Ethernet."""

import hashlib
import io
import json
import os
import socket
import tarfile
import zlib

import pytest

from gateway import message
from labkit import wait_until

CHUNK = 1024


# ---- the gateway's side of the transfers, byte by byte -----------------------------------------


def answer_to(gateway, subcmd, seconds=30.0):
    """The next message named `subcmd`; that a port changed may be told before it, unasked."""
    while True:
        answer = gateway.receive(seconds)
        told = answer.json["subcmd"]
        if told == subcmd:
            return answer
        assert told == "ports_client", answer


def ask_chunk(gateway, index):
    """The header and the bytes of one chunk of the switch's configuration."""
    gateway.command("set", "config_upload", {"index": index})
    answer = answer_to(gateway, "config_upload")
    text, _, rest = answer.text.partition(b"\0")
    data = json.loads(text)["data"]
    assert answer.length == len(text) + 17
    return data, rest[: data["length"]]


def fetch_archive(gateway):
    data, archive = ask_chunk(gateway, 0)
    assert data["state"] == 1
    while data["next"]:
        data, part = ask_chunk(gateway, data["idx"] + 1)
        archive += part
    assert len(archive) == data["total_length"]
    assert zlib.crc32(archive) == data["crc"] & 0xFFFFFFFF
    return archive


def send_chunk(gateway, subcmd, index, more, total, part, crc=0, length=None):
    """Sends a chunk behind its text and a NUL; the length field says where it stands."""
    data = {"index": index, "next": int(more), "file": "f", "total_length": total, "crc": crc}
    data["length"] = len(part) if length is None else length
    text = message("update", subcmd, data)
    gateway.send(text + b"\0" + part, length=len(text) + 17)


def push(gateway, subcmd, image, chunk=CHUNK):
    """Pushes `image` whole and returns the last answer's data."""
    parts = [image[at : at + chunk] for at in range(0, len(image), chunk)]
    answer = None
    for index, part in enumerate(parts):
        more = index + 1 < len(parts)
        send_chunk(gateway, subcmd, index, more, len(image), part, crc=zlib.crc32(image))
        answer = answer_to(gateway, subcmd, 20.0).json["data"]
        if more:
            assert answer == {"state": 2, "index": index + 1, "file": "f"}
    return answer


def archive_of(files, links=()):
    """A gzip'd tar of `links` (name, target) and behind them `files` (name -> bytes), as they are."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w:gz") as tar:
        for name, target in links:
            info = tarfile.TarInfo(name)
            info.type = tarfile.SYMTYPE
            info.linkname = target
            tar.addfile(info)
        for name, content in files.items():
            info = tarfile.TarInfo(name)
            info.size = len(content)
            tar.addfile(info, io.BytesIO(content))
    return out.getvalue()


# ---- looking at the switch ---------------------------------------------------------------------


def conf_files(lab):
    """The configuration files, by name."""
    return {path.name: path.read_bytes() for path in (lab.dir / "conf").glob("*.conf")}


def put_program(lab, name, text):
    """Puts a program before all others of that name, inside the switch."""
    lab.switch(
        "sh", "-c",
        "test -d /run/own || { cp -a /morva/bin /run/own && mount --bind /run/own /morva/bin; }",
    )
    lab.switch("sh", "-c", f"cat > /morva/bin/{name} && chmod 755 /morva/bin/{name}", text=text)


def agent_restarted(lab, old):
    return wait_until(
        lambda: lab.pid("qel") not in (None, old) and lab.pid("qel"), "a new agent"
    )


def answers_again(lab):
    """Waits until the agent answers probes after a restart."""

    def answered():
        try:
            lab.gateway.command("probe", "probe", {"ntick": 77})
            return b'"ntick":77}' in lab.gateway.receive(0.5).text
        except AssertionError:
            return False

    wait_until(answered, "an answered probe")
    lab.gateway.probe()


def reports(gateway):
    """What every port report says now, by what was asked for."""
    asked = {
        "ports_info": ["ports_info", "ports_pos"],
        "ports_conf": ["ports_conf", "ports_conf"],  # 28 ports are two pages
        "ports_poe": ["ports_poe_conf"],
        "ports_link": ["ports_link"],
    }
    result = {}
    for subcmd, messages in asked.items():
        gateway.command("get", subcmd, {})
        result[subcmd] = [answer_to(gateway, name).text for name in messages]
    return result


# ---- configuration -----------------------------------------------------------------------------


def test_backup_change_restore_gives_every_file_and_report_back(make_lab):
    lab = make_lab()
    gateway = lab.gateway
    old = lab.pid("qel")
    files, before = conf_files(lab), reports(gateway)
    archive = fetch_archive(gateway)

    gateway.command("set", "name", {"name": "somewhere else"})
    gateway.command("set", "port_enable", {"ge2": 0})
    gateway.command("set", "port_speed", {"ge3": "100M-F"})
    gateway.probe()
    assert reports(gateway) != before
    assert conf_files(lab) != files

    assert push(gateway, "config_download", archive) == {"state": 3, "index": 0, "file": "f"}
    agent_restarted(lab, old)
    answers_again(lab)
    assert conf_files(lab) == files
    assert reports(gateway) == before
    assert lab.switch("/morva/bin/conf", "list").stdout.split() == sorted(files)
    assert not (lab.dir / "conf/downlconf.tar.gz").exists()


def test_backup_holds_configuration_files_only(make_lab):
    lab = make_lab()
    files = conf_files(lab)
    (lab.dir / "conf/my notes.conf").write_bytes(b"blank")
    os.symlink("/etc/passwd", lab.dir / "conf/link.conf")
    with tarfile.open(fileobj=io.BytesIO(fetch_archive(lab.gateway))) as tar:
        assert sorted(member.name for member in tar.getmembers()) == sorted(files)
    assert conf_files(lab) == files
    for name in ("my notes.conf", "link.conf"):
        assert f'/var/conf: "{name}" is no configuration file, removed' in lab.log("syslog")


def test_no_configuration_file_is_answered_with_state_0(make_lab):
    lab = make_lab()
    lab.switch("sh", "-c", "rm /var/conf/*.conf")
    data, part = ask_chunk(lab.gateway, 0)
    assert (data["state"], data["length"], data["next"], part) == (0, 0, 0, b"")


@pytest.mark.parametrize("tar", ["exit 2", "exit 127"])
def test_tar_that_fails_is_answered_with_state_0(make_lab, tar):
    lab = make_lab()
    put_program(lab, "tar", f"#!/bin/sh\n{tar}\n")
    data, _ = ask_chunk(lab.gateway, 0)
    assert data["state"] == 0
    lab.gateway.probe()


def test_second_gateway_reads_the_same_archive(make_lab):
    lab = make_lab()
    first = fetch_archive(lab.gateway)
    lab.gateway.command("set", "name", {"name": "changed meanwhile"})
    lab.gateway.probe()
    assert fetch_archive(lab.gateway) == first


def test_disk_that_fills_up_abandons_the_download_and_keeps_the_files(make_lab):
    lab = make_lab()
    files = conf_files(lab)
    lab.switch(
        "sh", "-c",
        "mkdir /run/keep && cp -a /var/conf/. /run/keep && "
        "mount -t tmpfs -o size=32k,mode=755 none /var/conf && cp -a /run/keep/. /var/conf",
    )
    image = bytes(64 * CHUNK)
    states = []
    for index in range(64):
        part = image[:CHUNK]
        send_chunk(lab.gateway, "config_download", index, True, len(image), part)
        states.append(answer_to(lab.gateway, "config_download").json["data"]["state"])
        if states[-1] == 0:
            break
    assert states[0] == 2 and states[-1] == 0
    wait_until(lambda: "Write failed! written[" in lab.console(), "the console's line")
    listed = lab.switch("sh", "-c", "cat /var/conf/nvram.conf").stdout
    assert listed.encode() == files["nvram.conf"]
    lab.gateway.probe()


def test_gateway_that_goes_away_in_the_middle_leaves_the_files_alone(make_lab):
    lab = make_lab()
    files = conf_files(lab)
    send_chunk(lab.gateway, "config_download", 0, True, 3000, b"x" * CHUNK)
    assert answer_to(lab.gateway, "config_download").json["data"]["state"] == 2
    lab.gateway.probe()
    assert conf_files(lab) == files


# ---- firmware ----------------------------------------------------------------------------------


def image_of(size):
    """Bytes without a period that a lost or doubled chunk could hide in."""
    block = b"".join(hashlib.sha256(i.to_bytes(4, "big")).digest() for i in range(4096))
    return (block * (size // len(block) + 1))[:size]


def test_pushed_image_of_8_megabytes_arrives_identical_and_is_handed_on(make_lab):
    lab = make_lab()
    image = image_of(8 << 20)
    assert push(lab.gateway, "firm_download", image) == {"state": 3, "index": 0, "file": "f"}
    digest = hashlib.sha256(image).hexdigest()

    def kept():
        shown = lab.switch("sha256sum", "/var/lib/morva/firmware/linux.trx", check=False).stdout
        return shown.startswith(digest)

    wait_until(kept, "the image in its place", 20.0)


def test_image_pulled_from_a_web_server_is_kept_and_the_upgrade_recorded(make_lab):
    lab = make_lab()
    image = image_of(300_000)
    lab.switch("sh", "-c", "mkdir /run/www")
    (lab.dir / "conf/fw.bin").write_bytes(image)
    lab.switch("cp", "/var/conf/fw.bin", "/run/www/fw.bin")
    lab.switch(
        "sh", "-c",
        "cd /run/www && /usr/bin/python3 -m http.server --bind 127.0.0.1 8080 "
        ">/run/www.log 2>&1 & echo started",
    )
    serving = ["wget", "-q", "-O", "/dev/null", "http://127.0.0.1:8080/fw.bin"]
    wait_until(lambda: lab.switch(*serving, check=False).returncode == 0, "the web server")
    lab.gateway.command(
        "set", "hfs_upgrade", {"upgrade_serverinfo": "http://127.0.0.1:8080/fw.bin"}
    )
    lab.gateway.probe()
    kept = "/var/lib/morva/firmware"
    show = ["sh", "-c", f"sha256sum < {kept}/linux.trx && cat {kept}/upgrades.log"]
    digest = hashlib.sha256(image).hexdigest()

    def recorded():
        shown = lab.switch(*show, check=False).stdout
        return digest in shown.split("\n")[0] and f"sha256={digest}" in shown

    wait_until(recorded, "the kept image and its record", 20.0)
    wait_until(lambda: '"state":0' in lab.morvactl("fw", "show", "--json", check=False).stdout
               .replace(" ", "") or "idle" in lab.morvactl("fw", "show").stdout, "an idle state")


def test_refused_location_runs_nothing(make_lab):
    lab = make_lab()
    lab.gateway.command("set", "hfs_upgrade", {"upgrade_serverinfo": "http://h/x;touch /run/owned"})
    lab.gateway.probe()
    assert lab.switch("sh", "-c", "ls /run/owned", check=False).returncode != 0
    assert "location refused" in lab.log("qel") + lab.log("syslog")


def test_server_that_never_answers_does_not_silence_the_agent(make_lab):
    lab = make_lab()
    listener = lab.socket(socket.AF_INET, socket.SOCK_STREAM, inside=1)
    listener.bind(("127.0.0.1", 8080))
    listener.listen(1)
    listener.settimeout(30.0)
    lab.gateway.command("set", "hfs_upgrade", {"upgrade_serverinfo": "http://127.0.0.1:8080/fw"})
    connection, _ = listener.accept()  # wget waits for an answer from now on
    lab.gateway.probe()
    send_chunk(lab.gateway, "firm_download", 0, False, 5, b"other")
    assert answer_to(lab.gateway, "firm_download").json["data"] == {"state": -1, "index": 0, "file": "f"}
    connection.close()
    listener.close()


def test_image_that_was_not_fetched_well_is_not_handed_on(make_lab):
    lab = make_lab()
    lab.switch(
        "sh", "-c",
        "mkdir /run/www && cd /run/www && /usr/bin/python3 -m http.server --bind 127.0.0.1 8080 "
        ">/run/www.log 2>&1 & echo started",
    )
    serving = ["wget", "-q", "-O", "/dev/null", "http://127.0.0.1:8080/"]
    wait_until(lambda: lab.switch(*serving, check=False).returncode == 0, "the web server")
    lab.gateway.command("set", "hfs_upgrade", {"upgrade_serverinfo": "http://127.0.0.1:8080/none"})
    wait_until(lambda: "firmware not fetched: " in lab.log("syslog"), "the log line")
    lab.gateway.probe()
    kept = lab.switch("ls", "/var/lib/morva/firmware", "/tmp/morva_upgrade.d", check=False)
    assert kept.stdout == ""
    assert "idle" in lab.morvactl("fw", "show").stdout


def test_upgrades_that_overlap_keep_one_image_whole(make_lab):
    lab = make_lab()
    images = {name: image_of(size) for name, size in (("a", 3_000_000), ("b", 500_000))}
    for name, image in images.items():
        (lab.dir / f"conf/{name}.conf").write_bytes(image)
    lab.switch("sh", "-c", "for n in a b a b; do /morva/bin/morva_upgrade /var/conf/$n.conf & done; wait")
    kept = lab.switch("sh", "-c", "cd /var/lib/morva/firmware && sha256sum <linux.trx && cat linux.trx.info")
    digest, _, info = kept.stdout.partition("  -\n")
    assert digest in [hashlib.sha256(image).hexdigest() for image in images.values()]
    assert f"sha256={digest}\n" in info


def test_image_that_another_process_left_is_not_handed_on(make_lab):
    lab = make_lab()
    lab.switch("sh", "-c", "echo half an image >/tmp/linux.trx")
    send_chunk(lab.gateway, "firm_download", 1, False, 0, b"")
    assert answer_to(lab.gateway, "firm_download").json["data"] == {"state": -2, "index": 0, "file": "f"}
    lab.gateway.probe()
    assert lab.switch("ls", "/var/lib/morva/firmware", check=False).stdout == ""
    assert lab.switch("cat", "/tmp/linux.trx").stdout == "half an image\n"


def test_full_disk_never_lets_an_image_count_as_complete(make_lab):
    lab = make_lab()
    lab.switch("sh", "-c", "mount -t tmpfs -o size=16k none /tmp", check=True)
    image = image_of(40 * CHUNK)
    answer = push_until_last(lab.gateway, image)
    assert answer == {"state": -2, "index": 0, "file": "f"}
    assert lab.switch("ls", "/var/lib/morva/firmware/linux.trx", check=False).returncode != 0
    lab.gateway.probe()


def push_until_last(gateway, image):
    """Pushes every chunk whatever is answered; the last answer's data."""
    count = len(image) // CHUNK
    answer = None
    for index in range(count):
        part = image[index * CHUNK : (index + 1) * CHUNK]
        send_chunk(gateway, "firm_download", index, index + 1 < count, len(image), part)
        answer = answer_to(gateway, "firm_download", 20.0).json["data"]
    return answer

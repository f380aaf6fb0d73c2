# SPDX-License-Identifier: Apache-2.0
"""The packages in a clean Debian: install, serve, upgrade, remove, purge.

The tests go one after the other through the life of one installation. They need root, packages made
by script/package, and, the first time, the package archive. The services are started by hand as
their units say, with the capabilities that these leave them (but for setting the clock, which would
be the machine's), on a bridge "vlanif1" made for the test; the gateway stands in a network beside.
"""

import os
import signal

import cleanroot
import debs
import installed
import pytest
import unitfile

NEXT_VERSION = "1.0.99"


class Service:
    """One service, started as its installed unit says."""

    def __init__(self, root, name, log):
        self.root, self.name, self.log = root, name, log
        self.unit = unitfile.read(root.run("cat", f"/lib/systemd/system/{name}.service"))
        self.process = None

    def start(self):
        for line in self.unit.get("ExecStartPre", []):
            self.root.run(*line.lstrip("-+").split())
        kept = [
            "+" + name.removeprefix("CAP_").lower()
            for name in unitfile.words(self.unit, "CapabilityBoundingSet")
        ]
        environment = unitfile.words(self.unit, "Environment")
        words = ["env", *environment, *unitfile.words(self.unit, "ExecStart")]
        self.process = self.root.start(words, ",".join(["-all", *kept]), self.log)

    def wait(self):
        return self.process.wait(timeout=60)

    def stop(self):
        if self.process is not None and self.process.poll() is None:
            os.kill(cleanroot.child_of(self.process.pid), signal.SIGTERM)
        return self.wait()

    def restarts(self, status):
        """Whether the unit's own words start the service again after it ended with `status`."""
        forced = unitfile.words(self.unit, "RestartForceExitStatus")
        return str(status) in forced or (status != 0 and self.unit["Restart"] == ["on-failure"])


@pytest.fixture(name="installation", scope="module")
def _installation(tmp_path_factory):
    with installed.clean_installation(tmp_path_factory.mktemp("packages"), boot=False) as made:
        yield made


# ---------------------------------------------------------------------------------------------
# Installing


def test_the_packages_install(installation):
    output = installation.install()
    assert "no capabilities" not in output
    states = installation.root.run("dpkg-query", "-W", "-f", "${Package} ${Status}\n", *debs.NAMES)
    assert sorted(states.splitlines()) == [
        "qel install ok installed",
        "qel-platform-linux install ok installed",
        "qelctl install ok installed",
    ]
    assert installation.root.run("dpkg", "--verify", *debs.NAMES) == ""


def test_the_agents_helper_programs_are_where_it_looks_for_them(installation):
    assert installation.root.run("readlink", "-f", "/morva/bin").strip() == "/usr/libexec/morva"
    installation.root.run("test", "-x", "/morva/bin/conf", "-a", "-x", "/morva/bin/morva_upgrade")


def test_the_services_are_enabled(installation):
    for name in ("morvad", "qel"):
        link = f"/etc/systemd/system/multi-user.target.wants/{name}.service"
        target = installation.root.run("readlink", link).strip()
        assert target == f"/lib/systemd/system/{name}.service"


def test_qelctl_has_one_capability_and_a_group(installation):
    stat = installation.root.run("stat", "-c", "%U %G %a", "/usr/bin/qelctl")
    assert stat == "root qelctl 750\n"
    assert installation.root.run("getcap", "/usr/bin/qelctl") == "/usr/bin/qelctl cap_net_raw=ep\n"


def test_programs_are_stripped_and_hardened(installation):
    work = installation.work / "contents"
    for name, program in (
        *(("qel", "usr/sbin/qel"), ("qelctl", "usr/bin/qelctl")),
        *(("qel-platform-linux", f"usr/{place}") for place in ("sbin/morvad", "bin/morvactl")),
    ):
        cleanroot.run(["dpkg-deb", "--extract", installation.packages[name], work])
        elf = cleanroot.run(["readelf", "-W", "-h", "-l", "-d", "-S", work / program])
        assert "DYN (Position-Independent Executable" in elf, program
        assert "GNU_RELRO" in elf and "BIND_NOW" in elf, program
        assert ".symtab" not in elf and ".debug_info" not in elf, program
        symbols = cleanroot.run(["readelf", "-W", "--dyn-syms", work / program])
        assert "__stack_chk_fail" in symbols, program


# ---------------------------------------------------------------------------------------------
# Serving


def test_a_board_file_is_made_from_a_bridge(installation):
    installation.lay_cables()
    installation.make_board()
    board = installation.root.run("cat", "/etc/morva/board.json")
    assert f'"mac": "{installed.MAC}"' in board
    assert '"interface": "swp1"' in board and '"interface": "swp2"' in board


def test_the_services_start_and_a_member_of_the_group_finds_the_switch(installation):
    root = installation.root
    installation.add_users()
    for name in ("morvad", "qel"):
        log = open(installation.work / f"{name}.log", "ab", buffering=0)
        service = Service(root, name, log)
        service.start()
        installation.services.append(service)
    output = installation.discovered()
    assert "192.168.1.10/24" in output


def test_who_is_not_in_the_group_may_not(installation):
    status, output = installation.qelctl("discover", user="bob")
    assert status != 0
    assert "Permission denied" in output


def test_a_port_is_disabled_in_the_kernel(installation):
    status, output = installation.qelctl("ports")
    assert status == 0, output
    name = next(line.split()[0] for line in output.splitlines() if line.split()[:1] == ["swp2"])
    status, output = installation.qelctl("--yes", "port", "disable", name)
    assert status == 0, output

    def carrier(value):
        path = "/sys/class/net/host2/carrier"
        text = installation.root.attempt(
            *("sh", "-c", f"mount -t sysfs sysfs /tmp && cat /tmp{path[4:]}; umount /tmp"),
            beside=True,
        )[1]
        return text.strip() == value

    cleanroot.poll(lambda: carrier("0"), 10, "the host's carrier is gone")
    status, output = installation.qelctl("port", "enable", name)
    assert status == 0, output
    cleanroot.poll(lambda: carrier("1"), 10, "the host's carrier is back")


def test_a_backup_is_restored_by_the_agents_own_commands(installation):
    root = installation.root
    root.shell("install -d -o alice -m 755 /tmp/alice")
    for words in (
        ("name", "before"),
        ("backup", "/tmp/alice/conf.tar.gz"),
        ("name", "after"),
    ):
        status, output = installation.qelctl(*words)
        assert status == 0, output
    # Nobody but this test starts the services again, later.
    hasty = ("--yes", "--timeout", "5", "restore", "/tmp/alice/conf.tar.gz", "--wait", "1")
    status, output = installation.qelctl(*hasty)
    assert status == 3 and "did not come back in time" in output, output
    # The switch restarts: both end, and the units' words start both again.
    morvad, qel = installation.services
    assert (morvad.wait(), qel.wait()) == (75, 0)
    assert morvad.restarts(75) and qel.restarts(0)
    assert root.run("ls", "/var/lib/morva/flash") == "nvram.conf\n"
    for service in installation.services:
        service.start()
    assert "before" in installation.discovered()


# ---------------------------------------------------------------------------------------------
# Upgrading


def test_an_upgrade_keeps_settings_and_rights(installation):
    root = installation.root
    for service in reversed(installation.services):
        assert service.stop() == 0
    root.shell("echo MORVA_QUERY_DEADLINE_MS=1500 >> /etc/default/qel")
    board = root.run("cat", "/etc/morva/board.json")
    installation.raise_version(NEXT_VERSION)
    versions = root.run("dpkg-query", "-W", "-f", "${Version}\n", *debs.NAMES)
    assert versions.split() == [NEXT_VERSION] * 3
    assert root.run("tail", "-n", "1", "/etc/default/qel") == "MORVA_QUERY_DEADLINE_MS=1500\n"
    assert root.run("cat", "/etc/morva/board.json") == board
    test_qelctl_has_one_capability_and_a_group(installation)
    test_the_agents_helper_programs_are_where_it_looks_for_them(installation)
    for service in installation.services:
        service.start()
    assert "before" in installation.discovered()
    for service in reversed(installation.services):
        assert service.stop() == 0


# ---------------------------------------------------------------------------------------------
# Removing


def test_removing_leaves_configuration_and_state(installation):
    installation.root.run("dpkg", "--remove", *debs.NAMES)
    # Configuration too: whether a service is wanted is the administrator's to say.
    wanted = "multi-user.target.wants"
    books = "/var/lib/systemd/deb-systemd-helper-enabled"
    enabled = {
        f"{folder}/{wanted}/{name}.service"
        for folder in ("/etc/systemd/system", books)
        for name in ("morvad", "qel")
    }
    enabled |= {f"{books}/morvad.service.dsh-also", f"{books}/qel.service.dsh-also"}
    assert installation.added() - enabled == {
        "/etc/default/qel",
        "/etc/morva",
        "/etc/morva/board.json",
        "/var/conf",
        "/var/conf/.nvram.lock",
        "/var/conf/nvram.conf",
        "/var/lib/morva",
        "/var/lib/morva/flash",
        "/var/lib/morva/flash/nvram.conf",
    }


def test_purging_leaves_nothing(installation):
    root = installation.root
    root.run("dpkg", "--purge", *debs.NAMES)
    assert installation.added() == set()
    assert installation.root.run("find", "/run", "-name", "qel*", "-o", "-name", "morva*") == ""
    # alice is in the group still, so it stays for her; an empty one goes.
    assert "qelctl:" in root.run("cat", "/etc/group")


def test_a_package_that_was_purged_installs_again(installation):
    root = installation.root
    root.run("deluser", "--quiet", "alice", "qelctl")
    root.run("dpkg", "--install", f"/packages/qelctl_{NEXT_VERSION}.deb")
    root.run("dpkg", "--purge", "qelctl")
    assert "qelctl:" not in root.run("cat", "/etc/group")

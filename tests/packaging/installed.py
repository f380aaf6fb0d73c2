# SPDX-License-Identifier: Apache-2.0
"""The packages in a clean root, a bridge "vlanif1" there, and a gateway's network beside it."""

import contextlib
import os
import pathlib

import cleanroot
import debs

TOP = pathlib.Path(__file__).resolve().parents[2]
PACKAGES = pathlib.Path(os.environ.get("QEL_PACKAGES", TOP / "build" / "packages"))
BASE = pathlib.Path(os.environ.get("QEL_CLEAN_ROOT", TOP / "build" / "clean-root"))

MAC = "0a:1b:2c:3d:4e:88"

# What the root has besides what the packages need: an init, and what the agent works with if there.
EXTRAS = ("systemd-sysv", "iproute2", "lldpd", "nftables", "wget")

# What is everybody's: the package system's own books, and copies of the user lists.
BOOKS = (
    *("/var/lib/dpkg/", "/var/log/", "/var/cache/ldconfig", "/etc/ld.so.cache"),
    *("/etc/group-", "/etc/gshadow-", "/etc/passwd-", "/etc/shadow-"),
    *("/etc/subuid-", "/etc/subgid-", "/packages", "/home/"),
)


class Installation:
    """The root, what was in it before, the packages for it, and services that a test started."""

    def __init__(self, root, packages, work):
        self.root, self.packages, self.work = root, packages, work
        self.before = root.files()
        self.services = []

    def added(self):
        """What is in the root now and was not before, without the books that Debian keeps."""
        return {
            path for path in self.root.files() - self.before if not path.startswith(BOOKS)
        }

    def qelctl(self, *words, user="alice"):
        """Runs qelctl on the gateway's side as an ordinary user: status and output."""
        become = ["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups"]
        # The shell between: what setpriv itself starts, it starts with root's rights to do so.
        become += ["sh", "-c", 'exec "$0" "$@"']
        return self.root.attempt(*become, "qelctl", "-i", "gw0", *words, beside=True)

    def discovered(self):
        def found():
            status, output = self.qelctl("discover")
            return output if status == 0 and MAC in output else ""

        return cleanroot.poll(found, 30, "the switch is discovered")


    def install(self):
        files = [f"/packages/{path.name}" for path in self.packages.values()]
        return self.root.run("dpkg", "--install", *files)

    def raise_version(self, version):
        """Installs the same packages again in a higher version."""
        for path in self.packages.values():
            new = debs.raised(path, version, self.work)
            (self.work / "debs" / new.name).write_bytes(new.read_bytes())
        return self.root.run(
            "dpkg", "--install", *(f"/packages/{name}_{version}.deb" for name in debs.NAMES)
        )

    def lay_cables(self):
        """A bridge of two ports: one to the gateway's "gw0", one to "host2" beside it."""
        self.root.network(f"""
            link set dev lo up
            link add name vlanif1 mtu 2000 address {MAC} type bridge stp_state 0 forward_delay 0
            link add name swp1 mtu 2000 type veth peer name gw0 mtu 2000 netns {self.root.gateway}
            link add name swp2 mtu 2000 type veth peer name host2 mtu 2000 netns {self.root.gateway}
            link set dev swp1 master vlanif1 up
            link set dev swp2 master vlanif1 up
            address add 192.168.1.10/24 dev vlanif1
            link set dev vlanif1 up
        """)
        self.root.network(
            """
            link set dev lo up
            address add 192.168.1.20/24 dev gw0
            link set dev gw0 up
            link set dev host2 up
            """,
            beside=True,
        )

    def make_board(self):
        self.root.shell("morvactl board --from-bridge vlanif1 > /etc/morva/board.json")

    def add_users(self):
        """alice, who may use qelctl, and bob, who may not."""
        self.root.shell("useradd alice; useradd bob; adduser --quiet alice qelctl")


@contextlib.contextmanager
def clean_installation(work, boot):
    """A clean root with the packages at hand, not yet installed; `boot`: systemd runs in it."""
    assert os.geteuid() == 0, "a clean root takes root"
    packages = debs.built(PACKAGES)
    base = cleanroot.make_base(BASE, debs.needed(packages) | set(EXTRAS))
    (work / "mount").mkdir()
    (work / "debs").mkdir()
    for path in packages.values():
        (work / "debs" / path.name).write_bytes(path.read_bytes())
    root = cleanroot.CleanRoot(base, work / "mount", work / "debs", boot)
    try:
        yield Installation(root, packages, work)
    finally:
        root.close()

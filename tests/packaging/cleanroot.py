# SPDX-License-Identifier: Apache-2.0
"""A clean Debian root to install packages in, entered by namespaces.

The root is an overlay: below it a Debian that debootstrap made once and that is kept between runs,
above it a tmpfs, so that every run begins clean and leaves nothing. The processes in it have mount,
pid, network, IPC and host name namespaces of their own, and their root by pivot_root, as on a
machine. They are root's all the same: the wall is there for accidents, and the capabilities that
reach past it (the clock, kernel modules, raw devices, the host's restart) are taken from them.
"""

import os
import pathlib
import shlex
import subprocess
import time

# What a process in the root must not have: these reach the machine around it.
FORBIDDEN = "-sys_time,-sys_boot,-sys_module,-sys_rawio,-mknod,-syslog,-wake_alarm"
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

# $1: the Debian below, $2: a folder to mount on, $3: the folder of the packages, $4: not empty to
# boot systemd there, $5: the capabilities that it must not have.
ENTER = """
mount -t tmpfs -o mode=755 tmpfs "$2"
mkdir "$2/upper" "$2/work" "$2/root"
mount -t overlay -o "lowerdir=$1,upperdir=$2/upper,workdir=$2/work" overlay "$2/root"
cd "$2/root"
mkdir -p packages old
mount --bind "$3" packages
mount -t proc proc proc
mount --bind proc/sys proc/sys
mount -o remount,bind,ro proc/sys
mount -t sysfs -o ro sysfs sys
if [ -n "$4" ]; then
  mount -t tmpfs -o mode=755 tmpfs sys/fs/cgroup
  mount -t cgroup2 cgroup2 sys/fs/cgroup
fi
mount -t tmpfs -o mode=755 tmpfs run
mount -t tmpfs -o mode=1777 tmpfs tmp
mount -t tmpfs -o mode=755 tmpfs dev
for device in null zero full random urandom tty; do
  touch "dev/$device"
  mount --bind "/dev/$device" "dev/$device"
done
mkdir dev/pts dev/shm
mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
ln -s pts/ptmx dev/ptmx
ln -s /proc/self/fd dev/fd
pivot_root . old
umount -l /old
rmdir /old
if [ -n "$4" ]; then
  exec env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin \\
    setpriv --bounding-set="$5" --inh-caps=-all /lib/systemd/systemd
fi
exec sleep infinity
"""

# $1: a new control group for what follows; the rest: what follows.
IN_GROUP = 'mkdir "$1"; echo $$ > "$1/cgroup.procs"; shift; exec "$@"'


def run(command, **options):
    """Runs `command`; its output, or an AssertionError with all that it said."""
    done = subprocess.run(
        [str(word) for word in command],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        check=False,
        **options,
    )
    assert done.returncode == 0, f"{command}: status {done.returncode}\n{done.stdout}"
    return done.stdout


def poll(condition, seconds, what):
    """Waits until `condition` returns something true, and returns that."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < deadline, f"not within {seconds} s: {what}"
        time.sleep(0.05)


def child_of(pid):
    """The first child of process `pid`; 0 while it has none."""
    text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii")
    return int(text.split()[0]) if text else 0


def program_of(pid):
    return pathlib.Path(f"/proc/{pid}/comm").read_text(encoding="ascii").strip()


def remove_group(folder):
    """Removes a control group; False while a process is in it."""
    try:
        os.rmdir(folder)
    except FileNotFoundError:
        pass
    except OSError:
        return False
    return True


def make_base(folder, names):
    """The Debian below, with the packages `names`; made anew when they are not last time's."""
    wanted = ",".join(sorted(names))
    root, note = folder / "root", folder / "names"
    if not note.exists() or note.read_text(encoding="ascii") != wanted:
        subprocess.run(["rm", "-rf", "--one-file-system", folder], check=True)
        folder.mkdir(parents=True)
        suite = next(
            line.split("=")[1].strip()
            for line in open("/etc/os-release", encoding="utf-8")
            if line.startswith("VERSION_CODENAME=")
        )
        run(["debootstrap", "--variant=minbase", f"--include={wanted}", suite, root])
        note.write_text(wanted, encoding="ascii")
    return root


def group_mount():
    """Where the second kind of control groups is mounted; systemd needs one for itself."""
    for line in open("/proc/mounts", encoding="utf-8"):
        _, place, kind = line.split()[:3]
        if kind == "cgroup2":
            return pathlib.Path(place)
    raise AssertionError("no cgroup2 on this machine: systemd cannot run in a root of its own")


class CleanRoot:
    """The root and the switch's network namespace; `gateway` is a network namespace beside it.

    With `boot` its first process is systemd, else one that does nothing.
    """

    def __init__(self, base, mount_point, packages, boot=False):
        self._holders = []
        self._group = None
        flags = ["--mount", "--pid", "--net", "--uts", "--ipc", "--fork", "--kill-child"]
        command = ["sh", "-euc", ENTER, "sh", base, mount_point, packages]
        if boot:
            self._group = group_mount() / f"qel-clean-root-{os.getpid()}"
            in_group = ["sh", "-euc", IN_GROUP, "sh", self._group]
            command = [*in_group, "unshare", "--cgroup", *flags, *command, "boot", FORBIDDEN]
        else:
            command = ["unshare", *flags, *command, "", ""]
        self.pid = self._hold(command, "systemd" if boot else "sleep")
        beside = ["unshare", "--net", "sleep", "infinity"]
        self.gateway = self._hold([*self._prefix(self.pid), *beside], "sleep")

    def _hold(self, command, until):
        """Starts a process whose child, called `until`, holds namespaces; the child's id."""
        holder = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL)
        self._holders.append(holder)

        def settled():
            assert holder.poll() is None, f"{command[0]} ended: {holder.returncode}"
            pid = child_of(holder.pid)
            return pid if pid and program_of(pid) == until else 0

        return poll(settled, 30, "the namespaces are there")

    @staticmethod
    def _prefix(pid):
        namespaces = ("-m", "-p", "-n", "-u", "-i", "-C", "-r", "-w")
        return ["nsenter", "--target", str(pid), *namespaces, "--"]

    def _command(self, words, bounding, beside):
        capabilities = f"{bounding},{FORBIDDEN}" if bounding else FORBIDDEN
        environment = ["env", "-i", f"PATH={PATH}", "HOME=/root", "DEBIAN_FRONTEND=noninteractive"]
        drop = ["setpriv", f"--bounding-set={capabilities}", "--inh-caps=-all"]
        prefix = self._prefix(self.gateway if beside else self.pid)
        return [*prefix, *environment, *drop, *map(str, words)]

    def run(self, *words, beside=False):
        """Runs a command in the root (`beside`: in the gateway's network); returns its output."""
        return run(self._command(words, "", beside))

    def attempt(self, *words, beside=False):
        """As run, for a command that may fail: its status and output."""
        done = subprocess.run(
            self._command(words, "", beside),
            **{"capture_output": True, "text": True, "check": False, "stdin": subprocess.DEVNULL},
        )
        return done.returncode, done.stdout + done.stderr

    def shell(self, script):
        return self.run("sh", "-euc", script)

    def start(self, words, bounding, log):
        """Starts a daemon with at most the capabilities `bounding`; its output goes to `log`."""
        return subprocess.Popen(
            self._command(words, bounding, False),
            **{"stdin": subprocess.DEVNULL, "stdout": log, "stderr": subprocess.STDOUT},
        )

    def network(self, text, beside=False):
        """Runs lines of ip(8), the machine's own, in the switch's or the gateway's network."""
        pid = self.gateway if beside else self.pid
        for line in text.strip().splitlines():
            run(["nsenter", "--target", pid, "--net", "--", "ip", *shlex.split(line)])

    def files(self):
        """Every path in the root, but for the kernel's and what is on no disk."""
        listing = self.shell(
            r"find / \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp "
            r"-o -path /packages \) -prune -o -print"
        )
        return set(listing.splitlines())

    def close(self):
        """Ends what holds the namespaces; everything in them goes with it."""
        for holder in reversed(self._holders):
            pid = child_of(holder.pid) if holder.poll() is None else 0
            if pid:
                os.kill(pid, 9)
            holder.wait()
        if self._group is not None:
            folders = [folder for folder, _, _ in os.walk(self._group, topdown=False)]
            poll(lambda: all(map(remove_group, folders)), 10, f"{self._group} is empty")

# SPDX-License-Identifier: Apache-2.0
"""What the lab's processes see of the file system.

The gateway sees the host's files, with a /proc and a /sys of the lab's own. A switch sees a root
directory built on a tmpfs: the host's directories, read-only, and in place of those that the agent
writes to by absolute path, private ones. Nothing is ever mounted outside the lab's own mount
namespaces.
"""

import os
import stat

import namespaces as ns

# Directories of the host that a switch gets an empty one of its own for.
PRIVATE_TMP = ("/tmp", "/var/tmp", "/dev/shm")
PRIVATE_OTHER = ("/run", "/var/conf", "/morva", "/dev", "/proc", "/sys")

KERNEL_VIEW = ns.MS_NOSUID | ns.MS_NODEV | ns.MS_NOEXEC
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")


def mount_kernel_views():
    """Mounts the lab's /proc and /sys over the host's, without their switches for the whole host.

    Root of the lab is root of the host by number, and the kernel asks no more than that of a writer
    to /proc/sys, /proc/sysrq-trigger or /sys; so these are read-only, the network's own excepted.
    """
    try:
        ns.mount("proc", "/proc", "proc", KERNEL_VIEW)
    except PermissionError as error:
        raise OSError(error.errno, "the kernel does not allow a /proc of the lab's own") from error
    ns.bind("/proc/sys/net", "/proc/sys/net")
    for path in ("/proc/sys", "/proc/sysrq-trigger", "/proc/irq", "/proc/bus"):
        if os.path.exists(path):
            ns.bind(path, path)
            ns.mount("none", path, flags=ns.MS_BIND | ns.MS_REMOUNT | ns.MS_RDONLY | KERNEL_VIEW)
    mount_sysfs("/sys", "/sys")


def mount_sysfs(target, fallback):
    """Mounts the current network namespace's /sys, or, where the kernel refuses, `fallback`."""
    try:
        ns.mount("sysfs", target, "sysfs", ns.MS_RDONLY | KERNEL_VIEW)
    except PermissionError:
        if target != fallback:
            ns.bind(fallback, target)
        ns.make_read_only(target)


def build_switch_root(root, switch_dir, keep_visible, programs):
    """Builds a switch's root directory on a tmpfs at `root` and moves into it.

    `switch_dir` holds the switch's conf/, .console and .syslog; the paths in `keep_visible` stay at
    their place also where they lie under a private directory; `programs` is what stands in
    /morva/bin.
    """
    ns.mount("tmpfs", root, "tmpfs", ns.MS_NOSUID, "mode=755")
    _copy_top(root)
    _build_var(root, switch_dir)
    _build_dev(root, switch_dir)
    for path in PRIVATE_TMP:
        _private_dir(root + path, "1777")
    _private_dir(root + "/run", "755")
    os.mkdir(root + "/run/lock")
    os.makedirs(root + "/morva/bin")
    if os.path.isdir(programs):
        ns.bind(programs, root + "/morva/bin")
        ns.make_read_only(root + "/morva/bin")
    os.mkdir(root + "/proc")
    ns.bind("/proc", root + "/proc")
    os.mkdir(root + "/sys")
    mount_sysfs(root + "/sys", "/sys")
    for path in keep_visible:
        _keep(root, path, writable=path == switch_dir)
    ns.pivot(root)


def _copy_top(root):
    """Shows the host's top-level entries in `root`, read-only."""
    own = {"proc", "sys", "dev", "tmp", "run", "var", "morva"}
    for entry in os.scandir("/"):
        if entry.name not in own:
            _show(entry.path, root + entry.path)


def _build_var(root, switch_dir):
    """/var: the host's entries, but a conf/ of the switch's own and /var/run leading to /run."""
    os.mkdir(root + "/var")
    for entry in os.scandir("/var"):
        if entry.name not in {"run", "conf", "tmp", "lock", "lib"}:
            _show(entry.path, root + entry.path)
    os.makedirs(root + "/var/lib/morva")  # what the platform's programs store
    for entry in os.scandir("/var/lib"):
        if entry.name != "morva":
            _show(entry.path, root + entry.path)
    os.symlink("/run", root + "/var/run")
    os.symlink("/run/lock", root + "/var/lock")
    os.mkdir(root + "/var/conf")
    ns.bind(switch_dir + "/conf", root + "/var/conf")


def _build_dev(root, switch_dir):
    """/dev: the harmless nodes, the terminals, and the switch's own console and log socket."""
    dev = root + "/dev"
    os.mkdir(dev)
    for name in DEVICES:
        if os.path.exists("/dev/" + name):
            _touch(f"{dev}/{name}")
            ns.bind("/dev/" + name, f"{dev}/{name}")
    os.mkdir(dev + "/pts")
    ns.bind("/dev/pts", dev + "/pts")
    os.symlink("pts/ptmx", dev + "/ptmx")
    for number, name in enumerate(("stdin", "stdout", "stderr")):
        os.symlink(f"/proc/self/fd/{number}", f"{dev}/{name}")
    os.symlink("/proc/self/fd", dev + "/fd")
    for name, source in (("console", ".console"), ("log", ".syslog")):
        _touch(f"{dev}/{name}")
        ns.bind(f"{switch_dir}/{source}", f"{dev}/{name}")


def _keep(root, path, writable):
    """Shows `path` at its place when a private directory hides it, or when it must be writable."""
    private = PRIVATE_TMP + PRIVATE_OTHER
    hidden = any(path == parent or path.startswith(parent + "/") for parent in private)
    if not writable and (not hidden or os.path.exists(root + path)):
        return  # it shows already, perhaps as part of one before it
    if os.path.isdir(path):
        os.makedirs(root + path, exist_ok=True)
    else:
        os.makedirs(os.path.dirname(root + path), exist_ok=True)
        _touch(root + path)
    if writable:
        ns.bind_flat(path, root + path)  # flat: the new root itself is mounted below it
        return
    ns.bind(path, root + path)
    ns.make_read_only(root + path)


def _show(source, target):
    mode = os.lstat(source).st_mode
    if stat.S_ISLNK(mode):
        os.symlink(os.readlink(source), target)
        return
    if stat.S_ISDIR(mode):
        os.mkdir(target)
    elif stat.S_ISREG(mode):
        _touch(target)
    else:
        return
    ns.bind(source, target)
    ns.make_read_only(target)


def _private_dir(path, mode):
    os.makedirs(path, exist_ok=True)
    ns.mount("tmpfs", path, "tmpfs", ns.MS_NOSUID | ns.MS_NODEV, f"mode={mode}")


def _touch(path):
    os.close(os.open(path, os.O_CREAT | os.O_WRONLY, 0o600))

# SPDX-License-Identifier: Apache-2.0
"""The kernel calls of the lab that Python 3.11 has no name for: namespaces and mounts."""

import ctypes
import os
import subprocess

CLONE_NEWNS = 0x00020000
CLONE_NEWUTS = 0x04000000
CLONE_NEWIPC = 0x08000000
CLONE_NEWUSER = 0x10000000
CLONE_NEWPID = 0x20000000
CLONE_NEWNET = 0x40000000
CLONE_LAB = (
    CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET
)

MS_RDONLY = 0x1
MS_NOSUID = 0x2
MS_NODEV = 0x4
MS_NOEXEC = 0x8
MS_REMOUNT = 0x20
MS_BIND = 0x1000
MS_REC = 0x4000
MS_PRIVATE = 0x40000
MNT_DETACH = 2

# mount_setattr(2): the one call that makes a whole tree of mounts read-only. The number is the
# same on every processor Debian 12 runs on, MIPS apart.
SYS_MOUNT_SETATTR = 442
AT_FDCWD = -100
AT_RECURSIVE = 0x8000
MOUNT_ATTR_RDONLY = 0x1

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result, what):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def unshare(flags):
    """Leaves the namespaces named by `flags` (CLONE_NEW*) for new ones."""
    _check(_libc.unshare(ctypes.c_int(flags)), "unshare")


def mount(source, target, fstype=None, flags=0, options=None):
    """mount(2); text arguments or None."""
    source_, target_, fstype_, options_ = (
        None if text is None else os.fsencode(text) for text in (source, target, fstype, options)
    )
    result = _libc.mount(source_, target_, fstype_, ctypes.c_ulong(flags), options_)
    _check(result, f"mount {source or fstype} on {target}")


def bind(source, target):
    """Binds the tree `source`, everything mounted below it included, over `target`."""
    mount(source, target, flags=MS_BIND | MS_REC)


def bind_flat(source, target):
    """Binds `source` without what is mounted below it over `target`."""
    mount(source, target, flags=MS_BIND)


def make_private():
    """Cuts this mount namespace off: no mount travels from it or to it."""
    mount("none", "/", flags=MS_REC | MS_PRIVATE)


def make_read_only(path):
    """Makes the mount at `path` and all below it read-only; False where the kernel cannot."""
    attributes = (ctypes.c_uint64 * 4)(MOUNT_ATTR_RDONLY, 0, 0, 0)
    result = _libc.syscall(
        ctypes.c_long(SYS_MOUNT_SETATTR),
        ctypes.c_int(AT_FDCWD),
        ctypes.c_char_p(os.fsencode(path)),
        ctypes.c_uint(AT_RECURSIVE),
        attributes,
        ctypes.c_size_t(ctypes.sizeof(attributes)),
    )
    return result == 0


def pivot(new_root):
    """Makes `new_root`, a mount point, the root directory and drops the old root."""
    os.chdir(new_root)
    subprocess.run(["pivot_root", ".", "."], check=True)
    _check(_libc.umount2(b".", ctypes.c_int(MNT_DETACH)), "umount old root")
    os.chdir("/")


def write_id_maps(pid):
    """Gives the new user namespace of process `pid` its ids, from outside it.

    Root hands on every id that it has itself, so that daemons which change their user work; anybody
    else hands on the own id, as root.
    """
    if os.geteuid() == 0:
        try:
            for kind in ("uid_map", "gid_map"):
                with open(f"/proc/self/{kind}", encoding="ascii") as own:
                    rows = [line.split() for line in own]
                text = "".join(f"{inside} {inside} {count}\n" for inside, _, count in rows)
                _write(f"/proc/{pid}/{kind}", text)
            return
        except PermissionError:
            pass  # root without the power over ids, as in some containers
    _write(f"/proc/{pid}/uid_map", f"0 {os.geteuid()} 1\n")
    _write(f"/proc/{pid}/setgroups", "deny")
    _write(f"/proc/{pid}/gid_map", f"0 {os.getegid()} 1\n")


def _write(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)

# SPDX-License-Identifier: Apache-2.0
"""A switch whose ports are network interfaces: a bridge, and a client host behind each port.

    gw0 ------------- swp9 [ vlanif1 ] swp1 ------------- eth0   host 1
                           [ bridge  ] swp2 ------------- eth0   host 2   ...

A board with an interface behind a port asks for it. The last port's cable leads to the gateway, all
others to hosts: processes that only hold a network namespace, with a /run of their own.
"""

import ipaddress
import os
import re
import shlex

import namespaces as ns
import network

FIRST_INDEX = 200  # interface numbers of the hosts' ends are above this one
FIRST_ADDRESS = 100  # host N has this address of the switch's network, plus N


def ports(board):
    """The interfaces behind the ports of `board`, in its order; none: the ports live in memory.

    What no interface can be called, or is taken, is left out: morvad says what is wrong with it.
    """
    rows = board.get("ports")
    names = [row.get("interface") for row in rows if isinstance(row, dict)] if rows else []
    fit = [name for name in names if isinstance(name, str) and re.fullmatch(r"[^\s/]{1,15}", name)]
    return [name for name in dict.fromkeys(fit) if name != "vlanif1"]


class Host:
    """The client host behind port `number`."""

    def __init__(self, number, switch):
        self.number = number
        self.mac = f"02:00:00:00:0a:{number:02x}"
        network_ = switch.address.network
        self.address = ipaddress.ip_interface(
            f"{network_.network_address + FIRST_ADDRESS + number}/{network_.prefixlen}"
        )
        self.pid = 0

    def fork_holder(self):
        """Starts the process that holds the host's namespaces."""
        report_read, report_write = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            try:
                os.close(report_read)
                self._hold(report_write)
            except BaseException as error:  # whatever it is, the lab must hear of it
                os.write(report_write, f"!{error}".encode())
            os._exit(1)
        os.close(report_write)
        answer = os.read(report_read, 4096).decode(errors="replace")
        os.close(report_read)
        if answer != "k":
            raise OSError(f"host {self.number}: {answer.lstrip('!') or 'ended early'}")

    def _hold(self, report):
        os.setsid()
        ns.unshare(ns.CLONE_NEWNS | ns.CLONE_NEWNET)
        ns.mount("tmpfs", "/run", "tmpfs", ns.MS_NOSUID | ns.MS_NODEV, "mode=755")
        os.mkdir("/run/lldpd")  # where lldpd locks itself in
        os.write(report, b"k")
        null = os.open("/dev/null", os.O_RDWR)
        for descriptor in range(3):
            os.dup2(null, descriptor)
        os.closerange(3, 256)
        os.execvp("sleep", ["sleep", "infinity"])

    def prefix(self):
        """The command prefix that runs its arguments on the host."""
        return ["nsenter", "-t", str(self.pid), "-m", "-n", "--"]


def connect(switch, interfaces):
    """Makes the hosts and lays all cables of `switch`; returns the hosts."""
    hosts = [Host(number, switch) for number in range(1, len(interfaces))]
    lines = [
        "link set dev lo up",
        f"link add name gw0 index {network.FIRST_INDEX} mtu {network.MTU} type veth "
        f"peer name {interfaces[-1]} mtu {network.MTU} netns {switch.pid}",
        f"address add {network.gateway_address([switch])} dev gw0",
        "link set dev gw0 up",
    ]
    for host, interface in zip(hosts, interfaces):
        host.fork_holder()
        lines.append(
            f"link add name eth0 index {FIRST_INDEX + host.number} mtu {network.MTU} "
            f"address {host.mac} netns {host.pid} type veth "
            f"peer name {interface} mtu {network.MTU} netns {switch.pid}"
        )
    network.ip_batch(lines)
    for host in hosts:
        lines = ["link set dev lo up", f"address add {host.address} dev eth0"]
        network.ip_batch([*lines, "link set dev eth0 up"], prefix=host.prefix())
    return hosts


def start_switch_side(interfaces, mac):
    """Builds the bridge in the current network namespace, the switch's, and brings it up."""
    lines = [
        "link set dev lo up",
        f"link add name vlanif1 mtu {network.MTU} address {mac} type bridge "
        "stp_state 0 forward_delay 0",
    ]
    lines += [f"link set dev {interface} master vlanif1 up" for interface in interfaces]
    network.ip_batch([*lines, "link set dev vlanif1 up"])


def environment(hosts):
    """How the lab's command enters the hosts."""
    names = {f"LAB_HOST_{host.number}": shlex.join(host.prefix()) for host in hosts}
    return {**names, "LAB_HOSTS": str(len(hosts))} if hosts else {}

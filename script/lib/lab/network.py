# SPDX-License-Identifier: Apache-2.0
"""The lab's cables.

One switch:    gw0 ---------------------- vlanif1        (gw0 in the lab's network namespace,
                                                          vlanif1 in the switch's)
Several:       gw0 ---- gw0p [ br ] sw1 -- vlanif1
                             [    ] sw2 -- vlanif1  ...
"""

import ipaddress
import subprocess

MTU = 2000  # a frame of the agent can be 1632 bytes long
FIRST_INDEX = 100  # interface numbers of the gateway's ends are above this one


def ip_batch(lines, prefix=()):
    """Runs ip(8) once over `lines`, behind the command prefix `prefix`."""
    text = "\n".join(lines) + "\n"
    command = [*prefix, "ip", "-batch", "-"]
    result = subprocess.run(command, input=text, text=True, capture_output=True)
    if result.returncode != 0:
        raise OSError(f"ip: {result.stderr.strip()}")


def connect(switches):
    """Lays the cables in the current network namespace, one to each switch's own.

    `switches` are objects with `number`, `pid` (a process in the switch's namespaces), `mac` and
    `address` (an ipaddress.IPv4Interface).
    """
    lines = ["link set dev lo up"]
    single = len(switches) == 1
    if not single:
        lines += [
            f"link add name br mtu {MTU} type bridge stp_state 0 forward_delay 0 mcast_snooping 0",
            f"link add name gw0 mtu {MTU} type veth peer name gw0p mtu {MTU}",
            "link set dev gw0p master br up",
            "link set dev br up",
        ]
    for switch in switches:
        end = "gw0" if single else f"sw{switch.number}"
        # Numbers that differ at the two ends: where they are the same by chance the kernel reports
        # the cable as plugged in up to a second late.
        lines.append(
            f"link add name {end} index {FIRST_INDEX + switch.number} mtu {MTU} type veth "
            f"peer name vlanif1 mtu {MTU} address {switch.mac} netns {switch.pid}"
        )
        if not single:
            lines.append(f"link set dev {end} master br up")
    lines += [f"address add {gateway_address(switches)} dev gw0", "link set dev gw0 up"]
    ip_batch(lines)


def start_switch_side():
    """Brings the interfaces of the current network namespace, a switch's, up."""
    ip_batch(["link set dev lo up", "link set dev vlanif1 up"])


def gateway_address(switches):
    """The highest address of the first switch's network that no switch has."""
    network = switches[0].address.network
    taken = {switch.address.ip for switch in switches}
    host = network.broadcast_address - 1
    while host in taken:
        host -= 1
    return ipaddress.ip_interface(f"{host}/{network.prefixlen}")

#!/usr/bin/env python3
"""Compares `qortool netlist` with `ip` in network namespaces of its own.

    namespaces_test.py --tool QORTOOL SCENE
    namespaces_test.py --list

Each scene makes the interfaces that it needs. The exit code is 77 if this system does not allow it.
"""

import argparse
import ipaddress
import json
import os
import re
import subprocess
import sys
import tempfile
import threading
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool  # noqa: E402  # in tests/support

SKIPPED = 77
TIMEOUT = 120
INSIDE = "QOR_TEST_INSIDE"

# For these kinds, the kernel stores an IP address as the hardware address.
TUNNELS = {"ipip", "tunnel6", "sit", "gre", "gre6"}


class Impossible(Exception):
    """This system does not allow the scene to be made."""


def run(*words, **more):
    return subprocess.run(words, capture_output=True, text=True, timeout=TIMEOUT, check=False, **more)


def ip(words, **more):
    done = run("ip", *words.split(), **more)
    if done.returncode != 0:
        raise Impossible(f"ip {words}: {done.stderr.strip()}")
    return done.stdout


def ip_json(words):
    return json.loads(ip("-j " + words) or "[]")


def batch(lines):
    ip("-batch -", input="\n".join(lines) + "\n")


# ---- the output of qortool, and the expected one according to ip

LABELS = {"Name": "name", "Description": "description", "Display name": "display", "Hardware address": "hardware",
          "IPv4 address": "ipv4", "Default gateway": "gateway", "IPv6 address": "ipv6"}


def listed(tool):
    done = run(*tool.command, "--quiet", "netlist", env=tool.environment())
    assert (done.returncode, done.stderr) == (0, ""), done
    blocks = []
    for block in done.stdout.removesuffix("\n\n").split("\n\n"):
        facts = {"ipv4": [], "ipv6": []}
        for line in block.split("\n"):
            label, value = re.fullmatch(r"([^:]+): +(.*)", line).groups()
            key = LABELS[label]
            if key in ("ipv4", "ipv6"):
                facts[key].append(value)
            else:
                assert key not in facts, line
                facts[key] = value
        blocks.append(facts)
    return blocks


def gateways():
    """Returns {interface: the gateway of lowest metric}."""
    best = {}
    routes = ip_json("-4 -N route show default table main")
    for route in sorted(routes, key=lambda each: each.get("metric", 0)):
        for hop in route.get("nexthops", [route]):
            if "gateway" in hop:
                best.setdefault(hop["dev"], hop["gateway"])
    return best


def expected():
    links = {link["ifindex"]: link for link in ip_json("link")}
    gateway_of = gateways()
    for each in sorted(ip_json("addr"), key=lambda each: each["ifindex"]):
        link = links[each["ifindex"]]
        name = link["ifname"]
        facts = {"name": name, "ipv4": [], "ipv6": []}
        facts["hardware"] = "(none)" if link["link_type"] in TUNNELS else link.get("address", "(none)")
        for address in each["addr_info"]:
            if not address:
                continue
            scope = f"%{name}" if ipaddress.ip_address(address["local"]).is_link_local and address["family"] == "inet6" else ""
            key = {"inet": "ipv4", "inet6": "ipv6"}[address["family"]]
            facts[key].append(f"{address['local']}{scope}/{address['prefixlen']}")
        if name in gateway_of:
            facts["gateway"] = gateway_of[name]
        facts["display"] = link.get("ifalias") or (link.get("altnames") or [None])[0]
        yield facts


def check(tool):
    """Compares all interfaces; returns {name: facts}."""
    # The kernel adds a link-local address a while after an interface is up, possibly between the two readings.
    before = None
    wanted = list(expected())
    while wanted != before:
        before = wanted
        got = listed(tool)
        wanted = list(expected())
    assert [each["name"] for each in got] == [each["name"] for each in wanted], (got, wanted)
    for have, want in zip(got, wanted):
        display = want.pop("display")
        assert have["display"] == display if display else have["display"].endswith(f" ({have['name']})"), (have, display)
        facts = {key: value for key, value in have.items() if key not in ("display", "description")}
        assert facts == want, f"\n{facts}\n{want}"
    return {each["name"]: each for each in got}


# ---- the scenes. d0, d1 and so on are bridges: unlike "dummy", every kernel with namespaces has them.

def empty(tool):
    assert list(check(tool)) == ["lo"]
    ip("link set lo up")
    assert check(tool)["lo"]["ipv4"] == ["127.0.0.1/8"]


def veth_and_bridge(tool):
    batch(["link add left type veth peer name right", "link add br0 type bridge", "link set right master br0",
           "link set left up", "link set right up", "link set br0 up",
           "addr add 10.0.0.1/24 dev left", "addr add 2001:db8::1/64 dev left nodad", "addr add 10.0.1.1/24 dev br0"])
    blocks = check(tool)
    assert blocks["left"]["display"] == "Virtual Ethernet (left)"
    assert blocks["left"]["description"] == "Virtual Ethernet, driver veth"
    assert blocks["br0"]["display"] == "Bridge (br0)"


def down(tool):
    """Interfaces that are down, with and without addresses."""
    batch(["link add d0 type bridge", "link add d1 type bridge", "addr add 10.0.0.1/24 dev d0"])
    blocks = check(tool)
    assert blocks["d0"]["ipv4"] == ["10.0.0.1/24"] and blocks["d1"]["ipv4"] == []


def labels(tool):
    """Addresses with labels of their own belong to their interface."""
    batch(["link add d0 type bridge", "link add d1 type bridge", "addr add 10.0.0.1/24 dev d0",
           "addr add 10.0.0.2/24 dev d0 label d0:1", "addr add 10.1.0.1/16 dev d0 label d0:web",
           "addr add 10.2.0.1/16 dev d1 label d1:1", "link set d0 up"])
    assert check(tool)["d0"]["ipv4"] == ["10.0.0.1/24", "10.1.0.1/16", "10.0.0.2/24"]


def peers(tool):
    """For an address with a peer, our own address is shown."""
    batch(["link add d0 type bridge", "link set d0 up", "addr add 10.1.0.1 peer 10.1.0.2/32 dev d0",
           "addr add 10.2.0.1 peer 10.9.0.0/16 dev d0", "addr add 2001:db8::1 peer 2001:db8::2/128 dev d0"])
    blocks = check(tool)
    assert blocks["d0"]["ipv4"] == ["10.1.0.1/32", "10.2.0.1/16"]
    assert "2001:db8::1/128" in blocks["d0"]["ipv6"]


def names(tool):
    batch(["link add d0 type bridge", "link property add dev d0 altname first",
           "link property add dev d0 altname a-name-of-more-than-fifteen-bytes", "link add d1 type bridge",
           "link property add dev d1 altname other", "link set dev d1 alias uplink"])
    ip("link add d2 type bridge")
    subprocess.run(["ip", "link", "set", "dev", "d2", "alias", "to the lab – über"], check=True)
    blocks = check(tool)
    assert blocks["d0"]["display"] == "first"
    assert blocks["d0"]["description"] == "Bridge, driver bridge, also a-name-of-more-than-fifteen-bytes"
    assert blocks["d1"]["display"] == "uplink"
    assert blocks["d1"]["description"] == "Bridge, driver bridge, also other"
    assert blocks["d2"]["display"] == "to the lab – über"


def tun_and_tap(tool):
    batch(["tuntap add dev tun0 mode tun", "tuntap add dev tap0 mode tap", "addr add 10.0.0.1 peer 10.0.0.2 dev tun0"])
    blocks = check(tool)
    assert blocks["tun0"]["hardware"] == "(none)" and blocks["tun0"]["display"] == "TUN (tun0)"
    assert blocks["tap0"]["hardware"] != "(none)" and blocks["tap0"]["display"] == "TAP (tap0)"


def made(kind, *lines):
    """A scene for interfaces of a kind that not every kernel has."""
    def scene(tool):
        batch(["link add d0 type bridge", "link set d0 up", "addr add 192.0.2.1/24 dev d0", *lines])
        block = check(tool)["t0"]
        assert block["display"] == f"{kind} (t0)", block
    return scene


def default_routes(tool):
    batch(["link set lo up", "link add d0 type bridge", "link add d1 type bridge", "link add d2 type bridge",
           "link set d0 up", "link set d1 up", "link set d2 up", "addr add 10.0.0.2/24 dev d0",
           "addr add 10.0.1.2/24 dev d1", "addr add 10.0.2.2/24 dev d2",
           "route add default via 10.0.0.9 dev d0 metric 200", "route add default via 10.0.0.1 dev d0 metric 100",
           "route add default dev d1", "route add 10.9.0.0/16 via 10.0.1.1 dev d1",
           "route add 0.0.0.0/1 via 10.0.1.3 dev d1",
           "route add default via 10.0.2.1 dev d2 table 100", "route add default via 10.0.2.3 dev d2 tos 0x10"])
    blocks = check_without_tos(tool)
    assert blocks["d0"]["gateway"] == "10.0.0.1"
    assert "gateway" not in blocks["d1"] and "gateway" not in blocks["d2"]


def check_without_tos(tool):
    """ip also shows routes for marked traffic, which are not the default of any interface."""
    blocks = {each["name"]: each for each in listed(tool)}
    ip("route del default tos 0x10")
    assert blocks == check(tool)
    return blocks


def several_hops(tool):
    batch(["link add d0 type bridge", "link add d1 type bridge", "link set d0 up", "link set d1 up",
           "addr add 10.0.0.2/24 dev d0", "addr add 10.0.1.2/24 dev d1",
           "route add default nexthop via 10.0.0.1 dev d0 weight 2 nexthop via 10.0.1.1 dev d1"])
    blocks = check(tool)
    assert (blocks["d0"]["gateway"], blocks["d1"]["gateway"]) == ("10.0.0.1", "10.0.1.1")


def next_hop_objects(tool):
    batch(["link add d0 type bridge", "link add d1 type bridge", "link set d0 up", "link set d1 up",
           "addr add 10.0.0.2/24 dev d0", "addr add 10.0.1.2/24 dev d1",
           "nexthop add id 1 via 10.0.0.1 dev d0", "nexthop add id 2 via 10.0.1.1 dev d1",
           "nexthop add id 3 group 1/2", "nexthop add id 4 via 10.0.0.7 dev d0",
           "route add default nhid 3", "route add default nhid 4 metric 9"])
    compatible = Path("/proc/sys/net/ipv4/nexthop_compat_mode")
    for mode in ("1", "0"):
        try:
            compatible.write_text(mode)
        except OSError as error:
            raise Impossible(f"{compatible}: {error}") from error
        blocks = {each["name"]: each for each in listed(tool)}
        assert (blocks["d0"]["gateway"], blocks["d1"]["gateway"]) == ("10.0.0.1", "10.0.1.1"), (mode, blocks)


def gateway_by_ipv6(tool):
    """A default route whose gateway has an IPv6 address shows no gateway."""
    batch(["link add d0 type bridge", "link set d0 up", "addr add 10.0.0.2/24 dev d0",
           "route add default via inet6 fe80::1 dev d0"])
    blocks = {each["name"]: each for each in listed(tool)}
    assert "gateway" not in blocks["d0"]


def a_long_message(tool):
    """An interface with more than 32 KiB of kernel data."""
    ip("link add d0 type bridge")
    batch([f"link property add dev d0 altname {i:03}{'n' * 120}" for i in range(300)])
    block = check(tool)["d0"]
    assert len(block["description"]) > 36000


def ten_thousand_addresses(tool):
    ip("link add d0 type bridge")
    batch([f"addr add 10.{i // 250}.{i % 250}.1/32 dev d0" for i in range(10000)])
    assert len(check(tool)["d0"]["ipv4"]) == 10000


def changes(tool):
    """While other interfaces come and go, permanent ones are listed completely."""
    ip("link add d0 type bridge")
    batch([f"addr add 10.0.{i // 250}.{i % 250}/32 dev d0" for i in range(1000)])
    wanted = check(tool)["d0"]
    stop = threading.Event()

    def disturb():
        while not stop.is_set():
            batch(["link add x0 type bridge", "addr add 10.1.0.1/32 dev d0", "addr del 10.1.0.1/32 dev d0", "link del x0"])

    thread = threading.Thread(target=disturb)
    thread.start()
    try:
        for _ in range(40):
            block = next(each for each in listed(tool) if each["name"] == "d0")
            block["ipv4"] = [each for each in block["ipv4"] if each != "10.1.0.1/32"]
            assert block == wanted
    finally:
        stop.set()
        thread.join()


def without_libmnl(tool):
    """Without the library, a host lacks only this action."""
    with tempfile.TemporaryDirectory() as folder:
        (Path(folder) / "libmnl.so.0").write_bytes(b"")
        environment = {**tool.environment(), "LD_LIBRARY_PATH": folder}
        done = run(*tool.command, "--quiet", "netlist", env=environment)
        assert (done.returncode, done.stdout) == (1, ""), done
        assert re.fullmatch(r"Cannot list the network interfaces: The module '/.+/qor/qor-network.so' cannot be loaded: "
                            r".*libmnl\.so\.0.*\n", done.stderr), done
        assert run(*tool.command, "--quiet", "help", env=environment).stderr.startswith("Usage:")


SCENES = {
    "empty": empty, "veth_and_bridge": veth_and_bridge, "down": down, "labels": labels, "peers": peers, "names": names,
    "tun_and_tap": tun_and_tap,
    "vlan": made("VLAN", "link add link d0 name t0 type vlan id 5", "addr add 10.0.0.1/24 dev t0"),
    "macvlan": made("MACVLAN", "link add link d0 name t0 type macvlan"),
    "vrf": made("VRF", "link add t0 type vrf table 10"),
    "ipip": made("Tunnel", "link add t0 type ipip local 192.0.2.1 remote 192.0.2.9"),
    "sit": made("Tunnel", "link add t0 type sit local 192.0.2.1 remote 192.0.2.9"),
    "gre": made("Tunnel", "link add t0 type gre local 192.0.2.1 remote 192.0.2.9"),
    "gretap": made("Tunnel", "link add t0 type gretap local 192.0.2.1 remote 192.0.2.9"),
    "ip6tnl": made("Tunnel", "link add t0 type ip6tnl local 2001:db8::1 remote 2001:db8::2"),
    "vxlan": made("VXLAN", "link add t0 type vxlan id 7 remote 192.0.2.9 dstport 4789 dev d0"),
    "wireguard": made("WireGuard", "link add t0 type wireguard"),
    "bond": made("Bond", "link add t0 type bond"),
    "default_routes": default_routes, "several_hops": several_hops, "next_hop_objects": next_hop_objects,
    "gateway_by_ipv6": gateway_by_ipv6, "a_long_message": a_long_message,
    "ten_thousand_addresses": ten_thousand_addresses, "changes": changes, "without_libmnl": without_libmnl,
}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("scene", nargs="?", choices=SCENES)
    options = parser.parse_args()
    if options.list:
        print("\n".join(SCENES))
        return 0
    if INSIDE not in os.environ:
        enter = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--map-root-user", "--net"]
        tried = run(*enter, "true")
        if tried.returncode != 0:
            print(f"skipped: no network namespace can be made here: {tried.stderr.strip()}")
            return SKIPPED
        os.execvpe(enter[0], [*enter, sys.executable, *sys.argv], {**os.environ, INSIDE: "1"})
    try:
        SCENES[options.scene](Tool(options.tool))
    except Impossible as reason:
        print(f"skipped: {reason}")
        return SKIPPED
    return 0


if __name__ == "__main__":
    sys.exit(main())

"""Hosts of one's own on a network of one's own: network namespaces with a bridge between them."""

import os
import subprocess
import sys


def run(*command):
    subprocess.run(command, check=True)


class Hosts:
    """`count` hosts on one network, 10.99.0.1 to .count; gone with close()."""

    def __init__(self, count, mtu=1500):
        self._mtu = str(mtu)
        self._prefix = f"kvo{os.getpid()}"
        self._made = []
        try:
            self._switch = self._namespace("sw")
            run("ip", "-n", self._switch, "link", "add", "br0", "type", "bridge",
                "mcast_snooping", "0")
            run("ip", "-n", self._switch, "link", "set", "br0", "up")
            for number in range(1, count + 1):
                self._connect(number)
        except subprocess.CalledProcessError:
            self.close()
            sys.stderr.write("network namespaces cannot be made here: run as root, with "
                             "iproute2, or set KVO_TEST_WITHOUT_NAMESPACES=1 to skip\n")
            raise

    def _namespace(self, name):
        namespace = f"{self._prefix}-{name}"
        run("ip", "netns", "add", namespace)
        self._made.append(namespace)
        return namespace

    def _connect(self, number):
        host = self._namespace(str(number))
        run("ip", "-n", self._switch, "link", "add", f"port{number}", "mtu", self._mtu,
            "type", "veth", "peer", "name", "eth0", "mtu", self._mtu, "netns", host)
        run("ip", "-n", self._switch, "link", "set", f"port{number}", "master", "br0", "up")
        run("ip", "-n", host, "link", "set", "lo", "up")
        run("ip", "-n", host, "link", "set", "eth0", "up")
        run("ip", "-n", host, "address", "add", f"{self.address(number)}/24", "dev", "eth0")
        run("ip", "-n", host, "route", "add", "224.0.0.0/4", "dev", "eth0")

    @staticmethod
    def address(number):
        return f"10.99.0.{number}"

    def command(self, number, *command):
        """The command as it runs on a host."""
        return ["ip", "netns", "exec", f"{self._prefix}-{number}", *command]

    def set_link(self, number, up):
        """Plugs the host's cable in or pulls it."""
        run("ip", "-n", self._switch, "link", "set", f"port{number}", "up" if up else "down")

    def impair(self, number, *netem):
        """What netem does to all that the host sends. @return whether the kernel can."""
        return subprocess.run(["tc", "-n", f"{self._prefix}-{number}", "qdisc", "replace", "dev",
                               "eth0", "root", "netem", *netem],
                              stderr=subprocess.DEVNULL, check=False).returncode == 0

    def throttle(self, number, rate):
        """How much goes to a host, in tc's terms."""
        run("tc", "-n", self._switch, "qdisc", "replace", "dev", f"port{number}", "root", "tbf",
            "rate", rate, "burst", "200kb", "latency", "50ms")

    def close(self):
        for namespace in self._made:
            subprocess.run(["ip", "netns", "delete", namespace], check=False)

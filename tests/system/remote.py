"""Streams between hosts: namespaces of their own, a broker on each, publishers and subscribers by
the command line. Fails where namespaces cannot be made, unless told to skip."""

import itertools
import json
import os
import random
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

from broker_process import PATIENCE_S, BrokerProcess, start_program
from hosts import Hosts
from lines import LineReader

BROKER_PROGRAM = sys.argv.pop()
KVO_PROGRAM = sys.argv.pop()
FOREIGN_READER = sys.argv.pop()
NOTHING_THERE = 3
KIB = 1 << 10
MIB = 1 << 20
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
RECOVERY_S = 5  # from the return of what was missing to the next sample

if os.environ.get("KVO_TEST_WITHOUT_NAMESPACES") == "1":
    sys.exit(77)


def feed(publisher, chunks):
    """Writes to a publisher on a thread of its own, to the end of either."""
    def write():
        try:
            for chunk in chunks:
                publisher.stdin.write(chunk)
            publisher.stdin.flush()
        except (BrokenPipeError, ValueError, OSError):
            pass

    thread = threading.Thread(target=write, daemon=True)
    thread.start()
    return thread


class RemoteStreams(unittest.TestCase):
    HOSTS = 3

    # Access rules of a trusted network.
    OPEN = ("--allow-plaintext", "true", "--access-rules", "allow publish * to anyone",
            "--access-rules", "allow subscribe * to anyone")

    def setUp(self):
        self.hosts = Hosts(self.HOSTS)
        self.addCleanup(self.hosts.close)
        self.place = tempfile.mkdtemp(prefix="kvo-test-")
        self.addCleanup(shutil.rmtree, self.place)
        self.prepare()
        self.brokers = {number: self.start_broker(number)
                        for number in range(1, self.HOSTS + 1)}

    def prepare(self):
        """Before the brokers start."""

    def trust(self, number):
        """Environment and options of a broker."""
        return (), self.OPEN

    def start_broker(self, number, *options):
        runtime = os.path.join(self.place, str(number))
        os.makedirs(runtime, exist_ok=True)
        environment, trust = self.trust(number)
        command = self.hosts.command(number, "env", f"KVO_RUNTIME_DIRECTORY={runtime}",
                                     *environment, BROKER_PROGRAM, "--address", "0.0.0.0", *trust,
                                     "--broker-name", f"host{number}:5000", *options)
        broker = FixedBroker(command)
        self.addCleanup(broker.stop)
        return broker

    def uri(self, number):
        return f"wkp.rr://{self.hosts.address(number)}:5000"

    def kvo(self, number, *arguments):
        runtime = os.path.join(self.place, str(number))
        return start_program(
            self, *self.hosts.command(number, "env", f"KVO_RUNTIME_DIRECTORY={runtime}",
                                      "KVO_BROKER=wkp.rr://127.0.0.1:5000", KVO_PROGRAM,
                                      *arguments), environment=None)

    def answer(self, number, *arguments):
        """What a command says that ends by itself: code, output, errors."""
        process = self.kvo(number, *arguments)
        output, errors = process.communicate(timeout=PATIENCE_S)
        return process.returncode, output.decode(), errors.decode()

    def remote_streams(self, number):
        return [json.loads(line) for line in
                self.answer(number, "brokers", "--json")[1].splitlines()]

    def await_state(self, what, condition):
        end = time.monotonic() + PATIENCE_S
        while not condition():
            self.assertLess(time.monotonic(), end, f"in vain: {what}")


class FixedBroker(BrokerProcess):
    """On a host of its own, so at the port where its clients expect it."""

    def __init__(self, command):
        super().__init__(command[0], *command[1:])

    def _start(self):
        self.port = 5000
        super()._start()

    def signal(self, number):
        self._process.send_signal(number)


class EverySample(RemoteStreams):
    """Once, in order, byte for byte, at two other hosts."""

    def pass_through(self, stream, sample_bytes, rate, count, samples):
        base = random.Random(sample_bytes).randbytes(sample_bytes - 8)
        publisher = self.kvo(1, "pub", stream, "--chunk", str(sample_bytes), "--rate", str(rate),
                             "--samples", str(samples))
        readers = [self.kvo(number, "sub", stream, "--remote", self.uri(1), "--count", str(count),
                            "--timeout", str(PATIENCE_S)) for number in (2, 3)]
        self.await_state("two imports",
                         lambda: [state["live"] for state in self.remote_streams(1)] == [True] * 2)

        feeder = feed(publisher, (struct.pack("<Q", number) + base for number in range(count)))

        def first_wrong(reader):
            for number in range(count):
                sample = reader.stdout.read(sample_bytes)
                if sample != struct.pack("<Q", number) + base:
                    return number, len(sample), sample[:8]
            return None

        with ThreadPoolExecutor() as pool:
            self.assertEqual(list(pool.map(first_wrong, readers)), [None] * 2,
                             [self.remote_streams(number) for number in (1, 2, 3)])
        for reader in readers:
            self.assertEqual(reader.stdout.read(), b"")
            self.assertEqual(reader.wait(timeout=PATIENCE_S), 0)
        feeder.join()
        code, output, _ = self.answer(1, "stat", stream, "--json")
        self.assertEqual(code, 0)
        # More where this machine was too slow to send to both as to one.
        self.assertGreaterEqual(int(json.loads(output)["exported"]), count)
        exports = self.remote_streams(1)
        self.assertEqual([(e["overrun"], e["dropped_by_back_pressure"]) for e in exports], [(0, 0)] * 2)

    def test_small_and_frequent(self):
        self.pass_through("small", 4 * KIB, 1000, 3000, 3000)

    def test_large(self):
        # As many as are sent are kept: how fast this machine can read pipes is no matter.
        self.pass_through("large", 4 * MIB, 30, 45, 48)


class Flow:
    """Numbered lines from a publisher on host 1, heard on host 2."""

    def __init__(self, test):
        self.test = test
        self.number = 0

    def publish(self):
        self.publisher = self.test.kvo(1, "pub", "s", "--lines", "--max-size", "100", "--rate",
                                       "200", "--samples", "16")
        feed(self.publisher, self._lines())

    def _lines(self):
        while True:
            self.number += 1
            yield b"%d\n" % self.number

    def subscribe(self, number=2):
        subscriber = self.test.kvo(number, "sub", "-v", "s", "--remote", self.test.uri(1),
                                   "--lines", "--timeout", str(PATIENCE_S))
        self.lines = LineReader(subscriber.stdout)
        self.notes = LineReader(subscriber.stderr)

    def await_note(self, text):
        self.notes.await_text(text, PATIENCE_S)

    def skip_waiting(self):
        """Takes what has come so far."""
        try:
            while True:
                self.lines.next(0.3)
        except AssertionError:
            pass

    def next(self, seconds):
        return int(self.lines.next(seconds))

    def check_goes_on(self, count=50):
        """No number twice and none out of order."""
        last = self.next(PATIENCE_S)
        for _ in range(count):
            number = self.next(PATIENCE_S)
            self.test.assertGreater(number, last)
            last = number
        return last


class Faults(RemoteStreams):
    HOSTS = 2

    def setUp(self):
        super().setUp()
        self.flow = Flow(self)
        self.flow.publish()
        self.flow.subscribe()
        self.flow.check_goes_on()

    def test_what_is_missing_is_told_of_and_comes_back_in_time(self):
        broker = self.brokers[1]
        for fault, lose, bring_back in (
                ("the publisher is killed", lambda: self.flow.publisher.kill(), self.flow.publish),
                ("its broker is killed", broker.kill, broker.start_again),
                ("its broker stands still", lambda: broker.signal(signal.SIGSTOP),
                 lambda: broker.signal(signal.SIGCONT)),
                ("the network is cut", lambda: self.hosts.set_link(2, False),
                 lambda: self.hosts.set_link(2, True))):
            with self.subTest(fault=fault):
                lose()
                self.flow.await_note("PUB_UNREG notification received")
                self.flow.skip_waiting()
                bring_back()
                started = time.monotonic()
                self.flow.await_note("PUB_REG notification received")
                self.flow.next(RECOVERY_S)
                self.assertLess(time.monotonic() - started, RECOVERY_S)
                self.flow.check_goes_on()

    def test_the_own_broker_is_killed_and_comes_back(self):
        self.brokers[2].kill()
        self.flow.skip_waiting()
        self.brokers[2].start_again()
        self.flow.await_note("proceeding")
        self.flow.check_goes_on()

    def test_a_network_that_loses_and_delays(self):
        if not self.hosts.impair(1, "loss", "5%", "delay", "50ms"):
            self.skipTest("this kernel has no netem")
        last = self.flow.check_goes_on(200)
        self.assertGreater(last, 200)


class Refusals(RemoteStreams):
    HOSTS = 2

    def test_each_has_its_reason(self):
        for remote, why in ((self.uri(1), "has no publisher of stream"),
                            ("wkp.rr://10.99.0.77:5000", "no broker answers at"),
                            ("wkp.rr://no-such-host.invalid:5000", "no-such-host.invalid"),
                            ("wkp.rr://10.99.0.1", "no port")):
            with self.subTest(remote=remote):
                started = time.monotonic()
                code, output, errors = self.answer(2, "sub", "s", "--remote", remote, "--count",
                                                   "1")
                self.assertIn(why, errors)
                self.assertEqual((code, output), (NOTHING_THERE, ""))
                self.assertLess(time.monotonic() - started, PATIENCE_S / 2)


class Secured(RemoteStreams):
    """Keys for the requests, certificates for the samples; host 3 has neither."""

    def prepare(self):
        self.keys = {}
        for number in (1, 2):
            self.keys[number] = subprocess.run(
                [KVO_PROGRAM, "keys", os.path.join(self.place, f"{number}.key")], check=True,
                stdout=subprocess.PIPE).stdout.decode().strip()
        with open(os.path.join(self.place, "allowed"), "w", encoding="utf-8") as file:
            file.write(f"broker-2 {self.keys[2]}\n")
        with open(os.path.join(self.place, "properties"), "w", encoding="utf-8") as file:
            file.write(f"secret-key-file = {self.place}/2.key\n"
                       f"server-key@{self.hosts.address(1)} = {self.keys[1]}\n")
        subprocess.run([os.path.join(ROOT, "scripts", "make-dds-certificates"),
                        os.path.join(self.place, "dds"), "host1", "host2"], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def trust(self, number):
        if number == 3:
            return (), self.OPEN
        dds = os.path.join(self.place, "dds")
        options = ("--dds-identity-ca", f"{dds}/ca.pem", "--dds-permissions-ca", f"{dds}/ca.pem",
                   "--dds-governance", f"{dds}/governance.p7s",
                   "--dds-identity-certificate", f"{dds}/host{number}.pem",
                   "--dds-private-key", f"{dds}/host{number}.key",
                   "--dds-permissions", f"{dds}/host{number}.p7s")
        if number == 1:
            return (), (*options, "--secret-key-file", f"{self.place}/1.key",
                        "--allowed-keys-file", f"{self.place}/allowed")
        return ((f"KVO_MIDDLEWARE_PROPERTIES={self.place}/properties",),
                (*options, "--allow-plaintext", "true"))

    def test_samples_go_only_to_hosts_with_keys(self):
        flow = Flow(self)
        flow.publish()
        flow.subscribe(2)
        flow.check_goes_on()
        code, output, errors = self.answer(3, "sub", "s", "--remote", self.uri(1), "--count", "1")
        self.assertEqual((code, output), (NOTHING_THERE, ""))
        self.assertIn("no broker answers at", errors)
        reader = subprocess.Popen(self.hosts.command(3, FOREIGN_READER, "kvo/host1_3a5000/s", "1"),
                                  stdout=subprocess.DEVNULL)
        self.addCleanup(reader.wait)
        self.addCleanup(reader.kill)
        flow.check_goes_on(600)
        self.assertIsNone(reader.poll(), "who has no certificate has got a sample")


class SlowHosts(RemoteStreams):
    def test_a_frozen_host_slows_no_other(self):
        flow = Flow(self)
        flow.publish()
        flow.subscribe(2)
        other = self.kvo(3, "sub", "s", "--remote", self.uri(1), "--lines", "--timeout",
                         str(PATIENCE_S))
        LineReader(other.stdout).next(PATIENCE_S)
        flow.check_goes_on()
        self.brokers[3].signal(signal.SIGSTOP)
        try:
            # Three seconds of samples, without a gap of more than what a host's lease allows.
            for _ in range(600):
                flow.next(3)
        finally:
            self.brokers[3].signal(signal.SIGCONT)

    def test_a_host_behind_a_slow_link_has_a_pace_of_its_own(self):
        size, rate = 64 * KIB, 100  # 52 Mbit/s
        publisher = self.kvo(1, "pub", "s", "--chunk", str(size), "--rate", str(rate), "--samples",
                             "64")
        feed(publisher, itertools.repeat(bytes(size)))
        self.await_state("the stream", lambda: "s\n" in self.answer(1, "ls")[1])
        fast, slow = [self.kvo(number, "sub", "s", "--remote", self.uri(1))
                      for number in (2, 3)]
        for reader in (fast, slow):
            self.read_for(reader, size, 1)
        self.hosts.throttle(3, "10mbit")
        # Both are read, so that what is counted are samples of the same time.
        with ThreadPoolExecutor() as pool:
            of_fast, of_slow = pool.map(lambda reader: self.read_for(reader, size, 6), (fast, slow))
        self.assertGreater(of_fast, 6 * rate / 2, of_slow)
        self.assertGreater(of_slow, 10, of_fast)
        self.assertLess(of_slow, of_fast / 2)
        exports = {state["broker"]: state for state in self.remote_streams(1)}
        lost = {host: exports[f"wkp.rr://{host}:5000"]["overrun"] for host in ("host2", "host3")}
        self.assertGreater(lost["host3"], lost["host2"], "whose loss it is")

    @staticmethod
    def read_for(reader, size, seconds):
        """How many samples come in that time, and until the one after that."""
        count = 0
        end = time.monotonic() + seconds
        while time.monotonic() < end and len(reader.stdout.read(size)) == size:
            count += 1
        return count


class ForeignReaders(RemoteStreams):
    HOSTS = 2

    def test_a_program_that_has_the_idl_file_alone(self):
        """The export is an interface for others too: topic, type and QoS as docs/remote.md."""
        self.brokers[1].stop()
        self.start_broker(1, "--export-streams", "/cam/*")
        count = 500
        publisher = self.kvo(1, "pub", "/cam/left-1", "--lines", "--rate", "500", "--samples", "16")
        reader = subprocess.Popen(
            self.hosts.command(2, FOREIGN_READER, "kvo/host1_3a5000//cam/left_2d1", str(count)),
            stdout=subprocess.PIPE)
        self.addCleanup(reader.stdout.close)
        self.addCleanup(reader.kill)

        feed(publisher, (b"line %d\n" % number for number in range(100 * count)))
        self.assertEqual(reader.wait(timeout=PATIENCE_S), 0)
        received = reader.stdout.read()
        first = int(received.split(b"line ")[1])
        self.assertEqual(received,
                         b"".join(b"line %d" % (first + i) for i in range(count)))


if __name__ == "__main__":
    unittest.main(verbosity=2)

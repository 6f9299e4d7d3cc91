"""What a broker must bear: messages of every wrong kind, connections that say nothing beside a
client that floods it, and registrations without end. In the meantime a well-behaved client gets the
right answers in time, and afterwards the broker uses no more than before."""

import argparse
import collections
import errno
import multiprocessing
import os
import pathlib
import random
import re
import resource
import socket
import statistics
import sys
import time
import unittest
import uuid

import msgpack
import zmq

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "tests" / "system"))
from broker_process import PATIENCE_S, BrokerProcess
from wire_client import (GREETING, PATH, RemoteError, WireClient, exchange_greetings,
                         introduction, new_identity, transport_frame)

OPERATION = re.compile(r"^\| \d+ \| `(\w+)` \|(.*)\| .* \|$", re.MULTILINE)
# Without what other brokers ask: it loads the engine of remote streams, whose threads stay.
OPERATIONS = [(name, re.findall(r": (\w+)", parameters)) for name, parameters in
              OPERATION.findall((ROOT / "docs" / "protocol.md").read_text(encoding="utf-8"))
              if name != "DescribeStream"]
Footprint = collections.namedtuple("Footprint", "descriptors threads files")


class Mischief:
    """Draws messages: a few right, most of them wrong somewhere."""

    # Heads of arrays, maps, texts, binaries and extensions that are longer than any message.
    HUGE = (b"\xdd\xff\xff\xff\xff", b"\xdf\xff\xff\xff\xff", b"\xdb\x7f\xff\xff\xff",
            b"\xc6\xff\xff\xff\xf0", b"\xc9\xff\xff\xff\xff")

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.draw = self.random.randrange

    def one_in(self, chances):
        return self.draw(chances) == 0

    def some_bytes(self, fewer_than):
        return self.random.randbytes(self.draw(fewer_than))

    def name(self):
        if self.one_in(30):
            return self.some_bytes(400).decode(errors="surrogateescape")
        return f"storm/{self.draw(100)}"

    def parameter(self, kind):
        if self.one_in(25):
            return self.random.choice((None, self.name(), 2**40, -1, True))
        if kind == "string":
            return self.name()
        if kind == "bool":
            return self.one_in(2)
        most = 2**31 if kind == "int32" else 2**63
        return self.random.choice((-most, most - 1, -1, 0)) if self.one_in(10) else self.draw(100)

    def call(self):
        method, kinds = self.random.choice(OPERATIONS)
        head = [2] if self.one_in(4) else [0, self.draw(2**32)]
        params = [self.parameter(kind) for kind in kinds[self.one_in(30):]]
        return msgpack.packb([*head, method, params], unicode_errors="surrogateescape")

    def request(self):
        frames = [PATH, self.call()]
        if self.one_in(16):
            frames = (frames + [self.some_bytes(40) for _ in range(4)])[:self.draw(6) + 1]
        if self.one_in(16):
            frames[self.draw(len(frames))] = self.some_bytes(9000 if self.one_in(20) else 60)
        if self.one_in(2000):
            frames[-1] = bytes(70_000)  # too large: ends the connection
        if not self.one_in(3):
            # Rather often in the call than in the path.
            place = 0 if self.one_in(8) else -1
            frames[place] = self.mutated(frames[place])
        return frames

    def subscription(self):
        """To the notifications' address: begins or ends a subscription, or is neither."""
        text = bytes([self.draw(2)]) + b"/" + self.name().encode(errors="surrogateescape") + b"\0"
        return self.mutated(text) if self.one_in(3) else text

    def mutated(self, data):
        place, way = self.draw(len(data) + 1), self.draw(7)
        if way == 0:
            data = data[:place]
        elif way == 1:
            data += self.some_bytes(40)
        elif way < 5:
            more = (self.random.choice(self.HUGE) if way == 2
                    else b"\x91" * self.draw(60_000 if self.one_in(50) else 40) if way == 3
                    else data[self.draw(len(data) + 1):][:self.draw(40)])
            data = data[:place] + more + data[place:]
        elif place < len(data):
            data = data[:place] + bytes([data[place] ^ 1 << self.draw(8)]) + data[place + 1:]
        return self.mutated(data) if self.one_in(2) else data


class Storm:
    """Connections of several kinds that send mischief."""

    def __init__(self, scene):
        self.scene = scene
        self.mischief = Mischief(OPTIONS.seed)
        self.connections = [None] * 3
        self.results = self.errors = 0
        self.notification_port = scene.client.call("GetNotificationPort", "storm/0")

    def send(self, messages):
        while messages > 0:
            messages -= self.send_raw() if self.mischief.one_in(100) else self.send_one()
            if self.mischief.one_in(200):
                self.scene.check_answers()
        for index in range(len(self.connections)):
            self.replace(index, None)

    def identity(self, index):
        # Never the same twice: who comes with another's takes its place.
        return (None, b"x" + self.mischief.some_bytes(180) + new_identity(), new_identity())[index]

    def send_one(self):
        index = self.mischief.draw(len(self.connections))
        if self.connections[index] is None or self.mischief.one_in(2000):
            self.replace(index, self.scene.connect(self.identity(index)))
        connection = self.connections[index]
        connection.send_raw(*self.mischief.request())
        while connection.socket.poll(0):
            self.take(connection)
        return 1

    def take(self, connection):
        """The id of an answer."""
        _, message = connection.socket.recv_multipart()
        kind, answered, error, _ = msgpack.unpackb(message, raw=True)
        assert kind == 1, message
        self.results += error is None
        self.errors += error is not None
        return answered

    def replace(self, index, following):
        """Before it goes it proves that the broker has got through all that it sent."""
        before, self.connections[index] = self.connections[index], following
        if before is None:
            return
        # Asked again, since a message that is too large takes those around it along.
        for _ in range(20):
            wanted = before.ask("GetHeartbeatPeriod")
            while before.socket.poll(500):
                if self.take(before) == wanted:
                    before.socket.close()
                    return
        raise AssertionError("no answer on a connection that sent malformed messages")

    def send_raw(self):
        """To either address, more than half of it wrong in the transport's own bytes."""
        request = self.mischief.one_in(2)
        data = introduction(b"DEALER" if request else b"SUB")
        count = self.mischief.draw(2000 if self.mischief.one_in(50) else 32)
        for _ in range(count):
            frames = self.mischief.request() if request else [self.mischief.subscription()]
            for frame in frames[:-1]:
                data += transport_frame(1, frame)
            data += transport_frame(0, frames[-1])
        if self.mischief.one_in(2):
            data = self.mischief.mutated(data)
        greet = not self.mischief.one_in(4)
        port = self.scene.broker.port if request else self.notification_port
        with socket.create_connection(("127.0.0.1", port), PATIENCE_S) as connection:
            try:
                if greet:
                    exchange_greetings(connection)
                connection.sendall(data if greet else self.mischief.mutated(GREETING + data))
                connection.shutdown(socket.SHUT_WR)
                while connection.recv(65536):  # until the broker has closed it too
                    pass
            except OSError as error:
                if error.errno not in (errno.ECONNRESET, errno.EPIPE, errno.ENOTCONN):
                    raise
        return count


def flood(endpoint, requests):
    """As many as it can, until it is ended."""
    with zmq.Context() as context:
        client = WireClient(context, endpoint, new_identity())
        while True:
            client.ask("GetStreamStatistics", "well/behaved")
            while client.socket.poll(0):
                client.socket.recv_multipart()
            requests.value = client.last_id


class Scene(unittest.TestCase):
    """A broker with a client that does everything right."""

    def start(self, *limits):
        self.broker = BrokerProcess(OPTIONS.broker, "--log-level", "error", *limits)
        self.addCleanup(self.broker.stop)
        self.context = zmq.Context()
        self.addCleanup(self.context.destroy, linger=0)
        self.client = self.connect(new_identity())
        self.addCleanup(self.client.socket.close)
        self.assertEqual(self.register(self.client, "well/behaved"), 1)
        self.key = self.client.call("GetPublisherKey", "well/behaved")
        self.alone = self.look()

    def connect(self, identity):
        return WireClient(self.context, f"tcp://127.0.0.1:{self.broker.port}", identity)

    @staticmethod
    def register(client, stream):
        return client.call("AddPublisher", stream, 250, 10, 64, 4, False, "")

    def look(self):
        process = f"/proc/{self.broker.pid}"
        return Footprint(len(os.listdir(f"{process}/fd")), len(os.listdir(f"{process}/task")),
                         len(self.broker.files()))

    def check_answers(self):
        call = self.client.call
        call("SendHeartbeat", "well/behaved")
        self.assertFalse(call("IsStreamIdFree", "well/behaved"))
        self.assertEqual(call("GetPublisherKey", "well/behaved"), self.key)
        self.assertEqual(call("AddSubscriber", "well-behaved", "well/behaved", "", 250, 10), 1)
        counts = call("GetStreamStatistics", "well/behaved")
        self.assertEqual((counts[1], counts[5]), ("1", "1"))
        self.assertEqual(call("RemoveSubscriber", "well/behaved", "well-behaved"), 1)
        self.assertRaises(RemoteError, call, "NoSuchMethod")

    def settle(self):
        """Waits until the broker has forgotten all others. Returns its resident KiB then."""
        deadline = time.monotonic() + PATIENCE_S
        while (self.client.call("ListRegisteredStreams") != ["well/behaved"]
               or self.look() != self.alone):
            self.assertLess(time.monotonic(), deadline, f"{self.look()} instead of {self.alone}")
            self.check_answers()
            time.sleep(0.02)  # /proc tells no events; it has to be looked at again and again
        with open(f"/proc/{self.broker.pid}/status", encoding="ascii") as status:
            return int(re.search(r"VmRSS:\s+(\d+)", status.read())[1])

    def end(self, before_kib=None):
        after_kib = self.settle()
        if before_kib is not None:
            print(f"  {before_kib} KiB, then {after_kib}")
            self.assertLessEqual(after_kib, before_kib + 1024 * OPTIONS.growth,
                                 "the broker has grown")
        self.assertEqual(self.broker.stop(), (0, []))

    def test_malformed_messages(self):
        # Without a limit of requests, so that each one is looked at.
        self.start("--request-rate", "0", "--heartbeat-timeout", "3", "--max-streams", "64",
                   "--memory-budget", "256MiB")
        storm = Storm(self)
        storm.send(max(10_000, OPTIONS.messages // 5))
        before_kib = self.settle()
        storm.send(OPTIONS.messages)
        print(f"  {storm.results} results, {storm.errors} errors")
        self.assertGreater(min(storm.results, storm.errors), 0, "this tested nothing")
        self.end(before_kib)

    def test_silence_and_flood(self):
        silent, seconds, most_ms = (200, 3, 500) if OPTIONS.quick else (1000, 10, 50)
        most_files = silent + 256
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, most_files), max(hard, most_files)))
        self.start()
        connected, times_ms = 0, []
        requests = multiprocessing.Value("Q", 0)
        flooding = multiprocessing.Process(target=flood, daemon=True,
                                           args=(f"tcp://127.0.0.1:{self.broker.port}", requests))
        flooding.start()
        connections = [None] * silent
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            # One that the broker has closed makes room for the next.
            place = len(times_ms) % silent
            if connections[place] is None or self.has_ended(connections[place]):
                connections[place] = socket.create_connection(("127.0.0.1", self.broker.port))
                connected += 1
            asked = time.monotonic()
            self.client.call("SendHeartbeat", "well/behaved")
            times_ms.append(1000 * (time.monotonic() - asked))
        flooding.kill()
        flooding.join()
        for connection in filter(None, connections):
            connection.close()
        p99_ms = statistics.quantiles(times_ms, n=100)[98]
        print(f"  {connected} silent connections, {requests.value} requests of the flood; "
              f"{len(times_ms)} heartbeats answered, p50 {statistics.median(times_ms):.2f} ms, "
              f"p99 {p99_ms:.2f} ms, max {max(times_ms):.2f} ms")
        self.assertGreater(requests.value, len(times_ms), "this flooded nothing")
        self.assertLessEqual(p99_ms, most_ms)
        self.end()

    @staticmethod
    def has_ended(connection):
        """Takes what has come. Whether the broker has closed the connection."""
        try:
            while connection.recv(4096, socket.MSG_DONTWAIT):
                pass
        except BlockingIOError:
            return False
        except ConnectionError:
            pass
        connection.close()
        return True

    def test_registrations(self):
        self.start("--request-rate", "0")
        call = self.client.call

        def turn():
            other = f"subscriber-{uuid.uuid4()}"
            self.assertEqual(self.register(self.client, "turn"), 1)
            self.assertEqual(call("AddSubscriber", other, "turn", "", 250, 10), 1)
            self.assertEqual(call("RemoveSubscriber", "turn", other), 1)
            self.assertEqual(call("RemovePublisher", "turn"), 1)
            call("SendHeartbeat", "well/behaved")

        for _ in range(500):
            turn()
        before_kib = self.settle()
        for _ in range(2000 if OPTIONS.quick else 100_000):
            turn()
        self.end(before_kib)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("broker", help="the program")
    parser.add_argument("--messages", type=int, default=1_000_000, help="malformed ones")
    parser.add_argument("--quick", action="store_true", help="a twentieth of everything")
    parser.add_argument("--seed", type=int, default=random.randrange(2**32))
    # What the broker's heap may keep for itself: fragments, and queues and tables that have grown
    # to what was in them at once. A leak of 20 bytes with every one of a million messages, or of
    # 170 with every one of 100,000 registrations, goes beyond it.
    parser.add_argument("--growth", type=int, default=16, help="MiB that the broker may grow by")
    OPTIONS = parser.parse_args()
    if OPTIONS.quick:
        OPTIONS.messages //= 20
    print(f"seed {OPTIONS.seed}", flush=True)
    unittest.main(argv=sys.argv[:1], verbosity=2)

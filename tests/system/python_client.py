"""A client that knows nothing but docs/protocol.md: pyzmq and msgpack against a real broker."""

import os
import socket
import sys
import time
import unittest
import uuid

import msgpack
import zmq

from broker_process import BrokerProcess
from wire_client import (PATH, PATIENCE_MS, RemoteError, WireClient, exchange_greetings,
                         introduction, new_identity, transport_frame)

BROKER_PROGRAM = sys.argv.pop()
NEW_DATA, PUB_REG, PUB_UNREG, SHM_DEL = range(4)


class Topic:
    def __init__(self, context, port, stream):
        self.stream = stream
        self.frame = f"/{stream}".encode() + b"\0"
        self.socket = context.socket(zmq.SUB)
        self.socket.linger = 0
        self.socket.rcvtimeo = PATIENCE_MS
        self.socket.subscribe(self.frame)
        self.socket.connect(f"tcp://127.0.0.1:{port}")

    def next_type(self):
        frames = self.socket.recv_multipart()
        kind, stream, event = msgpack.unpackb(frames[1])[:3]
        assert frames[0] == self.frame, frames[0]
        assert stream == self.stream and event in (0, 1), (stream, event)
        return kind

    def await_type(self, wanted):
        """The types that came up to the first of the wanted one."""
        seen = []
        while not seen or seen[-1] != wanted:
            seen.append(self.next_type())
        return seen


class WireContract(unittest.TestCase):
    def setUp(self):
        self.broker = BrokerProcess(BROKER_PROGRAM)
        self.addCleanup(self.broker.stop)
        self.context = zmq.Context()
        self.addCleanup(self.context.destroy, linger=0)
        self.client = self.connect()

    def connect(self, identity=None):
        client = WireClient(self.context, f"tcp://127.0.0.1:{self.broker.port}", identity)
        self.addCleanup(client.socket.close)
        return client

    def listen(self, port, stream):
        topic = Topic(self.context, port, stream)
        self.addCleanup(topic.socket.close)
        return topic

    @staticmethod
    def add_publisher(stream, client, key=""):
        return client.call("AddPublisher", stream, 250, 10, 100, 4, False, key)

    def test_a_subscriber_hears_what_happens_to_its_stream_only(self):
        call = self.client.call
        publisher = self.connect(new_identity())
        self.assertEqual(self.add_publisher("py/b", publisher), 1)
        self.assertEqual(call("AddSubscriber", str(uuid.uuid4()), "py/b", "", 250, 10), 1)
        port = call("GetNotificationPort", "py/b")
        topic = self.listen(port, "py/b")
        shorter = self.listen(port, "py")

        # Nothing tells when a subscription has come through, so news are sent until one arrives.
        deadline = time.monotonic() + PATIENCE_MS / 1000
        while not topic.socket.poll(20) and time.monotonic() < deadline:
            publisher.notify("NotifyNewData", "py/b")
        self.assertEqual(topic.next_type(), NEW_DATA)

        self.assertEqual(publisher.call("RemovePublisher", "py/b"), 1)
        self.assertLessEqual(set(topic.await_type(PUB_UNREG)), {NEW_DATA, PUB_UNREG})
        self.assertEqual(self.add_publisher("py/b", publisher), 1)
        self.assertEqual(topic.await_type(PUB_REG)[-1], PUB_REG)
        self.assertEqual(publisher.call("RemovePublisher", "py/b"), 1)
        self.assertEqual(topic.await_type(SHM_DEL)[-2:], [PUB_UNREG, SHM_DEL])
        self.assertEqual(shorter.socket.poll(0), 0)

    def test_a_registration_belongs_to_its_process_and_to_who_has_the_key(self):
        owner, other = self.connect(new_identity()), self.connect(new_identity())
        self.assertEqual(self.add_publisher("py/f", owner), 1)
        key = owner.call("GetPublisherKey", "py/f")
        for stranger in (other, self.client):
            self.assertEqual(stranger.call("RemovePublisher", "py/f"), -1)
            self.assertEqual(self.add_publisher("py/f", stranger, key="guessed"), -3)
            for method in ("SendHeartbeat", "GetPublisherKey"):
                with self.assertRaisesRegex(RemoteError, "py/f"):
                    stranger.call(method, "py/f")
        with open(self.client.call("GetShmFilePath", "py/f"), "rb") as segment:
            before = os.fstat(segment.fileno()).st_ino
        self.assertEqual(self.add_publisher("py/f", other, key=key), 1)
        self.assertEqual(os.stat(self.client.call("GetShmFilePath", "py/f")).st_ino, before)
        self.assertEqual(other.call("RemovePublisher", "py/f"), 1)

    def test_who_claims_to_be_somebody_else_is_not(self):
        user = os.geteuid()
        broker = BrokerProcess(BROKER_PROGRAM, "--access-rules", f"allow publish * to user:{user}")
        self.addCleanup(broker.stop)
        requests = ([0, 1, "AddPublisher", ["py/g", 250, 10, 100, 4, False, ""]],
                    [0, 2, "GetRefusalReason", ["py/g"]])
        with socket.create_connection(("127.0.0.1", broker.port), PATIENCE_MS / 1000) as peer:
            exchange_greetings(peer)
            # Here anybody can put anything.
            peer.sendall(introduction(b"DEALER", Peer_Address=b"localhost:%d:0:1" % user,
                                      User_Id=b"k" * 40))
            for request in requests:
                peer.sendall(transport_frame(1, PATH) + transport_frame(0, msgpack.packb(request)))
            heard = b""
            while b"has no right" not in heard:
                heard += peer.recv(4096) or self.fail(f"the connection was ended after {heard}")
        self.assertIn(b"an anonymous peer of this host has no right", heard)

    def test_wrong_requests_get_an_error_or_nothing_and_the_next_one_an_answer(self):
        for method, params in (("AddPublisher", ("py/d",)), ("GetMaxBufferSize", (2**40,))):
            self.assertRaises(RemoteError, self.client.call, method, *params)
        for message in (b"", b"\xc1", b"\xdd\xff\xff\xff\xff", msgpack.packb([0, 1]),
                        msgpack.packb([7, 1, "IsStreamIdFree", ["x"]]),
                        msgpack.packb([0, 2**32, "IsStreamIdFree", ["x"]]),
                        b"\x94\x00\x01\xa3Say\xdd\xff\xff\xff\xff", b"\x91" * 20_000 + b"\xc0"):
            self.client.send_raw(PATH, message)
        self.client.send_raw(PATH)
        self.client.send_raw(b"", PATH, msgpack.packb([0, 1, "IsStreamIdFree", ["x"]]))
        # This one costs its sender the connection, and nobody else anything.
        self.connect().send_raw(PATH, b"\xc4" * 70_000)
        self.assertTrue(self.client.call("IsStreamIdFree", "py/d"))


if __name__ == "__main__":
    unittest.main(verbosity=2)

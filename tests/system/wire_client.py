"""A client of a broker that knows nothing but docs/protocol.md: pyzmq and msgpack."""

import uuid

import msgpack
import zmq

PATH = b"/broker/Broker1"
PATIENCE_MS = 10_000


class RemoteError(Exception):
    pass


def new_identity():
    """The routing id of a connection of a process of its own."""
    return uuid.uuid4().bytes.replace(b"\0", b"\1") + b"\0\0\0\1"


class WireClient:
    def __init__(self, context, endpoint, identity=None):
        self.socket = context.socket(zmq.DEALER)
        self.socket.linger = 0
        self.socket.rcvtimeo = self.socket.sndtimeo = PATIENCE_MS
        if identity is not None:
            self.socket.routing_id = identity
        self.socket.connect(endpoint)
        self.last_id = 0

    def ask(self, method, *params):
        """Sends a request. Returns its id."""
        self.last_id += 1
        self.send_raw(PATH, msgpack.packb([0, self.last_id, method, list(params)]))
        return self.last_id

    def call(self, method, *params):
        return self.receive(self.ask(method, *params))

    def receive(self, message_id):
        path, message = self.socket.recv_multipart()
        kind, answered, error, result = msgpack.unpackb(message)
        assert (path, kind, answered) == (PATH, 1, message_id), (path, message)
        if error is not None:
            raise RemoteError(error)
        return result

    def notify(self, method, *params):
        self.send_raw(PATH, msgpack.packb([2, method, list(params)]))

    def send_raw(self, *frames):
        self.socket.send_multipart(frames)


def transport_frame(flags, body):
    """One of the transport's own frames. flags: 1, more follow; 4, a command."""
    if len(body) > 255:
        return bytes([flags | 2]) + len(body).to_bytes(8, "big") + body
    return bytes([flags, len(body)]) + body


GREETING = b"\xff\0\0\0\0\0\0\0\1\x7f\3\0NULL".ljust(64, b"\0")


def exchange_greetings(connection):
    """What comes before the introduction. Whoever sends more along with it is cut off."""
    connection.sendall(GREETING)
    left = len(GREETING)
    while left > 0:
        received = connection.recv(left)
        if not received:
            raise ConnectionResetError("the connection was ended after the greeting")
        left -= len(received)


def introduction(socket_type, **claims):
    """What a client sends before its first message."""
    ready = b"\5READY"
    for name, value in {"Socket_Type": socket_type, **claims}.items():
        name = name.replace("_", "-").encode()
        ready += bytes([len(name)]) + name + len(value).to_bytes(4, "big") + value
    return transport_frame(4, ready)

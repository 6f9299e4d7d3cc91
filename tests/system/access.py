"""Who may do what, with real users: rules by user and group, stream files for a group, keys over TCP.
Runs as root, in a mount namespace with users of its own."""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

import zmq

from broker_process import PATIENCE_S, start_program
from lines import LineReader
from wire_client import WireClient

IN_NAMESPACE = "KVO_TEST_IN_MOUNT_NAMESPACE"
SKIPPED = 77  # ctest's SKIP_RETURN_CODE
REFUSED, UNREACHABLE, FAILURE = 5, 4, 1
USERS = {"kvo": 4000, "alice": 4001, "bob": 4002, "carol": 4003}
CAMERA = 4500  # alice and bob are in this group, and the broker

if os.geteuid() != 0:
    print("skipped: only root can run programs as other users")
    sys.exit(SKIPPED)
if IN_NAMESPACE not in os.environ:
    os.execvpe("unshare", ["unshare", "--mount", sys.executable, *sys.argv],
               dict(os.environ, **{IN_NAMESPACE: "1"}))

BROKER_PROGRAM = sys.argv.pop()
KVO_PROGRAM = sys.argv.pop()


def bind(source, target):
    subprocess.run(["mount", "--bind", source, target], check=True)


class Access(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.place = tempfile.mkdtemp(prefix="kvo-test-")
        os.chmod(cls.place, 0o755)
        cls.addClassCleanup(shutil.rmtree, cls.place)
        for name, lines in (
                ("passwd", [f"{user}:x:{number}:{number}::/nonexistent:/bin/false"
                            for user, number in USERS.items()]),
                ("group", [f"{user}:x:{number}:" for user, number in USERS.items()]
                 + [f"camera:x:{CAMERA}:alice,bob,kvo"])):
            path = os.path.join(cls.place, name)
            with open(f"/etc/{name}", encoding="utf-8") as known:
                kept = [line for line in known.read().splitlines()
                        if line.split(":")[0] not in (*USERS, "camera")]
            with open(path, "w", encoding="utf-8") as file:
                file.write("\n".join(kept + lines) + "\n")
            bind(path, f"/etc/{name}")
            cls.addClassCleanup(subprocess.run, ["umount", "--lazy", f"/etc/{name}"], check=True)
        # The others may not be able to look into the place of the build.
        build = os.path.dirname(os.path.dirname(BROKER_PROGRAM))
        cls.programs = os.path.join(cls.place, "build")
        for part in ("bin", "lib"):
            os.makedirs(os.path.join(cls.programs, part))
            bind(os.path.join(build, part), os.path.join(cls.programs, part))
            cls.addClassCleanup(subprocess.run,
                                ["umount", "--lazy", os.path.join(cls.programs, part)], check=True)

    def setUp(self):
        self.runtime = os.path.join(self.place, "run")
        self.streams = tempfile.mkdtemp(prefix="kvo-test-", dir="/dev/shm")
        os.makedirs(self.runtime)
        self.addCleanup(shutil.rmtree, self.streams)
        self.addCleanup(shutil.rmtree, self.runtime)
        for path in (self.runtime, self.streams):
            os.chown(path, USERS["kvo"], USERS["kvo"])
            os.chmod(path, 0o755)
        self.environment = {
            "PATH": os.environ["PATH"], "KVO_RUNTIME_DIRECTORY": self.runtime,
            "LD_LIBRARY_PATH": os.path.join(self.programs, "lib")}
        self.configuration = os.path.join(self.place, "broker.toml")

    def start(self, user, program, *arguments):
        number = USERS[user]
        groups = f"{number},{CAMERA}" if user != "carol" else str(number)
        return start_program(
            self, "setpriv", f"--reuid={number}", f"--regid={number}", f"--groups={groups}",
            os.path.join(self.programs, "bin", os.path.basename(program)), *arguments,
            environment=self.environment)

    def configure(self, *rules):
        with open(self.configuration, "w", encoding="utf-8") as file:
            file.write("port = 0\nfile-mode = \"0660\"\nfile-group = \"camera\"\naccess-rules = [\n"
                       + "".join(f"  \"{rule}\",\n" for rule in rules) + "]\n")

    def start_broker(self, *rules, options=()):
        self.configure(*rules)
        self.broker = self.start("kvo", BROKER_PROGRAM, "--config", self.configuration,
                                 "--directory", os.path.join(self.streams, "of-the-broker"),
                                 "--runtime-directory", self.runtime, *options)
        self.log = LineReader(self.broker.stderr)
        uri = LineReader(self.broker.stdout).next(PATIENCE_S).rsplit(" ", 1)[1]
        self.environment["KVO_BROKER"] = uri
        self.port = int(uri.rsplit(":", 1)[1])

    def rules_change(self, *rules):
        self.configure(*rules)
        self.broker.send_signal(signal.SIGHUP)
        self.log.await_text("configuration read again", PATIENCE_S)

    def assert_ends(self, process, code, *parts):
        _, diagnostics = process.communicate(timeout=PATIENCE_S)
        self.assertEqual(process.returncode, code, diagnostics)
        for part in parts:
            self.assertIn(part, diagnostics.decode())

    def publisher(self, user, stream):
        return self.start(user, KVO_PROGRAM, "pub", stream, "--lines", "--wait-subscribers", "1")

    def subscriber(self, user, stream):
        return self.start(user, KVO_PROGRAM, "sub", stream, "--lines", "--count", "1",
                          "--timeout", str(PATIENCE_S))

    def send_through(self, writing, reading, stream):
        publisher = self.publisher(writing, stream)
        subscriber = self.subscriber(reading, stream)
        publisher.stdin.write(b"hello\n")
        publisher.stdin.flush()
        output, diagnostics = subscriber.communicate(timeout=PATIENCE_S)
        self.assertEqual(output, b"hello\n", diagnostics)
        return publisher

    def keys(self, user):
        """A new secret file of the user, and its public key."""
        path = os.path.join(self.keys_directory, f"{user}-{len(os.listdir(self.keys_directory))}")
        process = self.start(user, KVO_PROGRAM, "keys", path)
        public, diagnostics = process.communicate(timeout=PATIENCE_S)
        self.assertEqual(process.returncode, 0, diagnostics)
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o600)
        return path, public.decode().strip()

    def use_keys(self, path, server_key):
        """From now on clients come over TCP with this key, or without one."""
        properties = os.path.join(self.place, "properties")
        with open(properties, "w", encoding="utf-8") as file:
            if path is not None:
                file.write(f"secret-key-file = {path}\nserver-key = {server_key}\n")
        self.environment["KVO_MIDDLEWARE_PROPERTIES"] = properties
        self.environment["KVO_RUNTIME_DIRECTORY"] = self.keys_directory

    def ask_as_root(self, method, *params):
        with zmq.Context() as context:
            client = WireClient(context, f"ipc://{self.runtime}/{self.port}.sock")
            with client.socket:
                return client.call(method, *params)

    def test_users_of_a_group_share_streams_and_others_learn_why_they_do_not(self):
        self.start_broker("allow publish /camera/* to user:alice",
                          "allow subscribe /camera/* to group:camera",
                          "allow subscribe /camera/* to user:carol")
        alice = self.send_through("alice", "bob", "/camera/a")
        self.assert_ends(self.publisher("bob", "/camera/b"), REFUSED,
                         'user bob (4002) has no right to publish "/camera/b"')
        # The rules let her, the files do not.
        carol = self.subscriber("carol", "/camera/a")
        self.assert_ends(carol, FAILURE, "Permission denied", "/of-the-broker", "group camera")

        self.rules_change("allow publish /camera/* to user:bob",
                          "allow subscribe * to group:camera", "allow admin /camera/* to user:0")
        self.assert_ends(self.publisher("alice", "/camera/b"), REFUSED, "user alice (4001)")
        self.send_through("bob", "alice", "/camera/b")
        self.assertIsNone(alice.poll())
        self.assert_ends(self.start("bob", KVO_PROGRAM, "end", "/camera/a"), REFUSED,
                         'user bob (4002) has no right to administer "/camera/a"')
        self.assertEqual(self.ask_as_root("RemovePublisher", "/camera/a"), -1)
        self.assertEqual(self.ask_as_root("EndStream", "/camera/a"), 1)
        self.log.await_text('"/camera/a": publisher unregistered, by user root (0)', PATIENCE_S)

    def come_without_key(self, told):
        """Until the broker tells of it: a client that has seen what the server asks for may leave
        before it has said that it does not use that."""
        for _ in range(10):
            self.assert_ends(self.start("bob", KVO_PROGRAM, "ls"), UNREACHABLE,
                             "the server asks for CURVE", "KVO_MIDDLEWARE_PROPERTIES")
            try:
                return self.log.await_text(told, PATIENCE_S / 10)
            except AssertionError as nothing:
                fault = nothing
        raise fault

    def test_over_tcp_only_keys_that_are_allowed_get_in(self):
        self.keys_directory = tempfile.mkdtemp(prefix="keys-", dir=self.place)
        os.chmod(self.keys_directory, 0o1777)
        own_file, own_key = self.keys("kvo")
        (alice_file, alice_key), (bob_file, bob_key) = self.keys("alice"), self.keys("bob")
        allowed = os.path.join(self.place, "allowed")

        def allow(*lines):
            with open(allowed, "w", encoding="utf-8") as file:
                file.write("# who may come\n" + "".join(f"{line}\n" for line in lines))

        allow(f"alice {alice_key}")
        secured = ("--secret-key-file", own_file, "--allowed-keys-file", allowed)
        self.assert_ends(self.start("kvo", BROKER_PROGRAM, "--port", "0", *secured[:2]), FAILURE,
                         "allowed-keys-file")
        self.assert_ends(self.start("kvo", BROKER_PROGRAM, "--port", "0", "--address", "0.0.0.0"),
                         FAILURE, "address 0.0.0.0", "secret-key-file", "allow-plaintext")

        rules = (f"allow publish /camera/* to key:{alice_key}", "allow subscribe * to anyone")
        self.start_broker(*rules, options=(*secured, "--address", "0.0.0.0"))
        self.environment["KVO_BROKER"] = f"wkp.rr://127.0.0.1:{self.port}"
        self.assertEqual(os.stat(f"/proc/{self.broker.pid}/mem").st_uid, 0, "the key could be dumped")
        # The Unix socket asks for none.
        self.assert_ends(self.start("bob", KVO_PROGRAM, "ls"), 0)
        self.use_keys(None, None)
        self.come_without_key("refused at wkp.rr://0.0.0.0:0/broker/Broker1: it does not use CURVE")
        self.use_keys(bob_file, own_key)
        self.assert_ends(self.start("bob", KVO_PROGRAM, "ls"), UNREACHABLE,
                         "does not allow the public key", bob_key)
        self.log.await_text(f"peer 127.0.0.1 refused: its public key {bob_key} is not allowed",
                            PATIENCE_S)
        self.use_keys(alice_file, own_key)
        publisher = self.send_through("alice", "alice", "/camera/a")
        self.assert_ends(self.publisher("alice", "/other"), REFUSED,
                         f"key alice ({alice_key}) has no right to publish")

        # Whoever leaves the list keeps the connection, but no right.
        allow(f"bob {bob_key}")
        self.rules_change(*rules)
        self.assert_ends(self.start("alice", KVO_PROGRAM, "ls"), UNREACHABLE, alice_key)
        self.use_keys(bob_file, own_key)
        self.assert_ends(self.start("bob", KVO_PROGRAM, "ls"), 0)
        self.assertIsNone(publisher.poll())


if __name__ == "__main__":
    unittest.main(verbosity=2)

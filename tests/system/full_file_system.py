"""Streams on a small file system that fills up: what has been promised room keeps it, what finds
none is refused, and nobody is ended by SIGBUS. Runs in a mount namespace of its own."""

import os
import re
import subprocess
import sys
import tempfile
import unittest

from broker_process import PATIENCE_S, BrokerProcess, start_program

IN_NAMESPACE = "KVO_TEST_IN_MOUNT_NAMESPACE"
MIB = 1 << 20
FILE_SYSTEM_BYTES = 16 * MIB
REFUSED = 5
LINES = 3000  # more than any stream here has slots, so that every byte of its file is written

if IN_NAMESPACE not in os.environ:
    mapping = [] if os.geteuid() == 0 else ["--map-root-user"]
    os.execvpe("unshare", ["unshare", "--mount", *mapping, sys.executable, *sys.argv],
               dict(os.environ, **{IN_NAMESPACE: "1"}))

BROKER_PROGRAM = sys.argv.pop()
KVO_PROGRAM = sys.argv.pop()


class FullFileSystem(unittest.TestCase):
    def setUp(self):
        place = tempfile.mkdtemp(prefix="kvo-test-")
        self.addCleanup(os.rmdir, place)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={FILE_SYSTEM_BYTES}", "tmpfs", place],
                       check=True)
        self.addCleanup(subprocess.run, ["umount", "--lazy", place], check=True)
        self.place = place
        self.broker = BrokerProcess(BROKER_PROGRAM, "--memory-budget", "1GiB", parent=place)
        self.addCleanup(self.broker.stop)

    def kvo(self, *arguments):
        return start_program(self, KVO_PROGRAM, *arguments,
                             environment=dict(os.environ, KVO_BROKER=self.broker.uri))

    def publisher(self, stream):
        return self.kvo("pub", stream, "--lines", "--max-size", "1000", "--pace",
                        "--wait-subscribers", "1")

    def send_through(self, stream, publisher):
        """Every sample of a stream that has been promised its room."""
        reader = self.kvo("sub", stream, "--lines", "--count", str(LINES), "--timeout",
                          str(PATIENCE_S))
        sent = b"".join(b"%d\n" % number for number in range(LINES))
        publisher.stdin.write(sent)
        publisher.stdin.flush()
        received, diagnostics = reader.communicate(timeout=2 * PATIENCE_S)
        self.assertEqual(reader.returncode, 0, diagnostics)
        self.assertEqual(received, sent)

    def assert_refused(self, stream, *arguments):
        before = self.broker.files()
        process = self.kvo("pub", stream, *arguments)
        _, diagnostics = process.communicate(timeout=PATIENCE_S)
        self.assertEqual(process.returncode, REFUSED, diagnostics)
        self.assertRegex(diagnostics.decode(), f"'{stream}'.*would fit")
        self.assertEqual(self.broker.files(), before)

    def test_streams_with_room_work_and_others_are_refused(self):
        self.assert_refused("larger", "--chunk", "1MiB", "--samples", "64")
        publishers = {}
        while True:
            stream = f"s{len(publishers)}"
            process = self.publisher(stream)
            if not self.registered(stream, process):
                break
            publishers[stream] = process
        self.assertGreater(len(publishers), 2)
        self.assert_refused("late", "--lines", "--max-size", "1000")

        # Somebody else takes the rest.
        rest = os.statvfs(self.place).f_bavail * os.statvfs(self.place).f_frsize
        with open(os.path.join(self.place, "foreign"), "wb") as file:
            os.posix_fallocate(file.fileno(), 0, rest)
        self.assertEqual(os.statvfs(self.place).f_bavail, 0)
        self.assert_refused("none", "--lines", "--max-size", "1", "--samples", "1")
        for stream, publisher in publishers.items():
            self.send_through(stream, publisher)
        for name in self.broker.files():
            if re.fullmatch("[0-9a-f]{32}-.*", name):
                check = self.kvo("shm", "check", os.path.join(self.broker.directory, name))
                output, diagnostics = check.communicate(timeout=PATIENCE_S)
                self.assertEqual(check.returncode, 0, output + diagnostics)

    def registered(self, stream, publisher):
        """Waits until the publisher has its stream or has ended."""
        while publisher.poll() is None:
            listing, _ = self.kvo("ls").communicate(timeout=PATIENCE_S)
            if stream in listing.decode().split("\n"):
                return True
        return False


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""The broker as a program: its options, and what it says when it cannot serve."""

import os
import socket
import subprocess
import sys
import tempfile
import unittest

from broker_process import PATIENCE_S, BrokerProcess

BROKER_PROGRAM = sys.argv.pop()


class KvoBroker(unittest.TestCase):
    def run_broker(self, *arguments):
        result = subprocess.run([BROKER_PROGRAM, *arguments], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, timeout=PATIENCE_S, check=False)
        return result.returncode, result.stdout.decode(), result.stderr.decode()

    def test_help_and_version(self):
        for argument, expected in (("--help", "--port"), ("--version", "kvo-broker ")):
            code, output, diagnostics = self.run_broker(argument)
            self.assertEqual((code, diagnostics), (0, ""))
            self.assertIn(expected, output)

    def test_what_cannot_be_served_is_named(self):
        other = BrokerProcess(BROKER_PROGRAM)
        self.addCleanup(other.stop)
        with socket.create_server(("127.0.0.1", 0)) as taken, \
                tempfile.TemporaryDirectory(prefix="kvo-test-", dir="/dev/shm") as directory:
            port = str(taken.getsockname()[1])
            own = ("--directory", directory)
            table = (
                (1, ("--port", port, *own), (port, "in use")),
                (1, ("--port", "0", "--notification-port", port, *own), (port, "in use")),
                (1, ("--port", "0", "--directory", other.directory), (other.directory,)),
                (1, ("--port", "0", "--directory", "/nonexistent/place"),
                 ("/nonexistent/place", "No such file")),
                (1, ("--port", "0", "--address", "no.such.address.invalid", *own),
                 ("no.such.address.invalid",)),
                (2, ("--port", "70000"), ("--port",)),
                (2, ("--port", "-1"), ("--port",)),
                (2, ("--heartbeat-timeout", "2"), ("--heartbeat-timeout",)),
                (2, ("--frobnicate",), ("--frobnicate",)),
            )
            for code, arguments, parts in table:
                with self.subTest(arguments=arguments):
                    result, output, diagnostics = self.run_broker(*arguments)
                    self.assertEqual(result, code, diagnostics)
                    self.assertEqual(output, "")
                    for part in parts:
                        self.assertIn(part, diagnostics)
                    self.assertEqual(os.listdir(directory) if os.path.isdir(directory) else [], [])


if __name__ == "__main__":
    unittest.main(verbosity=2)

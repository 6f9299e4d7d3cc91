"""The broker as a program: its options, and what it says when it cannot serve."""

import os
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

from broker_process import PATIENCE_S, BrokerProcess, start_program
from lines import LineReader

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
                tempfile.TemporaryDirectory(prefix="kvo-test-", dir="/dev/shm") as directory, \
                tempfile.TemporaryDirectory(prefix="kvo-test-", dir="/dev/shm") as public:
            port = str(taken.getsockname()[1])
            os.chmod(public, 0o777)
            own = ("--directory", directory)
            table = (
                (1, ("--port", port, *own), (port, "in use")),
                (1, ("--port", "0", "--notification-port", port, *own), (port, "in use")),
                (1, ("--port", "0", "--directory", other.directory),
                 (other.directory, f"process {other.pid}")),
                (1, ("--port", str(other.port), *own),
                 (f"process {other.pid}", other.directory)),
                (1, ("--port", "0", "--http-port", port, *own), (f"127.0.0.1:{port}",)),
                (1, ("--port", "0", "--directory", public), (public, "all users")),
                (1, ("--port", "0", "--directory", "/nonexistent/place"),
                 ("/nonexistent/place", "No such file")),
                (1, ("--port", "0", "--address", "no.such.address.invalid", *own),
                 ("no.such.address.invalid",)),
                (2, ("--port", "70000"), ("--port",)),
                (2, ("--frobnicate",), ("--frobnicate",)),
            )
            for code, arguments, parts in table:
                with self.subTest(arguments=arguments):
                    result, output, diagnostics = self.run_broker(*arguments)
                    self.assertEqual(result, code, diagnostics)
                    self.assertEqual(output, "")
                    for part in parts:
                        self.assertIn(part, diagnostics)
                    for place in (directory, public):
                        self.assertEqual(os.listdir(place) if os.path.isdir(place) else [], [])

    def test_signals_reload_and_drain(self):
        with tempfile.TemporaryDirectory(prefix="kvo-test-", dir="/dev/shm") as place:
            path = os.path.join(place, "broker.toml")

            def write(text):
                with open(path, "w", encoding="utf-8") as file:
                    file.write(text)

            write("port = 0\nmax-streams = 5\n")
            self.assertEqual(self.run_broker("--config", path, "--check-config"),
                             (0, f"{path}: good\n", ""))
            broker = start_program(self, BROKER_PROGRAM, "--config", path, "--directory",
                                   os.path.join(place, "streams"), environment=None)
            log = LineReader(broker.stderr)
            log.await_text("listening at", PATIENCE_S)
            LineReader(broker.stdout).next(PATIENCE_S)
            for text, answer in (("port = 0\nmax-streams = 0\n", f"{path}:2:15: max-streams"),
                                 ("port = 7777\n", "port changes with the next start only"),
                                 ("port = 0\n", "configuration read again")):
                write(text)
                broker.send_signal(signal.SIGHUP)
                log.await_text(answer, PATIENCE_S)
            write("prot = 0\n")
            code, _, diagnostics = self.run_broker("--config", path, "--check-config")
            self.assertEqual((code, diagnostics),
                             (2, f'kvo-broker: {path}:1:1: unknown key "prot"\n'))
            broker.send_signal(signal.SIGUSR2)
            self.assertEqual(broker.wait(PATIENCE_S), 0)
            self.assertEqual(os.listdir(place), ["broker.toml"])


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""The kvo command as a user meets it: what it prints where, and with which exit code it ends."""

import json
import os
import signal
import socket
import sys
import tempfile
import time
import unittest

from broker_process import PATIENCE_S, BrokerProcess, start_program
from lines import LineReader

BROKER_PROGRAM = sys.argv.pop()
KVO_PROGRAM = sys.argv.pop()


def unused_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class KvoTool(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.broker = BrokerProcess(BROKER_PROGRAM)

    @classmethod
    def tearDownClass(cls):
        code, left = cls.broker.stop()
        if code != 0 or left:
            raise AssertionError(f"the broker ended with {code} and left {left}")

    def start(self, *arguments, broker=None):
        environment = dict(os.environ, KVO_BROKER=broker or self.broker.uri)
        return start_program(self, KVO_PROGRAM, *arguments, environment=environment)

    def run_kvo(self, *arguments, broker=None, data=b""):
        process = self.start(*arguments, broker=broker)
        output, diagnostics = process.communicate(data, timeout=PATIENCE_S)
        return process.returncode, output, diagnostics.decode()

    def await_stream(self, stream, present):
        deadline = time.monotonic() + PATIENCE_S
        while time.monotonic() < deadline:
            code, output, diagnostics = self.run_kvo("ls")
            self.assertEqual(code, 0, diagnostics)
            if (stream in output.decode().split("\n")) == present:
                return
        self.fail(f"stream {stream} is {'not there' if present else 'still there'}")

    def start_publisher(self, stream, *arguments):
        """A publisher that is registered and holds its stream until its input ends."""
        publisher = self.start("pub", stream, "--lines", *arguments)
        self.await_stream(stream, present=True)
        return publisher

    @staticmethod
    def write_line(process, line):
        process.stdin.write(line.encode() + b"\n")
        process.stdin.flush()

    def test_exit_codes_and_what_the_messages_say(self):
        self.start_publisher("busy")
        nobody = f"wkp.rr://127.0.0.1:{unused_port()}"
        table = (
            (0, ("--help",), None, ()),
            (0, ("pub", "--help"), None, ()),
            (0, ("brokers",), None, ()),
            (2, (), None, ("subcommand",)),
            (2, ("frobnicate",), None, ()),
            (2, ("pub",), None, ("STREAM",)),
            (2, ("pub", "s", "--lines", "--chunk", "5"), None, ("--chunk",)),
            (2, ("pub", "s", "--chunk", "-5"), None, ("--chunk",)),
            (2, ("ls",), "http://127.0.0.1:80", ("names no broker", "wkp.rr://")),
            (2, ("ls",), "no uri at all", ("wkp.rr://",)),
            (2, ("ls",), "wkp.rr://127.0.0.1:5000/wrong", ("names no broker",)),
            (1, ("pub", "s", "/nonexistent/file"), None, ("/nonexistent/file", "No such file")),
            (3, ("stat", "nothing"), None, ("'nothing'", self.broker.uri)),
            (3, ("sub", "nothing"), None, ("'nothing'", "kvo ls")),
            (2, ("end",), None, ("STREAM",)),
            (3, ("end", "nothing"), None, ("'nothing'", "no publisher", self.broker.uri)),
            (3, ("sub", "nothing", "--timeout", "0.2"), None, ("'nothing'",)),
            (3, ("sub", "busy", "--timeout", "0.2"), None, ("no data", "'busy'")),
            (4, ("ls",), nobody, (nobody, "kvo-broker")),
            (4, ("pub", "s"), nobody, (nobody, "kvo-broker")),
            (4, ("sub", "s"), nobody, (nobody, "kvo-broker")),
            (4, ("stat", "s"), nobody, (nobody, "kvo-broker")),
            (5, ("pub", "busy"), None, ("'busy'", "in use")),
            (5, ("pub", "two words"), None, ("'two words'", "no stream name")),
            (5, ("pub", "large", "--chunk", "64MiB", "--samples", "1000000"), None,
             ("'large'", "would fit")),
        )
        for code, arguments, broker, parts in table:
            with self.subTest(arguments=arguments, broker=broker):
                result, output, diagnostics = self.run_kvo(*arguments, broker=broker)
                self.assertEqual(result, code, diagnostics)
                for part in parts:
                    self.assertIn(part, diagnostics)
                if code != 0:
                    self.assertEqual(output, b"")

    def test_a_file_arrives_byte_for_byte(self):
        with tempfile.TemporaryDirectory() as directory:
            source = os.path.join(directory, "source")
            target = os.path.join(directory, "target")
            with open(source, "wb") as file:
                file.write(os.urandom(1_000_003))
            publisher = self.start("pub", "file", source, "--chunk", "4096", "--samples", "8",
                                   "--pace", "--wait-subscribers", "1", "--checksum")
            code, output, diagnostics = self.run_kvo("sub", "file", "--output", target, "--count",
                                                     "245", "--timeout", str(PATIENCE_S))
            self.assertEqual((code, output), (0, b""), diagnostics)
            self.assertIn("245 samples, 1000003 bytes; 0 lost", diagnostics)
            self.assertEqual(publisher.wait(PATIENCE_S), 0)
            with open(source, "rb") as sent, open(target, "rb") as received:
                self.assertEqual(sent.read(), received.read())

    def test_lines_arrive_as_lines_and_the_statistics_tell_of_them(self):
        publisher = self.start_publisher("lines", "--samples", "10")
        publisher.stdin.write(b"one\n\nthree")
        publisher.stdin.flush()
        code, output, _ = self.run_kvo("sub", "lines", "--lines", "--count", "2", "--timeout",
                                       str(PATIENCE_S))
        self.assertEqual((code, output), (0, b"one\n\n"))
        statistics = json.loads(self.run_kvo("stat", "lines", "--json")[1])
        self.assertEqual([statistics[key] for key in ("stream", "publisher", "samples_written",
                                                      "payload_bytes", "dropped_or_lost")],
                         ["lines", "local", 2, 3, 0])
        self.assertTrue(os.path.exists(statistics["stream_file"]))
        self.assertRegex(self.run_kvo("stat", "lines")[1].decode(), r"samples written +2\n")
        publisher.stdin.close()
        self.assertEqual(publisher.wait(PATIENCE_S), 0)
        self.assertIn(b"published 3 samples, 8 bytes", publisher.stderr.read())

    def test_samples_that_were_overwritten_are_counted_as_lost(self):
        publisher = self.start_publisher("fast", "--samples", "4")
        subscriber = self.start("sub", "fast", "--lines", "--count", "5")
        self.write_line(publisher, "0")
        self.assertEqual(subscriber.stdout.readline(), b"0\n")
        os.kill(subscriber.pid, signal.SIGSTOP)
        os.waitpid(subscriber.pid, os.WUNTRACED)
        self.write_line(publisher, "\n".join(map(str, range(1, 101))))
        deadline = time.monotonic() + PATIENCE_S
        while json.loads(self.run_kvo("stat", "fast", "--json")[1])["samples_written"] != 101:
            self.assertLess(time.monotonic(), deadline)
        os.kill(subscriber.pid, signal.SIGCONT)
        output, diagnostics = subscriber.communicate(timeout=PATIENCE_S)
        self.assertEqual(output, b"97\n98\n99\n100\n")
        self.assertIn(b"received 5 samples, 10 bytes; 96 lost", diagnostics)
        publisher.stdin.close()
        self.assertEqual(publisher.wait(PATIENCE_S), 0)

    def test_a_reader_that_leaves_the_pipe_ends_the_subscriber_quietly(self):
        publisher = self.start_publisher("pipe")
        subscriber = self.start("sub", "pipe", "--lines")
        self.write_line(publisher, "x")
        self.assertEqual(subscriber.stdout.readline(), b"x\n")
        subscriber.stdout.close()
        self.assertEqual(subscriber.wait(PATIENCE_S), 0)
        self.assertEqual(subscriber.stderr.read(), b"")

    def test_a_pipe_that_nobody_empties_does_not_keep_the_subscriber_from_ending(self):
        publisher = self.start("pub", "full", "/dev/zero", "--chunk", "256KiB", "--samples", "4",
                               "--rate", "1000")
        subscriber = self.start("sub", "full", "--timeout", str(PATIENCE_S))
        self.assertNotEqual(subscriber.stdout.read(1), b"")
        subscriber.send_signal(signal.SIGTERM)
        self.assertEqual(subscriber.wait(PATIENCE_S), 0)
        publisher.send_signal(signal.SIGTERM)
        self.assertEqual(publisher.wait(PATIENCE_S), 0)

    def test_stream_files_are_shown_and_checked_without_a_broker(self):
        publisher = self.start_publisher("watched", "--wait-subscribers", "1")
        subscriber = self.start("sub", "watched", "--lines")
        self.write_line(publisher, "one")
        self.assertEqual(LineReader(subscriber.stdout).next(PATIENCE_S), "one")
        code, listing, _ = self.run_kvo("shm", "ls", self.broker.directory)
        self.assertEqual(code, 0)
        paths = {stream: path for path, stream, *_ in map(str.split, listing.decode().splitlines())}
        path = paths["watched"]
        code, report, _ = self.run_kvo("shm", "show", path)
        self.assertIn(f"process {publisher.pid}\n", report.decode())
        self.assertIn(f"reader entry 0: process {subscriber.pid}\n", report.decode())
        self.assertEqual(self.run_kvo("shm", "check", path)[:2],
                         (0, f"{path}: sound\n".encode()))
        code, report, _ = self.run_kvo("shm", "check", path, BROKER_PROGRAM)
        self.assertEqual(code, 1)
        self.assertIn(b"no stream file", report)

    def test_both_sides_outlive_the_broker(self):
        broker = BrokerProcess(BROKER_PROGRAM)
        self.addCleanup(broker.stop)
        publisher = self.start("pub", "s", "--lines", "--pace", "--wait-subscribers", "1", "-v",
                               broker=broker.uri)
        subscriber = self.start("sub", "s", "--lines", "-v", "--timeout", str(PATIENCE_S),
                                broker=broker.uri)
        output = LineReader(subscriber.stdout)
        publisher_log = LineReader(publisher.stderr)
        subscriber_log = LineReader(subscriber.stderr)
        self.write_line(publisher, "begin")
        self.assertEqual(output.next(PATIENCE_S), "begin")
        for attempt in range(3):
            broker.kill()
            for log in (publisher_log, subscriber_log):
                log.await_text("Broker connection aborted", 5)
            # Nothing is lost: the publisher holds back what it is given now.
            self.write_line(publisher, f"away {attempt}")
            broker.start_again()
            self.assertEqual(output.next(PATIENCE_S), f"away {attempt}")
            self.write_line(publisher, f"back {attempt}")
            self.assertEqual(output.next(PATIENCE_S), f"back {attempt}")
        publisher.stdin.close()
        self.assertEqual(publisher.wait(PATIENCE_S), 0)
        subscriber.send_signal(signal.SIGTERM)
        self.assertEqual(subscriber.wait(PATIENCE_S), 0)
        self.assertEqual(broker.stop(), (0, []))

    def test_an_administrator_ends_a_stream_of_another_process(self):
        publisher = self.start_publisher("ended")
        subscriber = self.start("sub", "ended", "--lines", "-v")
        log = LineReader(subscriber.stderr)
        self.write_line(publisher, "x")
        self.assertEqual(LineReader(subscriber.stdout).next(PATIENCE_S), "x")
        self.assertEqual(self.run_kvo("end", "ended"), (0, b"", ""))
        self.await_stream("ended", present=False)
        log.await_text("SHM_DEL notification received", PATIENCE_S)
        self.assertIsNone(publisher.poll())

    def test_a_subscriber_outlives_its_publishers(self):
        subscriber = None
        for life in range(3):
            publisher = self.start_publisher("mortal", "--wait-subscribers", "1")
            if subscriber is None:
                subscriber = self.start("sub", "mortal", "--lines", "-v")
                output, log = LineReader(subscriber.stdout), LineReader(subscriber.stderr)
            self.write_line(publisher, f"life {life}")
            self.assertEqual(output.next(PATIENCE_S), f"life {life}")
            # A sample can be there before the notifications are.
            log.await_text("NEW_DATA notification received", PATIENCE_S)
            publisher.kill()
            log.await_text("PUB_UNREG notification received", 5)
            self.await_stream("mortal", present=False)
        log.await_text("SHM_DEL notification received", PATIENCE_S)
        subscriber.send_signal(signal.SIGTERM)
        self.assertEqual(subscriber.wait(PATIENCE_S), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)

#!/usr/bin/python3
"""A whole system: a broker, a publisher and two subscribers, each a process. Every sample must
arrive once, in order, with its bytes, metadata, tag, topic id and time stamp.

Usage: end_to_end.py KVO_BROKER KVO_END_TO_END_PEER [--quick]"""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from broker_process import PATIENCE_S, BrokerProcess, start_program

BROKER_PROGRAM, PEER, *QUICK = sys.argv[1:]
#        payload bytes, samples, samples with --quick
LOADS = [(64, 1_000_000, 100_000), (1 << 20, 2_000, 300)]


class EndToEnd(unittest.TestCase):
    def setUp(self):
        self.broker = BrokerProcess(BROKER_PROGRAM)
        self.addCleanup(self.broker.stop)

    def drive(self, payload_bytes, samples):
        def start(role):
            process = start_program(self, PEER, role, self.broker.uri, f"end-to-end/{payload_bytes}",
                                    str(samples), str(payload_bytes), environment=None)
            self.assertEqual(process.stdout.readline(), b"registered\n")
            return process

        publisher, *subscribers = map(start, ("publisher", "subscriber", "subscriber"))
        publisher.stdin.write(b"go\n")
        publisher.stdin.flush()
        for subscriber in subscribers:
            self.assertEqual(subscriber.stdout.readline(), b"complete\n")
        for process in (publisher, *subscribers):
            _, diagnostics = process.communicate(timeout=2 * PATIENCE_S)
            self.assertEqual(process.returncode, 0, diagnostics)

    def test_every_sample_arrives(self):
        for payload_bytes, samples, quick_samples in LOADS:
            self.drive(payload_bytes, quick_samples if QUICK else samples)
        self.assertEqual(self.broker.stop(), (0, []))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)

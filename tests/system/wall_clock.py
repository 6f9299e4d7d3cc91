"""Nobody is taken for gone when the host's clock is set, forward or back. usage: wall_clock.py
KVO KVO_BROKER, both on a clock of their own that libfaketime moves."""

import glob
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from broker_process import PATIENCE_S, BrokerProcess, start_program
from lines import LineReader

HEARTBEAT_TIMEOUT_S = 3
HOUR_S = 3600


def movable_clock(offset_file):
    libraries = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
    if not libraries:
        raise AssertionError("libfaketime is not installed")
    return dict(os.environ, LD_PRELOAD=libraries[0], FAKETIME_TIMESTAMP_FILE=offset_file,
                FAKETIME_NO_CACHE="1", FAKETIME_DONT_FAKE_MONOTONIC="1",
                FAKETIME_DISABLE_SHM="1")


class WallClock(unittest.TestCase):
    def setUp(self):
        self.offset = tempfile.NamedTemporaryFile("w", suffix=".offset")
        self.addCleanup(self.offset.close)
        self.set_clock(0)
        self.environment = movable_clock(self.offset.name)

    def set_clock(self, offset_s):
        """In one write, so that nobody reads half of it."""
        os.pwrite(self.offset.fileno(), f"{offset_s:+08d}\n".encode(), 0)

    def start(self, broker, *arguments):
        return start_program(self, KVO_PROGRAM, *arguments, "--broker", broker.uri, "--verbose",
                             environment=self.environment)

    def test_an_hour_forward_and_back_ends_nothing(self):
        broker = BrokerProcess(BROKER_PROGRAM, "--heartbeat-timeout", str(HEARTBEAT_TIMEOUT_S),
                               environment=self.environment)
        self.addCleanup(broker.kill)
        publisher = self.start(broker, "pub", "host", "--lines", "--wait-subscribers", "1")
        clock = subprocess.Popen(["sh", "-c", "while sleep 0.05; do date +%s; done"],
                                 stdout=publisher.stdin, env=self.environment)
        self.addCleanup(clock.wait)
        self.addCleanup(clock.kill)
        subscriber = self.start(broker, "sub", "host", "--lines", "--timeout", str(PATIENCE_S))
        samples = LineReader(subscriber.stdout)
        for offset_s in (HOUR_S, -HOUR_S):
            self.set_clock(offset_s)
            # Whoever counts on this clock would now find a time-out over, or wait for an hour.
            until = time.monotonic() + 2 * HEARTBEAT_TIMEOUT_S
            while time.monotonic() < until:
                sample = samples.next(PATIENCE_S)
            self.assertAlmostEqual(int(sample), time.time() + offset_s,
                                   delta=HOUR_S / 4)
        for process in (subscriber, publisher):
            process.send_signal(signal.SIGINT)
            _, diagnostics = process.communicate(timeout=PATIENCE_S)
            said = [line for line in diagnostics.decode().splitlines() if "NEW_DATA" not in line]
            self.assertEqual(process.returncode, 0, said)
            self.assertEqual(sum("HeartbeatThread started" in line for line in said), 1, said)
            for event in ("PUB_UNREG", "SHM_DEL"):
                self.assertFalse(any(event in line for line in said), said)
            if process is subscriber:
                self.assertTrue(said[-1].endswith(" 0 lost") or said[-2].endswith(" 0 lost"), said)
        code, left = broker.stop()
        self.assertEqual((code, left), (0, []))


if __name__ == "__main__":
    KVO_PROGRAM, BROKER_PROGRAM = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1])

#!/usr/bin/python3
"""The whole road: a broker, a publisher and two subscribers, each a process. Every sample must
arrive once, in order, with its bytes, metadata, tag, topic id and time stamp.

Usage: road.py KVO_BROKER KVO_ROAD_PEER [--quick]"""

import pathlib
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from broker_process import BrokerProcess

SUBSCRIBERS = 2
#        payload bytes, samples, samples with --quick
LOADS = [(64, 1_000_000, 100_000), (1 << 20, 2_000, 300)]


def expect_line(process, expected):
    line = process.stdout.readline().rstrip("\n")
    if line != expected:
        raise RuntimeError(f"{process.args[1]} said {line!r} instead of {expected!r}")


def drive(broker, peer, payload_bytes, samples):
    stream = f"road/{payload_bytes}"
    processes = []

    def start(role):
        process = subprocess.Popen(
            [peer, role, broker.uri, stream, str(samples), str(payload_bytes)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        processes.append(process)
        expect_line(process, "registered")
        return process

    try:
        publisher = start("publisher")
        subscribers = [start("subscriber") for _ in range(SUBSCRIBERS)]
        begin = time.monotonic()
        publisher.stdin.write("go\n")
        publisher.stdin.flush()
        for subscriber in subscribers:
            expect_line(subscriber, "complete")
        seconds = time.monotonic() - begin
        for process in processes:
            if process.wait(timeout=60) != 0:
                raise RuntimeError(f"{process.args[1]} ended with {process.returncode}")
        print(f"{samples} samples of {payload_bytes} bytes to {SUBSCRIBERS} subscribers: "
              f"{seconds:.1f} s, all there", flush=True)
    finally:
        for process in processes:
            process.kill()
            process.wait()
            process.stdin.close()
            process.stdout.close()


def main(broker_program, peer, quick):
    broker = BrokerProcess(broker_program)
    try:
        for payload_bytes, samples, quick_samples in LOADS:
            drive(broker, peer, payload_bytes, quick_samples if quick else samples)
    finally:
        code, left = broker.stop()
    if code != 0 or left:
        raise RuntimeError(f"the broker ended with {code} and left {left}")


if __name__ == "__main__":
    arguments = [argument for argument in sys.argv[1:] if argument != "--quick"]
    if len(arguments) != 2:
        sys.exit(__doc__)
    main(*arguments, quick="--quick" in sys.argv)

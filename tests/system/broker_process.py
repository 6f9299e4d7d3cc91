"""A kvo-broker of one's own on a free port, with its stream files in a directory of its own."""

import contextlib
import os
import shutil
import signal
import subprocess
import tempfile

from lines import LineReader

PATIENCE_S = 30


def start_program(test, *command, environment):
    """A process with pipes that ends with the test at the latest."""
    process = subprocess.Popen(command, env=environment, stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def end():
        if process.poll() is None:
            process.kill()
        process.wait()
        for stream in (process.stdin, process.stdout, process.stderr):
            with contextlib.suppress(BrokenPipeError, ValueError):  # what it has not taken
                stream.close()

    test.addCleanup(end)
    return process


class BrokerProcess:
    ANNOUNCEMENT = "kvo-broker: listening at "

    def __init__(self, program, *options, parent="/dev/shm", environment=None):
        self.directory = tempfile.mkdtemp(prefix="kvo-test-", dir=parent)
        # As tests/support/local_topics.h.
        local_topics = os.environ.get("KVO_TEST_LOCAL_TOPICS")
        if local_topics is not None:
            options = (*options, "--local-topics", local_topics)
        self._command = [program, *options, "--directory", self.directory]
        self._environment = environment
        self.port = 0
        self._start()

    def _start(self):
        self._process = subprocess.Popen(
            [*self._command, "--port", str(self.port)], stdout=subprocess.PIPE,
            env=self._environment)
        try:
            line = LineReader(self._process.stdout).next(PATIENCE_S)
            if not line.startswith(self.ANNOUNCEMENT):
                raise AssertionError(f"the broker said {line!r} instead of its address")
        except AssertionError:
            self.kill()
            raise
        self.uri = line[len(self.ANNOUNCEMENT):]
        self.port = int(self.uri.rsplit(":", 1)[1])

    @property
    def pid(self):
        return self._process.pid

    def files(self):
        return sorted(name for _, _, names in os.walk(self.directory) for name in names)

    def kill(self):
        """As a crash would: nothing is tidied up."""
        self._end(signal.SIGKILL)

    def start_again(self):
        """At the same address and directory."""
        self._start()

    def stop(self):
        """Ends the broker orderly, removes its directory and returns its exit code and the files
        that it had left there."""
        code = self._end(signal.SIGTERM)
        left = self.files()
        shutil.rmtree(self.directory, ignore_errors=True)
        return code, left

    def _end(self, signal_number):
        if self._process.poll() is None:
            self._process.send_signal(signal_number)
        try:
            return self._process.wait(timeout=PATIENCE_S)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
            raise
        finally:
            self._process.stdout.close()

"""Lines of a process's output, each with a deadline."""

import os
import select
import time


class LineReader:
    def __init__(self, pipe):
        self._fd = pipe.fileno()
        self._bytes = b""

    def next(self, patience_s):
        """The next line without its newline. Fails when none comes in time or the output ends."""
        deadline = time.monotonic() + patience_s
        while b"\n" not in self._bytes:
            left = max(0, deadline - time.monotonic())
            if not select.select([self._fd], [], [], left)[0]:
                raise AssertionError(f"no line within {patience_s} s; so far: {self._bytes!r}")
            got = os.read(self._fd, 65536)
            if not got:
                raise AssertionError(f"the output ended with {self._bytes!r}")
            self._bytes += got
        line, self._bytes = self._bytes.split(b"\n", 1)
        return line.decode()

    def await_text(self, text, patience_s):
        """Passes lines over up to one that holds the text."""
        deadline = time.monotonic() + patience_s
        while text not in self.next(max(0, deadline - time.monotonic())):
            pass

"""Shared helpers of the tarn module's tests: the tool as a child process, polling with a deadline."""

import os
import queue
import re
import subprocess
import threading
import time

import pytest

import tarn

TRANSPORTS = ["tcp", "eudp"]


@pytest.fixture(params=TRANSPORTS)
def transport(request):
    return request.param


def wait_until(predicate, timeout=10.0, interval=0.005):
    """Polls `predicate` until it is true or `timeout` seconds passed; returns its last result."""
    deadline = time.monotonic() + timeout
    while True:
        result = predicate()
        if result or time.monotonic() > deadline:
            return result
        time.sleep(interval)


@pytest.fixture
def server(transport):
    with tarn.Server(port=0, transport=transport) as s:
        yield s


@pytest.fixture
def client(server, transport):
    with tarn.Client("127.0.0.1", server.port, transport=transport) as c:
        event = server.next_event(timeout=10)
        assert event is not None and event.kind == "connected"
        yield c


def tool_path():
    path = os.environ.get("TARN_TOOL")
    assert path and os.path.exists(path), "TARN_TOOL must name the built tarn tool"
    return path


class Tool:
    """The tarn tool as a separate process, its output read line by line with a deadline."""

    def __init__(self, *args, stdin=True):
        self.process = subprocess.Popen(
            [tool_path(), *args],
            stdin=subprocess.PIPE if stdin else subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            bufsize=1,
        )
        self.lines = queue.Queue()
        self.seen = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def expect(self, pattern, timeout=10.0):
        """The first line (from now on) that matches `pattern`; fails after `timeout` seconds."""
        deadline = time.monotonic() + timeout
        while True:
            remaining = deadline - time.monotonic()
            try:
                line = self.lines.get(timeout=max(remaining, 0.0))
            except queue.Empty:
                line = None
            if line is None:
                raise AssertionError(f"no line matching {pattern!r}; saw {self.seen!r}")
            self.seen.append(line)
            match = re.search(pattern, line)
            if match:
                return match

    def send(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def wait(self, timeout=10.0):
        return self.process.wait(timeout=timeout)

    def stop(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(timeout=10)

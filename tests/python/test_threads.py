"""Threads: blocking calls release the GIL, callbacks take it without deadlock, Ctrl-C interrupts a
wait, and closing from a callback or from another thread is safe."""

import os
import queue
import signal
import subprocess
import sys
import textwrap
import threading
import time

import pytest

import tarn
from conftest import wait_until


class Counter:
    """A Python thread that counts as long as it gets the GIL."""

    def __init__(self):
        self.count = 0
        self.stop = False
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while not self.stop:
            self.count += 1

    def during(self, action):
        before = self.count
        result = action()
        return result, self.count - before

    def close(self):
        self.stop = True
        self.thread.join()


def test_blocking_calls_release_the_gil():
    counter = Counter()
    try:
        with tarn.Server(port=0) as server:
            with tarn.Client("127.0.0.1", server.port) as client:
                result, counted = counter.during(lambda: client.next_event(timeout=0.5))
                assert result is None and counted > 10000
                result, counted = counter.during(lambda: server.next_call(timeout=0.5))
                assert result is None and counted > 10000
        # An EUDP connect that nobody answers waits 5 s in the library.
        with tarn.Connection("eudp") as connection:
            import socket

            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
                s.bind(("127.0.0.1", 0))
                result, counted = counter.during(lambda: connection.connect("127.0.0.1", s.getsockname()[1]))
            assert result is False and counted > 10000
    finally:
        counter.close()


def test_many_threads_send_at_once(transport):
    with tarn.Server(port=0, transport=transport) as server:
        with tarn.Client("127.0.0.1", server.port, transport) as client:
            if transport == "eudp":
                client.set_receive_mode("reliable")

            def send(thread):
                for i in range(100):
                    client.call("c", thread=thread, i=i)

            threads = [threading.Thread(target=send, args=(t,)) for t in range(8)]
            for t in threads:
                t.start()
            for t in threads:
                t.join(60)
            seen = {t: [] for t in range(8)}
            for call in server.calls(timeout=10):
                seen[call.params["thread"]].append(call.params["i"])
                if sum(map(len, seen.values())) == 800:
                    break
            assert seen == {t: list(range(100)) for t in range(8)}


def test_closing_a_client_from_another_thread_ends_a_wait():
    with tarn.Server(port=0) as server:
        client = tarn.Client("127.0.0.1", server.port)
        results = queue.Queue()
        waiter = threading.Thread(target=lambda: results.put(client.next_event(timeout=None)))
        waiter.start()
        time.sleep(0.2)
        client.close()
        waiter.join(5)
        assert not waiter.is_alive()
        assert results.get_nowait() is None


def test_closing_a_server_from_another_thread_ends_a_wait():
    server = tarn.Server(port=0)
    results = queue.Queue()
    waiter = threading.Thread(target=lambda: results.put(server.next_call(timeout=None)))
    waiter.start()
    time.sleep(0.2)
    server.close()
    waiter.join(5)
    assert not waiter.is_alive()
    assert results.get_nowait() is None


def test_a_callback_waiting_for_the_closing_thread_does_not_deadlock(transport):
    """The callback needs a lock that the thread calling close() holds: close() must not wait for it."""
    lock = threading.Lock()
    entered = threading.Event()
    finished = threading.Event()

    def on_update_state(name, value):
        entered.set()
        with lock:
            pass
        finished.set()

    accepted = []
    with tarn.Listener(transport) as listener:
        listener.listen("127.0.0.1", 0, accepted.append)
        assert wait_until(lambda: listener.get_local_port() != 0)
        connection = tarn.Connection(transport)
        assert connection.connect("127.0.0.1", listener.get_local_port(), on_update_state=on_update_state)
        assert wait_until(lambda: accepted)
        with lock:
            assert accepted[0].update_state("x", 1)
            assert entered.wait(10)
            started = time.monotonic()
            connection.close()  # with the callback blocked on `lock`
            assert time.monotonic() - started < 5
        assert finished.wait(10)
        accepted[0].close()


def test_callbacks_that_send_and_close_from_many_threads(transport):
    """Callbacks send on their own connection while other threads send and finally close."""
    accepted = []
    answered = queue.Queue()

    def on_new(connection):
        accepted.append(connection)
        connection.set_server(on_subscribe=lambda name: connection.update_state(name, len(name)))

    with tarn.Listener(transport) as listener:
        listener.listen("127.0.0.1", 0, on_new)
        assert wait_until(lambda: listener.get_local_port() != 0)
        connection = tarn.Connection(transport)
        assert connection.connect("127.0.0.1", listener.get_local_port(),
                                  on_update_state=lambda name, value: answered.put(name))
        if transport == "eudp":
            assert connection.set_send_mode("reliable") and connection.set_receive_mode("reliable")

        def subscribe(prefix):
            for i in range(50):
                connection.subscribe(f"{prefix}{i}")

        threads = [threading.Thread(target=subscribe, args=(p,)) for p in "abcd"]
        for t in threads:
            t.start()
        for t in threads:
            t.join(30)
        names = {answered.get(timeout=10) for _ in range(200)}
        assert len(names) == 200
        closers = [threading.Thread(target=connection.close), threading.Thread(target=accepted[0].close)]
        for t in closers:
            t.start()
        for t in closers:
            t.join(10)
        assert connection.closed and accepted[0].closed


def test_closing_a_listener_from_its_own_callback(transport):
    listener = tarn.Listener(transport)
    kept = []

    def on_new(connection):
        listener.close()
        kept.append(connection)  # after the close, so that a test seeing it sees the listener closed

    listener.listen("127.0.0.1", 0, on_new)
    assert wait_until(lambda: listener.get_local_port() != 0)
    port = listener.get_local_port()
    with tarn.Connection(transport) as connection:
        assert connection.connect("127.0.0.1", port)
        assert wait_until(lambda: kept)
        with pytest.raises(ValueError, match="closed"):
            listener.get_local_port()
        # The connection handed over lives on.
        assert kept[0].update_state("x", 1)
    kept[0].close()


CTRL_C_SCRIPT = textwrap.dedent(
    """
    import sys, tarn
    with tarn.Server(port=0) as server, tarn.Client("127.0.0.1", server.port) as client:
        print("waiting", flush=True)
        try:
            if sys.argv[1] == "client":
                client.next_event()
            else:
                server.next_call()
        except KeyboardInterrupt:
            print("interrupted", flush=True)
    """
)


@pytest.mark.parametrize("side", ["client", "server"])
def test_ctrl_c_interrupts_a_wait(side):
    child = subprocess.Popen([sys.executable, "-c", CTRL_C_SCRIPT, side], stdout=subprocess.PIPE, text=True,
                             env=dict(os.environ))
    try:
        assert child.stdout.readline().strip() == "waiting"
        time.sleep(0.2)
        started = time.monotonic()
        child.send_signal(signal.SIGINT)
        assert child.stdout.readline().strip() == "interrupted"
        assert time.monotonic() - started < 2
        assert child.wait(15) == 0
    finally:
        if child.poll() is None:
            child.kill()
            child.wait()


EXIT_SCRIPT = textwrap.dedent(
    """
    import tarn, threading
    server = tarn.Server(port=0, transport="{transport}")
    client = tarn.Client("127.0.0.1", server.port, "{transport}")
    connection = tarn.Connection("{transport}")
    listener = tarn.Listener("{transport}")
    listener.listen("127.0.0.1", 0, lambda c: kept.append(c))
    kept = []
    while listener.get_local_port() == 0:
        pass
    connection.connect("127.0.0.1", listener.get_local_port(), on_update_state=lambda n, v: None)
    threading.Thread(target=client.next_event, daemon=True).start()
    print("open", flush=True)
    """
)


def exit_environment():
    """The environment of a process that exits with library objects still open. At exit the module
    ends their threads but keeps the objects, which a daemon thread may still be using, until the
    process ends; so those threads are never joined, which ThreadSanitizer would report as leaked
    threads. Its other reports (races, deadlocks) stay on."""
    env = dict(os.environ)
    if "TSAN_OPTIONS" in env:
        env["TSAN_OPTIONS"] += ":report_thread_leaks=0"
    return env


def test_the_interpreter_exits_with_everything_still_open(transport):
    started = time.monotonic()
    result = subprocess.run([sys.executable, "-c", EXIT_SCRIPT.format(transport=transport)], capture_output=True,
                            text=True, timeout=60, env=exit_environment())
    assert result.returncode == 0, result.stderr
    assert result.stdout == "open\n"
    assert time.monotonic() - started < 20


DAEMON_SCRIPT = textwrap.dedent(
    """
    import socket, threading, time, tarn
    silent = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    silent.bind(("127.0.0.1", 0))
    connection = tarn.Connection("eudp")
    # Waits 5 s for an answer that never comes; the interpreter exits meanwhile.
    threading.Thread(target=connection.connect, args=("127.0.0.1", silent.getsockname()[1]), daemon=True).start()
    time.sleep(0.2)
    print("exiting", flush=True)
    """
)


def test_a_daemon_thread_inside_the_library_at_exit():
    started = time.monotonic()
    result = subprocess.run([sys.executable, "-c", DAEMON_SCRIPT], capture_output=True, text=True, timeout=60,
                            env=exit_environment())
    assert (result.returncode, result.stdout) == (0, "exiting\n"), result.stderr
    assert time.monotonic() - started < 20

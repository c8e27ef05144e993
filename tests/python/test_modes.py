"""EUDP delivery modes and window, asked for from Python, granted and refused; TCP's fixed answers."""

import logging
import os
import re
import signal
import threading
import time

import pytest

import tarn
from conftest import Tool, wait_until


def test_reliable_both_ways_delivers_everything_in_order():
    with tarn.Server(port=0, transport="eudp") as server:
        with tarn.Client("127.0.0.1", server.port, "eudp") as client:
            client.set_send_mode("reliable")  # the server sends reliably
            client.set_receive_mode(tarn.ConnMode.RELIABLE)  # and receives reliably
            client.set_window(64)
            client.subscribe("n")
            assert server.next_event(timeout=10).kind == "connected"
            assert server.next_event(timeout=10).kind == "subscribe"
            for i in range(500):
                server.set("n", i)
            got = [e.value for _, e in zip(range(500), client.events(timeout=10))]
            assert got == list(range(500))
            for i in range(300):
                client.call("c", i=i)
            assert [c.params["i"] for _, c in zip(range(300), server.calls(timeout=10))] == list(range(300))


def test_window_zero_is_confirmed():
    with tarn.Server(port=0, transport="eudp") as server:
        with tarn.Client("127.0.0.1", server.port, "eudp") as client:
            client.set_window(0)
            client.set_window(10)
            with pytest.raises(ValueError):
                client.set_window(-1)
            with pytest.raises(TypeError):
                client.set_window(True)


def test_tcp_is_always_reliable():
    with tarn.Server(port=0) as server:
        with tarn.Client("127.0.0.1", server.port) as client:
            client.set_send_mode("reliable")
            client.set_receive_mode("reliable")
            with pytest.raises(ValueError, match="reliably only"):
                client.set_send_mode("realtime")
            with pytest.raises(ValueError, match="no window"):
                client.set_window(10)
            with pytest.raises(ValueError, match="mode"):
                client.set_send_mode("sometimes")


def test_refused_modes_fail_after_the_peer_stays_silent(caplog):
    """A peer refuses by not answering: the request fails after 10 s, from both layers."""
    accepted = []
    listener = tarn.Listener("eudp")
    listener.listen("127.0.0.1", 0, accepted.append)
    assert wait_until(lambda: listener.get_local_port() != 0)
    port = listener.get_local_port()
    # The high-level client agrees to send realtime only; the low-level one to receive realtime only.
    high = tarn.Client("127.0.0.1", port, "eudp", allow_send=["realtime"])
    low = tarn.Connection("eudp")
    low.allow_receive_mode(True, False)
    assert low.connect("127.0.0.1", port)
    assert wait_until(lambda: len(accepted) == 2)
    results = {}

    def ask(index, send):
        connection = accepted[index]
        results[index] = connection.set_send_mode("reliable") if send else connection.set_receive_mode("reliable")

    with caplog.at_level(logging.WARNING, logger="tarn"):
        started = time.monotonic()
        # The high-level client connected first, so it is the first accepted connection.
        threads = [threading.Thread(target=ask, args=(0, True)), threading.Thread(target=ask, args=(1, False))]
        for t in threads:
            t.start()
        for t in threads:
            t.join(30)
        elapsed = time.monotonic() - started
    assert results == {0: False, 1: False}
    assert 9.5 < elapsed < 25
    messages = [r.getMessage() for r in caplog.records if r.name == "tarn"]
    assert sum(bool(re.fullmatch(r"TARN/EUDP\[\d+\]: unknown mode request \(ignoring\)", m)) for m in messages) == 2
    assert any(re.fullmatch(r"TARN/EUDP\[\d+\]: failed to set send mode \(timeout\)", m) for m in messages)
    assert any(re.fullmatch(r"TARN/EUDP\[\d+\]: failed to set receive mode \(timeout\)", m) for m in messages)
    # What the peers do allow still works.
    assert accepted[0].set_receive_mode("reliable") is True
    high.close()
    low.close()
    listener.close()
    for connection in accepted:
        connection.close()


def test_allowing_no_mode_is_refused():
    with pytest.raises(ValueError, match="at least one"):
        tarn.Client("127.0.0.1", 1, "eudp", allow_send=[])
    with pytest.raises(ValueError, match="mode"):
        tarn.Client("127.0.0.1", 1, "eudp", allow_receive=["quick"])


def all_stopped(pid):
    """Whether every thread of `pid` has stopped (a signalled stop takes effect thread by thread)."""
    states = []
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/stat") as stat:
            states.append(stat.read().rsplit(")", 1)[1].split()[0])
    return all(state in ("T", "t") for state in states)


def test_a_silent_server_makes_the_negotiation_time_out():
    server = Tool("serve", "--eudp", "--bind", "127.0.0.1", "--port", "0")
    try:
        port = int(server.expect(r"listening on eudp [\d.]+:(\d+)").group(1))
        with tarn.Client("127.0.0.1", port, "eudp") as client:
            os.kill(server.process.pid, signal.SIGSTOP)
            assert wait_until(lambda: all_stopped(server.process.pid))
            try:
                started = time.monotonic()
                with pytest.raises(TimeoutError, match="did not confirm send mode 'reliable' within 10 s"):
                    client.set_send_mode("reliable")
                assert time.monotonic() - started > 9.5
            finally:
                os.kill(server.process.pid, signal.SIGCONT)
    finally:
        server.stop()

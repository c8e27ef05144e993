"""The library's own model: Connection and Listener with callables as callbacks, over both
transports; callbacks that raise, closing from callbacks, and the library's own results."""

import logging
import queue
import socket
import threading
import time

import pytest

import tarn
from conftest import wait_until


class Peer:
    """A listener whose accepted connections report everything into one queue."""

    def __init__(self, transport, on_subscribe=None):
        self.events = queue.Queue()
        self.connections = []
        self.on_subscribe = on_subscribe
        self.listener = tarn.Listener(transport)
        assert self.listener.listen("127.0.0.1", 0, self._accept) is True
        assert wait_until(lambda: self.listener.get_local_port() != 0)
        self.port = self.listener.get_local_port()

    def _accept(self, connection):
        self.connections.append(connection)
        connection.set_server(
            on_subscribe=self.on_subscribe or (lambda name: self.events.put(("subscribe", name))),
            on_unsubscribe=lambda name: self.events.put(("unsubscribe", name)),
            on_call_function_id=lambda name, params: self.events.put(("call", name, params)),
            on_status_changed=lambda status: self.events.put(("status", status)),
        )

    def next(self, timeout=15):
        return self.events.get(timeout=timeout)

    def close(self):
        self.listener.close()
        for connection in self.connections:
            connection.close()


@pytest.fixture
def peer(transport):
    p = Peer(transport)
    yield p
    p.close()


def client_events():
    events = queue.Queue()
    callbacks = dict(
        on_trigger=lambda name, value: events.put(("trigger", name, value)),
        on_update_state=lambda name, value: events.put(("update", name, value)),
        on_status_changed=lambda status: events.put(("status", status)),
    )
    return events, callbacks


def test_a_whole_session(peer, transport):
    events, callbacks = client_events()
    with tarn.Connection(transport) as connection:
        assert connection.connect("127.0.0.1", peer.port, **callbacks) is True
        assert events.get(timeout=10) == ("status", tarn.ConnStatus.CONNECTED)
        assert peer.next() == ("status", tarn.ConnStatus.CONNECTED)
        assert connection.get_peer_port() != 0 and connection.get_local_port() != 0
        assert connection.get_peer_address() == "127.0.0.1"
        assert connection.subscribe("temp") is True
        assert peer.next() == ("subscribe", "temp")
        params = tarn.ParameterList()
        params.add_numeric("level", 3)
        params.add_string("mode", "eco")
        params.add_boolean("on", True)
        params.add_float("target", 20.5)
        assert connection.call_function_id("setpoint", params) is True
        kind, name, received = peer.next()
        assert (kind, name) == ("call", "setpoint")
        assert isinstance(received, tarn.ParameterList)
        assert received.get_param_int("level") == 3 and received.get_param_bool("on") is True
        assert received.print() == "level = 3 mode = eco on = ON target = 20.5 "
        assert connection.call("dict", {"n": None}) is True
        assert peer.next()[2].to_dict() == {"n": None}
        accepted = peer.connections[0]
        assert accepted.update_state("temp", 21.5) is True
        assert accepted.trigger("door", "open") is True
        kind, name, value = events.get(timeout=10)
        assert (kind, name) == ("update", "temp")
        assert isinstance(value, tarn.ParameterValue) and value.get_float_value() == 21.5
        assert events.get(timeout=10)[2].get_as_string() == "open"
        assert connection.unsubscribe("temp") is True
        assert peer.next() == ("unsubscribe", "temp")
    # Closing reports the end on both sides.
    assert events.get(timeout=10) == ("status", tarn.ConnStatus.DISCONNECTED)
    assert peer.next(timeout=30) == ("status", tarn.ConnStatus.DISCONNECTED)
    with pytest.raises(ValueError, match="closed"):
        connection.subscribe("x")


def test_disconnect_and_connect_again(peer, transport):
    events, callbacks = client_events()
    connection = tarn.Connection(transport)
    assert connection.connect("127.0.0.1", peer.port, **callbacks)
    assert events.get(timeout=10) == ("status", tarn.ConnStatus.CONNECTED)
    connection.disconnect()
    assert events.get(timeout=10) == ("status", tarn.ConnStatus.DISCONNECTED)
    assert connection.subscribe("x") is False
    assert connection.connect("127.0.0.1", peer.port, **callbacks)
    assert events.get(timeout=10) == ("status", tarn.ConnStatus.CONNECTED)
    assert connection.subscribe("y")
    assert wait_until(lambda: ("subscribe", "y") in list(peer.events.queue))
    connection.close()
    assert connection.closed


def test_a_failed_connect_reports_nothing(transport):
    kind = socket.SOCK_STREAM if transport == "tcp" else socket.SOCK_DGRAM
    with socket.socket(socket.AF_INET, kind) as s:
        s.bind(("127.0.0.1", 0))
        events, callbacks = client_events()
        with tarn.Connection(transport) as connection:
            assert connection.connect("127.0.0.1", s.getsockname()[1], **callbacks) is False
            time.sleep(0.2)  # nothing may arrive; a status would come at once
            assert events.empty()


def test_library_results_and_log_lines_over_tcp(caplog):
    tarn.set_log_level("debug")
    try:
        with caplog.at_level(logging.DEBUG, logger="tarn"):
            with tarn.Connection("tcp") as connection:
                assert connection.trigger("nowhere", 1) is False
                assert connection.set_send_mode("realtime") is False
                assert connection.set_send_mode(tarn.ConnMode.RELIABLE) is True
                assert connection.set_window_size(5) is False
        assert ("tarn", logging.DEBUG, "TARN: failed to send triggernowhere") in caplog.record_tuples
    finally:
        tarn.set_log_level("warning")


def test_no_callbacks_means_no_client(transport, caplog):
    with caplog.at_level(logging.WARNING, logger="tarn"):
        peer = Peer(transport)
        try:
            connection = tarn.Connection(transport)
            assert connection.connect("127.0.0.1", peer.port)
            assert peer.next() == ("status", tarn.ConnStatus.CONNECTED)
            assert peer.connections[0].update_state("x", 1)
            expected = ("tarn", logging.WARNING, "TARN: received unexpected update state cmd (no client available)")
            assert wait_until(lambda: expected in caplog.record_tuples)
            connection.close()
        finally:
            peer.close()


def test_a_callback_that_raises_is_reported_and_the_connection_lives(peer, transport, caplog):
    seen = queue.Queue()

    def on_update_state(name, value):
        if name == "bad":
            raise RuntimeError("the callback failed")
        seen.put(name)

    with caplog.at_level(logging.ERROR, logger="tarn"):
        with tarn.Connection(transport) as connection:
            assert connection.connect("127.0.0.1", peer.port, on_update_state=on_update_state)
            assert peer.next() == ("status", tarn.ConnStatus.CONNECTED)
            if transport == "eudp":
                assert connection.set_receive_mode("reliable") and connection.set_send_mode("reliable")
            accepted = peer.connections[0]
            assert accepted.update_state("bad", 1)
            assert accepted.update_state("good", 2)
            assert seen.get(timeout=10) == "good"
            assert connection.subscribe("still")
            assert peer.next() == ("subscribe", "still")
    records = [r for r in caplog.records if r.name == "tarn" and "on_update_state" in r.getMessage()]
    assert len(records) == 1
    assert records[0].exc_info[0] is RuntimeError
    assert "the callback failed" in caplog.text


def test_closing_from_inside_a_callback(transport):
    peer = Peer(transport, on_subscribe=lambda name: peer.connections[0].close())
    try:
        events, callbacks = client_events()
        connection = tarn.Connection(transport)
        assert connection.connect("127.0.0.1", peer.port, **callbacks)
        assert events.get(timeout=10) == ("status", tarn.ConnStatus.CONNECTED)
        assert connection.subscribe("bye")
        # The server closed its end from its own subscribe callback: the client sees the end.
        assert events.get(timeout=30) == ("status", tarn.ConnStatus.DISCONNECTED)
        assert peer.connections[0].closed
        connection.close()
    finally:
        peer.close()


def test_closing_the_client_from_its_own_callback(peer, transport):
    done = threading.Event()
    holder = {}

    def on_update_state(name, value):
        holder["connection"].close()
        done.set()

    connection = tarn.Connection(transport)
    holder["connection"] = connection
    assert connection.connect("127.0.0.1", peer.port, on_update_state=on_update_state)
    assert peer.next() == ("status", tarn.ConnStatus.CONNECTED)
    assert peer.connections[0].update_state("x", 1)
    assert done.wait(10)
    assert connection.closed
    assert peer.next(timeout=30) == ("status", tarn.ConnStatus.DISCONNECTED)


def test_an_accepted_connection_that_is_not_kept_is_closed(transport):
    with tarn.Listener(transport) as listener:
        accepted = queue.Queue()
        listener.listen("127.0.0.1", 0, lambda connection: accepted.put(connection.get_peer_port()))
        assert wait_until(lambda: listener.get_local_port() != 0)
        events, callbacks = client_events()
        with tarn.Connection(transport) as connection:
            assert connection.connect("127.0.0.1", listener.get_local_port(), **callbacks)
            assert accepted.get(timeout=10) == connection.get_local_port()
            assert events.get(timeout=10) == ("status", tarn.ConnStatus.CONNECTED)
            # Closed once the listener finished handing it over: here, when it stops.
            listener.shutdown(-1)
            assert events.get(timeout=30) == ("status", tarn.ConnStatus.DISCONNECTED)


def test_listener_results(transport):
    listener = tarn.Listener(transport)
    assert listener.shutdown(100) is False  # no thread yet
    assert listener.get_local_port() == 0
    assert listener.listen("127.0.0.1", 0, None) is True
    assert wait_until(lambda: listener.get_local_port() != 0)
    assert listener.shutdown(-1) is True
    listener.close()
    listener.close()
    with pytest.raises(ValueError, match="closed"):
        listener.get_local_port()


def test_a_tcp_listener_on_a_taken_port_raises_instead_of_ending_the_process():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        s.listen()
        with tarn.Listener("tcp") as listener:
            with pytest.raises(OSError, match="cannot listen"):
                listener.listen("127.0.0.1", s.getsockname()[1], None)


def test_a_call_that_the_library_could_not_encode_is_refused():
    peer = Peer("tcp")
    with tarn.Connection("tcp") as connection:
        assert connection.connect("127.0.0.1", peer.port)
        name = "f" * 1480  # leaves 7 bytes of room: the parameter's name fits, its integer does not
        with pytest.raises(ValueError, match="would end the process"):
            connection.call_function_id(name, {"n": 1})
        assert connection.call_function_id(name, {"n": True}) is True  # a boolean fits
    peer.close()


def test_argument_errors():
    with pytest.raises(ValueError, match="transport"):
        tarn.Connection("udp")
    with pytest.raises(TypeError):
        tarn.Connection(1.5)
    with tarn.Connection("eudp") as connection:
        with pytest.raises(TypeError, match="callable"):
            connection.connect("127.0.0.1", 1, on_trigger=5)
        with pytest.raises(ValueError, match="port"):
            connection.connect("127.0.0.1", 65536)
        with pytest.raises(ValueError, match="mode"):
            connection.set_send_mode("fast")
        with pytest.raises(TypeError, match="bool"):
            connection.allow_send_mode(1, 0)
        with pytest.raises(ValueError, match="window"):
            connection.set_window_size(-1)

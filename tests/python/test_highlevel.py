"""Server and Client over both transports: the example, every value type both ways, calls,
subscriptions, iteration, time-outs, the end of a link and the errors a script meets."""

import socket
import struct
import time

import pytest

import tarn
from conftest import wait_until


def f32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


def test_the_example(transport):
    with tarn.Server(port=0, transport=transport) as server:
        assert server.port > 0
        server.set("temperature", 21.5)
        assert server.trigger("door", "open") == 0  # nobody subscribed yet
        with tarn.Client("127.0.0.1", server.port, transport=transport) as client:
            client.subscribe("temperature")
            event = client.next_event(timeout=10.0)
            assert event == tarn.Event("update", "temperature", 21.5, "float")
            client.call("setpoint", level=3, mode="eco", on=True, target=20.5)
            call = server.next_call(timeout=10.0)
            assert call.kind == "call" and call.name == "setpoint"
            assert call.params == {"level": 3, "mode": "eco", "on": True, "target": 20.5}
            assert list(call.params) == ["level", "mode", "on", "target"]  # name order
            assert [type(v) for v in call.params.values()] == [int, str, bool, float]


VALUES = [
    ("text", "text", "string"),
    ("", "", "string"),
    ("grüß dich 😀", "grüß dich 😀", "string"),
    (b"\xff\xfe raw", "\udcff\udcfe raw", "string"),
    (0, 0, "int"),
    (-(2**31), -(2**31), "int"),
    (2**31 - 1, 2**31 - 1, "int"),
    (True, True, "bool"),
    (False, False, "bool"),
    (21.5, 21.5, "float"),
    (0.1, f32(0.1), "float"),
    (-3.0e38, f32(-3.0e38), "float"),
    (None, None, "none"),
    (tarn.Float(3), 3.0, "float"),
    (tarn.Int(4.0), 4, "int"),
    (tarn.Str(5), "5", "string"),
    (tarn.Bool(1), True, "bool"),
]


def test_every_value_from_server_to_client(server, client):
    client.subscribe("v")
    assert server.next_event(timeout=10).kind == "subscribe"
    for sent, received, type_name in VALUES:
        assert server.set("v", sent) == 1
        event = client.next_event(timeout=10)
        assert (event.kind, event.name, event.type) == ("update", "v", type_name)
        assert event.value == received and type(event.value) is type(received)
        assert server.trigger("v", sent) == 1
        event = client.next_event(timeout=10)
        assert (event.kind, event.value, event.type) == ("trigger", received, type_name)


def test_every_value_from_client_to_server(server, client):
    params = {f"p{i:02}": sent for i, (sent, _, _) in enumerate(VALUES)}
    client.call("all", params)
    call = server.next_call(timeout=10)
    expected = {f"p{i:02}": received for i, (_, received, _) in enumerate(VALUES)}
    assert call.params == expected
    assert [type(v) for v in call.params.values()] == [type(v) for v in expected.values()]


def test_calls_with_and_without_parameters(server, client):
    client.call("nothing")
    client.call("both", {"odd name!": 1}, plain=2)
    client.call("list", tarn.ParameterList({"x": 1.5}))
    first, second, third = (server.next_call(timeout=10) for _ in range(3))
    assert (first.name, first.params) == ("nothing", {})
    assert second.params == {"odd name!": 1, "plain": 2}
    assert third.params == {"x": 1.5}
    with pytest.raises(ValueError, match="given twice"):
        client.call("dup", {"a": 1}, a=2)


def test_subscriptions_decide_who_gets_what(server, transport):
    with tarn.Client("127.0.0.1", server.port, transport) as a, tarn.Client("127.0.0.1", server.port, transport) as b:
        a.subscribe("x")
        b.subscribe("y")
        assert wait_until(lambda: sorted(c.subscriptions for c in server.connections()) == [["x"], ["y"]])
        assert server.set("x", 1) == 1
        assert server.trigger("y", "go") == 1
        assert a.next_event(timeout=10) == tarn.Event("update", "x", 1, "int")
        assert b.next_event(timeout=10) == tarn.Event("trigger", "y", "go", "string")
        assert a.next_event(timeout=0.2) is None
        a.unsubscribe("x")
        assert wait_until(lambda: sorted(c.subscriptions for c in server.connections()) == [[], ["y"]])
        assert server.set("x", 2) == 0
        # A trigger to one connection reaches it whatever it subscribed to.
        conn_b = next(c.conn for c in server.connections() if c.subscriptions == ["y"])
        assert server.trigger("z", 9, conn=conn_b) == 1
        assert b.next_event(timeout=10) == tarn.Event("trigger", "z", 9, "int")
        assert a.next_event(timeout=0.2) is None


def test_a_subscriber_gets_the_latest_state(server, client):
    server.set("s", 1)
    server.set("s", 2)
    client.subscribe("s")
    assert client.next_event(timeout=10).value == 2
    assert server.get("s") == 2 and server.get("nothing", "dflt") == "dflt"
    assert server.states == {"s": 2}


def test_server_events(server, transport):
    with tarn.Client("127.0.0.1", server.port, transport) as c:
        connected = server.next_event(timeout=10)
        assert connected.kind == "connected" and connected.peer == f"127.0.0.1:{c.local_port}"
        c.subscribe("a")
        c.unsubscribe("a")
        c.call("f", x=1)
        events = (e for e in server.events(timeout=10) if e.kind != "disconnected")
        kinds = [(e.kind, e.name) for _, e in zip(range(3), events)]
        assert kinds == [("subscribe", "a"), ("unsubscribe", "a"), ("call", "f")]
    gone = server.next_event(timeout=15)
    assert gone.kind == "disconnected" and gone.conn == connected.conn
    assert wait_until(lambda: server.connections() == [])


def test_next_call_leaves_other_events_queued(server, client):
    client.subscribe("a")
    client.call("f")
    assert server.next_call(timeout=10).name == "f"
    assert server.next_event(timeout=10).kind == "subscribe"


def test_events_can_be_iterated(server, client):
    client.subscribe("n")
    assert server.next_event(timeout=10).kind == "subscribe"
    for i in range(5):
        server.set("n", i)
    got = []
    for event in client.events(timeout=2):
        got.append(event.value)
        if len(got) == 5:
            break
    assert got == [0, 1, 2, 3, 4]
    calls = []
    for i in range(3):
        client.call("c", i=i)
    for call in server.calls(timeout=1):
        calls.append(call.params["i"])
    assert calls == [0, 1, 2]


def test_time_outs_return_none(server, client):
    for wait in (client.next_event, server.next_call):
        started = time.monotonic()
        assert wait(timeout=0.3) is None
        assert time.monotonic() - started >= 0.29
    assert client.next_event(timeout=0) is None
    assert list(client.events(timeout=0.1)) == []
    with pytest.raises(ValueError):
        client.next_event(timeout=-1)
    with pytest.raises(TypeError):
        client.next_event(timeout="1")


def test_the_server_ending_the_link(transport):
    server = tarn.Server(port=0, transport=transport)
    client = tarn.Client("127.0.0.1", server.port, transport)
    client.subscribe("x")
    assert server.next_event(timeout=10).kind == "connected"
    assert server.next_event(timeout=10).kind == "subscribe"
    server.close()
    # TCP ends at once; an EUDP client learns of it when its keep-alive goes unanswered.
    event = client.next_event(timeout=30)
    assert event == tarn.Event("disconnected")
    assert not client.connected
    assert client.next_event(timeout=5) is None
    with pytest.raises(ConnectionError, match="has ended"):
        client.subscribe("y")
    client.close()
    with pytest.raises(ValueError, match="closed"):
        server.set("x", 1)


def test_a_closed_client(server, client):
    client.close()
    client.close()
    assert not client.connected
    started = time.monotonic()
    assert client.next_event(timeout=5) is None
    assert time.monotonic() - started < 1
    with pytest.raises(ValueError, match="closed"):
        client.subscribe("x")
    with pytest.raises(ValueError, match="closed"):
        client.call("f")
    assert server.next_event(timeout=15).kind == "disconnected"


def test_arguments_are_checked(server, client):
    with pytest.raises(ValueError, match="32-bit signed"):
        client.call("f", n=2**40)
    with pytest.raises(TypeError, match="TARN cannot carry"):
        client.call("f", n=[1])
    with pytest.raises(ValueError, match="NUL"):
        client.subscribe("a\0b")
    with pytest.raises(ValueError, match="NUL"):
        client.call("f", s="a\0b")
    with pytest.raises(ValueError, match="NUL"):
        server.set("x", "a\0b")
    with pytest.raises(TypeError):
        client.subscribe(5)
    with pytest.raises(ValueError, match="too large"):
        client.call("f", big="x" * 1490)
    with pytest.raises(ValueError, match="too large"):
        server.set("big", "x" * 1490)
    with pytest.raises(ValueError, match="at most 255"):
        client.call("f", {f"p{i}": 0 for i in range(256)})
    with pytest.raises(ValueError):
        server.trigger("x", 1, conn=0)
    # The largest call that fits goes through whole.
    client.call("f", s="x" * (1488 - 2 - 1 - 2 - 2))
    assert len(server.next_call(timeout=10).params["s"]) == 1481


def test_connect_errors(transport):
    # A port nobody listens on: refused at once over TCP, no answer within 5 s over EUDP.
    kind = socket.SOCK_STREAM if transport == "tcp" else socket.SOCK_DGRAM
    with socket.socket(socket.AF_INET, kind) as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
        started = time.monotonic()
        with pytest.raises(tarn.ConnectError, match=f"127.0.0.1:{port}") as info:
            tarn.Client("127.0.0.1", port, transport)
        assert isinstance(info.value, ConnectionError)
        assert time.monotonic() - started < (2 if transport == "tcp" else 15)
    with pytest.raises(tarn.ConnectError, match="unknown host"):
        tarn.Client("no-such-host.invalid", 5555, transport)
    with pytest.raises(ValueError):
        tarn.Client("127.0.0.1", 0, transport)
    with pytest.raises(ValueError):
        tarn.Client("127.0.0.1", 70000, transport)
    with pytest.raises(ValueError, match="transport"):
        tarn.Client("127.0.0.1", 1, "udp")
    with pytest.raises(ValueError, match="queue_limit"):
        tarn.Server(port=0, transport=transport, queue_limit=0)


def test_a_taken_port_is_an_os_error(transport):
    with tarn.Server(port=0, transport=transport) as first:
        with pytest.raises(OSError, match=f"cannot listen on .*:{first.port}"):
            tarn.Server(port=first.port, transport=transport)
    with pytest.raises(OSError, match="unknown address"):
        tarn.Server(port=0, transport=transport, host="no-such-host.invalid")


def test_server_on_one_interface(transport):
    with tarn.Server(port=0, transport=transport, host="127.0.0.1") as server:
        with tarn.Client("127.0.0.1", server.port, transport) as client:
            assert client.peer == f"127.0.0.1:{server.port}" or transport == "eudp"
            assert repr(client).startswith(f"<tarn.Client {transport} 127.0.0.1:{server.port}")


def ipv6_loopback_available():
    try:
        with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as probe:
            probe.bind(("::1", 0))
        return True
    except OSError:
        return False


@pytest.mark.skipif(not ipv6_loopback_available(), reason="this machine has no IPv6 loopback")
def test_ipv6_server_and_client(transport):
    with tarn.Server(port=0, transport=transport, host="::1") as server:
        with tarn.Client("::1", server.port, transport=transport) as client:
            # Over EUDP the peer is the connection's own port, which the handshake chose.
            assert client.peer.startswith("::1:")
            assert client.peer == f"::1:{server.port}" or transport == "eudp"
            connected = server.next_event(timeout=10)
            assert connected.kind == "connected" and connected.peer == f"::1:{client.local_port}"
            client.subscribe("v")
            assert server.next_event(timeout=10).kind == "subscribe"
            server.set("v", 7)
            assert client.next_event(timeout=10) == tarn.Event("update", "v", 7, "int")
            client.call("go", level=1)
            call = server.next_call(timeout=10)
            assert call.name == "go" and call.params == {"level": 1}
    # An IPv4 client does not reach a server that listens on the IPv6 loopback only.
    with tarn.Server(port=0, transport=transport, host="::1") as server:
        with pytest.raises(tarn.ConnectError):
            with tarn.Client("127.0.0.1", server.port, transport=transport):
                pass


def test_queue_limit_drops_the_oldest(transport):
    with tarn.Server(port=0, transport=transport) as server:
        with tarn.Client("127.0.0.1", server.port, transport, queue_limit=3) as client:
            client.subscribe("n")
            assert server.next_event(timeout=10).kind == "connected"
            assert server.next_event(timeout=10).kind == "subscribe"
            if transport == "eudp":
                client.set_send_mode("reliable")
            for i in range(6):
                server.set("n", i)
            assert wait_until(lambda: client.dropped_events == 3)
            assert [e.value for e in client.events(timeout=0.5)] == [3, 4, 5]

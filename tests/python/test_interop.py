"""Python against the C++ tool in separate processes: a Python client on `tarn serve`, and
`tarn sub` and `tarn call` on a Python server, over both transports."""

import json
import subprocess

import pytest

import tarn
from conftest import Tool, tool_path


def json_line(tool, event, timeout=15.0, **fields):
    """The next JSON line of `tool` whose "event" is `event` and whose fields match."""
    while True:
        line = tool.expect(r"^\{", timeout)
        record = json.loads(line.string)
        if record.get("event") == event and all(record.get(k) == v for k, v in fields.items()):
            return record


@pytest.fixture
def serve(transport):
    tool = Tool("serve", f"--{transport}", "--bind", "127.0.0.1", "--port", "0", "--json")
    yield tool
    tool.stop()


def test_python_client_on_tarn_serve(serve, transport):
    port = json_line(serve, "listening")["port"]
    with tarn.Client("127.0.0.1", port, transport) as client:
        json_line(serve, "connected")
        for name, typed, value, type_name in [
            ("temperature", "temperature:f=21.5", 21.5, "float"),
            ("count", "count:i=-7", -7, "int"),
            ("alarm", "alarm:b=on", True, "bool"),
            ("mode", 'mode:s="eco mode"', "eco mode", "string"),
        ]:
            serve.send(f"set {typed}")
            client.subscribe(name)
            json_line(serve, "subscribe", name=name)
            event = client.next_event(timeout=10)
            assert event == tarn.Event("update", name, value, type_name)
        serve.send("trigger alarm:b=off")
        assert client.next_event(timeout=10) == tarn.Event("trigger", "alarm", False, "bool")
        client.call("setpoint", level=3, mode="eco", on=True, target=20.5, nothing=None)
        call = json_line(serve, "call", name="setpoint")
        assert call["params"] == [
            {"name": "level", "type": "int", "value": 3},
            {"name": "mode", "type": "string", "value": "eco"},
            {"name": "nothing", "type": "none", "value": None},
            {"name": "on", "type": "bool", "value": True},
            {"name": "target", "type": "float", "value": 20.5},
        ]
        client.unsubscribe("count")
        json_line(serve, "unsubscribe", name="count")
    json_line(serve, "disconnected", timeout=30)


def test_tarn_serve_quitting_ends_the_python_client(serve, transport):
    port = json_line(serve, "listening")["port"]
    with tarn.Client("127.0.0.1", port, transport) as client:
        json_line(serve, "connected")
        serve.send("quit")
        assert serve.wait(15) == 0
        assert client.next_event(timeout=30) == tarn.Event("disconnected")


@pytest.mark.parametrize(
    "value, printed",
    [(21.5, ("float", 21.5)), (-7, ("int", -7)), (True, ("bool", True)), ("open", ("string", "open")),
     (None, ("none", None))],
)
def test_tarn_sub_on_a_python_server(transport, value, printed):
    with tarn.Server(port=0, transport=transport, host="127.0.0.1") as server:
        server.set("temperature", value)
        result = subprocess.run(
            [tool_path(), "sub", f"--{transport}", "127.0.0.1", str(server.port), "temperature", "--count", "1",
             "--timeout", "20", "--json"],
            capture_output=True, text=True, timeout=60)
        assert result.returncode == 0, result.stdout + result.stderr
        updates = [json.loads(l) for l in result.stdout.splitlines() if '"update"' in l]
        assert updates == [{"event": "update", "name": "temperature", "type": printed[0], "value": printed[1]}]
        kinds = [e.kind for _, e in zip(range(2), server.events(timeout=10))]
        assert kinds == ["connected", "subscribe"]


def test_tarn_sub_sees_changes_and_triggers(transport):
    with tarn.Server(port=0, transport=transport, host="127.0.0.1") as server:
        sub = Tool("sub", f"--{transport}", "127.0.0.1", str(server.port), "door", "--count", "2", "--timeout", "20",
                   stdin=False)
        try:
            assert server.next_event(timeout=15).kind == "connected"
            assert server.next_event(timeout=15).kind == "subscribe"
            server.set("door", "closed")
            sub.expect(r'^update door="closed"$')
            server.trigger("door", "knock")
            sub.expect(r'^trigger door="knock"$')
            assert sub.wait(15) == 0
        finally:
            sub.stop()


def test_tarn_call_on_a_python_server(transport):
    with tarn.Server(port=0, transport=transport, host="127.0.0.1") as server:
        result = subprocess.run(
            [tool_path(), "call", f"--{transport}", "127.0.0.1", str(server.port), "setpoint", "level:i=3", "mode=eco",
             "on:b=on", "target:f=20.5", "hello"],
            capture_output=True, text=True, timeout=60)
        assert result.returncode == 0, result.stdout + result.stderr
        call = server.next_call(timeout=15)
        assert call.name == "setpoint"
        assert call.params == {"arg5": "hello", "level": 3, "mode": "eco", "on": True, "target": 20.5}

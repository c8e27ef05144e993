"""asyncio: events and calls awaited in the event loop, iterated, timed out, and waited for by
several coroutines at once, without a thread per wait."""

import asyncio
import threading
import time

import pytest

import tarn


def run(coroutine):
    return asyncio.run(asyncio.wait_for(coroutine, 60))


def test_await_events_and_calls(transport):
    async def scenario():
        with tarn.Server(port=0, transport=transport) as server:
            server.set("temperature", 21.5)
            with tarn.Client("127.0.0.1", server.port, transport) as client:
                client.subscribe("temperature")
                event = await client.next_event_async(timeout=10)
                assert event == tarn.Event("update", "temperature", 21.5, "float")
                client.call("setpoint", level=3)
                call = await server.next_call_async(timeout=10)
                assert (call.name, call.params) == ("setpoint", {"level": 3})
                kinds = []
                async for e in server.events_async(timeout=0.5):
                    kinds.append(e.kind)
                assert kinds == ["connected", "subscribe"]

    run(scenario())


def test_async_iteration_until_the_link_ends():
    async def scenario():
        server = tarn.Server(port=0)
        client = tarn.Client("127.0.0.1", server.port)
        client.subscribe("n")
        assert (await server.next_event_async(timeout=10)).kind == "connected"
        assert (await server.next_event_async(timeout=10)).kind == "subscribe"
        for i in range(3):
            server.set("n", i)

        async def close_later():
            await asyncio.sleep(0.3)
            server.close()

        closer = asyncio.create_task(close_later())
        got = [event async for event in client]
        await closer
        assert got == [tarn.Event("update", "n", i, "int") for i in range(3)] + [tarn.Event("disconnected")]
        client.close()

    run(scenario())


def test_async_time_out_returns_none_and_the_loop_keeps_running():
    async def scenario():
        with tarn.Server(port=0) as server, tarn.Client("127.0.0.1", server.port) as client:
            ticks = 0

            async def tick():
                nonlocal ticks
                while True:
                    await asyncio.sleep(0.01)
                    ticks += 1

            ticker = asyncio.create_task(tick())
            started = time.monotonic()
            assert await client.next_event_async(timeout=0.5) is None
            assert time.monotonic() - started >= 0.49
            assert await server.next_call_async(timeout=0) is None
            ticker.cancel()
            assert ticks >= 10  # the loop ran while the client waited

    run(scenario())


def test_events_pushed_from_another_thread_wake_the_loop():
    async def scenario():
        with tarn.Server(port=0) as server, tarn.Client("127.0.0.1", server.port) as client:
            client.subscribe("x")
            assert (await server.next_event_async(timeout=10)).kind == "connected"
            assert (await server.next_event_async(timeout=10)).kind == "subscribe"
            threading.Timer(0.2, server.set, args=("x", "late")).start()
            started = time.monotonic()
            event = await client.next_event_async(timeout=10)
            assert event.value == "late" and time.monotonic() - started < 5

    run(scenario())


def test_several_coroutines_wait_at_once():
    async def scenario():
        with tarn.Server(port=0) as server, tarn.Client("127.0.0.1", server.port) as client:
            waiters = [asyncio.create_task(server.next_call_async(timeout=10)) for _ in range(3)]
            events = asyncio.create_task(server.next_event_async(timeout=10))
            await asyncio.sleep(0.05)
            for i in range(3):
                client.call("f", i=i)
            calls = await asyncio.gather(*waiters)
            assert sorted(c.params["i"] for c in calls) == [0, 1, 2]
            assert (await events).kind == "connected"

    run(scenario())


def test_a_cancelled_wait_loses_nothing():
    async def scenario():
        with tarn.Server(port=0) as server, tarn.Client("127.0.0.1", server.port) as client:
            waiter = asyncio.create_task(server.next_call_async())
            await asyncio.sleep(0.05)
            waiter.cancel()
            with pytest.raises(asyncio.CancelledError):
                await waiter
            client.call("kept")
            assert (await server.next_call_async(timeout=10)).name == "kept"

    run(scenario())


def test_closing_ends_an_async_wait():
    async def scenario():
        server = tarn.Server(port=0)
        waiter = asyncio.create_task(server.next_call_async())
        await asyncio.sleep(0.05)
        server.close()
        assert await asyncio.wait_for(waiter, 5) is None

    run(scenario())

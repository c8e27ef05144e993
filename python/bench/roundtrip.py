#!/usr/bin/env python3
"""Round trips through the Python module, shaped like tarn-bench's: the client calls "rt" with a text
of PAYLOAD bytes and the server answers with the trigger "rt" carrying the same text back.

Both ends live in this process, as in tarn-bench, so the figures compare with its
"tarn-tcp/PAYLOAD" and "tarn-eudp-rt/PAYLOAD" round-trip series. Two ways are measured:

- ``highlevel``: tarn.Server answers from a Python thread (next_call, trigger), tarn.Client waits
  with next_event(): every message crosses the module's queues and the GIL twice.
- ``callbacks``: tarn.Listener/tarn.Connection with Python callables; the client's trigger callback
  sends the next call, as tarn-bench's client does.

Usage (from a build tree):
    PYTHONPATH=build/release/python /usr/bin/python3 python/bench/roundtrip.py [--count N]
        [--payload BYTES] [--transport tcp|eudp|both] [--way highlevel|callbacks|both]
"""

import argparse
import statistics
import threading
import time

import tarn


def report(label, samples, seconds, cpu):
    samples = sorted(samples)
    n = len(samples)
    print(f"{label:28s} n={n:6d}  median {samples[n // 2] * 1e6:8.1f} us  p99 {samples[int(n * 0.99)] * 1e6:8.1f} us"
          f"  mean {statistics.fmean(samples) * 1e6:8.1f} us  {n / seconds:8.0f} rt/s  cpu {cpu / n * 1e6:6.1f} us/rt")


def highlevel(transport, count, warm_up, text):
    with tarn.Server(port=0, transport=transport, host="127.0.0.1") as server:
        def answer():
            for call in server.calls(timeout=None):
                server.trigger("rt", call.params["s"], conn=call.conn)

        threading.Thread(target=answer, daemon=True).start()
        with tarn.Client("127.0.0.1", server.port, transport=transport) as client:
            client.subscribe("rt")
            samples = []
            for i in range(warm_up + count):
                if i == warm_up:
                    start, cpu = time.perf_counter(), time.process_time()
                sent = time.perf_counter()
                client.call("rt", s=text)
                event = client.next_event(timeout=5.0)
                if event is None:
                    raise SystemExit(f"{transport}: no answer to round trip {i}")
                if i >= warm_up:
                    samples.append(time.perf_counter() - sent)
            report(f"highlevel {transport}", samples, time.perf_counter() - start, time.process_time() - cpu)


def callbacks(transport, count, warm_up, text):
    done = threading.Event()
    samples = []
    state = {"i": 0, "sent": 0.0}
    accepted = []

    def accept(connection):
        accepted.append(connection)
        connection.set_server(
            on_call_function_id=lambda name, params: connection.trigger("rt", params.get_param_string("s")))

    listener = tarn.Listener(transport)
    listener.listen("127.0.0.1", 0, accept)
    deadline = time.monotonic() + 10
    while listener.get_local_port() == 0 and time.monotonic() < deadline:
        time.sleep(0.01)
    client = tarn.Connection(transport)

    def send():
        state["sent"] = time.perf_counter()
        client.call("rt", {"s": text})

    def on_trigger(name, value):
        now = time.perf_counter()
        if state["i"] >= warm_up:
            samples.append(now - state["sent"])
        state["i"] += 1
        if state["i"] == warm_up:
            state["start"], state["cpu"] = time.perf_counter(), time.process_time()
        if state["i"] >= warm_up + count:
            state["end"], state["cpu_end"] = time.perf_counter(), time.process_time()
            done.set()
        else:
            send()

    try:
        if not client.connect("127.0.0.1", listener.get_local_port(), on_trigger=on_trigger):
            raise SystemExit(f"{transport}: cannot connect")
        send()
        if not done.wait(60 + count / 100):
            raise SystemExit(f"{transport}: round trips stalled after {state['i']}")
        report(f"callbacks {transport}", samples, state["end"] - state["start"], state["cpu_end"] - state["cpu"])
    finally:
        client.close()
        listener.close()
        for connection in accepted:
            connection.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--count", type=int, default=3000)
    parser.add_argument("--warm-up", type=int, default=200)
    parser.add_argument("--payload", type=int, default=16)
    parser.add_argument("--transport", choices=["tcp", "eudp", "both"], default="both")
    parser.add_argument("--way", choices=["highlevel", "callbacks", "both"], default="both")
    args = parser.parse_args()
    text = "x" * args.payload
    transports = ["tcp", "eudp"] if args.transport == "both" else [args.transport]
    ways = [highlevel, callbacks] if args.way == "both" else [globals()[args.way]]
    for way in ways:
        for transport in transports:
            way(transport, args.count, args.warm_up, text)


if __name__ == "__main__":
    main()

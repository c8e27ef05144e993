"""No leak over many connect/close cycles: resident memory and the C heap stay flat.

Each measurement is taken once every closed connection has been freed (the reaper is drained) and
after malloc_trim, so that what is measured is what is still held, not what the allocator keeps
cached. The short run is part of every test run; the full 10 000 cycles carry the label long.
"""

import ctypes
import gc
import os

import pytest

import tarn

_libc = ctypes.CDLL("libc.so.6")


class _MallInfo2(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in
                ("arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks", "fordblks",
                 "keepcost")]


_libc.mallinfo2.restype = _MallInfo2
_libc.malloc_trim.argtypes = [ctypes.c_size_t]
MIB = 1024 * 1024


def measure(server):
    assert tarn._tarn._reaper_drain(60000)
    for _ in server.events(timeout=0.3):
        pass
    gc.collect()
    _libc.malloc_trim(0)
    with open("/proc/self/statm") as statm:
        resident = int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
    return resident, _libc.mallinfo2().uordblks


def cycles(transport, rounds, per_round):
    """Connect, subscribe, call, close, `rounds` x `per_round` times; the figures after each round."""
    figures = []
    with tarn.Server(port=0, transport=transport, host="127.0.0.1") as server:
        server.set("x", 1.5)
        for _ in range(rounds):
            for _ in range(per_round):
                with tarn.Client("127.0.0.1", server.port, transport) as client:
                    client.subscribe("x")
                    client.call("f", a=1, b="two")
                for _ in server.events(timeout=0):
                    pass
            figures.append(measure(server))
    return figures


def check_flat(figures, cycles_measured, resident_limit, heap_per_cycle):
    """The first round warms up; from then on neither figure may grow beyond its bound."""
    base_resident, base_heap = figures[0]
    last_resident, last_heap = figures[-1]
    report = ", ".join(f"{r / MIB:.2f} MiB/{h / MIB:.2f} MiB" for r, h in figures)
    print(f"resident/heap after each round: {report}")
    assert last_resident - base_resident <= resident_limit, report
    assert last_heap - base_heap <= heap_per_cycle * cycles_measured, report


@pytest.mark.parametrize("transport, rounds, per_round", [("tcp", 6, 300), ("eudp", 4, 200)])
def test_connect_close_cycles_do_not_leak(transport, rounds, per_round):
    figures = cycles(transport, rounds, per_round)
    check_flat(figures, (rounds - 1) * per_round, resident_limit=2 * MIB, heap_per_cycle=256)


@pytest.mark.long
@pytest.mark.parametrize("transport", ["tcp", "eudp"])
def test_ten_thousand_connect_close_cycles_do_not_leak(transport):
    figures = cycles(transport, 11, 1000)  # one round of warm-up, then 10 000 cycles
    check_flat(figures, 10000, resident_limit=3 * MIB, heap_per_cycle=64)

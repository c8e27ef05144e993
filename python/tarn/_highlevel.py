"""Server and Client: TARN in a few lines, for scripts, test benches and notebooks.

Both keep what arrives in a queue of their own (filled by the library's threads without waiting for
Python) and hand it out by ``next_event()``, by iteration, or to asyncio.
"""

from __future__ import annotations

import asyncio
import dataclasses
import socket
from typing import Any, AsyncIterator, Callable, Dict, Iterable, Iterator, List, NamedTuple, Optional, Union

from . import _tarn

__all__ = ["Client", "Server", "Event", "ServerEvent", "ConnectionInfo", "ConnectError"]

_MODES = ("realtime", "reliable")
_DEFAULT_QUEUE_LIMIT = 100_000


class ConnectError(ConnectionError):
    """A client could not connect: nobody listens (TCP), no answer within 5 s (EUDP), unknown host."""


@dataclasses.dataclass(frozen=True)
class Event:
    """What a client received.

    ``kind`` is ``"update"`` (a state update), ``"trigger"`` or ``"disconnected"`` (the server ended
    the link; the last event). ``name`` and ``value`` are those of the update or trigger; ``value``
    is a str, int, bool, float (the 32-bit float widened) or None, and ``type`` names the TARN type
    (``"string"``, ``"int"``, ``"bool"``, ``"float"``, ``"none"``, or ``"unknown"`` for a foreign
    type tag, whose value is then a tarn.ParameterValue).
    """

    kind: str
    name: Optional[str] = None
    value: Any = None
    type: Optional[str] = None


@dataclasses.dataclass(frozen=True)
class ServerEvent:
    """What a server saw a client do.

    ``kind`` is ``"connected"``, ``"subscribe"``, ``"unsubscribe"``, ``"call"`` or
    ``"disconnected"``. ``conn`` numbers the client's connection (from 1) and ``peer`` is its
    ``"address:port"``. ``name`` is the item subscribed to or the function called; ``params`` holds a
    call's parameters as ``{name: value}`` in name order.
    """

    kind: str
    conn: int
    peer: str
    name: Optional[str] = None
    params: Optional[Dict[str, Any]] = None


class ConnectionInfo(NamedTuple):
    """One client connection of a server: its number, ``"address:port"`` and subscriptions."""

    conn: int
    peer: str
    subscriptions: List[str]


def _transport_name(transport: Union[str, "_tarn.Transport"]) -> str:
    if isinstance(transport, _tarn.Transport):
        return "tcp" if transport == _tarn.Transport.TCP else "eudp"
    if not isinstance(transport, str):
        raise TypeError(f"transport must be 'tcp' or 'eudp', not {type(transport).__name__}")
    name = transport.lower()
    if name not in ("tcp", "eudp"):
        raise ValueError(f"transport must be 'tcp' or 'eudp', not {transport!r}")
    return name


def _mode_name(mode: Union[str, "_tarn.ConnMode"]) -> str:
    if isinstance(mode, _tarn.ConnMode):
        return "realtime" if mode == _tarn.ConnMode.REALTIME else "reliable"
    if not isinstance(mode, str) or mode.lower() not in _MODES:
        raise ValueError(f"mode must be 'realtime' or 'reliable', not {mode!r}")
    return mode.lower()


def _allowed(modes: Iterable[str], what: str) -> tuple:
    if isinstance(modes, str):
        modes = (modes,)
    chosen = {_mode_name(m) for m in modes}
    if not chosen:
        raise ValueError(f"{what} must name at least one of 'realtime' and 'reliable'")
    return ("realtime" in chosen, "reliable" in chosen)


def _queue_limit(limit: int) -> int:
    if isinstance(limit, bool) or not isinstance(limit, int):
        raise TypeError(f"queue_limit must be an int, not {type(limit).__name__}")
    if limit < 1:
        raise ValueError(f"queue_limit must be at least 1, not {limit}")
    return limit


def _check_timeout(timeout: Optional[float]) -> None:
    if timeout is not None and not (isinstance(timeout, (int, float)) and not isinstance(timeout, bool)):
        raise TypeError(f"timeout must be a number of seconds or None, not {type(timeout).__name__}")
    if timeout is not None and not timeout >= 0:
        raise ValueError(f"timeout must be a non-negative number of seconds or None, not {timeout!r}")


class _Readiness:
    """Wakes the coroutines of one event loop that wait on one queue's file descriptor."""

    def __init__(self, loop: asyncio.AbstractEventLoop, core: Any) -> None:
        self._loop = loop
        self._core = core
        self._waiters: set = set()

    def add(self, future: "asyncio.Future[None]") -> None:
        if not self._waiters:
            self._loop.add_reader(self._core.fileno(), self._ready)
        self._waiters.add(future)

    def discard(self, future: "asyncio.Future[None]") -> None:
        self._waiters.discard(future)
        if not self._waiters:
            self._loop.remove_reader(self._core.fileno())

    def _ready(self) -> None:
        self._core.clear_signal()
        waiters, self._waiters = self._waiters, set()
        self._loop.remove_reader(self._core.fileno())
        for future in waiters:
            if not future.done():
                future.set_result(None)


class _Queue:
    """The waiting calls shared by Client and Server: blocking, iterating and asyncio."""

    _core: Any

    def _init_queue(self) -> None:
        self._readiness: Dict[asyncio.AbstractEventLoop, _Readiness] = {}

    def _wait(self, pop: Callable[[Optional[float]], Any], timeout: Optional[float]) -> Any:
        _check_timeout(timeout)
        item = pop(timeout)
        return None if item is False else item

    async def _wait_async(self, pop: Callable[[Optional[float]], Any], timeout: Optional[float]) -> Any:
        _check_timeout(timeout)
        loop = asyncio.get_running_loop()
        deadline = None if timeout is None else loop.time() + timeout
        while True:
            # Looking and registering happen in one step of the loop, so no signal falls between.
            item = pop(0)
            if item is not None:
                return None if item is False else item
            remaining = None if deadline is None else deadline - loop.time()
            if remaining is not None and remaining <= 0:
                return None
            readiness = self._readiness.get(loop)
            if readiness is None:
                readiness = self._readiness[loop] = _Readiness(loop, self._core)
            future = loop.create_future()
            readiness.add(future)
            try:
                await asyncio.wait_for(future, remaining)
            except asyncio.TimeoutError:
                item = pop(0)
                return None if item is None or item is False else item
            finally:
                readiness.discard(future)


class Client(_Queue):
    """A TARN client: connects at once, sends subscriptions and calls, and queues what arrives.

    ``Client(host, port, transport="tcp")`` connects (``"eudp"`` for EUDP) and raises
    :class:`ConnectError` when it cannot. ``subscribe()``, ``unsubscribe()`` and ``call()`` send;
    ``next_event()``, ``events()``, ``next_event_async()`` and ``async for`` hand out the updates
    and triggers that arrive, as :class:`Event`. Use it as a context manager, or call
    ``close()``; it is safe from any thread.

    EUDP only: ``allow_send`` and ``allow_receive`` name the modes this side agrees to when the
    server asks; ``set_send_mode()``, ``set_receive_mode()`` and ``set_window()`` ask the server.
    ``queue_limit`` bounds the queue: beyond it the oldest events are dropped (``dropped_events``
    counts them).
    """

    def __init__(
        self,
        host: str,
        port: int,
        transport: str = "tcp",
        *,
        allow_send: Iterable[str] = _MODES,
        allow_receive: Iterable[str] = _MODES,
        queue_limit: int = _DEFAULT_QUEUE_LIMIT,
    ) -> None:
        self._init_queue()
        self._transport = _transport_name(transport)
        if not isinstance(host, str):
            raise TypeError(f"host must be str, not {type(host).__name__}")
        if isinstance(port, bool) or not isinstance(port, int):
            raise TypeError(f"port must be an int, not {type(port).__name__}")
        if not 1 <= port <= 65535:
            raise ValueError(f"port must be 1 to 65535, not {port}")
        send = _allowed(allow_send, "allow_send")
        receive = _allowed(allow_receive, "allow_receive")
        self._host = host
        self._port = port
        try:
            socket.getaddrinfo(host, None)
        except socket.gaierror as error:
            raise ConnectError(f"cannot connect to {host}:{port}: unknown host ({error.strerror})") from None
        self._core = _tarn._ClientCore(self._transport, _queue_limit(queue_limit))
        if not self._core.connect(host, port, *send, *receive):
            self._core.close()
            reason = "nobody accepted the connection" if self._transport == "tcp" else "no answer within 5 s"
            raise ConnectError(f"cannot connect to {host}:{port} over {self._transport}: {reason}")
        self._closed = False

    # ---- sending -------------------------------------------------------------------------------

    def subscribe(self, *names: str) -> None:
        """Subscribes to each name: the server sends its state now and on every change."""
        for name in names:
            self._sent(self._core.subscribe(name, True), f"subscribe {name!r}")

    def unsubscribe(self, *names: str) -> None:
        """Ends the subscription to each name."""
        for name in names:
            self._sent(self._core.subscribe(name, False), f"unsubscribe {name!r}")

    def call(
        self, function: str, params: Union[Dict[str, Any], "_tarn.ParameterList", None] = None, /, **kwargs: Any
    ) -> None:
        """Calls ``function`` with parameters given as a dict (or a ParameterList), as keywords, or both.

        ``client.call("setpoint", level=3, mode="eco", on=True, target=20.5)`` sends an int, a text, a
        bool and a 32-bit float. Raises ValueError when a value is out of range, a name is given twice,
        or the call does not fit one TARN message.
        """
        if isinstance(params, _tarn.ParameterList):
            params = dict(params.items())
        if params is not None and not isinstance(params, dict):
            raise TypeError(f"params must be a dict or a tarn.ParameterList, not {type(params).__name__}")
        merged: Dict[str, Any] = dict(params) if params is not None else {}
        for key, value in kwargs.items():
            if key in merged:
                raise ValueError(f"parameter {key!r} is given twice")
            merged[key] = value
        self._sent(self._core.call(function, merged), f"call {function!r}")

    def _sent(self, ok: bool, what: str) -> None:
        if ok:
            return
        if self._closed:
            raise ValueError("the client is closed")
        if not self._core.connected:
            raise ConnectionError(f"the link to {self._host}:{self._port} has ended; {what} was not sent")
        raise ConnectionError(f"the transport did not take {what}")

    # ---- EUDP modes and window -------------------------------------------------------------------

    def set_send_mode(self, mode: str) -> None:
        """Asks the server to send in ``mode`` (``"realtime"`` or ``"reliable"``); this side then receives in it.

        Over EUDP the server answers within 10 s or refuses by not answering: TimeoutError. Over TCP
        delivery is always reliable, and asking for realtime is a ValueError.
        """
        self._negotiate(True, mode)

    def set_receive_mode(self, mode: str) -> None:
        """Asks the server to receive in ``mode``; this side then sends in it. As set_send_mode()."""
        self._negotiate(False, mode)

    def _negotiate(self, send: bool, mode: str) -> None:
        name = _mode_name(mode)
        self._check_open()
        if self._transport == "tcp":
            if name == "realtime":
                raise ValueError("TCP delivers reliably only: there is no realtime mode to ask for")
            return
        if not self._core.set_mode(send, name):
            what = "send" if send else "receive"
            raise TimeoutError(
                f"the server did not confirm {what} mode {name!r} within 10 s "
                "(a peer refuses a mode by not answering)")

    def set_window(self, size: int) -> None:
        """Asks the server to keep at most ``size`` unacknowledged messages in flight towards this side (EUDP).

        TimeoutError when the server does not confirm within 10 s; ValueError over TCP, which has no window.
        """
        if isinstance(size, bool) or not isinstance(size, int):
            raise TypeError(f"size must be an int, not {type(size).__name__}")
        if not 0 <= size <= 0xFFFFFFFF:
            raise ValueError(f"size must be 0 to 4294967295, not {size}")
        self._check_open()
        if self._transport == "tcp":
            raise ValueError("TCP has no window to set")
        if not self._core.set_window_size(size):
            raise TimeoutError(f"the server did not confirm window size {size} within 10 s")

    # ---- receiving -------------------------------------------------------------------------------

    def _pop(self, timeout: Optional[float]) -> Any:
        item = self._core.pop(timeout)
        if item is None or item is False:
            return item
        return Event(*item)

    def next_event(self, timeout: Optional[float] = None) -> Optional[Event]:
        """The next :class:`Event`, waiting up to ``timeout`` seconds (None: without limit).

        Returns None when the time runs out, and at once when the client is closed or the link
        has ended and its ``"disconnected"`` event was handed out. Ctrl-C interrupts the wait.
        """
        return self._wait(self._pop, timeout)

    def events(self, timeout: Optional[float] = None) -> Iterator[Event]:
        """Iterates over events until none arrives within ``timeout`` seconds, or the link ends."""
        while True:
            event = self.next_event(timeout)
            if event is None:
                return
            yield event
            if event.kind == "disconnected":
                return

    async def next_event_async(self, timeout: Optional[float] = None) -> Optional[Event]:
        """next_event() for asyncio: waits in the event loop, not in a thread."""
        return await self._wait_async(self._pop, timeout)

    async def events_async(self, timeout: Optional[float] = None) -> AsyncIterator[Event]:
        """events() for asyncio: ``async for event in client.events_async(timeout=2): ...``."""
        while True:
            event = await self.next_event_async(timeout)
            if event is None:
                return
            yield event
            if event.kind == "disconnected":
                return

    def __aiter__(self) -> AsyncIterator[Event]:
        """``async for event in client`` waits without limit until the link ends."""
        return self.events_async()

    # ---- state -------------------------------------------------------------------------------------

    @property
    def transport(self) -> str:
        """``"tcp"`` or ``"eudp"``."""
        return self._transport

    @property
    def connected(self) -> bool:
        """True until the link ends or the client is closed."""
        return not self._closed and self._core.connected

    @property
    def local_port(self) -> int:
        """This side's port."""
        return self._core.local_port

    @property
    def peer(self) -> str:
        """The server's ``"address:port"`` ('' once closed)."""
        return self._core.peer

    @property
    def dropped_events(self) -> int:
        """Events dropped because the queue was full (see queue_limit)."""
        return self._core.dropped

    def _check_open(self) -> None:
        if self._closed:
            raise ValueError("the client is closed")

    def close(self) -> None:
        """Closes the link; waiting calls return None. Harmless twice, safe from any thread."""
        self._closed = True
        self._core.close()

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self._closed else ("connected" if self._core.connected else "disconnected")
        return f"<tarn.Client {self._transport} {self._host}:{self._port} {state}>"


class Server(_Queue):
    """A TARN server: named states for subscribers, and a queue of what the clients do.

    ``Server(port=0, transport="tcp")`` listens at once (port 0: the system chooses; see ``port``)
    on every interface, or on ``host``; OSError when the address cannot be bound. ``set(name,
    value)`` stores a state and sends it to the subscribers of ``name``; a new subscriber gets it at
    once. ``trigger(name, value)`` sends a trigger to the subscribers. ``next_call()`` hands out the
    next function call, ``next_event()`` everything (connections, subscriptions, calls, ends) as
    :class:`ServerEvent`. Use it as a context manager, or call ``close()``.
    """

    def __init__(
        self,
        port: int = 0,
        transport: str = "tcp",
        *,
        host: str = "",
        queue_limit: int = _DEFAULT_QUEUE_LIMIT,
    ) -> None:
        self._init_queue()
        self._transport = _transport_name(transport)
        if not isinstance(host, str):
            raise TypeError(f"host must be str, not {type(host).__name__}")
        self._host = host
        self._closed = False
        self._core = _tarn._ServerCore(self._transport, _queue_limit(queue_limit))
        try:
            self._core.listen(host, port)
        except BaseException:
            self._core.close()
            raise

    # ---- states and triggers -------------------------------------------------------------------

    def set(self, name: str, value: Any) -> int:
        """Stores the state ``name`` and sends it to its subscribers; returns how many took it."""
        self._check_open()
        return self._core.send(True, name, value, 0)

    def trigger(self, name: str, value: Any, *, conn: Optional[int] = None) -> int:
        """Sends a trigger to the subscribers of ``name`` (or to connection ``conn`` only); returns how many took it."""
        self._check_open()
        if conn is not None and (isinstance(conn, bool) or not isinstance(conn, int) or conn < 1):
            raise ValueError(f"conn must be a connection number (1 or more), not {conn!r}")
        return self._core.send(False, name, value, conn or 0)

    def get(self, name: str, default: Any = None) -> Any:
        """The stored state ``name``, or ``default``."""
        try:
            return self._core.state(name)
        except KeyError:
            return default

    @property
    def states(self) -> Dict[str, Any]:
        """A copy of every stored state, by name."""
        return self._core.states()

    def connections(self) -> List[ConnectionInfo]:
        """The connected clients with their subscriptions."""
        return [ConnectionInfo(conn, peer, subs) for conn, peer, subs in self._core.connections()]

    # ---- receiving -------------------------------------------------------------------------------

    def _pop_event(self, timeout: Optional[float]) -> Any:
        item = self._core.pop(timeout, False)
        return item if item is None or item is False else ServerEvent(*item)

    def _pop_call(self, timeout: Optional[float]) -> Any:
        item = self._core.pop(timeout, True)
        return item if item is None or item is False else ServerEvent(*item)

    def next_event(self, timeout: Optional[float] = None) -> Optional[ServerEvent]:
        """The next :class:`ServerEvent`, waiting up to ``timeout`` seconds (None: without limit); None when
        the time runs out or the server is closed. Ctrl-C interrupts the wait."""
        return self._wait(self._pop_event, timeout)

    def next_call(self, timeout: Optional[float] = None) -> Optional[ServerEvent]:
        """The next function call (a ServerEvent of kind ``"call"``), as next_event(); other events stay queued."""
        return self._wait(self._pop_call, timeout)

    def events(self, timeout: Optional[float] = None) -> Iterator[ServerEvent]:
        """Iterates over events until none arrives within ``timeout`` seconds or the server is closed."""
        while (event := self.next_event(timeout)) is not None:
            yield event

    def calls(self, timeout: Optional[float] = None) -> Iterator[ServerEvent]:
        """Iterates over function calls until none arrives within ``timeout`` seconds."""
        while (event := self.next_call(timeout)) is not None:
            yield event

    async def next_event_async(self, timeout: Optional[float] = None) -> Optional[ServerEvent]:
        """next_event() for asyncio."""
        return await self._wait_async(self._pop_event, timeout)

    async def next_call_async(self, timeout: Optional[float] = None) -> Optional[ServerEvent]:
        """next_call() for asyncio."""
        return await self._wait_async(self._pop_call, timeout)

    async def events_async(self, timeout: Optional[float] = None) -> AsyncIterator[ServerEvent]:
        """events() for asyncio."""
        while (event := await self.next_event_async(timeout)) is not None:
            yield event

    def __aiter__(self) -> AsyncIterator[ServerEvent]:
        """``async for event in server`` waits without limit until the server is closed."""
        return self.events_async()

    # ---- state -------------------------------------------------------------------------------------

    @property
    def port(self) -> int:
        """The bound port."""
        return self._core.port

    @property
    def transport(self) -> str:
        """``"tcp"`` or ``"eudp"``."""
        return self._transport

    @property
    def dropped_events(self) -> int:
        """Events dropped because the queue was full (see queue_limit)."""
        return self._core.dropped

    def _check_open(self) -> None:
        if self._closed:
            raise ValueError("the server is closed")

    def close(self) -> None:
        """Stops listening and closes every client connection. Harmless twice, safe from any thread."""
        self._closed = True
        self._core.close()

    def __enter__(self) -> "Server":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self._closed else f"port {self._core.port}"
        return f"<tarn.Server {self._transport} {state}>"

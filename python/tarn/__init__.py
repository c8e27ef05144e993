"""TARN for Python: a small control protocol between two programs, over TCP or EUDP.

A *server* keeps named states and sends triggers; a *client* subscribes to names, is told of their
states and of triggers, and calls the server's functions with named, typed parameters.

The high-level API, for scripts and test benches::

    import tarn
    with tarn.Server(port=0, transport="tcp") as server:          # also "eudp"; server.port is the bound port
        server.set("temperature", 21.5)                            # state: sent on subscribe and on every change
        server.trigger("door", "open")
        with tarn.Client("127.0.0.1", server.port, transport="tcp") as client:
            client.subscribe("temperature")
            event = client.next_event(timeout=2.0)                 # event.kind == "update", .name, .value == 21.5
            client.call("setpoint", level=3, mode="eco", on=True, target=20.5)
            call = server.next_call(timeout=2.0)                   # call.name == "setpoint", call.params == {...}

Events are also iterated (``for event in client.events(timeout=2.0)``) and awaited from asyncio
(``await client.next_event_async()``, ``async for event in client``).

The library's own model, for those who want it exactly: :class:`ParameterValue`,
:class:`ParameterList`, :class:`Connection` (with callables as client and server callbacks) and
:class:`Listener`.

Values
    ``str`` is a text, ``int`` a 32-bit signed integer (ValueError outside -2147483648..2147483647),
    ``bool`` a boolean (never taken for an int), ``float`` a 32-bit float (a received float is the
    32-bit value widened, so 0.1 comes back as 0.10000000149011612) and ``None`` no value.
    :func:`Int`, :func:`Float`, :func:`Bool` and :func:`Str` force a type (``tarn.Float(3)``).
    Received texts are decoded as UTF-8, with surrogate escapes for other bytes.

Errors
    Bad arguments raise TypeError or ValueError (also a text with a NUL byte, or a message larger
    than one TARN message carries). A failed connect raises :class:`ConnectError`, a
    ConnectionError; a send on a link that has ended raises ConnectionError, on a closed client or
    server ValueError; binding a server raises OSError. Waiting calls (``next_event``,
    ``next_call``, their async forms) return None when their ``timeout`` runs out; the EUDP
    negotiations (``set_send_mode``, ``set_receive_mode``, ``set_window``) raise TimeoutError when
    the peer does not confirm within 10 s.

Threads
    Every blocking call releases the GIL; callbacks of the library model run on the library's
    threads and take the GIL; Ctrl-C interrupts a waiting ``next_event``; closing from a callback
    or from another thread is safe. Whatever is still open when the interpreter exits is closed.

Logging
    The library's log lines go to the logger ``"tarn"`` at their level; :func:`set_log_level`
    chooses which lines the library makes (default warning, or the environment variable
    TARN_LOG_LEVEL). An exception raised by a callback is logged there too, with its traceback.
"""

from ._tarn import (
    MAX_BODY,
    TYPE_BOOL,
    TYPE_FLOAT,
    TYPE_INT,
    TYPE_NONE,
    TYPE_STRING,
    Bool,
    Connection,
    ConnMode,
    ConnStatus,
    Float,
    Int,
    Listener,
    ParameterList,
    ParameterValue,
    Str,
    Transport,
    __version__,
    get_log_level,
    set_log_level,
)
from ._highlevel import Client, ConnectError, ConnectionInfo, Event, Server, ServerEvent

__all__ = [
    "Client",
    "Server",
    "Event",
    "ServerEvent",
    "ConnectionInfo",
    "ConnectError",
    "Int",
    "Float",
    "Bool",
    "Str",
    "ParameterValue",
    "ParameterList",
    "Connection",
    "Listener",
    "Transport",
    "ConnMode",
    "ConnStatus",
    "TYPE_NONE",
    "TYPE_STRING",
    "TYPE_INT",
    "TYPE_BOOL",
    "TYPE_FLOAT",
    "MAX_BODY",
    "set_log_level",
    "get_log_level",
    "__version__",
]

"""The captures that the dissector tests decode, written from known bytes.

Each builder writes one pcap and returns {label: frame number}, so that the tests can name the
frames whose decoding they check. The same builders serve the runs with port preferences and
the heuristic runs without them: only the ports differ.
"""

import random
import struct

from pcapgen import (Capture, TcpStream, eudp, mode_word, plist, tarn, tcp_frame, v_bool, v_float, v_int, v_none,
                     v_str)

CLIENT_IP = "127.0.0.1"
SERVER_IP = "127.0.0.2"

# The example of a trigger of the name A with the integer 1, byte for byte.
TRIGGER_A_1 = bytes([0x01, 0x54, 0x07, 0x00, 0x41, 0x00, 0x49, 0x01, 0x00, 0x00, 0x00])

CALL_ENTRIES = [(b"a", v_int(1)), (b"b", v_bool(True)), (b"c", v_float(1.5)), (b"d", v_str(b"hi")),
                (b"e", v_none()), (b"f", v_int(-7)), (b"g", v_bool(False)), (b"h", v_str(b""))]


def tcp_commands(path, tcp_port, client_port=40000, snaplen=65535):
    """Every TARN command and value type over TCP, with the segmentations a receiver meets."""
    cap = Capture()
    st = TcpStream(cap, (CLIENT_IP, client_port), (SERVER_IP, tcp_port))
    st.handshake()
    f = {}
    f["subscribe"] = st.send(True, tcp_frame(tarn("S", b"lamp\0")))
    f["call"] = st.send(True, tcp_frame(tarn("F", b"setLevel\0" + plist(CALL_ENTRIES))))
    f["call_empty"] = st.send(True, tcp_frame(tarn("F", b"reset\0" + plist([]))))
    f["example"] = st.send(False, tcp_frame(TRIGGER_A_1))
    f["trigger_string"] = st.send(False, tcp_frame(tarn("T", b"msg\0" + v_str(b"hello world"))))
    f["trigger_true"] = st.send(False, tcp_frame(tarn("T", b"on\0" + b"B\x05")))
    f["trigger_float"] = st.send(False, tcp_frame(tarn("T", b"temp\0" + v_float(-0.25))))
    f["trigger_none"] = st.send(False, tcp_frame(tarn("T", b"nothing\0" + v_none())))
    f["trigger_foreign"] = st.send(False, tcp_frame(tarn("T", b"odd\0" + b"\xC8")))
    f["update_max"] = st.send(False, tcp_frame(tarn("U", b"level\0" + v_int(2147483647))))
    f["update_min"] = st.send(False, tcp_frame(tarn("U", b"level\0" + v_int(-2147483648))))
    f["utf8"] = st.send(True, tcp_frame(tarn("S", "Grüße".encode() + b"\0")))
    f["empty_names"] = st.send(False, tcp_frame(tarn("T", b"\0" + v_str(b""))))
    f["unsubscribe"] = st.send(True, tcp_frame(tarn("X", b"lamp\0")))
    three = (tcp_frame(tarn("U", b"x\0" + v_str(b"yes"))) + tcp_frame(tarn("T", b"b\0" + v_bool(False))) +
             tcp_frame(tarn("T", b"n\0" + v_int(3))))
    f["three"] = st.send(False, three)
    pieces = st.send_pieces(False, tcp_frame(tarn("T", b"split\0" + v_float(0.1))), [1, 5, 9])
    f["split_first"], f["split_last"] = pieces[0], pieces[-1]
    # libtarn's own pattern: the 2-byte length and the message in two sends.
    f["lib_length"] = st.send(True, struct.pack("<H", 9))
    f["lib_body"] = st.send(True, tarn("S", b"door\0"))
    # A whole frame with the head of the next, then the rest of that one with one more whole frame.
    second = tcp_frame(tarn("X", b"door\0"))
    f["tail_a"] = st.send(True, tcp_frame(tarn("S", b"gate\0")) + second[:3])
    f["tail_b"] = st.send(True, second[3:] + tcp_frame(tarn("S", b"yard\0")))
    cap.write(path, snaplen)
    return f


# label, TCP frame bytes, expected expert messages, expected Info text
TCP_MALFORMED = [
    ("short_header", tcp_frame(b"\x01\x53\x00"),
     ["packet validation failed: header too short (3 bytes); the receiver discards the packet"],
     "[discarded] Subscribe"),
    ("short_wrong_version", tcp_frame(b"\x07\x53"),
     ["packet validation failed: wrong version (7); the receiver discards the packet"], "[discarded] Subscribe"),
    ("wrong_version", tcp_frame(tarn("S", b"lamp\0", version=2)),
     ["packet validation failed: wrong version (2); the receiver discards the packet"],
     "[discarded] Subscribe"),
    ("wrong_size", tcp_frame(tarn("T", b"ab\0N\0\0", length=5)),
     ["packet validation failed: wrong packet size (the body length says 5, the message holds 6 body bytes); "
      "the receiver discards the packet"], "[discarded] Trigger"),
    ("unterminated_name", tcp_frame(tarn("S", b"lamp")),
     ["unterminated string in packet: the receiver uses an empty name and reads the next field from the same place"],
     'Subscribe "" [malformed]'),
    ("unterminated_trigger", tcp_frame(tarn("T", b"AB")),
     ["unterminated string in packet: the receiver uses an empty name and reads the next field from the same place",
      "foreign type tag 0x41: the receiver keeps it as the value's type (65) and prints the value as INV"],
     'Trigger "" = INV [malformed]'),
    ("foreign_negative", tcp_frame(tarn("T", b"x\0\xC8")),
     ["foreign type tag 0xC8: the receiver keeps it as the value's type (-56) and prints the value as INV"],
     'Trigger "x" = INV'),
    ("foreign_z", tcp_frame(tarn("U", b"y\0Z")),
     ["foreign type tag 0x5A: the receiver keeps it as the value's type (90) and prints the value as INV"],
     'Update state "y" = INV'),
    ("short_int", tcp_frame(tarn("T", b"n\0I\x01\x00")),
     ["failed to parse parameter value: the integer needs 4 bytes after its tag and 2 are left; the receiver keeps "
      "the type with a zero payload"], 'Trigger "n" = 0 [malformed]'),
    ("short_float", tcp_frame(tarn("T", b"f\0F")),
     ["failed to parse parameter value: the float needs 4 bytes after its tag and 0 are left; the receiver keeps "
      "the type with a zero payload"], 'Trigger "f" = 0 [malformed]'),
    ("bool_cut", tcp_frame(tarn("T", b"b\0B")),
     ["the boolean's byte lies beyond the end of the message: the receiver reads a leftover byte there"],
     'Trigger "b" = ? [malformed]'),
    ("string_value_cut", tcp_frame(tarn("T", b"s\0Sabc")),
     ["failed to parse parameter value: the string has no terminating NUL within the message; the receiver fails "
      "here unless a leftover zero byte follows the message"], 'Trigger "s" = "" [malformed]'),
    ("value_missing", tcp_frame(tarn("T", b"v\0")),
     ["failed to parse parameter value: nothing is left for it; the receiver keeps a value of type none"],
     'Trigger "v" = INV [malformed]'),
    ("empty_body", tcp_frame(tarn("S")),
     ["the name lies beyond the end of the message: the receiver reads leftover bytes of an earlier message there"],
     'Subscribe "?" [malformed]'),
    ("negative_count", tcp_frame(tarn("F", b"f\0" + plist([(b"a", v_int(1))], count=0xFF))),
     ["count byte 0xFF is read as -1: the receiver decodes entries until a name runs past the message and then "
      "fails to parse the list",
      "failed to parse parameter list: the message ends after 1 entry; the receiver reads on into leftover bytes "
      "and normally fails here, keeping the entries decoded so far"], 'Call function "f" (1 parameter) [malformed]'),
    ("huge_count", tcp_frame(tarn("F", b"f\0" + plist([(b"a", v_int(1)), (b"b", v_none())], count=100))),
     ["failed to parse parameter list: the count asks for 100 entries and the message ends after 2; the receiver "
      "reads on into leftover bytes and normally fails here, keeping the entries decoded so far"],
     'Call function "f" (2 parameters) [malformed]'),
    ("negative_count_empty", tcp_frame(tarn("F", b"g\0\xC8")),
     ["count byte 0xC8 is read as -56: the receiver decodes entries until a name runs past the message and then "
      "fails to parse the list",
      "failed to parse parameter list: the message ends after 0 entries; the receiver reads on into leftover bytes "
      "and normally fails here, keeping the entries decoded so far"], 'Call function "g" (0 parameters) [malformed]'),
    ("unterminated_param", tcp_frame(tarn("F", b"h\0\x01abc")),
     ["failed to parse parameter list: a parameter name has no terminating NUL within the message; the receiver "
      "reads on into leftover bytes and normally fails here, keeping the entries decoded so far"],
     'Call function "h" (0 parameters) [malformed]'),
    ("list_missing", tcp_frame(tarn("F", b"noargs\0")),
     ["failed to parse parameter list: nothing is left for it; the function is called with an empty list"],
     'Call function "noargs" (0 parameters) [malformed]'),
    ("value_fails_in_list", tcp_frame(tarn("F", b"k\0\x02a\0I\x01")),
     ["failed to parse parameter value: the integer needs 4 bytes after its tag and 1 is left; the receiver keeps "
      "the type with a zero payload",
      "failed to parse parameter list: a parameter name has no terminating NUL within the message; the receiver "
      "reads on into leftover bytes and normally fails here, keeping the entries decoded so far"],
     'Call function "k" (1 parameter) [malformed]'),
    ("duplicate_names", tcp_frame(tarn("F", b"d\0" + plist([(b"a", v_int(1)), (b"a", v_int(2))]))),
     ["the name appears again: the receiver keeps this later value"], 'Call function "d" (2 parameters)'),
    ("count_256", tcp_frame(tarn("F", b"many\0" + plist([(b"%02x" % i, v_none()) for i in range(256)]))),
     ["1024 bytes after the last field are ignored"], 'Call function "many" (0 parameters)'),
    ("unknown_command", tcp_frame(tarn("G", b"xyz")),
     ["unknown command 0x47 ('G'): the receiver ignores the packet"], "Unknown command"),
    ("command_zero", tcp_frame(tarn(0)),
     ["unknown command 0x00 ('\\x00'): the receiver ignores the packet"], "Unknown command"),
    ("trailing", tcp_frame(tarn("S", b"lamp\0\xAA\xBB")),
     ["2 bytes after the last field are ignored"], 'Subscribe "lamp"'),
    ("empty_frame", tcp_frame(b""), ["empty message: the receiver skips it and reads the next frame"],
     "empty message"),
    # Last: a receiver that meets it stops reading the stream.
    ("oversized", tcp_frame(tarn("S", b"a" * 1495 + b"\0")),
     ["a message of 1500 bytes is longer than 1492: the receiver refuses it, leaves it in the stream and ends its "
      "receive loop"], "[refused] Subscribe"),
]


def tcp_malformed(path, tcp_port, client_port=40100):
    """One frame of each malformed kind, each in its own segment (the longest one in two)."""
    cap = Capture()
    st = TcpStream(cap, (CLIENT_IP, client_port), (SERVER_IP, tcp_port))
    st.handshake()
    # A valid first message, so that the heuristic recognises the stream.
    f = {"valid": st.send(True, tcp_frame(tarn("S", b"first\0")))}
    for label, data, _, _ in TCP_MALFORMED:
        f[label] = st.send_pieces(True, data, [1000] if len(data) > 1000 else [])[-1]
    cap.write(path)
    return f


def eudp_session(path, listen_port, server_port, client_port=40001, snaplen=65535):
    """A whole EUDP session: handshake, negotiation, data of every TARN command, keep-alive, end."""
    cap = Capture()
    client, listener, server = (CLIENT_IP, client_port), (SERVER_IP, listen_port), (SERVER_IP, server_port)
    f = {}
    f["con"] = cap.udp(client, listener, eudp("CON", 0))
    f["ack_con"] = cap.udp(server, client, eudp("ACK", 0))
    f["mod"] = cap.udp(client, server, eudp("MOD", mode_word("DDRD")))
    f["mak"] = cap.udp(server, client, eudp("MAK", mode_word("DTRR")))
    f["win"] = cap.udp(client, server, eudp("WIN", 20))
    f["wak"] = cap.udp(server, client, eudp("WAK", 20))
    f["cmd_subscribe"] = cap.udp(client, server, eudp("CMD", 1, tarn("S", b"lamp\0")))
    f["ack"] = cap.udp(server, client, eudp("ACK", 1))
    f["cmd_call"] = cap.udp(client, server, eudp("CMD", 2, tarn("F", b"setLevel\0" + plist(CALL_ENTRIES))))
    f["cmd_trigger"] = cap.udp(server, client, eudp("CMD", 0, tarn("T", b"lamp\0" + v_bool(True))))
    f["cmd_update"] = cap.udp(server, client, eudp("CMD", 1, tarn("U", b"temp\0" + v_float(21.5))))
    f["cmd_example"] = cap.udp(server, client, eudp("CMD", 2, TRIGGER_A_1))
    f["nak"] = cap.udp(server, client, eudp("NAK", 3))
    f["cmd_unsubscribe"] = cap.udp(client, server, eudp("CMD", 3, tarn("X", b"lamp\0")))
    f["keepalive"] = cap.udp(client, server, eudp("CMD", 4))
    f["nop"] = cap.udp(server, client, eudp("NOP", 0))
    f["cmd_wrap"] = cap.udp(client, server, eudp("CMD", 65534, tarn("S", b"w\0")))
    f["dis"] = cap.udp(client, server, eudp("DIS", 0))
    cap.write(path, snaplen)
    return f


# label, datagram, expected expert messages, expected Info text
EUDP_MALFORMED = [
    ("short_one", b"\x01", ["packet validation failed: header too short (1 byte); the receiver drops the datagram"],
     "[discarded] datagram (1 byte)"),
    ("short_seven", b"\x01ACK\x00\x00\x00",
     ["packet validation failed: header too short (7 bytes); the receiver drops the datagram"],
     "[discarded] ACK (7 bytes)"),
    ("short_wrong_version", b"\x02AC",
     ["packet validation failed: wrong version (2); the receiver drops the datagram"],
     "[discarded] datagram (3 bytes)"),
    ("wrong_version", eudp("ACK", 1, version=0),
     ["packet validation failed: wrong version (0); the receiver drops the datagram"], "[discarded] ACK (8 bytes)"),
    ("lower_case", eudp("ack", 1),
     ["packet validation failed: unknown command 'ack'; the receiver drops the datagram"],
     "[discarded] ack (8 bytes)"),
    ("payload_on_ack", eudp("ACK", 3, b"xy"),
     ["only CMD datagrams carry a payload: the receiver ignores these 2 bytes"], "ACK seq=3"),
    ("seq_negative", eudp("CMD", 0x80000000, tarn("S", b"neg\0")),
     ["header value 2147483648 is outside 0..65534: the receiver takes it as -32768"],
     'CMD seq=-32768 Subscribe "neg"'),
    ("seq_modulus", eudp("NAK", 65535), ["header value 65535 is outside 0..65534: the receiver takes it as 0"],
     "NAK seq=0"),
    ("mode_refused", eudp("MOD", mode_word("TDXD")),
     ["the answering side refuses a request for mode 'X' and sends no MAK"], "MOD TDXD"),
    ("tarn_short", eudp("CMD", 5, b"\x01\x54\x07"),
     ["packet validation failed: header too short (3 bytes); the receiver discards the packet"],
     "CMD seq=5 [discarded] Trigger"),
    ("tarn_wrong_size", eudp("CMD", 6, tarn("T", b"x\0N", length=9)),
     ["packet validation failed: wrong packet size (the body length says 9, the message holds 3 body bytes); "
      "the receiver discards the packet"], "CMD seq=6 [discarded] Trigger"),
    ("oversized", eudp("CMD", 7, tarn("S", b"b" * 1492 + b"\0")),
     ["a datagram of 1505 bytes is longer than 1500: the receiver gets only its first 1500 bytes",
      "packet validation failed: wrong packet size (the body length says 1493, the message holds 1488 body bytes); "
      "the receiver discards the packet"], "CMD seq=7 [discarded] Subscribe"),
]


def eudp_malformed(path, server_port, client_port=40002):
    """One datagram of each malformed kind, after a valid one between the same two ends."""
    cap = Capture()
    client, server = (CLIENT_IP, client_port), (SERVER_IP, server_port)
    f = {"valid": cap.udp(client, server, eudp("ACK", 0))}
    for label, data, _, _ in EUDP_MALFORMED:
        f[label] = cap.udp(client, server, data)
    f["empty"] = cap.udp(client, server, b"")
    cap.write(path)
    return f


def tcp_library_pattern(path, tcp_port, client_port=40200):
    """A stream that starts the way libtarn writes: each length in a segment of its own.

    The first message's body also carries a whole second frame and the head of a third, whose
    rest follows in the next segment.
    """
    cap = Capture()
    st = TcpStream(cap, (CLIENT_IP, client_port), (SERVER_IP, tcp_port))
    st.handshake()
    f = {}
    first, second, third = tarn("S", b"a\0"), tcp_frame(tarn("S", b"b\0")), tcp_frame(tarn("X", b"a\0"))
    f["length"] = st.send(True, struct.pack("<H", len(first)))
    f["body"] = st.send(True, first + second + third[:4])
    f["rest"] = st.send(True, third[4:])
    reply = tarn("T", b"a\0" + v_int(42))
    f["reply_length"] = st.send(False, struct.pack("<H", len(reply)))
    f["reply_body"] = st.send(False, reply)
    cap.write(path)
    return f


def unrelated(path):
    """Traffic of other kinds on unregistered ports, some of it close to TARN or EUDP."""
    rng = random.Random(7)
    cap = Capture()
    f = {}
    web = TcpStream(cap, (CLIENT_IP, 41001), (SERVER_IP, 47101))
    web.handshake()
    f["text"] = [web.send(True, b"GET /index.html HTTP/1.1\r\nHost: example\r\n\r\n"),
                 web.send(False, b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok")]
    noise = TcpStream(cap, (CLIENT_IP, 41002), (SERVER_IP, 47102))
    noise.handshake()
    f["noise"] = [noise.send(True, bytes(rng.randrange(256) for _ in range(rng.randrange(1, 200))))
                  for _ in range(20)]
    near = TcpStream(cap, (CLIENT_IP, 41003), (SERVER_IP, 47103))
    near.handshake()
    f["near"] = [
        near.send(True, tcp_frame(tarn("Q", b"lamp\0"))),             # not a TARN command letter
        near.send(True, tcp_frame(tarn("S", b"lamp"))),               # first name without its NUL
        near.send(True, tcp_frame(tarn("S", b"lamp\0", length=9))),   # body length disagrees
        near.send(True, tcp_frame(tarn("S", b"lamp\0", version=2))),  # wrong version
        near.send(True, struct.pack("<H", 9)),                        # a length alone ...
        near.send(True, b"\x02\x53\x05\x00lamp\0"),                   # ... and no TARN message after it
    ]
    f["udp"] = [
        cap.udp((CLIENT_IP, 41010), (SERVER_IP, 47110), bytes(rng.randrange(256) for _ in range(40))),
        cap.udp((CLIENT_IP, 41011), (SERVER_IP, 47111), eudp("ACK", 1, b"payload")),
        cap.udp((CLIENT_IP, 41012), (SERVER_IP, 47112), eudp("CMD", 1, b"not a TARN message")),
        cap.udp((CLIENT_IP, 41013), (SERVER_IP, 47113), eudp("XYZ", 1)),
        cap.udp((CLIENT_IP, 41014), (SERVER_IP, 47114), eudp("ack", 1)),
        cap.udp((CLIENT_IP, 41015), (SERVER_IP, 47115), b"\x01ACK"),
        cap.udp((CLIENT_IP, 41016), (SERVER_IP, 47116), eudp("CMD", 1, b"\x00" * 1500)),
    ]
    cap.write(path)
    return f


def _mutate(rng, data, flips):
    data = bytearray(data)
    for _ in range(flips):
        if data:
            data[rng.randrange(len(data))] = rng.randrange(256)
    return bytes(data)


def fuzzed(path, tcp_port, udp_port, seed=1, count=300):
    """Valid messages with random bytes changed, and plain random bytes: the decoder must never fail."""
    rng = random.Random(seed)
    valid = [tarn("S", b"lamp\0"), tarn("X", b"lamp\0"), tarn("T", b"t\0" + v_float(1.5)), TRIGGER_A_1,
             tarn("U", b"u\0" + v_str(b"text")), tarn("T", b"b\0" + v_bool(True)), tarn("U", b"n\0" + v_none()),
             tarn("F", b"fn\0" + plist(CALL_ENTRIES))]
    cap = Capture()
    # Framing kept intact: every mutated message still arrives as one frame.
    st = TcpStream(cap, (CLIENT_IP, 40300), (SERVER_IP, tcp_port))
    st.handshake()
    data = b""
    for _ in range(count):
        if rng.random() < 0.2:
            message = bytes(rng.randrange(256) for _ in range(rng.randrange(0, 40)))
        else:
            message = _mutate(rng, rng.choice(valid), rng.randrange(1, 4))
            message = message[:rng.randrange(len(message) + 1)] if rng.random() < 0.2 else message
        data += tcp_frame(message)
    cuts = sorted(rng.sample(range(1, len(data)), len(data) // 20))
    st.send_pieces(rng.random() < 0.5, data, cuts)
    # Framing changed too, in a second stream: lengths may now announce anything.
    st = TcpStream(cap, (CLIENT_IP, 40301), (SERVER_IP, tcp_port))
    st.handshake()
    for _ in range(count // 3):
        st.send(True, _mutate(rng, tcp_frame(rng.choice(valid)), 2))
    for _ in range(count):
        if rng.random() < 0.2:
            datagram = bytes(rng.randrange(256) for _ in range(rng.randrange(0, 30)))
        else:
            command = rng.choice(["NOP", "ACK", "NAK", "CON", "DIS", "CMD", "MOD", "MAK", "WIN", "WAK"])
            payload = rng.choice(valid) if command == "CMD" else b""
            datagram = _mutate(rng, eudp(command, rng.randrange(1 << 32), payload), rng.randrange(0, 3))
            datagram = datagram[:rng.randrange(len(datagram) + 1)] if rng.random() < 0.2 else datagram
        cap.udp((CLIENT_IP, 40302), (SERVER_IP, udp_port), datagram)
    cap.write(path)

"""Writes small pcap captures from known bytes, and builds TARN and EUDP wire messages.

Frames are Ethernet II / IPv4 / TCP or UDP with correct lengths and checksums, so that tshark
decodes them exactly as it would decode traffic captured on a wire. TCP streams keep their own
sequence and acknowledgement numbers, so that a message split across segments is reassembled
and several messages in one segment are found. Only the standard library is used.
"""

import struct

ETHERTYPE_IPV4 = 0x0800
PROTO_TCP = 6
PROTO_UDP = 17
LINKTYPE_ETHERNET = 1

TCP_FIN = 0x01
TCP_SYN = 0x02
TCP_PSH = 0x08
TCP_ACK = 0x10


def inet_checksum(data):
    """The ones' complement sum used by IPv4, TCP and UDP."""
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def ip_bytes(text):
    return bytes(int(part) for part in text.split("."))


def mac_for(ip):
    """A locally administered MAC address derived from the IPv4 address."""
    return b"\x02\x00" + ip_bytes(ip)


class Capture:
    """A list of frames with increasing timestamps; frame numbers start at 1 as in tshark."""

    def __init__(self):
        self.frames = []
        self._ident = 0x1000

    def _ipv4(self, src, dst, proto, payload):
        self._ident = (self._ident + 1) & 0xFFFF
        header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), self._ident, 0x4000, 64,
                             proto, 0, ip_bytes(src), ip_bytes(dst))
        header = header[:10] + struct.pack("!H", inet_checksum(header)) + header[12:]
        return header + payload

    def _pseudo(self, src, dst, proto, length):
        return ip_bytes(src) + ip_bytes(dst) + struct.pack("!BBH", 0, proto, length)

    def _append(self, src_ip, dst_ip, proto, transport):
        ether = mac_for(dst_ip) + mac_for(src_ip) + struct.pack("!H", ETHERTYPE_IPV4)
        self.frames.append(ether + self._ipv4(src_ip, dst_ip, proto, transport))
        return len(self.frames)

    def udp(self, src, dst, payload):
        """Appends one UDP datagram from src to dst (each an (ip, port) pair); returns its frame number."""
        length = 8 + len(payload)
        header = struct.pack("!HHHH", src[1], dst[1], length, 0)
        checksum = inet_checksum(self._pseudo(src[0], dst[0], PROTO_UDP, length) + header + payload) or 0xFFFF
        header = header[:6] + struct.pack("!H", checksum)
        return self._append(src[0], dst[0], PROTO_UDP, header + payload)

    def tcp(self, src, dst, seq, ack, flags, payload=b""):
        header = struct.pack("!HHIIBBHHH", src[1], dst[1], seq & 0xFFFFFFFF, ack & 0xFFFFFFFF, 5 << 4, flags,
                             65535, 0, 0)
        checksum = inet_checksum(self._pseudo(src[0], dst[0], PROTO_TCP, len(header) + len(payload)) + header +
                                 payload)
        header = header[:16] + struct.pack("!H", checksum) + header[18:]
        return self._append(src[0], dst[0], PROTO_TCP, header + payload)

    def write(self, path, snaplen=65535):
        """Writes the pcap; frames longer than snaplen keep only their first snaplen bytes."""
        with open(path, "wb") as out:
            out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, snaplen, LINKTYPE_ETHERNET))
            for index, frame in enumerate(self.frames):
                seconds, micros = 1700000000 + index // 1000, (index % 1000) * 1000
                kept = frame[:snaplen]
                out.write(struct.pack("<IIII", seconds, micros, len(kept), len(frame)))
                out.write(kept)


class TcpStream:
    """One TCP connection inside a capture, keeping both sides' sequence numbers."""

    def __init__(self, capture, client, server, client_isn=1000, server_isn=50000):
        self.capture = capture
        self.ends = {True: client, False: server}
        self.next_seq = {True: client_isn, False: server_isn}

    def handshake(self):
        c, s = self.ends[True], self.ends[False]
        self.capture.tcp(c, s, self.next_seq[True], 0, TCP_SYN)
        self.next_seq[True] += 1
        self.capture.tcp(s, c, self.next_seq[False], self.next_seq[True], TCP_SYN | TCP_ACK)
        self.next_seq[False] += 1
        self.capture.tcp(c, s, self.next_seq[True], self.next_seq[False], TCP_ACK)

    def send(self, from_client, payload):
        """Sends one segment carrying payload; returns its frame number."""
        src, dst = self.ends[from_client], self.ends[not from_client]
        frame = self.capture.tcp(src, dst, self.next_seq[from_client], self.next_seq[not from_client],
                                 TCP_PSH | TCP_ACK, payload)
        self.next_seq[from_client] += len(payload)
        return frame

    def send_pieces(self, from_client, data, cuts):
        """Sends data as several segments, cut at the given offsets; returns their frame numbers."""
        bounds = [0] + list(cuts) + [len(data)]
        return [self.send(from_client, data[a:b]) for a, b in zip(bounds, bounds[1:])]


# ---- TARN wire builders -------------------------------------------------------------------------

def v_int(value):
    return b"I" + struct.pack("<i", value)


def v_float(value):
    return b"F" + struct.pack("<f", value)


def v_bool(value):
    return b"B" + bytes([1 if value else 0])


def v_str(text):
    return b"S" + text + b"\0"


def v_none():
    return b"N"


def plist(entries, count=None):
    """A parameter list: count byte, then name, NUL and value encoding for each entry."""
    head = bytes([(len(entries) if count is None else count) & 0xFF])
    return head + b"".join(name + b"\0" + value for name, value in entries)


def tarn(command, body=b"", version=1, length=None):
    """A TARN packet: version, command letter, 2-byte little-endian body length, body."""
    code = ord(command) if isinstance(command, str) else command
    return bytes([version, code]) + struct.pack("<H", len(body) if length is None else length) + body


def tcp_frame(message, length=None):
    """The TCP framing: a 2-byte little-endian length, then the message."""
    return struct.pack("<H", len(message) if length is None else length) + message


def eudp(command, value=0, payload=b"", version=1):
    """An EUDP datagram: version, three command letters, 32-bit little-endian value, payload."""
    letters = command.encode() if isinstance(command, str) else command
    return bytes([version]) + letters + struct.pack("<I", value & 0xFFFFFFFF) + payload


def mode_word(letters):
    """The MOD/MAK value whose four bytes, least significant first, are the given letters."""
    return struct.unpack("<I", letters.encode())[0]

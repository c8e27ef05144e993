"""Captures the traffic of `tarn demo` on a loopback interface and decodes it with the dissector.

The demo picks free TCP and EUDP ports when it starts and prints them ("listening on tcp
127.0.0.1:PORT"), so no capture filter can name them in advance. The demo
therefore runs in a network namespace of its own, whose loopback carries nothing else, and
dumpcap captures TCP and UDP there; the decoding then keeps the conversations of the printed
ports. Without namespaces the capture runs on the host's loopback and relies on that selection
alone. When no capture is possible at all (no dumpcap, no permission), the test says so and
decodes a written capture of the same commands instead.

Usage: test_live_capture.py --tool PATH/TO/tarn   (as registered with ctest)
"""

import argparse
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

import captures
from tshark_runner import assert_clean, decode, port_prefs

DEMO_TIMEOUT = 150
CAPTURE_START_TIMEOUT = 20
FIELDS = ["tcp.port", "udp.srcport", "udp.dstport", "tarn.command", "tarn.name", "tarn.function", "tarn.param",
          "tarn.value.type", "eudp.command", "eudp.mode", "eudp.window", "_ws.expert.message"]

TOOL = None
CAPTURE_FAILED = 3  # exit code of the inner run when dumpcap could not start


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


def wait_until_capturing(dumpcap, pcap):
    """Sends marker datagrams on lo until the capture file grows; False on dumpcap's end or time-out."""
    initial = os.path.getsize(pcap) if os.path.exists(pcap) else 0
    deadline = time.monotonic() + CAPTURE_START_TIMEOUT
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as marker:
        while dumpcap.poll() is None and time.monotonic() < deadline:
            marker.sendto(b"capture marker", ("127.0.0.1", 9))
            time.sleep(0.05)  # dumpcap writes its file out about every 100 ms
            if os.path.exists(pcap) and os.path.getsize(pcap) > initial:
                return True
    return False


def run_inside_namespace(pcap, transcript, tool):
    """In the namespace (or on the host): capture on lo around one run of the demo."""
    if os.environ.get("TARN_OWN_NETNS"):
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    log_path = pcap + ".dumpcap.log"
    with open(log_path, "wb") as log:
        dumpcap = subprocess.Popen(["dumpcap", "-q", "-i", "lo", "-f", os.environ["TARN_CAPTURE_FILTER"], "-w", pcap,
                                    "-a", "duration:%d" % (DEMO_TIMEOUT + 30)], stdout=log, stderr=log)
    deadline = time.monotonic() + CAPTURE_START_TIMEOUT
    while b"Capturing on" not in read_bytes(log_path):
        if dumpcap.poll() is not None or time.monotonic() > deadline:
            dumpcap.kill()
            dumpcap.wait()
            sys.stderr.write(read_bytes(log_path).decode("utf-8", "replace"))
            return CAPTURE_FAILED
        time.sleep(0.05)
    # "Capturing on" comes before the filter takes packets in: the demo starts only once a marker
    # datagram (to the discard port, outside the demo's conversations) has reached the file.
    if not wait_until_capturing(dumpcap, pcap):
        dumpcap.kill()
        dumpcap.wait()
        sys.stderr.write("dumpcap wrote no packet within %d s\n" % CAPTURE_START_TIMEOUT)
        return CAPTURE_FAILED
    try:
        with open(transcript, "wb") as out:
            demo = subprocess.run([tool, "demo"], stdout=out, stderr=subprocess.STDOUT, timeout=DEMO_TIMEOUT)
    finally:
        # dumpcap writes what it holds and exits on SIGINT; it is our own child.
        dumpcap.send_signal(signal.SIGINT)
        dumpcap.wait(timeout=30)
    return demo.returncode


def capture_demo(workdir):
    """Runs the demo under capture. Returns (pcap, transcript text) or (None, reason)."""
    if not shutil.which("dumpcap"):
        return None, "dumpcap is not installed"
    pcap, transcript = os.path.join(workdir, "demo.pcapng"), os.path.join(workdir, "demo.txt")
    inner = [sys.executable, os.path.abspath(__file__), "--inside", pcap, transcript, TOOL]
    env = dict(os.environ, PYTHONDONTWRITEBYTECODE="1")
    attempts = []
    if shutil.which("unshare") and shutil.which("ip"):
        attempts.append((["unshare", "--net"] + inner, dict(env, TARN_OWN_NETNS="1", TARN_CAPTURE_FILTER="tcp or udp")))
    attempts.append((inner, dict(env, TARN_CAPTURE_FILTER="host 127.0.0.1 and (tcp or udp)")))
    reasons = []
    for command, command_env in attempts:
        done = subprocess.run(command, env=command_env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=DEMO_TIMEOUT + 60)
        output = done.stdout.decode("utf-8", "replace")
        text = read_bytes(transcript).decode("utf-8", "replace") if os.path.exists(transcript) else ""
        if done.returncode == 0 and os.path.exists(pcap):
            return pcap, text
        if os.path.exists(transcript) and done.returncode != CAPTURE_FAILED:
            raise AssertionError("tarn demo failed (exit %d):\n%s\n%s" % (done.returncode, output, text))
        reasons.append("%s: exit %d %s" % (" ".join(command[:2]), done.returncode, output.strip()))
    return None, "; ".join(reasons)


# The demo names its ports as its servers start ("listening on tcp 127.0.0.1:38539") and opens
# one section per transport ("--- tcp ---", or a client line "connecting to ...:P over tcp").
PORT_LINE = re.compile(r"listening on (tcp|eudp) [0-9.]+:(\d+)|connecting to [0-9.]+:(\d+) over (tcp|eudp)",
                       re.IGNORECASE)
SECTION_LINE = re.compile(r"^--- (tcp|eudp) ---$|connecting to [0-9.]+:\d+ over (tcp|eudp)", re.IGNORECASE)
TYPED_LINE = re.compile(r"^(client|server)> (\S+)(?: (.*))?$")


def expectations(transcript):
    """The demo's ports per transport, and the commands typed into its shells per transport."""
    ports, sections, current = {}, {}, None
    for line in transcript.splitlines():
        found = PORT_LINE.search(line)
        if found:
            kind, port = (found.group(1), found.group(2)) if found.group(1) else (found.group(4), found.group(3))
            ports.setdefault(kind.lower(), int(port))
        found = SECTION_LINE.search(line)
        if found:
            current = sections.setdefault((found.group(1) or found.group(2)).lower(), [])
            continue
        typed = TYPED_LINE.match(line)
        if typed and current is not None:
            current.append(typed.groups())
    return ports, sections


class LiveCapture(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix="tarn-live-")
        cls.pcap, cls.transcript = capture_demo(cls.tmp.name)
        if cls.pcap is None:
            sys.stderr.write("LIVE CAPTURE IMPOSSIBLE (%s): decoding the written captures instead\n" % cls.transcript)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def written_fallback(self):
        pcap = os.path.join(self.tmp.name, "written.pcap")
        frames = captures.tcp_commands(pcap, 47021)
        prefs = port_prefs(tcp="47021")
        assert_clean(self, pcap, prefs)
        rows = decode(pcap, ["tarn.command"], prefs)
        self.assertEqual(["S"], rows[frames["subscribe"]]["tarn.command"])
        self.assertEqual(["F"], rows[frames["call"]]["tarn.command"])

    def demo_rows(self, prefs):
        assert_clean(self, self.pcap, prefs)
        return decode(self.pcap, FIELDS, prefs)

    def check_transport(self, rows, kind, commands):
        """Every command typed into the demo's shells for this transport shows up decoded."""
        seen = {"S": set(), "X": set(), "T": set(), "U": set(), "F": set()}
        params = set()
        for row in rows:
            names, functions = list(row["tarn.name"]), list(row["tarn.function"])
            for letter in row["tarn.command"]:
                source = functions if letter == "F" else names
                seen.setdefault(letter, set()).add(source.pop(0) if source else None)
            params.update(row["tarn.param"])
            tarn_messages = [m for m in row["_ws.expert.message"] if "receiver" in m]
            self.assertEqual([], tarn_messages, "%s: unexpected expert messages" % kind)
        subscribed = set()
        for who, verb, rest in commands:
            words = (rest or "").split()
            if verb == "sub":
                self.assertIn(words[0], seen["S"], kind)
                subscribed.add(words[0])
            elif verb == "unsub":
                self.assertIn(words[0], seen["X"], kind)
            elif verb == "trigger":
                self.assertIn(words[0].split("=")[0], seen["T"], kind)
            elif verb == "call":
                self.assertIn(words[0], seen["F"], kind)
                for arg in words[1:]:
                    name = arg.split("=")[0].split(":")[0]
                    self.assertTrue(any(p.startswith(name + " = ") for p in params), "%s: parameter %s" % (kind, arg))
        self.assertTrue(seen["U"] and seen["U"] <= subscribed, "%s: state updates %s" % (kind, seen["U"]))

    def test_demo_traffic_decodes(self):
        if self.pcap is None:
            self.written_fallback()
            return
        ports, sections = expectations(self.transcript)
        self.assertIn("tcp", ports, self.transcript)
        self.assertIn("eudp", ports, self.transcript)
        # Without port preferences the heuristics go first, as the demo's free ports may be ports
        # that another protocol has registered.
        heuristics_first = ["-o", "tcp.try_heuristic_first:TRUE", "-o", "udp.try_heuristic_first:TRUE"]
        for prefs in (port_prefs(tcp=str(ports["tcp"]), udp=str(ports["eudp"])), heuristics_first):
            with self.subTest(prefs=prefs):
                rows = self.demo_rows(prefs)
                tcp_rows = [r for r in rows.values() if str(ports["tcp"]) in r["tcp.port"]]
                self.check_transport(tcp_rows, "tcp", sections["tcp"])
                con = [r for r in rows.values() if r["eudp.command"] == ["CON"] and
                       r["udp.dstport"] == [str(ports["eudp"])]]
                self.assertEqual(1, len(con), "one CON to the EUDP port")
                client_port = con[0]["udp.srcport"][0]
                eudp_rows = [r for r in rows.values() if client_port in r["udp.srcport"] + r["udp.dstport"]]
                self.check_transport(eudp_rows, "eudp", sections["eudp"])
                self.check_eudp_control(eudp_rows, sections["eudp"])

    def check_eudp_control(self, rows, commands):
        names = [c for r in rows for c in r["eudp.command"]]
        for needed in ["CON", "ACK", "CMD", "DIS"]:
            self.assertIn(needed, names)
        modes = [m for r in rows for m in r["eudp.mode"]]
        windows = {(c, w) for r in rows for c, w in zip(r["eudp.command"], r["eudp.window"])}
        for who, verb, rest in commands:
            words = (rest or "").split()
            if verb == "mode":
                letter = "R" if words[1].startswith("rel") else "T"
                wanted = letter + "DDD" if words[0] == "send" else "DD" + letter + "D"
                self.assertIn(wanted, modes)
                self.assertIn("MAK", names)
            elif verb == "window":
                self.assertIn(("WIN", words[0]), windows)
                self.assertIn(("WAK", words[0]), windows)


def main():
    global TOOL
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool")
    parser.add_argument("--inside", nargs=3, metavar=("PCAP", "TRANSCRIPT", "TOOL"))
    args, rest = parser.parse_known_args()
    if args.inside:
        return run_inside_namespace(*args.inside)
    if not args.tool or not os.access(args.tool, os.X_OK):
        sys.stderr.write("the tarn tool was not found at %r: build the tarn_cli target first\n" % args.tool)
        return 1
    TOOL = os.path.abspath(args.tool)
    program = unittest.main(argv=sys.argv[:1] + rest, exit=False, verbosity=2)
    return 0 if program.result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())

"""A capture of `tarn demo --tls` with SSLKEYLOGFILE, decoded by tshark with dissector/tarn.lua.

The demo runs in a network namespace of its own (or, where none can be made, on the host's
loopback) while dumpcap captures TCP on lo. With the key log, tshark decrypts the TLS records and
the dissector shows every TARN message of the session; without it, nothing of TARN is visible.

Usage: test_tls_capture.py --tool PATH/TO/tarn --dissector PATH/TO/tarn.lua
"""

import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

TOOL = None
DISSECTOR = None
# What the demo's TLS part says, in order: (source is the client?, command, name or function).
EXPECTED = [(True, "S", "temperature"), (False, "U", "temperature"), (False, "U", "temperature"),
            (True, "S", "door"), (False, "T", "door"), (True, "F", "setpoint"), (True, "X", "temperature")]


def inside(workdir):
    """In the namespace (or on the host): capture on lo around one run of `tarn demo --tls`."""
    if os.environ.get("TARN_OWN_NETNS"):
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    pcap, log_path = os.path.join(workdir, "tls.pcapng"), os.path.join(workdir, "dumpcap.log")
    with open(log_path, "wb") as log:
        dumpcap = subprocess.Popen(["dumpcap", "-q", "-i", "lo", "-f", os.environ["TARN_CAPTURE_FILTER"], "-w", pcap,
                                    "-a", "duration:120"], stdout=log, stderr=log)
    deadline = time.monotonic() + 20
    while b"Capturing on" not in open(log_path, "rb").read():
        if dumpcap.poll() is not None or time.monotonic() > deadline:
            dumpcap.kill()
            dumpcap.wait()
            return 3
        time.sleep(0.05)
    env = dict(os.environ, SSLKEYLOGFILE=os.path.join(workdir, "keys.txt"))
    try:
        with open(os.path.join(workdir, "demo.txt"), "wb") as out:
            demo = subprocess.run([TOOL, "demo", "--tls"], stdout=out, stderr=subprocess.STDOUT, env=env, timeout=90)
    finally:
        time.sleep(0.3)
        dumpcap.send_signal(signal.SIGINT)  # our own child: it writes what it holds and exits
        dumpcap.wait(timeout=30)
    return demo.returncode


def capture(workdir):
    inner = [sys.executable, os.path.abspath(__file__), "--inside", workdir, "--tool", TOOL, "--dissector", DISSECTOR]
    attempts = []
    if shutil.which("unshare") and shutil.which("ip"):
        attempts.append((["unshare", "--net"] + inner, dict(os.environ, TARN_OWN_NETNS="1", TARN_CAPTURE_FILTER="tcp")))
    attempts.append((inner, dict(os.environ, TARN_CAPTURE_FILTER="host 127.0.0.1 and tcp")))
    for command, env in attempts:
        result = subprocess.run(command, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=200)
        if result.returncode == 0:
            return True
    return False


def tshark(args):
    result = subprocess.run(["tshark", "-X", "lua_script:" + DISSECTOR] + args, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, timeout=120)
    return result.stdout.decode("utf-8", "replace"), result.stderr.decode("utf-8", "replace")


class TlsCapture(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        for program in ("dumpcap", "tshark"):
            if not shutil.which(program):
                raise unittest.SkipTest(program + " is not installed (scripts/setup installs tshark)")
        cls.workdir = tempfile.mkdtemp(prefix="tarn-tls-capture-")
        cls.captured = capture(cls.workdir)
        demo = os.path.join(cls.workdir, "demo.txt")
        cls.transcript = open(demo).read() if os.path.exists(demo) else ""

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.workdir, ignore_errors=True)

    def port(self):
        match = re.search(r"listening on tls 127\.0\.0\.1:(\d+)", self.transcript)
        self.assertIsNotNone(match, self.transcript)
        return match.group(1)

    def test_key_log_decrypts_every_tarn_message(self):
        self.assertTrue(self.captured, self.transcript)
        keys = os.path.join(self.workdir, "keys.txt")
        self.assertIn("CLIENT_TRAFFIC_SECRET_0 ", open(keys).read())
        port = self.port()
        out, err = tshark(["-r", os.path.join(self.workdir, "tls.pcapng"), "-o", "tls.keylog_file:" + keys,
                           "-Y", "tarn && tcp.port == " + port, "-T", "fields", "-e", "tcp.srcport",
                           "-e", "tarn.command", "-e", "tarn.name", "-e", "tarn.function", "-e", "_ws.expert.message",
                           "-e", "_ws.lua.error"])
        self.assertNotIn("Lua", err)
        seen = []
        for line in out.splitlines():
            fields = line.split("\t")
            self.assertEqual(fields[4:], ["", ""], line)
            seen.append((fields[0] != port, fields[1], fields[2] or fields[3]))
        self.assertEqual(seen, EXPECTED)

    def test_without_the_key_log_nothing_of_tarn_shows(self):
        self.assertTrue(self.captured, self.transcript)
        port = self.port()
        out, _ = tshark(["-r", os.path.join(self.workdir, "tls.pcapng"), "-Y", "tcp.port == " + port,
                         "-T", "fields", "-e", "tarn.command", "-e", "tls.app_data"])
        lines = [line.split("\t") for line in out.splitlines()]
        self.assertFalse([fields for fields in lines if fields[0]], out)
        self.assertTrue([fields for fields in lines if fields[1]], out)  # encrypted records are there


def main():
    global TOOL, DISSECTOR
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--dissector", required=True)
    parser.add_argument("--inside")
    args, rest = parser.parse_known_args()
    TOOL, DISSECTOR = os.path.abspath(args.tool), os.path.abspath(args.dissector)
    if args.inside:
        sys.exit(inside(args.inside))
    unittest.main(argv=[sys.argv[0]] + rest)


if __name__ == "__main__":
    main()

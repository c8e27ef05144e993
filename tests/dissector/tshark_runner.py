"""Runs tshark with the TARN dissector loaded and returns the decoded fields per frame.

tshark exits 0 even when a Lua script fails to load or a dissector raises an error, so every
run here also fails on any stderr line that mentions Lua, and `assert_clean` fails on any frame
that carries a Lua error or a malformed-packet marker.
"""

import os
import shutil
import subprocess

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPT = os.environ.get("TARN_DISSECTOR") or os.path.normpath(os.path.join(HERE, "..", "..", "dissector", "tarn.lua"))
AGGREGATOR = "\x1f"
TIMEOUT = 60


def tshark_path():
    """The tshark binary; its absence is a failure, never a reason to pass."""
    path = os.environ.get("TSHARK") or shutil.which("tshark")
    if not path:
        raise AssertionError("tshark was not found on PATH: install the Debian package 'tshark' "
                             "(scripts/setup does) or set TSHARK to the binary")
    return path


def port_prefs(tcp=None, udp=None):
    """The -o options that put TARN on TCP ports and EUDP on UDP ports (comma-separated text)."""
    args = []
    if tcp:
        args += ["-o", "tarn.tcp_ports:" + tcp]
    if udp:
        args += ["-o", "eudp.udp_ports:" + udp]
    return args


def run_tshark(args):
    """Runs tshark with the dissector and args; returns stdout, failing on errors and Lua messages."""
    if not os.path.isfile(SCRIPT):
        raise AssertionError("dissector script missing: " + SCRIPT)
    command = [tshark_path(), "-n", "-X", "lua_script:" + SCRIPT] + list(args)
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIMEOUT)
    stdout = done.stdout.decode("utf-8", "replace")
    stderr = done.stderr.decode("utf-8", "replace")
    if done.returncode != 0:
        raise AssertionError("tshark exited %d: %s\n%s" % (done.returncode, " ".join(command), stderr))
    lua_lines = [line for line in stderr.splitlines() if "lua" in line.lower()]
    if lua_lines:
        raise AssertionError("tshark reported Lua problems:\n" + "\n".join(lua_lines))
    return stdout


def decode(pcap, fields, prefs=(), two_pass=False, display_filter=None):
    """Returns {frame number: {field: [values]}} for every frame (or those passing the filter)."""
    args = ["-r", pcap, "-T", "fields", "-E", "header=n", "-E", "occurrence=a", "-E", "aggregator=" + AGGREGATOR,
            "-e", "frame.number"]
    for field in fields:
        args += ["-e", field]
    if two_pass:
        args.append("-2")
    if display_filter:
        args += ["-Y", display_filter]
    rows = {}
    for line in run_tshark(list(prefs) + args).splitlines():
        cells = line.split("\t")
        values = {}
        for field, cell in zip(fields, cells[1:]):
            values[field] = cell.split(AGGREGATOR) if cell else []
        for field in fields[len(cells) - 1:]:
            values[field] = []
        rows[int(cells[0])] = values
    return rows


def matching_frames(pcap, display_filter, prefs=(), two_pass=False):
    """The numbers of the frames that pass display_filter."""
    return sorted(decode(pcap, [], prefs, two_pass, display_filter))


def assert_clean(testcase, pcap, prefs=(), two_pass=False):
    """No frame carries a Lua error or a malformed-packet marker of an exception or a dissector bug.

    (Expert items of the malformed group, which the dissector adds on purpose, also mark a frame
    with _ws.malformed; exceptions and bugs add their own fields under it.)
    """
    bad = matching_frames(pcap, "_ws.lua.error || _ws.malformed.expert || _ws.malformed.dissector_bug", prefs,
                          two_pass)
    testcase.assertEqual([], bad, "frames with Lua errors or malformed markers in " + pcap)

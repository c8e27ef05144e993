"""Decodes written captures with tshark and the TARN dissector, and checks every decoded field.

Each test class is one ctest entry (`python3 test_dissector.py <Class>`). The classes with
"Ports" in their name set the port preferences; the "Heuristic" ones decode the same captures on
ports that nothing is registered for, so that only the heuristics can find the traffic.
"""

import os
import sys
import tempfile
import unittest

import captures
from captures import EUDP_MALFORMED, TCP_MALFORMED
from tshark_runner import assert_clean, decode, matching_frames, port_prefs

TARN_FIELDS = ["tarn.frame_length", "tarn.version", "tarn.command", "tarn.command_name", "tarn.length", "tarn.name",
               "tarn.function", "tarn.value", "tarn.value.type", "tarn.value.string", "tarn.value.int",
               "tarn.value.bool", "tarn.value.float", "tarn.value.tag", "tarn.params.count", "tarn.param",
               "tarn.param.name", "tarn.trailing", "tarn.body", "_ws.col.Info", "_ws.col.Protocol",
               "_ws.expert.message"]
EUDP_FIELDS = ["eudp.version", "eudp.command", "eudp.value", "eudp.seq", "eudp.window", "eudp.mode",
               "eudp.mode.send_request", "eudp.mode.send", "eudp.mode.receive_request", "eudp.mode.receive",
               "eudp.payload_length", "eudp.payload"]

# label: {field: values} for the frames of captures.tcp_commands; fields not named must be empty
# only where listed in ABSENT.
TCP_EXPECTED = {
    "subscribe": {"tarn.frame_length": ["9"], "tarn.version": ["1"], "tarn.command": ["S"],
                  "tarn.command_name": ["Subscribe"], "tarn.length": ["5"], "tarn.name": ["lamp"],
                  "tarn.value": [], "_ws.col.Info": ['Subscribe "lamp"'], "_ws.col.Protocol": ["TARN"]},
    "call": {"tarn.command": ["F"], "tarn.command_name": ["Call function"], "tarn.function": ["setLevel"],
             "tarn.name": [], "tarn.params.count": ["8"],
             "tarn.param": ["a = 1", "b = ON", "c = 1.5", "d = hi", "e = INV", "f = -7", "g = OFF", "h = "],
             "tarn.param.name": ["a", "b", "c", "d", "e", "f", "g", "h"],
             "tarn.value": ["1", "ON", "1.5", "hi", "INV", "-7", "OFF", ""],
             "tarn.value.type": ["I", "B", "F", "S", "N", "I", "B", "S"], "tarn.value.int": ["1", "-7"],
             "tarn.value.bool": ["1", "0"], "tarn.value.float": ["1.5"], "tarn.value.string": ["hi", ""],
             "_ws.col.Info": ['Call function "setLevel" (8 parameters)'], "_ws.expert.message": []},
    "call_empty": {"tarn.function": ["reset"], "tarn.params.count": ["0"], "tarn.param": [],
                   "_ws.col.Info": ['Call function "reset" (0 parameters)']},
    "example": {"tarn.frame_length": ["11"], "tarn.command": ["T"], "tarn.command_name": ["Trigger"],
                "tarn.length": ["7"], "tarn.name": ["A"], "tarn.value": ["1"], "tarn.value.type": ["I"],
                "tarn.value.int": ["1"], "_ws.col.Info": ['Trigger "A" = 1'], "_ws.expert.message": []},
    "trigger_string": {"tarn.name": ["msg"], "tarn.value": ["hello world"], "tarn.value.type": ["S"],
                       "tarn.value.string": ["hello world"], "_ws.col.Info": ['Trigger "msg" = "hello world"']},
    "trigger_true": {"tarn.name": ["on"], "tarn.value": ["ON"], "tarn.value.type": ["B"], "tarn.value.bool": ["1"],
                     "_ws.col.Info": ['Trigger "on" = ON']},
    "trigger_float": {"tarn.name": ["temp"], "tarn.value": ["-0.25"], "tarn.value.type": ["F"],
                      "tarn.value.float": ["-0.25"], "_ws.col.Info": ['Trigger "temp" = -0.25']},
    "trigger_none": {"tarn.name": ["nothing"], "tarn.value": ["INV"], "tarn.value.type": ["N"],
                     "tarn.value.tag": [], "_ws.col.Info": ['Trigger "nothing" = INV'], "_ws.expert.message": []},
    "trigger_foreign": {"tarn.name": ["odd"], "tarn.value": ["INV"], "tarn.value.type": ["\\xC8"],
                        "tarn.value.tag": ["0xc8"], "_ws.col.Info": ['Trigger "odd" = INV'],
                        "_ws.expert.message": ["foreign type tag 0xC8: the receiver keeps it as the value's type "
                                               "(-56) and prints the value as INV"]},
    "update_max": {"tarn.command": ["U"], "tarn.command_name": ["Update state"], "tarn.name": ["level"],
                   "tarn.value": ["2147483647"], "tarn.value.int": ["2147483647"],
                   "_ws.col.Info": ['Update state "level" = 2147483647']},
    "update_min": {"tarn.value": ["-2147483648"], "tarn.value.int": ["-2147483648"]},
    "utf8": {"tarn.name": ["Grüße"], "_ws.col.Info": ['Subscribe "Grüße"']},
    "empty_names": {"tarn.value.type": ["S"], "tarn.length": ["3"],
                    "_ws.col.Info": ['Trigger "" = ""']},
    "unsubscribe": {"tarn.command": ["X"], "tarn.command_name": ["Unsubscribe"], "tarn.name": ["lamp"],
                    "_ws.col.Info": ['Unsubscribe "lamp"']},
    "three": {"tarn.command": ["U", "T", "T"], "tarn.name": ["x", "b", "n"], "tarn.value": ["yes", "OFF", "3"],
              "tarn.frame_length": ["11", "8", "11"],
              "_ws.col.Info": ['Update state "x" = "yes", Trigger "b" = OFF, Trigger "n" = 3']},
    "split_last": {"tarn.frame_length": ["15"], "tarn.name": ["split"], "tarn.value": ["0.1"],
                   "tarn.value.float": ["0.1"], "_ws.col.Info": ['Trigger "split" = 0.1']},
    "lib_body": {"tarn.frame_length": ["9"], "tarn.command": ["S"], "tarn.name": ["door"],
                 "_ws.col.Info": ['Subscribe "door"']},
    "tail_a": {"tarn.command": ["S"], "tarn.name": ["gate"], "_ws.col.Info": ['Subscribe "gate"']},
    "tail_b": {"tarn.command": ["X", "S"], "tarn.name": ["door", "yard"],
               "_ws.col.Info": ['Unsubscribe "door", Subscribe "yard"']},
}

HEURISTICS_FIRST = ["-o", "tcp.try_heuristic_first:TRUE", "-o", "udp.try_heuristic_first:TRUE"]

EUDP_EXPECTED = {
    "con": {"eudp.version": ["1"], "eudp.command": ["CON"], "eudp.value": ["0"], "eudp.seq": ["0"],
            "eudp.payload_length": ["0"], "_ws.col.Info": ["CON seq=0"], "_ws.col.Protocol": ["EUDP"]},
    "ack_con": {"eudp.command": ["ACK"], "eudp.seq": ["0"], "_ws.col.Info": ["ACK seq=0"]},
    "mod": {"eudp.command": ["MOD"], "eudp.mode": ["DDRD"], "eudp.mode.send_request": ["D"], "eudp.mode.send": ["D"],
            "eudp.mode.receive_request": ["R"], "eudp.mode.receive": ["D"], "eudp.value": ["1146242116"],
            "eudp.seq": [], "_ws.col.Info": ["MOD DDRD"], "_ws.expert.message": []},
    "mak": {"eudp.command": ["MAK"], "eudp.mode": ["DTRR"], "eudp.mode.send": ["T"], "eudp.mode.receive": ["R"],
            "_ws.col.Info": ["MAK DTRR"]},
    "win": {"eudp.command": ["WIN"], "eudp.window": ["20"], "eudp.seq": [], "_ws.col.Info": ["WIN window=20"]},
    "wak": {"eudp.command": ["WAK"], "eudp.window": ["20"], "_ws.col.Info": ["WAK window=20"]},
    "cmd_subscribe": {"eudp.command": ["CMD"], "eudp.seq": ["1"], "eudp.payload_length": ["9"],
                      "tarn.command": ["S"], "tarn.name": ["lamp"], "tarn.frame_length": [],
                      "_ws.col.Info": ['CMD seq=1 Subscribe "lamp"']},
    "ack": {"eudp.command": ["ACK"], "eudp.seq": ["1"], "tarn.command": [], "_ws.col.Info": ["ACK seq=1"]},
    "cmd_call": {"tarn.command": ["F"], "tarn.function": ["setLevel"],
                 "tarn.param": ["a = 1", "b = ON", "c = 1.5", "d = hi", "e = INV", "f = -7", "g = OFF", "h = "],
                 "_ws.col.Info": ['CMD seq=2 Call function "setLevel" (8 parameters)']},
    "cmd_trigger": {"tarn.command": ["T"], "tarn.name": ["lamp"], "tarn.value": ["ON"],
                    "_ws.col.Info": ['CMD seq=0 Trigger "lamp" = ON']},
    "cmd_update": {"tarn.command": ["U"], "tarn.value.float": ["21.5"],
                   "_ws.col.Info": ['CMD seq=1 Update state "temp" = 21.5']},
    "cmd_example": {"tarn.length": ["7"], "tarn.name": ["A"], "tarn.value.int": ["1"]},
    "nak": {"eudp.command": ["NAK"], "eudp.seq": ["3"], "_ws.col.Info": ["NAK seq=3"]},
    "cmd_unsubscribe": {"tarn.command": ["X"], "tarn.name": ["lamp"], "_ws.col.Info": ['CMD seq=3 Unsubscribe "lamp"']},
    "keepalive": {"eudp.command": ["CMD"], "eudp.seq": ["4"], "eudp.payload_length": ["0"], "tarn.command": [],
                  "_ws.col.Info": ["CMD seq=4 keep-alive"]},
    "nop": {"eudp.command": ["NOP"], "eudp.value": ["0"], "eudp.seq": [], "_ws.col.Info": ["NOP"]},
    "cmd_wrap": {"eudp.seq": ["65534"], "_ws.expert.message": [], "_ws.col.Info": ['CMD seq=65534 Subscribe "w"']},
    "dis": {"eudp.command": ["DIS"], "eudp.seq": ["0"], "_ws.col.Info": ["DIS seq=0"]},
}


class CaptureTest:
    """Writes a capture in setUpClass and decodes it once; subclasses name the builder and ports."""

    fields = TARN_FIELDS + EUDP_FIELDS
    use_ports = True

    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix="tarn-dissector-")
        cls.pcap = os.path.join(cls.tmp.name, cls.__name__ + ".pcap")
        cls.frames = cls.build(cls.pcap)
        cls.prefs = cls.port_prefs() if cls.use_ports else []
        cls.rows = decode(cls.pcap, cls.fields, cls.prefs)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def row(self, label):
        return self.rows[self.frames[label]]

    def check(self, label, expected):
        row = self.row(label)
        for field, values in expected.items():
            self.assertEqual(values, row[field], "%s (frame %d): %s" % (label, self.frames[label], field))

    def test_no_lua_errors_or_malformed_markers(self):
        assert_clean(self, self.pcap, self.prefs)
        assert_clean(self, self.pcap, self.prefs, two_pass=True)


class TcpCommandsChecks:
    @classmethod
    def build(cls, path):
        return captures.tcp_commands(path, cls.tcp_port)

    def test_every_command_and_value_type(self):
        for label, expected in TCP_EXPECTED.items():
            with self.subTest(label=label):
                self.check(label, expected)

    def test_builders_match_the_known_trigger_bytes(self):
        from pcapgen import tarn, v_int
        self.assertEqual(captures.TRIGGER_A_1, tarn("T", b"A\0" + v_int(1)))

    def test_segments_without_a_whole_message_show_no_tarn(self):
        split = range(self.frames["split_first"], self.frames["split_last"])
        for frame in list(split) + [self.frames["lib_length"]]:
            self.assertEqual([], self.rows[frame]["tarn.command"], "frame %d" % frame)
            self.assertEqual(["TCP"], self.rows[frame]["_ws.col.Protocol"], "frame %d" % frame)

    def test_display_filter_on_the_command_letter(self):
        triggers = ["example", "trigger_string", "trigger_true", "trigger_float", "trigger_none", "trigger_foreign",
                    "empty_names", "three", "split_last"]
        expected = sorted(self.frames[label] for label in triggers)
        self.assertEqual(expected, matching_frames(self.pcap, 'tarn.command == "T"', self.prefs))
        self.assertEqual([self.frames["call"]],
                         matching_frames(self.pcap, 'tarn.param == "c = 1.5" && tarn.value.int == -7', self.prefs))
        self.assertEqual([self.frames["trigger_foreign"]], matching_frames(self.pcap, "tarn.expert.foreign_tag",
                                                                           self.prefs))

    def test_empty_texts_are_present_as_fields(self):
        # An empty value prints as an empty cell, so presence is checked with a filter.
        frame = self.frames["empty_names"]
        self.assertEqual([frame], matching_frames(self.pcap, 'tarn.name == "" && tarn.value == "" && '
                                                  'tarn.value.string == ""', self.prefs))

    def test_two_pass_decoding_agrees(self):
        two = decode(self.pcap, ["tarn.command", "tarn.name", "tarn.value", "_ws.col.Info"], self.prefs, two_pass=True)
        for label in TCP_EXPECTED:
            frame = self.frames[label]
            for field in ["tarn.command", "tarn.name", "tarn.value", "_ws.col.Info"]:
                self.assertEqual(self.rows[frame][field], two[frame][field], "%s: %s" % (label, field))


class TcpCommandsPorts(TcpCommandsChecks, CaptureTest, unittest.TestCase):
    tcp_port = 47001

    @classmethod
    def port_prefs(cls):
        return port_prefs(tcp=str(cls.tcp_port))


class TcpCommandsHeuristic(TcpCommandsChecks, CaptureTest, unittest.TestCase):
    tcp_port = 47002
    use_ports = False


class TcpWithoutReassembly(CaptureTest, unittest.TestCase):
    """With TCP reassembly switched off, frames cut by segments are shown as incomplete."""
    tcp_port = 47012
    fields = ["tarn.command", "tarn.name", "tarn.frame_length", "_ws.col.Info", "_ws.expert.message"]

    @classmethod
    def build(cls, path):
        return captures.tcp_commands(path, cls.tcp_port)

    @classmethod
    def port_prefs(cls):
        return port_prefs(tcp=str(cls.tcp_port)) + ["-o", "tcp.desegment_tcp_streams:FALSE"]

    def test_cut_frames_are_incomplete(self):
        self.check("split_first", {"tarn.frame_length": [], "_ws.col.Info": ["[incomplete]"],
                                   "_ws.expert.message": ["the frame length continues beyond this segment: TCP "
                                                          "reassembly is off or the capture cut the segment short"]})
        self.check("lib_length", {"tarn.frame_length": ["9"], "_ws.col.Info": ["[incomplete]"],
                                  "_ws.expert.message": ["the message announces 9 bytes and 0 are here: TCP "
                                                         "reassembly is off or the capture cut the segment short"]})
        self.check("tail_a", {"tarn.name": ["gate"], "_ws.col.Info": ['Subscribe "gate", [incomplete]']})

    def test_whole_frames_still_decode(self):
        for label in ["subscribe", "call", "example", "three"]:
            self.check(label, {"tarn.command": TCP_EXPECTED[label]["tarn.command"],
                               "_ws.col.Info": TCP_EXPECTED[label]["_ws.col.Info"]})

    def test_heuristic_without_reassembly(self):
        assert_clean(self, self.pcap, ["-o", "tcp.desegment_tcp_streams:FALSE"])


class CutByTheCapture(CaptureTest, unittest.TestCase):
    """A capture whose snapshot length cut frames short: shown as cut, never misread as malformed."""
    listen_port, server_port = 47013, 47014
    fields = ["eudp.command", "eudp.payload_length", "tarn.command", "tarn.name", "_ws.col.Info",
              "_ws.expert.message"]

    @classmethod
    def build(cls, path):
        # 14 + 20 + 8 bytes of headers, then 18 bytes of each datagram
        return captures.eudp_session(path, cls.listen_port, cls.server_port, snaplen=60)

    @classmethod
    def port_prefs(cls):
        return port_prefs(udp="%d,%d" % (cls.listen_port, cls.server_port))

    def test_datagrams_cut_by_the_capture(self):
        self.check("cmd_subscribe", {"tarn.name": ["lamp"], "_ws.expert.message": []})
        self.check("cmd_call", {"eudp.payload_length": ["56"], "tarn.command": ["F"], "tarn.name": [],
                                "_ws.col.Info": ["CMD seq=2 [cut short] Call function"],
                                "_ws.expert.message": ["the capture holds 18 of the datagram's 64 bytes"]})
        self.check("mod", {"eudp.command": ["MOD"], "_ws.expert.message": []})

    def test_tcp_segments_cut_by_the_capture(self):
        pcap = os.path.join(self.tmp.name, "tcp_cut.pcap")
        frames = captures.tcp_commands(pcap, 47015, snaplen=62)
        prefs = port_prefs(tcp="47015")
        assert_clean(self, pcap, prefs)
        rows = decode(pcap, ["tarn.command", "_ws.col.Info", "_ws.expert.message"], prefs)
        self.assertEqual(["[incomplete] Subscribe"], rows[frames["subscribe"]]["_ws.col.Info"])
        self.assertEqual(["the message announces 9 bytes and 6 are here: TCP reassembly is off or the capture cut "
                          "the segment short"], rows[frames["subscribe"]]["_ws.expert.message"])


class TcpMalformedChecks:
    @classmethod
    def build(cls, path):
        return captures.tcp_malformed(path, cls.tcp_port)

    def test_each_malformed_frame_is_flagged(self):
        self.check("valid", {"_ws.col.Info": ['Subscribe "first"'], "_ws.expert.message": []})
        for label, _, messages, info in TCP_MALFORMED:
            with self.subTest(label=label):
                self.check(label, {"_ws.expert.message": messages, "_ws.col.Info": [info]})

    def test_discarded_and_refused_messages_show_their_body_as_bytes(self):
        self.check("wrong_size", {"tarn.command": ["T"], "tarn.name": [], "tarn.body": ["6162004e0000"]})
        self.check("oversized", {"tarn.frame_length": ["1500"], "tarn.length": ["1496"], "tarn.name": []})
        self.check("short_header", {"tarn.version": ["1"], "tarn.command": ["S"], "tarn.length": []})

    def test_decoded_parts_of_malformed_bodies(self):
        self.check("unterminated_trigger", {"tarn.value.type": ["A"], "tarn.value.tag": ["0x41"]})
        self.check("negative_count", {"tarn.params.count": ["255"], "tarn.param": ["a = 1"]})
        self.check("huge_count", {"tarn.params.count": ["100"], "tarn.param": ["a = 1", "b = INV"]})
        self.check("value_fails_in_list", {"tarn.param": ["a = 0"], "tarn.value.type": ["I"], "tarn.value.int": []})
        self.check("duplicate_names", {"tarn.param": ["a = 1", "a = 2"]})
        self.check("count_256", {"tarn.params.count": ["0"], "tarn.param": []})
        self.check("trailing", {"tarn.name": ["lamp"], "tarn.trailing": ["aabb"]})
        self.check("command_zero", {"tarn.command": ["\\x00"], "tarn.command_name": ["Unknown command"]})
        self.check("empty_frame", {"tarn.frame_length": ["0"], "tarn.version": []})

    def test_an_unterminated_name_reads_as_empty(self):
        expected = sorted(self.frames[label] for label in ["unterminated_name", "unterminated_trigger"])
        self.assertEqual(expected, matching_frames(self.pcap, 'tarn.name == ""', self.prefs))

    def test_expert_filters(self):
        self.assertEqual(sorted([self.frames["wrong_version"], self.frames["short_wrong_version"]]),
                         matching_frames(self.pcap, "tarn.expert.wrong_version", self.prefs))
        self.assertEqual([self.frames["oversized"]], matching_frames(self.pcap, "tarn.expert.oversized", self.prefs))


class TcpMalformedPorts(TcpMalformedChecks, CaptureTest, unittest.TestCase):
    tcp_port = 47003

    @classmethod
    def port_prefs(cls):
        return port_prefs(tcp=str(cls.tcp_port))


class TcpMalformedHeuristic(TcpMalformedChecks, CaptureTest, unittest.TestCase):
    tcp_port = 47004
    use_ports = False


class EudpSessionChecks:
    @classmethod
    def build(cls, path):
        return captures.eudp_session(path, cls.listen_port, cls.server_port)

    def test_every_command_and_value_field(self):
        for label, expected in EUDP_EXPECTED.items():
            with self.subTest(label=label):
                self.check(label, expected)

    def test_display_filters(self):
        self.assertEqual([self.frames["nak"]], matching_frames(self.pcap, 'eudp.command == "NAK"', self.prefs))
        self.assertEqual([self.frames["keepalive"]], matching_frames(self.pcap, "eudp.keepalive", self.prefs))
        self.assertEqual([self.frames["mak"]], matching_frames(self.pcap, 'eudp.mode.receive == "R"', self.prefs))
        self.assertEqual([self.frames["cmd_trigger"]], matching_frames(self.pcap, 'tarn.command == "T" && '
                                                                       'eudp.seq == 0', self.prefs))


class EudpSessionPorts(EudpSessionChecks, CaptureTest, unittest.TestCase):
    listen_port, server_port = 47005, 47006

    @classmethod
    def port_prefs(cls):
        return port_prefs(udp="%d,%d" % (cls.listen_port, cls.server_port))


class EudpSessionHeuristic(EudpSessionChecks, CaptureTest, unittest.TestCase):
    listen_port, server_port = 47007, 47008
    use_ports = False


class EudpMalformedChecks:
    @classmethod
    def build(cls, path):
        return captures.eudp_malformed(path, cls.server_port)

    def test_each_malformed_datagram_is_flagged(self):
        for label, _, messages, info in EUDP_MALFORMED:
            with self.subTest(label=label):
                self.check(label, {"_ws.expert.message": messages, "_ws.col.Info": [info]})

    def test_decoded_parts_of_malformed_datagrams(self):
        self.check("short_seven", {"eudp.version": ["1"], "eudp.command": ["ACK"], "eudp.value": []})
        self.check("short_one", {"eudp.version": ["1"], "eudp.command": []})
        self.check("lower_case", {"eudp.command": ["ack"], "eudp.value": ["1"], "eudp.seq": []})
        self.check("payload_on_ack", {"eudp.payload": ["7879"], "eudp.payload_length": ["2"]})
        self.check("seq_negative", {"eudp.value": ["2147483648"], "eudp.seq": ["-32768"], "tarn.name": ["neg"]})
        self.check("mode_refused", {"eudp.mode.send_request": ["T"], "eudp.mode.receive_request": ["X"]})
        self.check("oversized", {"eudp.payload_length": ["1492"], "tarn.length": ["1493"]})
        self.check("empty", {"eudp.version": [], "_ws.expert.message": []})


class EudpMalformedPorts(EudpMalformedChecks, CaptureTest, unittest.TestCase):
    server_port = 47009

    @classmethod
    def port_prefs(cls):
        return port_prefs(udp=str(cls.server_port))


class EudpMalformedHeuristic(EudpMalformedChecks, CaptureTest, unittest.TestCase):
    """The first, valid datagram makes the conversation EUDP; what follows is decoded as such."""
    server_port = 47010
    use_ports = False


class RandomBytes(unittest.TestCase):
    """Mutated and random messages, over ports and heuristics, in one and two passes: no Lua error."""

    def test_decoding_never_fails(self):
        with tempfile.TemporaryDirectory(prefix="tarn-dissector-") as tmp:
            for seed in (1, 2):
                pcap = os.path.join(tmp, "random%d.pcap" % seed)
                captures.fuzzed(pcap, 47016, 47017, seed)
                for prefs in (port_prefs(tcp="47016", udp="47017"), []):
                    assert_clean(self, pcap, prefs)
                    assert_clean(self, pcap, prefs, two_pass=True)
                decoded = matching_frames(pcap, "tarn || eudp", port_prefs(tcp="47016", udp="47017"))
                self.assertGreater(len(decoded), 300, "most frames carry TARN or EUDP")


class HeuristicLibraryPattern(CaptureTest, unittest.TestCase):
    """A stream whose lengths travel in segments of their own, found without a port preference."""
    use_ports = False

    @classmethod
    def build(cls, path):
        return captures.tcp_library_pattern(path, 47011)

    def test_messages_after_a_lone_length_are_found(self):
        self.check("length", {"tarn.command": []})
        self.check("body", {"tarn.command": ["S", "S"], "tarn.name": ["a", "b"], "tarn.frame_length": ["6", "6"],
                            "_ws.col.Info": ['Subscribe "a", Subscribe "b"'],
                            "_ws.expert.message": ["the frame length 6 travelled alone in frame %d"
                                                   % self.frames["length"]]})
        self.check("rest", {"tarn.command": ["X"], "tarn.name": ["a"], "_ws.col.Info": ['Unsubscribe "a"']})
        self.check("reply_length", {"tarn.command": []})
        self.check("reply_body", {"tarn.command": ["T"], "tarn.value.int": ["42"], "tarn.frame_length": ["11"]})

    def test_heuristics_first_win_over_a_registered_port(self):
        # TCP port 5000 belongs to another protocol; with the heuristics first TARN is found there.
        pcap = os.path.join(self.tmp.name, "port5000.pcap")
        frames = captures.tcp_library_pattern(pcap, 5000)
        self.assertEqual([], matching_frames(pcap, "tarn"))
        rows = decode(pcap, ["tarn.name"], HEURISTICS_FIRST)
        self.assertEqual(["a", "b"], rows[frames["body"]]["tarn.name"])
        self.assertEqual(["a"], rows[frames["reply_body"]]["tarn.name"])

    def test_second_pass_shows_the_lone_length(self):
        rows = decode(self.pcap, ["tarn.frame_length", "tarn.name", "_ws.col.Info", "_ws.expert.message"],
                      two_pass=True)
        length, body = self.frames["length"], self.frames["body"]
        self.assertEqual(["6"], rows[length]["tarn.frame_length"])
        self.assertEqual(["frame length 6"], rows[length]["_ws.col.Info"])
        self.assertEqual(["the frame length travels alone; its message follows in frame %d" % body],
                         rows[length]["_ws.expert.message"])
        self.assertEqual(["a", "b"], rows[body]["tarn.name"])
        self.assertEqual(["a"], rows[self.frames["rest"]]["tarn.name"])
        self.assertEqual(["a"], rows[self.frames["reply_body"]]["tarn.name"])


class HeuristicLeavesOtherTrafficAlone(CaptureTest, unittest.TestCase):
    use_ports = False
    fields = ["tarn.command", "eudp.command"]

    @classmethod
    def build(cls, path):
        return captures.unrelated(path)

    def test_no_frame_is_claimed(self):
        self.assertEqual([], matching_frames(self.pcap, "tarn || eudp"))
        self.assertEqual([], matching_frames(self.pcap, "tarn || eudp", two_pass=True))
        self.assertEqual([], matching_frames(self.pcap, "tarn || eudp", HEURISTICS_FIRST))

    def test_the_capture_holds_what_it_should(self):
        self.assertEqual(len(self.frames["udp"]), len(matching_frames(self.pcap, "udp")))
        self.assertEqual(6, len(self.frames["near"]))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[1:], verbosity=2)

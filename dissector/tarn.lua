-- tarn.lua: Wireshark and tshark dissector for libtarn traffic.
--
-- TARN is libtarn's control protocol: each message is a 4-byte header (version, command letter,
-- little-endian body length) and a body of NUL-terminated names and typed values. Over TCP every
-- message follows a 2-byte little-endian length; over EUDP, libtarn's datagram protocol on UDP,
-- every CMD datagram carries one message after its 8-byte header.
--
-- The tree shows what a libtarn receiver makes of the bytes. Where the receiver discards a
-- message, ignores bytes or reads further than the message reaches, an expert item says so;
-- decoding never raises a Lua error, whatever the bytes.
--
-- Load it with   tshark -X lua_script:/path/to/tarn.lua   or copy it into Wireshark's personal
-- Lua plugins folder. Ports are preferences (tarn.tcp_ports, eudp.udp_ports), empty by default;
-- heuristics recognise the traffic on any port without them.

local MAX_MESSAGE = 1492 -- largest TARN message, header included
local HEADER = 4
local EUDP_HEADER = 8
local EUDP_MAX = 1500
local SEQ_MODULUS = 65535

local tarn = Proto("tarn", "TARN Control Protocol")
local eudp = Proto("eudp", "EUDP Datagram Protocol")

local COMMAND_NAMES = { F = "Call function", S = "Subscribe", T = "Trigger", U = "Update state", X = "Unsubscribe" }
local TYPE_NAMES = { S = "string", I = "integer", B = "boolean", F = "float", N = "none" }
local EUDP_NAMES = {
    NOP = "no operation", ACK = "acknowledgement", NAK = "negative acknowledgement",
    CON = "connection request", DIS = "disconnect", CMD = "data", MOD = "mode request",
    MAK = "mode answer", WIN = "window request", WAK = "window answer",
}
local SEQ_COMMANDS = { ACK = true, NAK = true, CON = true, DIS = true, CMD = true }
local MODE_NAMES = { T = "realtime", R = "reliable", D = "leave as it is" }

-- ---- fields ------------------------------------------------------------------------------------

local tf = {
    frame_length = ProtoField.uint16("tarn.frame_length", "Frame length", base.DEC),
    version = ProtoField.uint8("tarn.version", "Version", base.DEC),
    command = ProtoField.string("tarn.command", "Command"),
    command_name = ProtoField.string("tarn.command_name", "Command name"),
    length = ProtoField.uint16("tarn.length", "Body length", base.DEC),
    name = ProtoField.string("tarn.name", "Name"),
    func = ProtoField.string("tarn.function", "Function identifier"),
    value = ProtoField.string("tarn.value", "Value"),
    value_type = ProtoField.string("tarn.value.type", "Type"),
    value_tag = ProtoField.uint8("tarn.value.tag", "Foreign type tag", base.HEX),
    value_string = ProtoField.string("tarn.value.string", "String"),
    value_int = ProtoField.int32("tarn.value.int", "Integer", base.DEC),
    value_bool = ProtoField.bool("tarn.value.bool", "Boolean"),
    value_float = ProtoField.float("tarn.value.float", "Float"),
    params = ProtoField.none("tarn.params", "Parameter list"),
    params_count = ProtoField.uint8("tarn.params.count", "Count", base.DEC),
    param = ProtoField.string("tarn.param", "Parameter"),
    param_name = ProtoField.string("tarn.param.name", "Name"),
    body = ProtoField.bytes("tarn.body", "Body"),
    trailing = ProtoField.bytes("tarn.trailing", "Ignored bytes"),
}
tarn.fields = tf

local function expert_item(abbr, text, group, severity)
    return ProtoExpert.new(abbr, text, group, severity)
end
local MALFORMED, PROTOCOL = expert.group.MALFORMED, expert.group.PROTOCOL
local ERROR, WARN, NOTE = expert.severity.ERROR, expert.severity.WARN, expert.severity.NOTE

local te = {
    empty = expert_item("tarn.expert.empty", "Empty message", PROTOCOL, NOTE),
    oversized = expert_item("tarn.expert.oversized", "Message longer than 1492 bytes", MALFORMED, ERROR),
    wrong_version = expert_item("tarn.expert.wrong_version", "Wrong version", MALFORMED, ERROR),
    short_header = expert_item("tarn.expert.short_header", "Header too short", MALFORMED, ERROR),
    wrong_size = expert_item("tarn.expert.wrong_size", "Wrong packet size", MALFORMED, ERROR),
    unknown_command = expert_item("tarn.expert.unknown_command", "Unknown command", PROTOCOL, WARN),
    unterminated = expert_item("tarn.expert.unterminated", "Unterminated string", MALFORMED, ERROR),
    beyond = expert_item("tarn.expert.beyond", "Field beyond the message", MALFORMED, ERROR),
    bad_value = expert_item("tarn.expert.bad_value", "Failed to parse parameter value", MALFORMED, ERROR),
    foreign_tag = expert_item("tarn.expert.foreign_tag", "Foreign type tag", PROTOCOL, WARN),
    bad_list = expert_item("tarn.expert.bad_list", "Failed to parse parameter list", MALFORMED, ERROR),
    negative_count = expert_item("tarn.expert.negative_count", "Negative parameter count", PROTOCOL, WARN),
    duplicate = expert_item("tarn.expert.duplicate_name", "Parameter name repeated", PROTOCOL, NOTE),
    trailing = expert_item("tarn.expert.trailing", "Ignored bytes after the last field", PROTOCOL, NOTE),
    split = expert_item("tarn.expert.split_length", "Frame length in its own segment", PROTOCOL, NOTE),
    incomplete = expert_item("tarn.expert.incomplete", "Frame not reassembled", PROTOCOL, WARN),
}
tarn.experts = te

local ef = {
    version = ProtoField.uint8("eudp.version", "Version", base.DEC),
    command = ProtoField.string("eudp.command", "Command"),
    value = ProtoField.uint32("eudp.value", "Value", base.DEC_HEX),
    seq = ProtoField.int32("eudp.seq", "Sequence number", base.DEC),
    window = ProtoField.uint32("eudp.window", "Window size", base.DEC),
    mode = ProtoField.string("eudp.mode", "Mode word"),
    send_request = ProtoField.string("eudp.mode.send_request", "Send mode requested"),
    send_mode = ProtoField.string("eudp.mode.send", "Send mode"),
    receive_request = ProtoField.string("eudp.mode.receive_request", "Receive mode requested"),
    receive_mode = ProtoField.string("eudp.mode.receive", "Receive mode"),
    payload_length = ProtoField.uint32("eudp.payload_length", "Payload length", base.DEC),
    keepalive = ProtoField.none("eudp.keepalive", "Keep-alive (empty data datagram)"),
    payload = ProtoField.bytes("eudp.payload", "Ignored payload"),
}
eudp.fields = ef

local ee = {
    wrong_version = expert_item("eudp.expert.wrong_version", "Wrong version", MALFORMED, ERROR),
    short_header = expert_item("eudp.expert.short_header", "Header too short", MALFORMED, ERROR),
    unknown_command = expert_item("eudp.expert.unknown_command", "Unknown command", MALFORMED, ERROR),
    oversized = expert_item("eudp.expert.oversized", "Datagram longer than 1500 bytes", MALFORMED, ERROR),
    seq_range = expert_item("eudp.expert.seq_range", "Sequence number out of range", PROTOCOL, WARN),
    bad_mode = expert_item("eudp.expert.bad_mode", "Mode request refused", PROTOCOL, WARN),
    payload_ignored = expert_item("eudp.expert.payload_ignored", "Payload ignored", PROTOCOL, NOTE),
    cut_short = expert_item("eudp.expert.cut_short", "Datagram cut short by the capture", PROTOCOL, WARN),
}
eudp.experts = ee

-- ---- small helpers -----------------------------------------------------------------------------

-- One byte code as text: the letter itself when printable, else \xNN.
local function letter(byte)
    if byte >= 0x20 and byte < 0x7f then
        return string.char(byte)
    end
    return string.format("\\x%02X", byte)
end

local function letters(tvb, offset, count)
    local out = {}
    for i = 0, count - 1 do
        out[#out + 1] = letter(tvb(offset + i, 1):uint())
    end
    return table.concat(out)
end

-- Offset of the first NUL in [from, limit), or nil.
local function find_nul(tvb, from, limit)
    if from >= limit then
        return nil
    end
    local i = tvb:raw(from, limit - from):find("\0", 1, true)
    return i and from + i - 1 or nil
end

local function text_at(tvb, offset, count)
    if count <= 0 then
        return ""
    end
    return tvb(offset, count):string(ENC_UTF_8)
end

-- "1 byte", "2 bytes"
local function count_of(n, singular, plural)
    return string.format("%d %s", n, n == 1 and singular or plural)
end

local function quoted(text)
    return '"' .. text .. '"'
end

local function signed8(byte)
    return byte >= 0x80 and byte - 0x100 or byte
end

-- ---- TARN body decoding ------------------------------------------------------------------------
-- A reader follows the receiver: `pos` is its read position, `limit` the received length. Once
-- `lost` is set the receiver has read bytes that are not in the message, so nothing after that
-- point can be shown; `failed` marks a field the receiver could not parse.

-- A field that starts past the received bytes has no value we could show: a text item marks it.
local function mark_beyond(r, tree, what)
    local label = what:sub(1, 1):upper() .. what:sub(2) .. ": [beyond the end of the message]"
    local item = tree:add(r.tvb(r.limit, 0), label)
    item:add_proto_expert_info(te.beyond, "the " .. what .. " lies beyond the end of the message: the receiver reads "
        .. "leftover bytes of an earlier message there")
    r.lost = true
end

-- Reads one NUL-terminated string the way the receiver does; returns its text or nil when lost.
local function read_string(r, tree, field, what)
    if r.pos >= r.limit then
        -- The receiver's bound check wraps round once nothing is left, so it takes whatever
        -- text its buffer still holds from an earlier message.
        mark_beyond(r, tree, what)
        return nil
    end
    local nul = find_nul(r.tvb, r.pos, r.limit)
    if not nul then
        local item = tree:add(field, r.tvb(r.pos, r.limit - r.pos), "")
        item:append_text("[unterminated: " .. quoted(text_at(r.tvb, r.pos, r.limit - r.pos)) .. "]")
        item:add_proto_expert_info(te.unterminated, "unterminated string in packet: the receiver uses an empty "
            .. what .. " and reads the next field from the same place")
        r.failed = true
        return ""
    end
    local text = text_at(r.tvb, r.pos, nul - r.pos)
    tree:add(field, r.tvb(r.pos, nul - r.pos + 1), text)
    r.pos = nul + 1
    return text
end

-- Decodes one value encoding at r.pos without touching the tree. The result says what the
-- receiver's value ends up holding and how many bytes it consumes (0 = failure).
local function decode_value(r)
    local tvb, pos = r.tvb, r.pos
    local size = r.limit - pos
    local v = { pos = pos, size = size, consumed = 0 }
    if size <= 0 then
        v.missing = true
        v.text = "INV"
        return v
    end
    local tag = tvb(pos, 1):uint()
    v.tag, v.letter = tag, letter(tag)
    local kind = TYPE_NAMES[string.char(tag)]
    v.kind = kind or "foreign tag"
    if tag == 0x49 or tag == 0x46 then -- I, F: both ask for 5 bytes when read
        if size <= 4 then
            v.text = "0"
            local left = size == 2 and "1 is" or (size - 1) .. " are"
            v.problem = string.format("failed to parse parameter value: the %s needs 4 bytes after its tag and %s "
                .. "left; the receiver keeps the type with a zero payload", kind, left)
        else
            v.consumed = 5
            if tag == 0x49 then
                v.field, v.number = tf.value_int, tvb(pos + 1, 4):le_int()
                v.text = string.format("%d", v.number)
            else
                v.field, v.number = tf.value_float, tvb(pos + 1, 4):le_float()
                v.text = string.format("%g", v.number)
            end
        end
    elseif tag == 0x42 then -- B: the receiver takes the next byte without a bound check
        v.consumed = 2
        if size == 1 then
            v.text = "?"
            v.stale = true
        else
            v.field, v.number = tf.value_bool, tvb(pos + 1, 1):uint() ~= 0
            v.text = v.number and "ON" or "OFF"
        end
    elseif tag == 0x53 then -- S
        local nul = find_nul(tvb, pos + 1, r.limit)
        if nul then
            v.consumed = nul - pos + 1
            v.field, v.number = tf.value_string, text_at(tvb, pos + 1, nul - pos - 1)
            v.text = v.number
        else
            v.text = ""
            v.problem = "failed to parse parameter value: the string has no terminating NUL within the message; the "
                .. "receiver fails here unless a leftover zero byte follows the message"
        end
    else -- N and foreign tags: the tag alone
        v.consumed = 1
        v.text = "INV"
        if tag ~= 0x4E then
            v.foreign = string.format("foreign type tag 0x%02X: the receiver keeps it as the value's type (%d) and "
                .. "prints the value as INV", tag, signed8(tag))
        end
    end
    return v
end

-- Adds a decoded value under tree and moves the reader on as the receiver does.
local function add_value(r, tree, v)
    local tvb = r.tvb
    if v.missing then
        if v.size < 0 then
            mark_beyond(r, tree, "value")
            return
        end
        local item = tree:add(tf.value, tvb(v.pos, 0), v.text)
        item:add_proto_expert_info(te.bad_value, "failed to parse parameter value: nothing is left for it; the "
            .. "receiver keeps a value of type none")
        r.failed = true
        return
    end
    local span = v.consumed > 0 and math.min(v.consumed, v.size) or v.size
    local item = tree:add(tf.value, tvb(v.pos, span), v.text)
    item:append_text(" (" .. v.kind .. ")")
    item:add(tf.value_type, tvb(v.pos, 1), v.letter):append_text(" (" .. v.kind .. ")")
    if v.foreign then
        item:add(tf.value_tag, tvb(v.pos, 1))
        item:add_proto_expert_info(te.foreign_tag, v.foreign)
    end
    if v.field then
        item:add(v.field, tvb(v.pos + 1, span - 1), v.number)
    end
    if v.stale then
        item:add_proto_expert_info(te.beyond, "the boolean's byte lies beyond the end of the message: the receiver "
            .. "reads a leftover byte there")
        r.lost = true
    end
    if v.problem then
        item:add_proto_expert_info(te.bad_value, v.problem)
        r.failed = true
    end
    r.pos = r.pos + v.consumed
end

-- Reads a parameter list as the receiver does: the count byte is signed, entries are merged by
-- name, a value that fails to parse still makes an entry, and the first name that does not end
-- inside the message ends the list with a failure.
local function read_list(r, tree)
    local tvb, start = r.tvb, r.pos
    local size = r.limit - start
    if size < 0 then
        mark_beyond(r, tree, "parameter list")
        return 0
    end
    if size == 0 then
        local item = tree:add(tf.params, tvb(start, 0))
        item:add_proto_expert_info(te.bad_list, "failed to parse parameter list: nothing is left for it; the function "
            .. "is called with an empty list")
        r.failed = true
        return 0
    end
    local list = tree:add(tf.params, tvb(start, size))
    local count = tvb(start, 1):uint()
    local remaining = signed8(count)
    local count_item = list:add(tf.params_count, tvb(start, 1))
    if remaining < 0 then
        count_item:append_text(string.format(" (read as %d)", remaining))
        count_item:add_proto_expert_info(te.negative_count, string.format("count byte 0x%02X is read as %d: the "
            .. "receiver decodes entries until a name runs past the message and then fails to parse the list", count,
            remaining))
    end
    r.pos = start + 1
    local entries, seen = 0, {}
    while remaining ~= 0 do
        if r.pos >= r.limit or not find_nul(tvb, r.pos, r.limit) then
            local why
            if r.pos < r.limit then
                why = "a parameter name has no terminating NUL within the message"
            elseif remaining > 0 then
                why = string.format("the count asks for %d entries and the message ends after %d", count, entries)
            else
                why = "the message ends after " .. count_of(entries, "entry", "entries")
            end
            list:add_proto_expert_info(te.bad_list, "failed to parse parameter list: " .. why .. "; the receiver reads "
                .. "on into leftover bytes and normally fails here, keeping the entries decoded so far")
            r.failed = true
            break
        end
        local name_start = r.pos
        local nul = find_nul(tvb, r.pos, r.limit)
        local name = text_at(tvb, r.pos, nul - r.pos)
        r.pos = nul + 1
        local v = decode_value(r)
        local stop = v.consumed > 0 and v.pos + v.consumed or v.pos + math.max(v.size, 0)
        local entry = list:add(tf.param, tvb(name_start, math.min(stop, r.limit) - name_start), name .. " = " .. v.text)
        entry:add(tf.param_name, tvb(name_start, nul - name_start + 1), name)
        if seen[name] then
            entry:add_proto_expert_info(te.duplicate, "the name appears again: the receiver keeps this later value")
        end
        seen[name] = true
        add_value(r, entry, v)
        entries = entries + 1
        if r.lost then
            break
        end
        if v.consumed == 0 and not v.missing then
            entry:append_text(" [the receiver stores the entry and reads the next name from the same place]")
        end
        remaining = remaining - 1
    end
    list:append_text(" (" .. count_of(entries, "entry", "entries") .. ")")
    return entries
end

-- ---- TARN message ------------------------------------------------------------------------------

-- Decodes one received TARN message (tvb holds exactly the bytes the receiver got) into the
-- protocol item t. A message that the receiver discards, or that is only shown (`shown_only`, a
-- prefix for the summary: refused or incomplete), has its header decoded and its body shown as
-- bytes, since the receiver never reads that body. Returns a summary for the Info column.
local function dissect_message(tvb, t, shown_only)
    local n = tvb:len()
    local version = tvb(0, 1):uint()
    t:add(tf.version, tvb(0, 1))
    local letter_text, cmd_name = "?", "?"
    if n >= 2 then
        local code = tvb(1, 1):uint()
        letter_text = letter(code)
        cmd_name = COMMAND_NAMES[string.char(code)] or "Unknown command"
        t:add(tf.command, tvb(1, 1), letter_text):append_text(" (" .. cmd_name .. ")")
        t:add(tf.command_name, tvb(1, 1), cmd_name):set_generated()
    end
    local problem
    if shown_only then
        problem = nil
    elseif version ~= 1 then
        problem = { te.wrong_version, string.format("packet validation failed: wrong version (%d)", version) }
    elseif n < HEADER then
        problem = { te.short_header, "packet validation failed: header too short (" .. count_of(n, "byte", "bytes")
            .. ")" }
    end
    if n >= HEADER then
        local length = tvb(2, 2):le_uint()
        local item = t:add_le(tf.length, tvb(2, 2))
        if not problem and not shown_only and length + HEADER ~= n then
            problem = { te.wrong_size, string.format("packet validation failed: wrong packet size (the body length "
                .. "says %d, the message holds %d body bytes)", length, n - HEADER) }
            item:append_text(string.format(" [message holds %d]", n - HEADER))
        end
    end
    if problem then
        t:add_proto_expert_info(problem[1], problem[2] .. "; the receiver discards the packet")
    end
    if problem or shown_only then
        if n > HEADER then
            t:add(tf.body, tvb(HEADER, n - HEADER))
        end
        local summary = (shown_only or "[discarded]") .. (n >= 2 and " " .. cmd_name or "")
        t:append_text(", " .. summary)
        return summary
    end
    local summary = cmd_name

    local r = { tvb = tvb, pos = HEADER, limit = n }
    local command = string.char(tvb(1, 1):uint())
    if command == "S" or command == "X" then
        local name = read_string(r, t, tf.name, "name")
        summary = summary .. " " .. quoted(name or "?")
    elseif command == "T" or command == "U" then
        local name = read_string(r, t, tf.name, "name")
        local value = "?"
        if not r.lost then
            local v = decode_value(r)
            add_value(r, t, v)
            value = v.kind == "string" and quoted(v.text) or v.text
        end
        summary = summary .. " " .. quoted(name or "?") .. " = " .. value
    elseif command == "F" then
        local name = read_string(r, t, tf.func, "function identifier")
        local entries = 0
        if not r.lost then
            entries = read_list(r, t)
        end
        summary = string.format("%s %s (%s)", summary, quoted(name or "?"),
            count_of(entries, "parameter", "parameters"))
    else
        if n > HEADER then
            t:add(tf.body, tvb(HEADER, n - HEADER))
        end
        t:add_proto_expert_info(te.unknown_command, string.format("unknown command 0x%02X ('%s'): the receiver "
            .. "ignores the packet", tvb(1, 1):uint(), letter_text))
        t:append_text(", " .. summary)
        return summary
    end
    if not r.lost and not r.failed and r.pos < r.limit then
        local item = t:add(tf.trailing, tvb(r.pos, r.limit - r.pos))
        local extra = r.limit - r.pos
        item:add_proto_expert_info(te.trailing, count_of(extra, "byte", "bytes") .. " after the last field "
            .. (extra == 1 and "is" or "are") .. " ignored")
    end
    t:append_text(", " .. summary)
    if r.lost or r.failed then
        return summary .. " [malformed]"
    end
    return summary
end


-- ---- Info column -------------------------------------------------------------------------------
-- Several messages may share a frame, and TCP may call the dissector twice for one frame (once
-- with a reassembled message, once with what follows it, fencing the column in between). The
-- summaries are joined with ", " into one text that replaces the column whole; a column that no
-- longer holds our last text means that a new dissection of the frame began.

local info_frame, info_text, info_parts = -1, nil, {}

local function add_info(pinfo, protocol, summary)
    pinfo.cols.protocol = protocol
    if info_frame ~= pinfo.number or tostring(pinfo.cols.info) ~= info_text then
        info_frame, info_parts = pinfo.number, {}
    end
    info_parts[#info_parts + 1] = summary
    info_text = table.concat(info_parts, ", ")
    pinfo.cols.info:clear_fence()
    pinfo.cols.info = info_text
end

-- ---- TARN over TCP -----------------------------------------------------------------------------

local function pdu_length(tvb, _, offset)
    if tvb:len() - offset < 2 then
        return 2 -- only when TCP does not reassemble: the frame is shown as cut short
    end
    return tvb(offset, 2):le_uint() + 2
end

-- One frame: the 2-byte length and the message it announces. With TCP reassembly switched off
-- (or a capture cut short) the frame may hold less than it announces; what is there is shown.
local function dissect_frame(tvb, pinfo, tree)
    local n = tvb:len()
    local t = tree:add(tarn, tvb())
    if n < 2 then
        t:add_proto_expert_info(te.incomplete, "the frame length continues beyond this segment: TCP reassembly is "
            .. "off or the capture cut the segment short")
        add_info(pinfo, "TARN", "[incomplete]")
        return n
    end
    local length = tvb(0, 2):le_uint()
    t:add_le(tf.frame_length, tvb(0, 2))
    local prefix
    if length > MAX_MESSAGE then
        -- The receiver offers a buffer of 1492 bytes; a longer frame stays unread and ends the
        -- connection's receive loop, so nothing of it is ever parsed.
        t:add_proto_expert_info(te.oversized, string.format("a message of %d bytes is longer than 1492: the receiver "
            .. "refuses it, leaves it in the stream and ends its receive loop", length))
        prefix = "[refused]"
    end
    if n - 2 < length then
        t:add_proto_expert_info(te.incomplete, string.format("the message announces %d bytes and %d are here: TCP "
            .. "reassembly is off or the capture cut the segment short", length, n - 2))
        prefix = prefix or "[incomplete]"
    end
    local summary
    if length == 0 then
        t:add_proto_expert_info(te.empty, "empty message: the receiver skips it and reads the next frame")
        summary = "empty message"
    elseif n == 2 then
        summary = prefix
    else
        summary = dissect_message(tvb(2, math.min(length, n - 2)):tvb(), t, prefix)
    end
    add_info(pinfo, "TARN", summary)
    return n
end

-- libtarn writes a frame's length and its message with two separate sends, so on a quiet link
-- the length often travels alone in a 2-byte segment. When the heuristic only recognises the
-- stream at the message that follows such a segment, both frames are noted here, so that every
-- later pass over the capture shows the pair in the same way.
local split_frames = {}
local pending_lengths = {}

local function dissect_split(tvb, pinfo, tree, split)
    if split.kind == "length" then
        local t = tree:add(tarn, tvb(0, 2))
        t:add_le(tf.frame_length, tvb(0, 2))
        t:add_proto_expert_info(te.split, string.format("the frame length travels alone; its message follows in "
            .. "frame %d", split.other))
        add_info(pinfo, "TARN", "frame length " .. split.len)
        return 2
    end
    local t = tree:add(tarn, tvb(0, split.len))
    t:add(tf.frame_length, split.len):set_generated()
    t:add_proto_expert_info(te.split, string.format("the frame length %d travelled alone in frame %d", split.len,
        split.other))
    add_info(pinfo, "TARN", dissect_message(tvb(0, split.len):tvb(), t))
    -- What follows in this segment is framed here: dissect_tcp_pdus works on whole segments only.
    local offset, n = split.len, tvb:len()
    while offset < n do
        local need = n - offset >= 2 and tvb(offset, 2):le_uint() + 2 or nil
        if not need or n - offset < need then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = need and need - (n - offset) or DESEGMENT_ONE_MORE_SEGMENT
            return n
        end
        dissect_frame(tvb(offset, need):tvb(), pinfo, tree)
        offset = offset + need
    end
    return n
end

-- The split pair that this frame belongs to, when an earlier look recognised one.
local function known_split(tvb, pinfo)
    local split = split_frames[pinfo.number]
    if split and tvb:len() >= (split.kind == "length" and 2 or split.len) then
        return split
    end
    return nil
end

function tarn.dissector(tvb, pinfo, tree)
    local split = known_split(tvb, pinfo)
    if split then
        return dissect_split(tvb, pinfo, tree, split)
    end
    dissect_tcp_pdus(tvb, tree, 2, pdu_length, dissect_frame, true)
    return tvb:len()
end

-- ---- EUDP --------------------------------------------------------------------------------------

local function cut_text(captured, total)
    return string.format("the capture holds %d of the datagram's %d bytes", captured, total)
end

-- The receiver reduces a header value to a sequence number by the signed remainder of 65535.
local function reduce_seq(value)
    local signed = value >= 0x80000000 and value - 0x100000000 or value
    return math.fmod(signed, SEQ_MODULUS)
end

-- The mode word's four bytes, least significant first: the requested send mode of the answering
-- side, its answer, the requested receive mode, its answer.
local MODE_SLOTS = {
    MOD = {
        { ef.send_request, "asked of the answering side's sending" }, { ef.send_mode, "answer slot" },
        { ef.receive_request, "asked of the answering side's receiving" }, { ef.receive_mode, "answer slot" },
    },
    MAK = {
        { ef.send_request, "copied from the request" }, { ef.send_mode, "the answering side's sending now" },
        { ef.receive_request, "copied from the request" }, { ef.receive_mode, "the answering side's receiving now" },
    },
}

local function add_mode(t, tvb, command)
    local word = letters(tvb, 4, 4)
    local item = t:add(ef.mode, tvb(4, 4), word)
    for i = 0, 3 do
        local code = letter(tvb(4 + i, 1):uint())
        local slot = MODE_SLOTS[command][i + 1]
        item:add(slot[1], tvb(4 + i, 1), code):append_text(" (" .. (MODE_NAMES[code] or "not a mode") .. "; " .. slot[2]
            .. ")")
        if command == "MOD" and (i == 0 or i == 2) and not MODE_NAMES[code] then
            item:add_proto_expert_info(ee.bad_mode, "the answering side refuses a request for mode '" .. code
                .. "' and sends no MAK")
        end
    end
    return word
end

-- n is what the capture holds, total what the datagram held on the wire: the receiver's checks
-- go by total, the decoding by n.
function eudp.dissector(tvb, pinfo, tree)
    local n, total = tvb:len(), tvb:reported_len()
    if n == 0 then
        return 0 -- an empty receive counts as a failed one and is never looked at
    end
    local t = tree:add(eudp, tvb())
    local version = tvb(0, 1):uint()
    t:add(ef.version, tvb(0, 1))
    local command
    if n >= 4 then
        local raw = tvb:raw(1, 3)
        command = EUDP_NAMES[raw] and raw or nil
        local item = t:add(ef.command, tvb(1, 3), letters(tvb, 1, 3))
        item:append_text(" (" .. (command and EUDP_NAMES[command] or "unknown") .. ")")
    end
    local value = n >= EUDP_HEADER and tvb(4, 4):le_uint() or nil
    if value then
        t:add_le(ef.value, tvb(4, 4))
    end
    -- The receiver checks the version first, then the length, then the command letters.
    local problem
    if version ~= 1 then
        problem = { ee.wrong_version, string.format("packet validation failed: wrong version (%d)", version) }
    elseif total < EUDP_HEADER then
        problem = { ee.short_header, "packet validation failed: header too short (" .. count_of(total, "byte", "bytes")
            .. ")" }
    elseif n < EUDP_HEADER then
        t:add_proto_expert_info(ee.cut_short, cut_text(n, total))
        add_info(pinfo, "EUDP", "[cut short]")
        return n
    elseif not command then
        problem = { ee.unknown_command, "packet validation failed: unknown command '" .. letters(tvb, 1, 3) .. "'" }
    end
    if problem then
        t:add_proto_expert_info(problem[1], problem[2] .. "; the receiver drops the datagram")
        local summary = "[discarded] " .. (n >= 4 and letters(tvb, 1, 3) or "datagram") .. " (" .. count_of(n, "byte",
            "bytes") .. ")"
        t:append_text(", " .. summary)
        add_info(pinfo, "EUDP", summary)
        return n
    end

    local summary = command
    if SEQ_COMMANDS[command] then
        local seq = reduce_seq(value)
        local item = t:add(ef.seq, tvb(4, 4), seq)
        if value >= SEQ_MODULUS then
            item:add_proto_expert_info(ee.seq_range, string.format("header value %d is outside 0..65534: the receiver "
                .. "takes it as %d", value, seq))
        end
        summary = string.format("%s seq=%d", command, seq)
    elseif command == "WIN" or command == "WAK" then
        t:add_le(ef.window, tvb(4, 4))
        summary = string.format("%s window=%d", command, value)
    elseif command == "MOD" or command == "MAK" then
        summary = command .. " " .. add_mode(t, tvb, command)
    end

    local payload = total - EUDP_HEADER
    if total > EUDP_MAX then
        t:add_proto_expert_info(ee.oversized, string.format("a datagram of %d bytes is longer than 1500: the receiver "
            .. "gets only its first 1500 bytes", total))
        payload = EUDP_MAX - EUDP_HEADER
    end
    t:add(ef.payload_length, payload):set_generated()
    local captured = math.min(payload, n - EUDP_HEADER)
    local cut = captured < payload
    if cut then
        t:add_proto_expert_info(ee.cut_short, cut_text(n, total))
    end
    if command == "CMD" then
        if payload == 0 then
            t:add(ef.keepalive, tvb(EUDP_HEADER, 0)):append_text(": the receiver answers it and delivers nothing")
            summary = summary .. " keep-alive"
        elseif captured == 0 then
            summary = summary .. " [cut short]"
        else
            local message = tvb(EUDP_HEADER, captured)
            summary = summary .. " " .. dissect_message(message:tvb(), tree:add(tarn, message), cut and "[cut short]")
        end
    elseif captured > 0 then
        local item = t:add(ef.payload, tvb(EUDP_HEADER, captured))
        item:add_proto_expert_info(ee.payload_ignored, "only CMD datagrams carry a payload: the receiver ignores "
            .. (payload == 1 and "this byte" or "these " .. payload .. " bytes"))
    end
    t:append_text(", " .. summary)
    add_info(pinfo, "EUDP", summary)
    return n
end

-- ---- heuristics --------------------------------------------------------------------------------
-- Both insist on several fields agreeing before they claim a packet, and then make the whole
-- conversation ours, so that later oddities between the same ends are shown as such.

local function header_matches(tvb, offset, message_length)
    return tvb(offset, 1):uint() == 1 and COMMAND_NAMES[string.char(tvb(offset + 1, 1):uint())] ~= nil
        and tvb(offset + 2, 2):le_uint() + HEADER == message_length
end

-- A TARN header at offset for a message of message_length bytes; when the whole message is
-- there, its first name must also end inside it.
local function plausible_message(tvb, offset, message_length)
    if tvb:len() - offset < HEADER or not header_matches(tvb, offset, message_length) then
        return false
    end
    if tvb:len() - offset < message_length then
        return true
    end
    return find_nul(tvb, offset + HEADER, offset + message_length) ~= nil
end

-- Segments of one direction of one connection share this key.
local function direction_key(pinfo)
    return string.format("%s:%d>%s:%d", tostring(pinfo.src), pinfo.src_port, tostring(pinfo.dst), pinfo.dst_port)
end

local function heuristic_tcp(tvb, pinfo, tree)
    local split = known_split(tvb, pinfo)
    if split then
        -- A later pass over a pair that an earlier pass recognised.
        dissect_split(tvb, pinfo, tree, split)
        return true
    end
    local n = tvb:len()
    local key = direction_key(pinfo)
    local pending = pending_lengths[key]
    pending_lengths[key] = nil
    if n >= 2 + HEADER then
        local length = tvb(0, 2):le_uint()
        if length >= HEADER and length <= MAX_MESSAGE and plausible_message(tvb, 2, length) then
            pinfo.conversation = tarn
            tarn.dissector(tvb, pinfo, tree)
            return true
        end
    end
    if n == 2 then
        -- Possibly a frame length sent on its own: remember it for the next segment this way.
        local length = tvb(0, 2):le_uint()
        if length >= HEADER and length <= MAX_MESSAGE then
            pending_lengths[key] = { len = length, frame = pinfo.number }
        end
        return false
    end
    if pending and pending.frame < pinfo.number and n >= pending.len and plausible_message(tvb, 0, pending.len) then
        pinfo.conversation = tarn
        split_frames[pending.frame] = { kind = "length", len = pending.len, other = pinfo.number }
        split_frames[pinfo.number] = { kind = "body", len = pending.len, other = pending.frame }
        dissect_split(tvb, pinfo, tree, split_frames[pinfo.number])
        return true
    end
    return false
end

local function heuristic_udp(tvb, pinfo, tree)
    local n = tvb:len()
    if n < EUDP_HEADER or n > EUDP_MAX or tvb(0, 1):uint() ~= 1 then
        return false
    end
    local command = tvb:raw(1, 3)
    if not EUDP_NAMES[command] then
        return false
    end
    -- Only data datagrams carry a payload, and libtarn's payload is one TARN message.
    if n > EUDP_HEADER and (command ~= "CMD" or not plausible_message(tvb, EUDP_HEADER, n - EUDP_HEADER)) then
        return false
    end
    pinfo.conversation = eudp
    eudp.dissector(tvb, pinfo, tree)
    return true
end

tarn:register_heuristic("tcp", heuristic_tcp)
eudp:register_heuristic("udp", heuristic_udp)
-- TARN over TLS: once the TLS layer has decrypted the records (with a key log file), their content
-- is the TCP framing, recognised by its first frame on any port; "Decode As" on tls.port names a
-- port. The TCP conversation stays the TLS layer's, which hands over every later record itself.
local function heuristic_tls(tvb, pinfo, tree)
    if tvb:len() >= 2 + HEADER then
        local length = tvb(0, 2):le_uint()
        if length >= HEADER and length <= MAX_MESSAGE and plausible_message(tvb, 2, length) then
            tarn.dissector(tvb, pinfo, tree)
            return true
        end
    end
    return false
end

tarn:register_heuristic("tls", heuristic_tls)
DissectorTable.get("tls.port"):add_for_decode_as(tarn)

-- ---- preferences and registration --------------------------------------------------------------

tarn.prefs.tcp_ports = Pref.range("TCP ports", "", "TCP ports that carry TARN (empty: found by the heuristic)", 65535)
eudp.prefs.udp_ports = Pref.range("UDP ports", "", "UDP ports that carry EUDP (empty: found by the heuristic)", 65535)

-- Returns a function that moves proto's registration in a port table to a new range of ports.
local function port_binder(table_name, proto)
    local ports_table = DissectorTable.get(table_name)
    ports_table:add_for_decode_as(proto)
    local current = ""
    return function(ports)
        ports = tostring(ports or "")
        if ports == current then
            return
        end
        if current ~= "" then
            ports_table:remove(current, proto)
        end
        if ports ~= "" then
            ports_table:add(ports, proto)
        end
        current = ports
    end
end

local bind_tcp_ports = port_binder("tcp.port", tarn)
local bind_udp_ports = port_binder("udp.port", eudp)

function tarn.prefs_changed()
    bind_tcp_ports(tarn.prefs.tcp_ports)
end

function eudp.prefs_changed()
    bind_udp_ports(eudp.prefs.udp_ports)
end

function tarn.init()
    split_frames, pending_lengths = {}, {}
    info_frame, info_text, info_parts = -1, nil, {}
end

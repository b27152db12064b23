-- SPDX-License-Identifier: Apache-2.0
-- orvane.lua: Wireshark dissector for liborvane telemetry captures.
--
-- orvane-collector writes what processes report to the endpoint
-- "Telemetry" as a pcap file of link type LINKTYPE_USER0 (147).  Each
-- packet is one record: a 32-bit record type in the writer's byte order,
-- then a protobuf record of package hdr (proto/msg_telemetry_lite.proto).
-- The packet's time stamp is when the reporting process built the record.
--
-- Use it from a build tree with
--   tshark -X lua_script:tools/orvane.lua -r telemetry.pcap -V
-- or install it into Wireshark's plugin folder.  Every field of every
-- record is a filter field named orvane.<Record>.<field>, for example
-- orvane.UserMsgNtfy.sender; a copied message also gets orvane.msg.*
-- (type, sequence, sender stack, size, payload).
--
-- The records are decoded here from the protobuf wire format with the
-- schema below, field by field: no .proto file or protobuf preferences are
-- needed at capture time.  It must follow proto/msg_telemetry_lite.proto.

local orvane = Proto("orvane", "liborvane telemetry")

local RECORD_TYPES = {
    [0xFF0013] = "UserMsgNtfy",
    [0xFF0023] = "NtfyRegUnregNtfy",
    [0xFF0033] = "DropMsgNtfy",
    [0xFF0043] = "LocalOpenNtfy",
}

local ENUMS = {
    eCopySource = { [0] = "copy on send", [1] = "copy on receipt" },
    eRegUnreg = { [0] = "register", [1] = "unregister" },
    eWhoDropped = { [0] = "dropped elsewhere", [1] = "dropped by the sender" },
}

-- Each record: field number -> { name, kind, option }.  Kinds: uint32 (option
-- "hex" for SPIDs and types), packed (repeated uint32, hex), enum (option
-- names the enum), string, bytes, message (option names the record).
local SCHEMA = {
    Endpoint = {
        [1] = { "linx_id", "uint32", "hex" },
        [2] = { "name", "string" },
    },
    LocalOpenProg = {
        [1] = { "pid", "uint32" },
        [2] = { "name", "string" },
        [3] = { "just_opened", "message", "Endpoint" },
        [4] = { "already_open", "message", "Endpoint" },
    },
    LocalOpenNtfy = {
        [1] = { "halvo_idx", "uint32" },
        [2] = { "prog", "message", "LocalOpenProg" },
    },
    LocalCloseNtfy = {
        [1] = { "halvo_idx", "uint32" },
        [2] = { "just_closed", "uint32", "hex" },
    },
    UserMsgNtfy = {
        [1] = { "halvo_idx", "uint32" },
        [2] = { "src_type", "enum", "eCopySource" },
        [3] = { "sender", "uint32", "hex" },
        [4] = { "receiver", "uint32", "hex" },
        [5] = { "msg_type", "uint32", "hex" },
        [6] = { "sequence", "uint32" },
        [7] = { "sender_stack", "packed" },
        [8] = { "payload", "bytes" },
    },
    NtfyRegUnregNtfy = {
        [1] = { "halvo_idx", "uint32" },
        [2] = { "src_type", "enum", "eCopySource" },
        [3] = { "sender", "uint32", "hex" },
        [4] = { "receiver", "uint32", "hex" },
        [5] = { "sequence", "uint32" },
        [6] = { "sender_stack", "packed" },
        [7] = { "reg_type", "enum", "eRegUnreg" },
        [8] = { "reg_msg_low", "uint32", "hex" },
        [9] = { "reg_msg_high", "uint32", "hex" },
    },
    DropMsgNtfy = {
        [1] = { "halvo_idx", "uint32" },
        [2] = { "who", "enum", "eWhoDropped" },
        [3] = { "qty", "uint32" },
        [4] = { "secs", "uint32" },
        [5] = { "pid", "uint32" },
        [6] = { "prog_name", "string" },
        [7] = { "open_endpoints", "message", "Endpoint" },
    },
}

local f_record_type = ProtoField.uint32("orvane.record_type", "Record type", base.HEX, RECORD_TYPES)
local f_msg = {
    type = ProtoField.uint32("orvane.msg.type", "Message type", base.HEX),
    sequence = ProtoField.uint32("orvane.msg.sequence", "Sequence"),
    sender_stack = ProtoField.uint32("orvane.msg.sender_stack", "Sender stack entry", base.HEX),
    size = ProtoField.uint32("orvane.msg.size", "Payload size"),
    payload = ProtoField.bytes("orvane.msg.payload", "Payload"),
}
local fields = { f_record_type }
for _, f in pairs(f_msg) do fields[#fields + 1] = f end

local function make_field(abbr, name, kind, option)
    if kind == "string" then return ProtoField.string(abbr, name) end
    if kind == "bytes" then return ProtoField.bytes(abbr, name) end
    if kind == "message" then return ProtoField.bytes(abbr, name) end
    if kind == "enum" then return ProtoField.uint32(abbr, name, base.DEC, ENUMS[option]) end
    if kind == "packed" or option == "hex" then return ProtoField.uint32(abbr, name, base.HEX) end
    return ProtoField.uint32(abbr, name, base.DEC)
end

-- PROTO_FIELDS[record][number] = the ProtoField of that field.
local PROTO_FIELDS = {}
for record, numbers in pairs(SCHEMA) do
    PROTO_FIELDS[record] = {}
    for number, spec in pairs(numbers) do
        local f = make_field("orvane." .. record .. "." .. spec[1], spec[1], spec[2], spec[3])
        PROTO_FIELDS[record][number] = f
        fields[#fields + 1] = f
    end
end
orvane.fields = fields

local e_malformed = ProtoExpert.new("orvane.malformed", "Malformed record", expert.group.MALFORMED, expert.severity.ERROR)
local e_unknown = ProtoExpert.new("orvane.unknown_field", "Field not in the schema", expert.group.UNDECODED, expert.severity.NOTE)
orvane.experts = { e_malformed, e_unknown }

-- A base-128 varint at offset: value, length; nil when it runs past limit.
local function read_varint(tvb, offset, limit)
    local value, scale = 0, 1
    for i = 0, 9 do
        if offset + i >= limit then return nil end
        local b = tvb(offset + i, 1):uint()
        value = value + (b % 128) * scale
        if b < 128 then return value, i + 1 end
        scale = scale * 128
    end
    return nil
end

local dissect_record

-- One field of a record, of wire type wt at offset (its tag read); returns
-- the offset after it, or nil when the record is malformed.
local function dissect_field(tvb, tree, record, number, wt, offset, limit, values)
    local spec = SCHEMA[record][number]
    local f = PROTO_FIELDS[record][number]
    if wt == 0 then
        local v, n = read_varint(tvb, offset, limit)
        if v == nil then return nil end
        if f then tree:add(f, tvb(offset, n), v) else tree:add_proto_expert_info(e_unknown) end
        if spec then values[spec[1]] = v end
        return offset + n
    elseif wt == 2 then
        local len, n = read_varint(tvb, offset, limit)
        if len == nil or offset + n + len > limit then return nil end
        local start = offset + n
        local range = tvb(start, len)
        if spec == nil then
            tree:add_proto_expert_info(e_unknown)
        elseif spec[2] == "string" then
            tree:add(f, range, range:string())
            values[spec[1]] = range:string()
        elseif spec[2] == "bytes" then
            tree:add(f, range)
            values[spec[1]] = range
        elseif spec[2] == "message" then
            local sub = tree:add(f, range)
            sub:set_text(spec[1] .. " (" .. spec[3] .. ")")
            local inner = dissect_record(tvb, sub, spec[3], start, start + len)
            if inner == nil then return nil end
            values[spec[1]] = inner -- the last one
        elseif spec[2] == "packed" then
            local stack, at = {}, start
            while at < start + len do
                local v, m = read_varint(tvb, at, start + len)
                if v == nil then return nil end
                tree:add(f, tvb(at, m), v)
                stack[#stack + 1] = v
                at = at + m
            end
            values[spec[1]] = stack
        else
            return nil
        end
        return start + len
    elseif wt == 1 and offset + 8 <= limit then
        tree:add_proto_expert_info(e_unknown)
        return offset + 8
    elseif wt == 5 and offset + 4 <= limit then
        tree:add_proto_expert_info(e_unknown)
        return offset + 4
    end
    return nil
end

-- The fields of one record between offset and limit; returns a table of the
-- decoded values by name, or nil when the record is malformed.
dissect_record = function(tvb, tree, record, offset, limit)
    local values = {}
    while offset < limit do
        local tag, n = read_varint(tvb, offset, limit)
        if tag == nil then return nil end
        offset = dissect_field(tvb, tree, record, math.floor(tag / 8), tag % 8, offset + n, limit, values)
        if offset == nil then return nil end
    end
    return values
end

-- The copied message as its 56-byte header described it.
local function add_message(tvb, tree, values)
    local m = tree:add(orvane, tvb(), "Copied message")
    m:add(f_msg.type, values.msg_type or 0)
    m:add(f_msg.sequence, values.sequence or 0)
    for _, spid in ipairs(values.sender_stack or {}) do m:add(f_msg.sender_stack, spid) end
    local payload = values.payload
    m:add(f_msg.size, payload and payload:len() or 0)
    if payload then m:add(f_msg.payload, payload) end
end

local function summary(name, v)
    local direction = v.src_type == 1 and "received" or "sent"
    if name == "UserMsgNtfy" then
        return string.format("%s 0x%x -> 0x%x type 0x%x (%s)", name, v.sender or 0, v.receiver or 0, v.msg_type or 0, direction)
    elseif name == "NtfyRegUnregNtfy" then
        return string.format("%s %s 0x%x-0x%x, 0x%x -> 0x%x (%s)", name, v.reg_type == 1 and "unregister" or "register",
            v.reg_msg_low or 0, v.reg_msg_high or v.reg_msg_low or 0, v.sender or 0, v.receiver or 0, direction)
    elseif name == "DropMsgNtfy" then
        return string.format("%s %d records lost over %d s", name, v.qty or 0, v.secs or 0)
    elseif name == "LocalOpenNtfy" and v.prog and v.prog.just_opened then
        return string.format("%s \"%s\" 0x%x opened by %s[%d]", name, v.prog.just_opened.name or "",
            v.prog.just_opened.linx_id or 0, v.prog.name or "", v.prog.pid or 0)
    end
    return name
end

-- The record type word is in the writer's byte order: the one that names a
-- record type is taken.
local function record_type(tvb)
    local little = tvb(0, 4):le_uint()
    if RECORD_TYPES[little] then return little, true end
    return tvb(0, 4):uint(), false
end

function orvane.dissector(tvb, pinfo, tree)
    if tvb:len() < 4 then return 0 end
    pinfo.cols.protocol = "ORVANE"
    local root = tree:add(orvane, tvb(), "liborvane telemetry")
    local rtype, little = record_type(tvb)
    if little then root:add_le(f_record_type, tvb(0, 4)) else root:add(f_record_type, tvb(0, 4)) end
    local name = RECORD_TYPES[rtype]
    if name == nil then
        root:add_proto_expert_info(e_malformed, "unknown record type")
        pinfo.cols.info = string.format("unknown record type 0x%x", rtype)
        return tvb:len()
    end
    local rec = root:add(orvane, tvb(4), name)
    local values = dissect_record(tvb, rec, name, 4, tvb:len())
    if values == nil then
        rec:add_proto_expert_info(e_malformed)
        pinfo.cols.info = name .. " [malformed]"
        return tvb:len()
    end
    if name == "UserMsgNtfy" then add_message(tvb, root, values) end
    pinfo.cols.info = summary(name, values)
    return tvb:len()
end

local encaps = wtap_encaps or wtap
DissectorTable.get("wtap_encap"):add(encaps.USER0, orvane)

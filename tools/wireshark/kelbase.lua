-- kelbase message channel: a Wireshark dissector.
--
-- The channel is a half-duplex request/acknowledge stream over TCP (or TLS): one command byte,
-- mostly followed by a big-endian number of 1 to 8 bytes (length = low three bits + 1) and for
-- strings and blocks by that many raw bytes. The client opens with its 4-byte application id
-- and a version command; the server answers with its own version command.
--
-- Load it with   tshark -X lua_script:kelbase.lua -o kelbase.port:7010 ...
-- or copy it into the personal Lua plugin folder (Help > About > Folders) and set the port under
-- Preferences > Protocols > KELBASE, or pick "KELBASE" in Decode As for any TCP port.
--
-- Every field is under "kelbase.": filter with kelbase.cmd_name == "STC_Request",
-- kelbase.request == 50108, kelbase.string contains "x", kelbase.invalid and so on.

local proto = Proto("kelbase", "kelbase message channel")

local DEFAULT_PORT = 7010

-- Command groups by their high five bits (byte & 0xF8).
local GROUP = {
    [0x58] = "STC_Reserved58", [0x60] = "STC_Reserved60", [0x68] = "STC_Reserved68",
    [0x70] = "STC_File", [0x78] = "STC_BinBlockStart", [0x80] = "STC_BinBlockCont",
    [0x88] = "STC_Request", [0x90] = "STC_Ack", [0x98] = "STC_String", [0xA0] = "STC_Events",
    [0xA8] = "STC_Version", [0xB0] = "STC_UInt", [0xB8] = "STC_NegInt",
}
-- Groups whose number is the length of the raw bytes that follow it.
local HAS_PAYLOAD = {
    [0x58] = true, [0x60] = true, [0x68] = true, [0x78] = true, [0x80] = true, [0x98] = true,
}
-- The single-byte commands 0x00-0x0F; 0x07 and 0x08 are invalid, 0x09-0x0F reserved.
local SINGLE = {
    [0x00] = "STC_Close", [0x01] = "STC_WaitAck", [0x02] = "STC_EndAck",
    [0x03] = "STC_EventsPending", [0x04] = "STC_GetEvents", [0x05] = "STC_KeepAlive",
    [0x06] = "STC_EmptyString",
}

-- What a byte is: kind ("single", "number", "small", "invalid"), its name, and for single
-- bytes the raw payload that follows (0x0F carries 4 bytes).
local function classify(byte)
    if byte >= 0xE0 then return "small", "STC_SmallNegInt" end
    if byte >= 0xC0 then return "small", "STC_SmallUInt" end
    if byte <= 0x0F then
        if byte == 0x07 or byte == 0x08 then return "invalid", "invalid" end
        if SINGLE[byte] then return "single", SINGLE[byte], 0 end
        if byte == 0x0F then return "single", "STC_Reserved0F", 4 end
        return "single", string.format("STC_Reserved%02X", byte), 0
    end
    local group = GROUP[bit32.band(byte, 0xF8)]
    if group then return "number", group end
    return "invalid", "invalid"
end

-- Operation codes, the request codes of the channel: the library's operation code table as
-- `kelcode -l operation` prints it (the dissector test checks that the two agree).
local OPERATIONS = {
    [1] = "UNDEFINED", [50000] = "CREATE_LOGICAL_DRIVE", [50001] = "MIGRATE_LOGICAL_DRIVE",
    [50002] = "GET_EVENTS", [50003] = "GET_RAID_LEVEL_INFORMATION",
    [50004] = "GET_RAID_MIGRATION_INFORMATION", [50005] = "GET_LOGICAL_DRIVE_CONFIGURATION",
    [50006] = "PASS_THROUGH", [50007] = "SCAN_CONFIGURATION", [50008] = "ALARM_ON",
    [50009] = "ALARM_OFF", [50010] = "FLUSH", [50011] = "CLEAR_CONFIGURATION",
    [50012] = "CLEAR_LOG", [50013] = "START_PATROLREAD", [50014] = "PAUSE_PATROLREAD",
    [50015] = "CONTINUE_PATROLREAD", [50016] = "CANCEL_PATROLREAD", [50017] = "NVRAM_LOG",
    [50018] = "CLEAR_NVRAM_LOG", [50019] = "RECALIBRATION", [50020] = "SET_LOW_POWER_THRESHOLD",
    [50021] = "DISCHARGE", [50022] = "FAST_CHARGE", [50023] = "STOP_RECALIBRATION",
    [50024] = "BADBLOCK_LOG", [50025] = "CLEAR_BADBLOCK_LOG", [50026] = "FORMAT_DEVICE",
    [50027] = "START_VERIFY", [50028] = "CANCEL_VERIFY", [50029] = "MAKE_ONLINE",
    [50030] = "MAKE_OFFLINE", [50031] = "CREATE_GLOBAL_HOTSPARE", [50032] = "START_DEVICE",
    [50033] = "STOP_DEVICE", [50034] = "LOCATE_DEVICE", [50035] = "STOP_LOCATE_DEVICE",
    [50036] = "CREATE_DEDICATED_HOTSPARE", [50037] = "DELETE_GLOBAL_HOTSPARE",
    [50038] = "DELETE_DEDICATED_HOTSPARE", [50039] = "START_VERIFYFIX",
    [50040] = "CANCEL_VERIFYFIX", [50041] = "HANDLE_OPTIONS", [50042] = "RESET_ERROR_COUNTERS",
    [50043] = "MAKE_READY", [50044] = "START_INITIALIZATION", [50045] = "PAUSE_INITIALIZATION",
    [50046] = "CONTINUE_INITIALIZATION", [50047] = "CANCEL_INITIALIZATION", [50048] = "START_CHECK",
    [50049] = "CANCEL_CHECK", [50050] = "DELETE", [50051] = "DELETE_LAST_LOGICAL_DRIVE",
    [50052] = "DELETE_ALL_LOGICAL_DRIVES", [50053] = "CANCEL_BGI", [50054] = "START_REBUILD",
    [50055] = "PAUSE_REBUILD", [50056] = "CONTINUE_REBUILD", [50057] = "CANCEL_REBUILD",
    [50058] = "PAUSE_MIGRATION", [50059] = "CONTINUE_MIGRATION", [50060] = "PAUSE_CHECK",
    [50061] = "CONTINUE_CHECK", [50062] = "LOCATE_LOGICAL_DRIVE",
    [50063] = "STOP_LOCATE_LOGICAL_DRIVE", [50064] = "NONE", [50065] = "GET_WRITE_ACCESS",
    [50066] = "RELEASE_WRITE_ACCESS", [50067] = "WRITE_CONFIGURATION_TO_FILE",
    [50068] = "WRITE_CONFIGURATION_TO_STRING", [50069] = "RESTORE_CONFIGURATION_FROM_FILE",
    [50070] = "RESTORE_CONFIGURATION_FROM_STRING", [50071] = "FORCE_WRITE_ACCESS",
    [50072] = "GET_STORED_EVENTS", [50073] = "REPLACE_MISSING", [50074] = "MARK_MISSING",
    [50075] = "CREATE_VOLUME", [50076] = "START_MDC", [50077] = "SENSE_LOG", [50078] = "CANCEL_MDC",
    [50079] = "PAUSE_MDC", [50080] = "CONTINUE_MDC", [50081] = "IMPORT_FOREIGN_CONFIGURATION",
    [50082] = "CLEAR_FOREIGN_CONFIGURATION", [50083] = "GET_RESTART_EVENTS",
    [50084] = "LOCATE_ENCLOSURE", [50085] = "READ_FOREIGN_CONFIGURATION",
    [50086] = "READ_FOREIGN_CONFIGURATION_AFTER_IMPORT", [50087] = "HANDLE_FOREIGN_CONFIGURATION",
    [50088] = "GET_COLLECTION_FOR_DEDICATED_HOTSPARE",
    [50089] = "GET_COLLECTION_FOR_REPLACE_MISSING", [50090] = "DELETE_TASK",
    [50091] = "HANDLE_HOTSPARE", [50092] = "HANDLE_TASK", [50093] = "MAKE_OFFLINE_REDUNDANT",
    [50094] = "MAKE_READY_BBT_CLEAR", [50095] = "PHY_ERRORS", [50096] = "WRITE_SNAPSHOT",
    [50097] = "HELP", [50098] = "EXIT", [50099] = "START_COPY_BACK", [50100] = "CANCEL_COPY_BACK",
    [50101] = "GET_COLLECTION_FOR_COPY_BACK", [50102] = "ACTIVATE", [50103] = "CREATE_TASK",
    [50104] = "MODIFY_TASK", [50105] = "SEND_TEST_MAIL", [50106] = "MAKE_SYSTEM",
    [50107] = "DISK_INFORMATION", [50108] = "ADD_SERVER", [50109] = "MODIFY_SERVER",
    [50110] = "DELETE_SERVER", [50111] = "SHOW_SERVERS", [50112] = "START_OCE",
    [50113] = "NIC_LED_BLINK", [50114] = "TEST_CAS_CONNECTION", [50115] = "TEST_LDAP_CONNECTION",
    [50117] = "PAUSE_COPY_BACK", [50118] = "CONTINUE_COPY_BACK", [50121] = "ENABLE_SSD_CACHING",
    [50122] = "DISABLE_SSD_CACHING", [50123] = "PAUSE_BGI", [50124] = "CONTINUE_BGI",
    [50125] = "VERIFY_SERVER", [50126] = "ATTACH", [50127] = "DETACH", [50128] = "FORCE_DETACH",
    [50129] = "ROTATE_LOG", [50130] = "UNBLOCK", [50131] = "SEND_TEST_TRAP",
    [50132] = "WRITE_TTY_LOG", [50133] = "START_ERASE", [50134] = "CANCEL_ERASE",
    [50135] = "HANDLE_GROUP", [50136] = "HANDLE_HOST", [50137] = "INSERT_SERVER",
    [50138] = "DISCARD_PRESERVED_CACHE", [50139] = "STOP_LOCATE_ENCLOSURE",
    [50140] = "SET_DISK_SECURITY", [50141] = "DELETE_DISK_SECURITY",
    [50142] = "HANDLE_DISK_SECURITY", [50143] = "MODIFY_DISK_SECURITY",
    [50144] = "INSTANT_SECURE_ERASE", [50145] = "SHOW_DISK_SECURITY_ID",
    [50146] = "UNLOCK_FOREIGN_DISK", [50147] = "ENABLE_DISK_SECURITY", [50148] = "ADD_LDAP_SERVER",
    [50149] = "DELETE_LDAP_SERVER", [50150] = "SEND_LOG_SENSE_CMD", [50151] = "START_REBUILD_TO",
    [50152] = "LOCATE_VROC_DEVICE", [50153] = "START_BGI", [50154] = "CLEAR_METADATA",
    [50155] = "FORCE_OFFLINE", [50156] = "CLEAR_PHYSICAL_DRIVE_CCM", [50157] = "HEAL_ARRAY",
    [50158] = "GET_COLLECTION_FOR_HEAL_ARRAY", [50159] = "GET_COLLECTION_FOR_ARRAY_HOTSPARE",
    [50160] = "CREATE_ARRAY_HOTSPARE", [50161] = "DELETE_ARRAY_HOTSPARE", [50500] = "ADD_SERVER",
}

local command_names = {}
for b = 0, 255 do
    local _, name = classify(b)
    command_names[b] = name
end

local f = proto.fields
f.appid = ProtoField.uint32("kelbase.appid", "Application id", base.HEX)
f.cmd = ProtoField.uint8("kelbase.cmd", "Command", base.HEX, command_names)
f.cmd_name = ProtoField.string("kelbase.cmd_name", "Command name")
f.len = ProtoField.uint8("kelbase.len", "Number length", base.DEC)
f.value = ProtoField.uint64("kelbase.value", "Number", base.DEC)
f.int = ProtoField.int64("kelbase.int", "Integer (as read)", base.DEC)
f.uint = ProtoField.uint64("kelbase.uint", "Unsigned integer", base.DEC)
f.request = ProtoField.uint64("kelbase.request", "Request code", base.DEC)
f.operation = ProtoField.string("kelbase.operation", "Operation")
f.ack = ProtoField.uint64("kelbase.ack", "Acknowledge code", base.DEC)
f.events = ProtoField.uint64("kelbase.events", "Event mask", base.HEX)
f.version = ProtoField.uint64("kelbase.version", "Version word", base.HEX)
f.peer_version = ProtoField.uint8("kelbase.peer_version", "Protocol version", base.DEC)
f.verdict = ProtoField.string("kelbase.verdict", "Handshake")
f.string = ProtoField.string("kelbase.string", "String")
f.block_len = ProtoField.uint64("kelbase.block_len", "Block length", base.DEC)
f.block = ProtoField.bytes("kelbase.block", "Block bytes")
f.file_size = ProtoField.uint64("kelbase.file_size", "File size", base.DEC)
f.file_left = ProtoField.uint64("kelbase.file_left", "File bytes still to come", base.DEC)
f.reserved = ProtoField.bytes("kelbase.reserved", "Reserved payload")
f.invalid = ProtoField.bytes("kelbase.invalid", "Undecodable bytes")

local e_invalid = ProtoExpert.new("kelbase.invalid.expert", "Invalid command byte: a reader fails with 0x20010026",
                                  expert.group.MALFORMED, expert.severity.ERROR)
local e_reserved = ProtoExpert.new("kelbase.reserved.expert", "Reserved command: accepted and skipped, never sent",
                                   expert.group.PROTOCOL, expert.severity.WARN)
local e_minus32 = ProtoExpert.new("kelbase.minus32", "0xE0 is read as 0 (a writer sends it for -32)",
                                  expert.group.PROTOCOL, expert.severity.NOTE)
local e_long = ProtoExpert.new("kelbase.long_number", "Number not in its shortest form (the library never sends this)",
                               expert.group.PROTOCOL, expert.severity.NOTE)
local e_rejected = ProtoExpert.new("kelbase.rejected", "Handshake refused by the server",
                                   expert.group.RESPONSE_CODE, expert.severity.WARN)
local e_file = ProtoExpert.new("kelbase.file_short", "File ended before its announced size",
                               expert.group.MALFORMED, expert.severity.ERROR)
proto.experts = { e_invalid, e_reserved, e_minus32, e_long, e_rejected, e_file }

proto.prefs.port = Pref.uint("TCP port", DEFAULT_PORT, "TCP port of the message channel (0: only Decode As)")

local tcp_stream = Field.new("tcp.stream")
local tcp_ports = DissectorTable.get("tcp.port")

-- Per TCP stream: the client's end (it speaks first), the frames that carried each side's
-- handshake, and the file transfer in progress per direction. Built on the first pass; later
-- passes (a click in the GUI) read what the first pass recorded per frame.
local streams = {}
local frame_notes = {}

local function reset_state()
    streams = {}
    frame_notes = {}
end

-- The same 64 bits as a signed number.
local function to_int64(value)
    return Int64(value:lower(), value:higher())
end

-- The number of bytes a number of `n` bytes needs at least.
local function shortest(value)
    local n = 1
    local limit = UInt64(256)
    while n < 8 and value >= limit do
        n = n + 1
        limit = limit * 256
    end
    return n
end

-- The length of the command at `offset`, or nil and the bytes still needed (-1: unknown).
local function command_length(tvb, offset, remaining)
    local byte = tvb(offset, 1):uint()
    local kind, _, payload = classify(byte)
    if kind == "small" then return 1 end
    if kind == "invalid" then return 1 end
    if kind == "single" then
        if remaining < 1 + payload then return nil, 1 + payload - remaining end
        return 1 + payload
    end
    local n = bit32.band(byte, 7) + 1
    if remaining < 1 + n then return nil, 1 + n - remaining end
    local length = 1 + n
    if HAS_PAYLOAD[bit32.band(byte, 0xF8)] then
        local value = tvb(offset + 1, n):uint64()
        if value > UInt64(0x7FFFFFFF) then return nil, -1 end
        length = length + value:tonumber()
    end
    if remaining < length then return nil, length - remaining end
    return length
end

local function direction_key(pinfo)
    return tostring(pinfo.src) .. ":" .. tostring(pinfo.src_port)
end

-- File pieces: on the first pass the bytes still missing are counted per direction and noted
-- by frame and offset; later passes read the note.
local function file_note(pinfo, offset, compute)
    local key = pinfo.number .. ":" .. offset
    if not pinfo.visited then frame_notes[key] = compute() end
    return frame_notes[key]
end

-- Adds one complete command to `tree`; returns a short text for the Info column.
local function add_command(tvb, offset, length, tree, pinfo, state, dir, handshake)
    local byte = tvb(offset, 1):uint()
    local kind, name = classify(byte)
    local group = bit32.band(byte, 0xF8)
    local sub = tree:add(proto, tvb(offset, length), name)
    sub:add(f.cmd, tvb(offset, 1))
    sub:add(f.cmd_name, tvb(offset, 1), name)

    -- A file arrives as block pieces; anything else while bytes are missing makes the reader
    -- fail with "Data missing".
    local note = file_note(pinfo, offset, function()
        local left = state.file[dir]
        if name == "STC_File" then
            local size = tvb(offset + 1, bit32.band(byte, 7) + 1):uint64():tonumber()
            state.file[dir] = size > 0 and size or nil
            return nil
        end
        if not left then return nil end
        if name == "STC_BinBlockStart" then
            left = left - (length - 2 - bit32.band(byte, 7))
            state.file[dir] = left > 0 and left or nil
            return { left = math.max(left, 0) }
        end
        state.file[dir] = nil
        return { short = left }
    end)
    if note and note.short then
        sub:add_proto_expert_info(e_file, "File ended " .. note.short .. " bytes before its announced size")
    end

    if kind == "small" then
        local magnitude = bit32.band(byte, 0x1F)
        if name == "STC_SmallUInt" then
            sub:add(f.int, tvb(offset, 1), Int64(magnitude))
            sub:append_text(": " .. magnitude)
            return tostring(magnitude)
        end
        -- The reader negates the low five bits: 0xE0 is -0, which is 0.
        local read = magnitude == 0 and 0 or -magnitude
        sub:add(f.int, tvb(offset, 1), Int64(read))
        if magnitude == 0 then sub:add_proto_expert_info(e_minus32) end
        sub:append_text(": " .. read)
        return tostring(read)
    end

    if kind == "single" then
        if byte >= 0x09 then
            sub:add_proto_expert_info(e_reserved)
            if length > 1 then sub:add(f.reserved, tvb(offset + 1, length - 1)) end
        end
        if name == "STC_EmptyString" then
            sub:add(f.string, tvb(offset, 1), "")
            return '""'
        end
        return (name:gsub("^STC_", ""))
    end

    -- A number of n bytes follows.
    local n = bit32.band(byte, 7) + 1
    local range = tvb(offset + 1, n)
    local value = range:uint64()
    sub:add(f.len, tvb(offset, 1), n)
    sub:add(f.value, range)
    if shortest(value) ~= n then sub:add_proto_expert_info(e_long) end
    local short = name:gsub("^STC_", "")
    local info = short .. " " .. tostring(value)

    if name == "STC_UInt" then
        if value < UInt64(0, 0x80000000) then
            sub:add(f.int, range, to_int64(value))
        else
            sub:add(f.uint, range)
        end
        sub:append_text(": " .. tostring(value))
        info = tostring(value)
    elseif name == "STC_NegInt" then
        if value <= UInt64(0, 0x80000000) then
            local negative = -to_int64(value)
            sub:add(f.int, range, negative)
            info = tostring(negative)
        else
            info = "-" .. tostring(value)
        end
        sub:append_text(": " .. info)
    elseif name == "STC_Request" then
        sub:add(f.request, range)
        local operation = value < UInt64(0x80000000) and OPERATIONS[value:tonumber()] or nil
        if operation then
            sub:add(f.operation, range, operation)
            sub:append_text(" " .. tostring(value) .. " (" .. operation .. ")")
            info = info .. " (" .. operation .. ")"
        else
            sub:append_text(" " .. tostring(value))
        end
    elseif name == "STC_Ack" then
        sub:add(f.ack, range)
        sub:append_text(" " .. tostring(value))
    elseif name == "STC_Events" then
        sub:add(f.events, range)
        sub:append_text(string.format(" mask 0x%s", value:tohex()))
    elseif name == "STC_Version" then
        sub:add(f.version, range)
        local word = value:tonumber()
        local version = math.floor(word / 256) % 256
        sub:add(f.peer_version, range, version)
        local verdict
        if math.floor(word / 65536) % 256 ~= 0 then
            verdict = "refused (the server does not accept this application id or version)"
            sub:add_proto_expert_info(e_rejected)
        elseif word % 256 ~= 0 then
            verdict = "not accepted by a server (low byte of the version word is set)"
        elseif handshake then
            verdict = handshake == "client" and "offered" or "accepted"
        else
            verdict = "version command outside the handshake"
        end
        sub:add(f.verdict, range, verdict)
        sub:append_text(string.format(" %d, %s", version, verdict))
        info = "Version " .. version .. (verdict:find("^refused") and " refused" or "")
    elseif name == "STC_File" then
        sub:add(f.file_size, range)
        sub:append_text(" of " .. tostring(value) .. " bytes")
    elseif HAS_PAYLOAD[group] then
        local count = length - 1 - n
        local body = count > 0 and tvb(offset + 1 + n, count) or nil
        if name == "STC_String" then
            -- Shown as UTF-8; bytes that are not become replacement characters.
            local text = body and body:string(ENC_UTF_8) or ""
            if body then sub:add_packet_field(f.string, body, ENC_UTF_8) else sub:add(f.string, range, "") end
            sub:append_text(': "' .. text .. '"')
            info = '"' .. text .. '"'
        elseif group == 0x58 or group == 0x60 or group == 0x68 then
            sub:add_proto_expert_info(e_reserved)
            if body then sub:add(f.reserved, body) end
        else
            sub:add(f.block_len, range)
            if body then sub:add(f.block, body) end
            sub:append_text(", " .. count .. " bytes")
            info = short .. " " .. count
        end
    end

    if note and note.left then
        sub:add(f.file_left, tvb(offset + 1, n), UInt64(note.left))
        info = info .. " (file, " .. note.left .. " left)"
    end
    return info
end

function proto.dissector(tvb, pinfo, tree)
    local total = tvb:len()
    if total == 0 then return 0 end
    pinfo.cols.protocol = "KELBASE"

    local stream_id = tcp_stream() and tcp_stream().value or -1
    local state = streams[stream_id]
    if not state then
        -- The client speaks first: the server waits for the application id.
        state = { client = direction_key(pinfo), handshake = {}, file = {} }
        streams[stream_id] = state
    end
    local dir = direction_key(pinfo) == state.client and "client" or "server"

    -- Is this tvb the start of its direction's handshake? Decided on the first pass, recorded
    -- by frame for later passes.
    local handshake = nil
    if not pinfo.visited then
        if not state.handshake[dir] then handshake = dir end
    elseif state.handshake[dir] == pinfo.number then
        handshake = dir
    end

    local root = tree:add(proto, tvb(), "kelbase message channel")
    root:append_text(dir == "client" and ", client to server" or ", server to client")
    local offset = 0
    local infos = {}

    if handshake == "client" then
        -- 4 raw bytes of application id, then the version command.
        local need = 5
        if total >= 5 then
            local n = bit32.band(tvb(4, 1):uint(), 7) + 1
            need = 5 + n
        end
        if total < need then
            pinfo.desegment_offset = 0
            pinfo.desegment_len = need - total
            return total
        end
        root:add(f.appid, tvb(0, 4))
        infos[#infos + 1] = string.format("Application 0x%08X", tvb(0, 4):uint())
        offset = 4
    end

    while offset < total do
        local byte = tvb(offset, 1):uint()
        local kind = classify(byte)
        if kind == "invalid" then
            local item = root:add(f.invalid, tvb(offset, total - offset))
            root:add(f.cmd, tvb(offset, 1))
            root:add(f.cmd_name, tvb(offset, 1), "invalid")
            item:add_proto_expert_info(e_invalid)
            infos[#infos + 1] = string.format("INVALID 0x%02X", byte)
            -- A reader gives up on the stream here; nothing after it can be framed.
            offset = total
            break
        end
        local length, missing = command_length(tvb, offset, total - offset)
        if not length then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = missing > 0 and missing or DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        local hs = nil
        if handshake and offset == (handshake == "client" and 4 or 0) then hs = handshake end
        infos[#infos + 1] = add_command(tvb, offset, length, root, pinfo, state, dir, hs)
        if hs and not pinfo.visited then state.handshake[dir] = pinfo.number end
        offset = offset + length
    end

    root:set_len(offset)
    if #infos > 0 then
        -- A frame that ends one reassembled run of commands and starts another is dissected
        -- twice; the second call continues the first one's text.
        local prefix = dir == "client" and "C: " or "S: "
        local text = table.concat(infos, ", ")
        if tostring(pinfo.cols.info):sub(1, #prefix) == prefix then
            pinfo.cols.info:append(", " .. text)
        else
            pinfo.cols.info:set(prefix .. text)
        end
    end
    return total
end

function proto.init()
    reset_state()
end

local registered_port = 0
function proto.prefs_changed()
    if proto.prefs.port == registered_port then return end
    if registered_port ~= 0 then tcp_ports:remove(registered_port, proto) end
    registered_port = proto.prefs.port
    if registered_port ~= 0 then tcp_ports:add(registered_port, proto) end
end

tcp_ports:add(DEFAULT_PORT, proto)
registered_port = DEFAULT_PORT
tcp_ports:add_for_decode_as(proto)

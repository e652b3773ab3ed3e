-- Wireshark and tshark dissector for QZ-640 units: control messages and audio streams over UDP.
--
--   tshark -X lua_script:wireshark/qz640.lua -i lo -Y qz640
--
-- or copy it into Wireshark's folder of personal Lua plugins (Help, About, Folders). How the units
-- speak stands in docs/protocol.md. Ports are preferences with the emulator's defaults; on other
-- ports both protocols are recognised by what they look like. What refers to later packets
-- (acknowledged in, answered in) needs the second look that Wireshark always takes, and tshark with -2.

set_plugin_info({version = "1.0.0", description = "QZ-640 control and streams"})

local control = Proto("qz640", "QZ-640 control")
local stream = Proto("qz640rtp", "QZ-640 stream")

control.prefs.discovery = Pref.uint("Discovery port", 15001, "UDP port of dev_find")
control.prefs.ports = Pref.range("Control ports", "8000", "UDP control ports of units", 65535)
stream.prefs.ports = Pref.range("Stream ports", "8002", "UDP ports where units receive", 65535)
control.prefs.heuristic = Pref.bool("Recognise on other ports", true, "JSON that holds a \"msg\"")
stream.prefs.heuristic = Pref.bool("Recognise on other ports", true,
  "02 C8 or 02 CA, source 0, whole frames of 24-bit stereo")

local SEGMENTS, MAX_ATTACHMENT, FRAMES = "attach", 1048576, 192
local RATES = { [100] = 48000, [101] = 44100 }

-- ---- JSON ------------------------------------------------------------------------------------------

-- Reads the JSON value of `text` at `at`. Gives the value, the offset after it, and for an object a
-- table of each key's place {begin, end}. Fails by error(). null is `false`, as nothing needs more.
local value

local ESCAPES = { b = "\b", f = "\f", n = "\n", r = "\r", t = "\t", ['"'] = '"', ["\\"] = "\\", ["/"] = "/" }

local function string_at(text, at)
  local parts = {}
  while true do
    local stop = text:find('["\\%c]', at) or error("a string without an end")
    parts[#parts + 1] = text:sub(at, stop - 1)
    local sign = text:sub(stop, stop)
    if sign == '"' then return table.concat(parts), stop + 1 end
    if sign ~= "\\" then error("a raw control character in a string") end
    local name = text:sub(stop + 1, stop + 1)
    at = stop + 2
    if name == "u" then
      local digits = text:match("^%x%x%x%x", at) or error("a \\u without four digits")
      if digits:find("%l") then error("hexadecimal digits of \\u" .. digits .. " in lower case") end
      parts[#parts + 1] = "\\u" .. digits
      at = at + 4
    else
      parts[#parts + 1] = ESCAPES[name] or error("the escape \\" .. name)
    end
  end
end

local function list_at(text, at, close, item)
  at = text:match("^%s*()", at)
  if text:sub(at, at) == close then return at + 1 end
  while true do
    at = text:match("^%s*()", item(text:match("^%s*()", at)))
    local sign = text:sub(at, at)
    if sign == close then return at + 1 end
    if sign ~= "," then error("no comma and no " .. close) end
    at = at + 1
  end
end

function value(text, at)
  at = text:match("^%s*()", at)
  local sign = text:sub(at, at)
  if sign == '"' then return string_at(text, at + 1) end
  if sign == "{" then
    local object, places = {}, {}
    local stop = list_at(text, at + 1, "}", function(key_at)
      if text:sub(key_at, key_at) ~= '"' then error("a key is missing") end
      local key, after = string_at(text, key_at + 1)
      local begin = text:match("^%s*:%s*()", after) or error("a colon is missing")
      local stop
      object[key], stop = value(text, begin)
      places[key] = { begin, stop }
      return stop
    end)
    return object, stop, places
  end
  if sign == "[" then
    local array = {}
    local stop = list_at(text, at + 1, "]", function(item_at)
      local stop
      array[#array + 1], stop = value(text, item_at)
      return stop
    end)
    return array, stop
  end
  for word, constant in pairs({ null = false, ["true"] = true, ["false"] = false }) do
    if text:sub(at, at + #word - 1) == word then return constant, at + #word end
  end
  local number = text:match("^-?%d+%.?%d*[eE]?[+-]?%d*", at) or error("a value is missing")
  -- 19.0 and 1e1 stay text: they are no integers to a unit.
  return number:find("[.eE]") and number or tonumber(number), at + #number
end

-- ---- Control messages ------------------------------------------------------------------------------

local function number(name, text) return ProtoField.uint32("qz640." .. name, text) end
local function frame(name, text) return ProtoField.framenum("qz640." .. name, text) end

local F = {
  msg = ProtoField.string("qz640.msg", "Message"),
  msg_id = number("msg_id", "Number"),
  att = number("att", "Length of the attachment"),
  ack_msg_id = number("ack_msg_id", "Acknowledged number"),
  leader_id = number("leader_id", "Number of the head"),
  seg_count = number("seg_count", "Segments"),
  seg_number = number("seg_number", "Segment"),
  unit_id = ProtoField.string("qz640.unit_id", "Unit"),
  unit_type = ProtoField.string("qz640.unit_type", "Type"),
  rtp_port = number("rtp_port", "RTP port"),
  outputs = number("outputs", "Outputs"),
  device_freq = number("device_freq", "Sample frequency"),
  input_freq = number("input_freq", "Input frequency"),
  code = number("code", "Error code"),
  txt = ProtoField.string("qz640.txt", "Error"),
  err_msg_id = number("err_msg_id", "Number of the request"),
  inputs = number("inputs", "Inputs"),
  input = ProtoField.string("qz640.input", "Input"),
  freq = ProtoField.int32("qz640.freq", "Tuner frequency"),
  other = ProtoField.string("qz640.other", "Key"),
  attachment = ProtoField.bytes("qz640.attachment", "Attachment"),
  whole = ProtoField.bytes("qz640.whole_attachment", "Attachment put together"),
  ack_in = frame("ack_in", "Acknowledged in"),
  ack_of = frame("ack_of", "Acknowledges"),
  ack_time = ProtoField.relative_time("qz640.ack_time", "Time since the message"),
  answer_in = frame("answer_in", "Answered in"),
  answer_of = frame("answer_of", "Answers"),
  repeat_of = frame("repeat_of", "Repeats"),
  transmission = number("transmission", "Transmission"),
  segment_of = frame("segment_of", "Segment of"),
  whole_in = frame("whole_in", "Put together in"),
}
control.fields = F

local bad = ProtoExpert.new("qz640.bad", "Bad message: a unit drops it without an answer",
  expert.group.MALFORMED, expert.severity.ERROR)
local repeated = ProtoExpert.new("qz640.repeated", "Repeat", expert.group.SEQUENCE, expert.severity.NOTE)
local unacknowledged = ProtoExpert.new("qz640.unacknowledged", "Never acknowledged",
  expert.group.SEQUENCE, expert.severity.WARN)
local refused = ProtoExpert.new("qz640.refused", "The unit refused", expert.group.RESPONSE_CODE,
  expert.severity.WARN)
local unfinished = ProtoExpert.new("qz640.unfinished", "Segments don't fit: the message is lost",
  expert.group.REASSEMBLE, expert.severity.WARN)
control.experts = { bad, repeated, unacknowledged, refused, unfinished }

-- Which message answers which. `dev_info` answers a `dev_find` too, wherever that was sent.
local ANSWERS = { dev_info = "get_dev_info", inputs = "get_inputs", fm_freq = "get_fm_freq",
  fm_quality = "get_fm_quality", state = "get_state" }
-- The keys that each message must have; `:text` where they hold no unsigned number.
local REQUIRED = {
  ack = "ack_msg_id", attach = "leader_id seg_count seg_number", error = "code txt:text err_msg_id",
  dev_info = "unit_id:text unit_type:text hardware firmware software audio_protocol " ..
    "control_protocol rtp_port inputs outputs",
  set_state = "device_freq", state = "device_freq input_freq",
  dev_find = "", get_dev_info = "", get_state = "", get_inputs = "", set_inputs = "", inputs = "",
  get_fm_freq = "", set_fm_freq = "", fm_freq = "", get_fm_quality = "", fm_quality = "",
}
local LISTS = { set_inputs = "inputs", inputs = "inputs", set_fm_freq = "freq", fm_freq = "freq" }

-- What the first look at the packets in their order has found: by frame number, what is to be said;
-- by sender and receiver, what is under way.
local facts, sent, requests, finds, assemblies

local streams, stream_facts

function control.init()
  facts, sent, requests, finds, assemblies = {}, {}, {}, {}, {}
  streams, stream_facts = {}, {}
end

local function unsigned(n)
  return type(n) == "number" and n % 1 == 0 and n >= 0 and n <= 0xFFFFFFFF
end

-- What a message lacks that a unit wants of it; nil: nothing.
local function lacks(message)
  for key, kind in REQUIRED[message.msg]:gmatch("([%w_]+):?(%a*)") do
    local good = unsigned(message[key])
    if kind == "text" then good = type(message[key]) == "string" end
    if not good then return key .. " is missing or of another type" end
  end
  local list = message[LISTS[message.msg]]
  if list ~= nil and type(list) ~= "table" then return LISTS[message.msg] .. " is no list" end
  for _, item in ipairs(list or {}) do
    if LISTS[message.msg] == "freq" and not (type(item) == "number" and item % 1 == 0) then
      return "freq holds what is no integer"
    end
  end
end

-- The message, the places of its keys, and the offset of the attachment; or nil and what is wrong.
local function decode(bytes)
  local zero = bytes:find("\0", 1, true)
  if not zero then return nil, "no 0 byte follows the JSON text" end
  local text = bytes:sub(1, zero - 1)
  local read, message, _, places = pcall(value, text, 1)
  if not read then return nil, (tostring(message):gsub("^.-:%d+: ", "")) end
  if not places then return nil, "the JSON text is no object" end
  if not REQUIRED[message.msg] then return nil, "no message has that name" end
  if not unsigned(message.msg_id) then return nil, "msg_id is no unsigned integer" end
  if message.att and not (unsigned(message.att) and message.att <= MAX_ATTACHMENT) then
    return nil, "att is no unsigned integer up to " .. MAX_ATTACHMENT
  end
  local lack = lacks(message)
  if lack then return nil, lack end
  return message, places, zero
end

-- Puts the segments from one sender to one receiver together, as a unit does.
local function assemble(way, message, bytes, fact)
  local head = assemblies[way]
  assemblies[way] = nil
  if message.msg ~= SEGMENTS then
    if head then fact.unfinished = true end
    if (message.att or 0) > #bytes then
      assemblies[way] = { fact = fact, length = message.att, bytes = bytes, next = 0 }
    end
    return
  end
  local length = head and #head.bytes + #bytes
  if not head or message.seg_number ~= head.next or length > head.length then
    fact.unfinished = true
    return
  end
  fact.segment_of = head.fact.frame
  head.bytes, head.next = head.bytes .. bytes, head.next + 1
  if length == head.length then
    fact.whole, head.fact.whole_in = head.bytes, fact.frame
  else
    assemblies[way] = head
  end
end

-- The first look at a message: repeat of, acknowledged by, answered by.
local function learn(pinfo, message, bytes)
  local from = ("%s:%d"):format(tostring(pinfo.src), pinfo.src_port)
  local to = ("%s:%d"):format(tostring(pinfo.dst), pinfo.dst_port)
  local way, back = from .. ">" .. to, to .. ">" .. from
  local fact = { frame = pinfo.number, time = pinfo.abs_ts, transmission = 1 }
  facts[pinfo.number] = fact
  if message.msg == "ack" then
    local acked = sent[back .. message.ack_msg_id]
    if acked then
      local passed = fact.time - acked.latest.time
      fact.ack_of = acked.latest.frame
      fact.ack_time = NSTime.new(math.floor(passed), math.floor(passed % 1 * 1e9))
      acked.latest.ack_in = acked.latest.ack_in or fact.frame
      acked.acknowledged = true
    end
    return
  end
  local known = sent[way .. message.msg_id]
  if known and known.bytes == bytes and fact.time - known.latest.time < 1 then
    fact.repeat_of, fact.transmission = known.first.frame, known.latest.transmission + 1
    fact.exchange, known.latest = known, fact
    return
  end
  known = { first = fact, latest = fact, bytes = bytes }
  sent[way .. message.msg_id], fact.exchange = known, known
  if message.msg == "dev_find" then finds[from] = fact end
  requests[way .. message.msg], requests[way .. message.msg_id] = fact, fact
  local request = requests[back .. (ANSWERS[message.msg] or message.err_msg_id or "")]
  local find = message.msg == "dev_info" and finds[to]
  if find and (not request or request.frame < find.frame) then request = find end
  if request and (message.msg == "error" or ANSWERS[message.msg]) then
    fact.answer_of = request.frame
    request.answer_in = request.answer_in or fact.frame
  end
  return way, fact
end

-- One tree item for each key, in the order of the text.
local function add_keys(tree, tvb, message, places)
  local keys = {}
  for key in pairs(places) do keys[#keys + 1] = key end
  table.sort(keys, function(a, b) return places[a][1] < places[b][1] end)
  for _, key in ipairs(keys) do
    local content, begin, stop = message[key], places[key][1], places[key][2]
    local range = tvb(begin - 1, stop - begin)
    local field = F[key]
    if type(content) == "table" then
      for i, item in ipairs(content) do
        local one = key == "inputs" and F.input or F.freq
        local fits = (one == F.input and type(item) == "string")
          or (one == F.freq and type(item) == "number")
        local prefix = ("%s[%d]"):format(key, i - 1)
        if fits and (key == "inputs" or key == "freq") then
          tree:add(one, range, item):set_text(prefix .. ": " .. item)
        else
          tree:add(F.other, range, ("%s: %s"):format(prefix, tostring(item)))
        end
      end
    elseif field and (field == F.msg or field == F.unit_id or field == F.unit_type or field == F.txt) then
      tree:add(field, range, tostring(content))
    elseif field and unsigned(content) then
      tree:add(field, range, content)
    else
      tree:add(F.other, range, ("%s: %s"):format(key, tostring(content)))
    end
  end
end

local function add_facts(tree, fact)
  for _, name in ipairs({ "repeat_of", "ack_of", "ack_time", "ack_in", "answer_of", "answer_in",
    "segment_of", "whole_in" }) do
    if fact[name] then tree:add(F[name], fact[name]):set_generated() end
  end
  if fact.whole then
    tree:add(F.whole, ByteArray.new(fact.whole, true):tvb("Attachment put together")())
  end
  if fact.repeat_of then
    tree:add(F.transmission, fact.transmission):set_generated()
    tree:add_proto_expert_info(repeated, "Transmission " .. fact.transmission .. " of frame "
      .. fact.repeat_of)
  end
  if fact.unfinished then tree:add_proto_expert_info(unfinished) end
end

local function summary(message, fact)
  if message.msg == "ack" then return ("ack of #%s"):format(tostring(message.ack_msg_id)) end
  local text = ("%s #%d"):format(message.msg, message.msg_id)
  if message.msg == SEGMENTS then
    text = text .. (", %s of %s"):format(tostring(message.seg_number), tostring(message.seg_count))
  end
  if message.msg == "error" then text = text .. ": " .. tostring(message.txt) end
  if message.unit_id then text = text .. (" %s (%s)"):format(message.unit_id, tostring(message.unit_type)) end
  if fact.repeat_of then text = text .. (" [transmission %d]"):format(fact.transmission) end
  return text
end

function control.dissector(tvb, pinfo, root)
  if tvb:len() == 0 then return 0 end
  pinfo.cols.protocol = "QZ640"
  local tree = root:add(control, tvb())
  local bytes = tvb:raw()
  local message, places, zero = decode(bytes)
  if not message then
    pinfo.cols.info = "bad message: " .. places
    tree:add_proto_expert_info(bad, "Bad message, dropped without an answer: " .. places)
    return tvb:len()
  end
  local attachment = bytes:sub(zero + 1, zero + (message.att or 0))
  if not pinfo.visited then
    local way, fact = learn(pinfo, message, bytes)
    if way then assemble(way, message, attachment, fact) end
  end
  local fact = facts[pinfo.number]
  pinfo.cols.info = summary(message, fact)
  tree:append_text(", " .. summary(message, fact))
  add_keys(tree, tvb, message, places)
  if #attachment > 0 then tree:add(F.attachment, tvb(zero, #attachment)) end
  add_facts(tree, fact)
  if message.msg == "error" then
    tree:add_proto_expert_info(refused, "The unit refused: " .. tostring(message.txt))
  end
  local exchange = fact.exchange
  if pinfo.visited and exchange and not exchange.acknowledged
    and pinfo.dst_port ~= control.prefs.discovery and message.msg ~= "dev_find" then
    tree:add_proto_expert_info(unacknowledged)
  end
  return tvb:len()
end

-- ---- Streams ---------------------------------------------------------------------------------------

local S = {
  version = ProtoField.uint8("qz640rtp.version", "Version", base.DEC, nil, 0x03),
  payload_type = ProtoField.uint8("qz640rtp.payload_type", "Payload type", base.DEC,
    { [100] = "48000 Hz", [101] = "44100 Hz" }, 0xFE),
  marker = ProtoField.bool("qz640rtp.marker", "Marker", 8, nil, 0x01),
  sequence = ProtoField.uint16("qz640rtp.sequence", "Sequence number"),
  timestamp = ProtoField.uint32("qz640rtp.timestamp", "Timestamp"),
  source = ProtoField.uint32("qz640rtp.source", "Source", base.HEX),
  frames = ProtoField.uint16("qz640rtp.frames", "Frames"),
  left = ProtoField.int24("qz640rtp.left", "Left"),
  right = ProtoField.int24("qz640rtp.right", "Right"),
  payload = ProtoField.bytes("qz640rtp.payload", "Payload"),
  lost = ProtoField.uint32("qz640rtp.lost", "Lost before this packet"),
  late = ProtoField.uint32("qz640rtp.late", "Packets too late"),
}
stream.fields = S

local function note(name, text)
  return ProtoExpert.new("qz640rtp." .. name .. "_note", text, expert.group.SEQUENCE, expert.severity.NOTE)
end
local E = {
  lost = note("lost", "Packets are missing before this one"),
  late = note("late", "Late: a packet with a higher number came before"),
  doubled = note("doubled", "The same number twice"),
  restart = note("restart", "The numbers jump: a new start of the stream"),
  clock = note("clock", "The timestamp doesn't follow the sequence number"),
  shape = note("shape", "A unit plays this as silence: not 192 frames of payload type 100 or 101"),
}
stream.experts = E

-- What the first look finds out about one packet of a stream.
local function follow(pinfo, sequence, timestamp)
  local way = ("%s:%d>%s:%d"):format(
    tostring(pinfo.src), pinfo.src_port, tostring(pinfo.dst), pinfo.dst_port)
  local known, fact = streams[way], {}
  stream_facts[pinfo.number] = fact
  local step = known and (sequence - known.sequence + 0x8000) % 0x10000 - 0x8000
  if known and math.abs(step) > 250 then
    fact.restart, known = true, nil
  elseif known then
    if step > 1 then fact.lost = step - 1 end
    if step < 0 then fact.late = -step end
    fact.doubled = step == 0
    fact.clock = (timestamp - known.timestamp) % 2^32 ~= (step * FRAMES) % 2^32
  end
  if not known or step > 0 then streams[way] = { sequence = sequence, timestamp = timestamp } end
end

function stream.dissector(tvb, pinfo, root)
  if tvb:len() < 12 then return 0 end
  pinfo.cols.protocol = "QZ640-RTP"
  local tree = root:add(stream, tvb())
  local payload_type = tvb(1, 1):bitfield(0, 7)
  local sequence, timestamp = tvb(2, 2):uint(), tvb(4, 4):uint()
  if not pinfo.visited then follow(pinfo, sequence, timestamp) end
  local fact = stream_facts[pinfo.number]
  tree:add(S.version, tvb(0, 1))
  tree:add(S.payload_type, tvb(1, 1))
  tree:add(S.marker, tvb(1, 1))
  tree:add(S.sequence, tvb(2, 2))
  tree:add(S.timestamp, tvb(4, 4))
  tree:add(S.source, tvb(8, 4))
  local count = math.floor((tvb:len() - 12) / 6)
  tree:add(S.frames, tvb(12), count):set_generated()
  local audio = tree:add(S.payload, tvb(12))
  for i = 0, math.min(count, 4) - 1 do
    audio:add(S.left, tvb(12 + 6 * i, 3))
    audio:add(S.right, tvb(15 + 6 * i, 3))
  end
  for _, name in ipairs({ "lost", "late" }) do
    if fact[name] then tree:add(S[name], fact[name]):set_generated() end
  end
  fact.shape = not RATES[payload_type] or tvb:len() ~= 12 + 6 * FRAMES
  for name, info in pairs(E) do
    if fact[name] then tree:add_proto_expert_info(info) end
  end
  pinfo.cols.info = ("%s Hz, sequence %d, timestamp %d%s"):format(
    RATES[payload_type] or "?", sequence, timestamp,
    fact.lost and (" [%d lost]"):format(fact.lost) or "")
  return tvb:len()
end

-- ---- Where they are called -------------------------------------------------------------------------

local function looks_like_control(tvb)
  return tvb:len() >= 10 and tvb:raw(0, math.min(tvb:len(), 400)):find('^%s*{.*"msg"%s*:') ~= nil
end

local function looks_like_stream(tvb)
  return tvb:len() > 12 and (tvb:len() - 12) % 6 == 0 and tvb(0, 1):uint() == 2
    and RATES[tvb(1, 1):bitfield(0, 7)] ~= nil and tvb(8, 4):uint() == 0
end

local function heuristic(proto, looks)
  return function(tvb, pinfo, root)
    if not proto.prefs.heuristic or not looks(tvb) then return false end
    proto.dissector(tvb, pinfo, root)
    return true
  end
end
control:register_heuristic("udp", heuristic(control, looks_like_control))
stream:register_heuristic("udp", heuristic(stream, looks_like_stream))

local udp = DissectorTable.get("udp.port")
local added = {}

local function use_ports(proto, ...)
  for _, ports in ipairs(added[proto] or {}) do udp:remove(ports, proto) end
  added[proto] = { ... }
  for _, ports in ipairs(added[proto]) do udp:add(ports, proto) end
end

local function use_control_ports()
  use_ports(control, control.prefs.discovery, control.prefs.ports)
end
local function use_stream_ports() use_ports(stream, stream.prefs.ports) end
control.prefs_changed, stream.prefs_changed = use_control_ports, use_stream_ports
use_control_ports()
use_stream_ports()
udp:add_for_decode_as(control)
udp:add_for_decode_as(stream)

-- Wireshark dissector of the discovery protocol: requests, identity records, replies and trace text on UDP ports 5562 to
-- 5564, field by field, with what the daemon makes of them. Copy it into a folder of "Lua plugins" (Help, About, Folders),
-- or try it: tshark -X lua_script:tarnddp.lua -i eth0
--
-- Filters: tarnddp.kind is "request", "record", "ack", "nack" or "trace"; a record's pairs bear their keys (tarnddp.ipa,
-- tarnddp.maa); tarnddp.malformed and tarnddp.ignored mark what is wrong and what the daemon does not act upon.

local protocol = Proto("tarnddp", "Tarn Device Discovery")

local WAYS = {[5562] = "UDP Broadcast", [5563] = "IPV4 Multicast", [5564] = "IPV6 Multicast"}
local PRIVILEGED_PORT = 5564
local LONGEST_REQUEST = 1023
local FULL_TRACE = 2048
local LONGEST_INFO = 120

-- Command words: what needs the privileged port, what the arguments are called.
local COMMANDS = {
  ["DEVICEIDENT?"] = {}, ["DEVICEIDENTEXT?"] = {},
  ["SETIPADDRESS!"] = {arguments = {"address", "mask", "gateway", "nameserver"}},
  ["SETDHCPMODE!"] = {arguments = {"on"}},
  ["DEVICEREBOOT!"] = {}, ["DEVICEDISABLEIDENT!"] = {}, ["DEVICEENABLEIDENT!"] = {},
  ["SYSTRACE!"] = {isPrivileged = true, arguments = {"on"}},
  ["EXECUTECOMMAND!"] = {isPrivileged = true, arguments = {"shell"}},
}

-- The keys of a record in their order.
local KEYS = {
  {"SID", "System id"}, {"OAN", "Application"}, {"OVN", "Vendor"}, {"SAN", "Sub-application"}, {"SVN", "Sub-vendor"},
  {"LOC", "Device name"}, {"MKC", "Model code"}, {"SNR", "Serial number"}, {"ASK", "DHCP"}, {"IPA", "IP address"},
  {"SNM", "Subnet mask"}, {"GWA", "Gateway"}, {"MAA", "MAC address"}, {"EXTSID", "Extended system id"},
  {"EXTAPPVER", "Firmware"},
}

local fields = {
  kind = ProtoField.string("tarnddp.kind", "Kind"),
  way = ProtoField.string("tarnddp.way", "Way"),
  command = ProtoField.string("tarnddp.command", "Command"),
  filter = ProtoField.string("tarnddp.filter", "MAC filter"),
  address = ProtoField.string("tarnddp.address", "IP address"),
  mask = ProtoField.string("tarnddp.mask", "Subnet mask"),
  gateway = ProtoField.string("tarnddp.gateway", "Gateway"),
  nameserver = ProtoField.string("tarnddp.nameserver", "Name server"),
  on = ProtoField.string("tarnddp.on", "On"),
  shell = ProtoField.string("tarnddp.shell", "Shell line"),
  argument = ProtoField.string("tarnddp.argument", "Argument"),
  count = ProtoField.uint32("tarnddp.fields", "Fields, the filter not counted"),
  unseen = ProtoField.bytes("tarnddp.unseen", "Not seen, behind a NUL"),
  pair = ProtoField.string("tarnddp.pair", "Pair"),
  text = ProtoField.string("tarnddp.text", "Text"),
}
local keyFields = {}
for _, key in ipairs(KEYS) do
  keyFields[key[1]] = ProtoField.string("tarnddp." .. key[1]:lower(), key[2])
end
protocol.fields = {}
for _, set in ipairs({fields, keyFields}) do
  for _, field in pairs(set) do table.insert(protocol.fields, field) end
end

local malformed = ProtoExpert.new("tarnddp.malformed", "Malformed", expert.group.MALFORMED, expert.severity.ERROR)
local ignored = ProtoExpert.new("tarnddp.ignored", "Not acted upon", expert.group.PROTOCOL, expert.severity.WARN)
local notice = ProtoExpert.new("tarnddp.notice", "Effect", expert.group.PROTOCOL, expert.severity.NOTE)
protocol.experts = {malformed, ignored, notice}

-- Bytes to meaning ----------------------------------------------------------------------------------------------------

-- The length of the well-formed UTF-8 sequence at `at` (RFC 3629), or nil.
local function utf8Length(bytes, at)
  local lead, second = bytes:byte(at, at + 1)
  local length, low, high = 1, 0x80, 0xbf
  if lead < 0x80 then return 1 end
  if lead >= 0xc2 and lead <= 0xdf then length = 2
  elseif lead >= 0xe0 and lead <= 0xef then
    length = 3
    if lead == 0xe0 then low = 0xa0 elseif lead == 0xed then high = 0x9f end
  elseif lead >= 0xf0 and lead <= 0xf4 then
    length = 4
    if lead == 0xf0 then low = 0x90 elseif lead == 0xf4 then high = 0x8f end
  else
    return nil
  end
  if not second or second < low or second > high then return nil end
  for i = at + 2, at + length - 1 do
    local byte = bytes:byte(i)
    if not byte or byte < 0x80 or byte > 0xbf then return nil end
  end
  return length
end

local function isUtf8(bytes)
  local at = 1
  while at <= #bytes do
    local length = utf8Length(bytes, at)
    if not length then return false end
    at = at + length
  end
  return true
end

-- Foreign bytes as text: UTF-8 or else Latin-1, control characters, those from 80 to 9f included, as \xNN.
local function readable(bytes)
  if not isUtf8(bytes) then
    bytes = bytes:gsub("[\128-\255]", function(c)
      local code = c:byte()
      return string.char(0xc0 + math.floor(code / 0x40), 0x80 + code % 0x40)
    end)
  end
  local function escaped(c) return ("\\x%02x"):format(c:byte(-1)) end
  return (bytes:gsub("%c", escaped):gsub("\194[\128-\159]", escaped))
end

-- `text`, which is well-formed UTF-8, cut to what the list of packets shows well.
local function short(text)
  if #text <= LONGEST_INFO then return text end
  return text:sub(1, LONGEST_INFO):gsub("[\192-\255][\128-\191]*$", "") .. "..."
end

-- Pieces of `text` between characters of `separators`, each with its offset in `text`; one more behind the last.
local function split(text, separators)
  local pieces, from = {}, 1
  while true do
    local at = text:find("[" .. separators .. "]", from)
    table.insert(pieces, {offset = from - 1, text = text:sub(from, (at or #text + 1) - 1)})
    if not at then return pieces end
    from = at + 1
  end
end

-- The daemon's own rule for what names a device, to the letter.
local function isMac(text)
  local digits, separators = 0, 0
  for c in text:gmatch(".") do
    if c:find("%x") then
      digits = digits + 1
    elseif c == ":" or c == "-" then
      if digits == 0 then return false end
      local pairsSoFar = math.floor(digits / 2)
      if pairsSoFar - 1 ~= separators then break end
      separators = pairsSoFar
    else
      separators = -1
    end
  end
  return digits == 12 and (separators == 0 or separators == 5)
end

-- What a text switches: true, false, or nil for one that is neither.
local function switch(text)
  if text:find("^%+?0*1$") then return true end
  if text:find("^[+-]?0*0$") then return false end
  return nil
end

-- "record", "ack" or "nack", or nil for what is none of them.
local function replyKind(bytes)
  if bytes == "ACK\n" then return "ack" end
  if bytes == "NACK\n" then return "nack" end
  return bytes:find("^SID:") and "record" or nil
end

local function commandWord(bytes) return bytes:match("^[^\t\r\n%z]*"):upper() end

-- From the ports, and from the text where both sides use a port of the protocol: what the group is sent comes from and goes
-- to port 5563, requests, answers and trace text alike.
local function kindOf(bytes, source, destination)
  if not WAYS[source] then return "request" end
  local kind = replyKind(bytes)
  if kind then return kind end
  if WAYS[destination] and (destination ~= 5563 or COMMANDS[commandWord(bytes)]) then return "request" end
  return "trace"
end

-- Showing it ----------------------------------------------------------------------------------------------------------

-- Adds `piece` of the datagram to the tree.
local function add(tree, field, tvb, piece)
  return tree:add(field, tvb(piece.offset, #piece.text), readable(piece.text))
end

local function judgeRequest(tree, word, command, arguments, count, port)
  local first = arguments[1] and arguments[1].text or ""
  local privileged = port == PRIVILEGED_PORT
  if (not command or command.isPrivileged) and not privileged then
    tree:add_proto_expert_info(ignored, "Obeyed on port " .. PRIVILEGED_PORT .. " alone")
  elseif not command then
    tree:add_proto_expert_info(notice, "Handed to the device service as a system command")
  elseif word == "SETIPADDRESS!" and count < 5 then
    tree:add_proto_expert_info(ignored, "Fewer than 5 fields: NACK")
  elseif word == "SETDHCPMODE!" and switch(first) == nil then
    tree:add_proto_expert_info(notice, "Neither on nor off: turns DHCP on")
  elseif word == "SYSTRACE!" and switch(first) == nil then
    tree:add_proto_expert_info(notice, "Neither on nor off: ends the daemon")
  elseif word == "DEVICEREBOOT!" then
    tree:add_proto_expert_info(notice, "Halts the device")
  end
end

local function showArguments(tree, tvb, command, arguments, count)
  local names = command and command.arguments or {}
  for i, piece in ipairs(arguments) do
    local name = names[i]
    if name == "nameserver" and count < 6 then name = nil end
    if piece.text ~= "" or (name and i < #arguments - 1) then add(tree, fields[name or "argument"], tvb, piece) end
  end
end

local function showRequest(tree, tvb, bytes, port, flag)
  local isDropped = tvb:reported_len() > LONGEST_REQUEST
  if isDropped then
    flag("More than " .. LONGEST_REQUEST .. " bytes: dropped")
  end
  local text = bytes:match("^[^%z]*")
  if #text < #bytes then
    tree:add(fields.unseen, tvb(#text))
    flag("A NUL ends the request")
  end
  local pieces = split(text, "\t\r\n")
  local word = pieces[1].text:upper()
  local command = COMMANDS[word]
  tree:add(fields.command, tvb(0, #pieces[1].text), readable(word))
  table.remove(pieces, 1)
  local info = readable(word)
  if pieces[1] and isMac(pieces[1].text) then
    add(tree, fields.filter, tvb, pieces[1])
    info = info .. " to " .. readable(pieces[1].text)
    table.remove(pieces, 1)
  end
  local count = #pieces + 1
  showArguments(tree, tvb, command, pieces, count)
  tree:add(fields.count, count):set_generated()
  if not text:find("[\r\n]") then
    flag("Without CR or LF: ignored")
  elseif not isDropped then
    judgeRequest(tree, word, command, pieces, count, port)
  end
  for _, piece in ipairs(pieces) do
    if piece.text ~= "" then info = info .. " " .. readable(piece.text) end
  end
  return info
end

local function showRecord(tree, tvb, bytes, flag)
  local line = bytes:match("^(.*)\r\n$")
  if not line then flag("A record ends with CR LF") end
  local values = {}
  local isWhole = true
  for i, piece in ipairs(split(line or bytes, "\t")) do
    local key, value = piece.text:match("^([^:]*):(.*)$")
    if key and keyFields[key] then
      tree:add(keyFields[key], tvb(piece.offset, #piece.text), readable(value))
      values[key] = readable(value)
    else
      add(tree, fields.pair, tvb, piece)
    end
    isWhole = isWhole and KEYS[i] ~= nil and key == KEYS[i][1]
    if i == #KEYS then isWhole = isWhole and piece.offset + #piece.text == #(line or bytes) end
  end
  for _, key in ipairs(KEYS) do isWhole = isWhole and values[key[1]] ~= nil end
  if not isWhole then flag("Not the 15 pairs of a record in their order") end
  if values.LOC == "APPTERM" then tree:add_proto_expert_info(notice, "Fallback: the device service was not there") end
  return ("Record of %s: %s, %s"):format(values.LOC or "?", values.IPA or "?", values.MAA or "?")
end

local function showTrace(tree, tvb, bytes)
  for _, piece in ipairs(split(bytes, "\n")) do
    if piece.text ~= "" then add(tree, fields.text, tvb, piece) end
  end
  if #bytes == FULL_TRACE then
    tree:add_proto_expert_info(notice, "A full piece: a line end took the place of its last byte")
  end
  return "Trace: " .. readable(bytes:match("^[^\n]*"))
end

function protocol.dissector(tvb, packet, root)
  local bytes = tvb:len() > 0 and tvb:raw() or ""
  local source, destination = packet.src_port, packet.dst_port
  local kind = kindOf(bytes, source, destination)
  local port = kind == "request" and destination or source
  local tree = root:add(protocol, tvb())
  tree:add(fields.kind, kind):set_generated()
  tree:add(fields.way, WAYS[port] or "Unknown"):set_generated()
  local isCut = tvb:reported_len() > tvb:len()
  if isCut then tree:add_proto_expert_info(notice, "Cut by the capture") end
  local function flag(what)   -- what is malformed; a datagram that is not all there is not blamed
    if not isCut then tree:add_proto_expert_info(malformed, what) end
  end

  local info = kind:upper()
  if kind == "request" then
    info = showRequest(tree, tvb, bytes, port, flag)
  elseif kind == "record" then
    info = showRecord(tree, tvb, bytes, flag)
  elseif kind == "trace" then
    info = showTrace(tree, tvb, bytes)
  end
  info = short(info)
  tree:append_text(", " .. info)
  packet.cols.protocol = "TarnDDP"
  packet.cols.info = info
end

for port in pairs(WAYS) do DissectorTable.get("udp.port"):add(port, protocol) end

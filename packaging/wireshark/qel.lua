-- SPDX-License-Identifier: Apache-2.0
--
-- Wireshark and tshark: what a gateway and its switches say to each other.
--
-- Reads the frames of ethertype 0x9301 (to a switch) and 0x9303 (to a gateway), and the datagrams
-- of UDP port 20682, which bear the same messages without a header:
--
--   14  16      18      20       32
--   | 0 | magic | length | 12 x 0 | JSON text [NUL [chunk]] [padding]
--
-- docs/dissector.md tells what to filter for; to install it is to copy it, hence one file.
-- Everything in a frame is hostile: each number is checked before it becomes an offset or a field's
-- value, nesting and the number of shown members are bounded, and no input may raise an error.

-- Loaded once, also when it is both installed and named on the command line.
if _G.qel_dissector_is_loaded then return end
_G.qel_dissector_is_loaded = true

local ETHERTYPE_TO_SWITCH, ETHERTYPE_TO_GATEWAY = 0x9301, 0x9303
local UDP_PORT_SWITCH = 20682
local MAGIC = 0xBABE
local HEADER = 18        -- bytes between the ethertype and the message
local LENGTH_BIAS = 16   -- what the length field counts besides the message
local READ_BY_SWITCH = 1600 - 32 -- message bytes at which a switch stops reading
local FRAGMENT = 1280    -- a longer answer goes out in two frames
local MAX_DEPTH = 64     -- nested JSON values
local MAX_SHOWN = 2000   -- members of one message shown one by one
local MAX_INFO = 120     -- bytes of a text quoted in the list of frames

local qel = Proto("qel", "Switch Management Protocol")
local qel_udp = Proto("qel_udp", "Switch Management Protocol over UDP")

qel.prefs.json = Pref.bool("Show the text by the JSON dissector, too", false,
  "Adds the tree and the filters (json.*) of the program's own JSON dissector")

---- fields --------------------------------------------------------------------------------------

local f, f_list = {}, {}
local function field(kind, key, label, ...)
  f[key] = ProtoField[kind]("qel." .. key, label, ...)
  f_list[#f_list + 1] = f[key]
end

local OFF_ON = { [0] = "off", [1] = "on" }
local NO_YES = { [0] = "no", [1] = "yes" }
local LINK = { [0] = "down", [1] = "up" }
local MEDIUM = { [1] = "copper", [2] = "fibre" }
field("uint8", "direction", "Direction", base.DEC, { [1] = "to the switch", [2] = "to the gateway" })
field("uint16", "zero", "Reserved", base.HEX)
field("uint16", "magic", "Magic", base.HEX)
field("uint16", "length", "Length", base.DEC)
field("bytes", "reserved", "Reserved")
field("string", "text", "Text")
field("bytes", "terminator", "End of text")
field("bytes", "chunk", "Chunk")
field("bytes", "padding", "Padding")
field("bytes", "trailing", "Trailing bytes")
field("string", "tail", "Repeated end of the text")
field("bool", "second_fragment", "Second fragment")
field("framenum", "fragment_of", "Fragment of frame", base.NONE)
field("bool", "trap", "Trap")
field("framenum", "request_in", "Request in frame", base.NONE, frametype.REQUEST)
field("framenum", "response_in", "Answer in frame", base.NONE, frametype.RESPONSE)
field("relative_time", "time", "Time since the request")

field("string", "mac", "MAC in the message")
field("string", "cmd", "Command")
field("string", "subcmd", "Subcommand")
field("string", "type", "Type")
field("string", "pktid", "Packet id")
field("string", "devid", "Device id")
field("string", "reqid", "Request id")
field("string", "member", "Member")

field("int32", "ntick", "Probe tick")
field("string", "system_mac", "System MAC")
field("string", "name", "Name")
field("string", "model", "Model")
field("string", "device_type", "Device type")
field("int32", "uptime", "Uptime (s)")
field("string", "hw_version", "Hardware version")
field("string", "sw_version", "Firmware version")
field("int32", "active", "Active")
field("int32", "sys_active", "Activation countdown (s)")
field("int32", "cpu", "CPU occupancy (%)")
field("int32", "mem", "Memory occupancy (%)")
field("string", "sys_ip", "Management address")
field("int32", "sys_mask", "Prefix length")
field("int32", "dhcp", "DHCP")
field("string", "timestamp", "Clock")
field("string", "ret", "Result")
field("string", "location", "Image location")
field("string", "module", "Module")
field("string", "module_cmd", "Module command")
field("int32", "cfg_flag", "Form", base.DEC, { [0] = "data", [1] = "config" })

field("int32", "chunk.state", "State", base.DEC, {
  [-2] = "last chunk, image incomplete", [-1] = "an upgrade is running", [0] = "refused, or nothing there",
  [1] = "from the archive", [2] = "accepted", [3] = "complete",
})
field("int32", "chunk.index", "Index")
field("int32", "chunk.next", "More follow", base.DEC, NO_YES)
field("int32", "chunk.length", "Bytes in this chunk")
field("int32", "chunk.total", "Bytes in all")
field("uint32", "chunk.crc", "CRC-32 of the whole", base.HEX)
field("string", "chunk.file", "File")

field("string", "port", "Port")
field("int32", "port.index", "Index")
field("int32", "port.medium", "Medium", base.DEC, MEDIUM)
field("string", "port.media", "Media")
field("int32", "port.aux", "Auxiliary index given", base.DEC, NO_YES)
field("int32", "port.x", "Column on the front panel")
field("int32", "port.y", "Row on the front panel")
field("int32", "port.enable", "Enabled", base.DEC, NO_YES)
field("string", "port.speed_name", "Speed setting")
field("int32", "port.iso", "Isolation", base.DEC, OFF_ON)
field("int32", "port.eee", "Energy-efficient Ethernet", base.DEC, OFF_ON)
field("int32", "port.llpp", "Loop protection", base.DEC, OFF_ON)
field("int32", "port.mstp", "Spanning tree", base.DEC, OFF_ON)
field("int32", "port.lldp", "LLDP", base.DEC, OFF_ON)
field("int32", "port.poe", "Power over Ethernet", base.DEC, OFF_ON)
field("int32", "port.poe_priority", "Power priority")
field("int32", "port.link", "Link", base.DEC, LINK)
field("int32", "port.speed", "Speed (Mbit/s)")
field("int32", "port.duplex", "Duplex", base.DEC, { [0] = "half", [1] = "full" })
field("int32", "port.restart", "Seconds until it restarts")
field("uint64", "port.tx_sum", "Sent (bytes)", base.DEC)
field("uint64", "port.rx_sum", "Received (bytes)", base.DEC)
field("uint64", "port.tx_rate", "Sending (bytes/s)", base.DEC)
field("uint64", "port.rx_rate", "Receiving (bytes/s)", base.DEC)
field("string", "client.state", "Client")
field("string", "client.mac", "Client's MAC")
field("string", "client.ip", "Client's address")
field("string", "client.type", "Client's type")
qel.fields = f_list

local ex, ex_list = {}, {}
local function remark(key, label, group, severity)
  local made = ProtoExpert.new("qel." .. key, label, expert.group[group], expert.severity[severity])
  ex[key] = { made = made, label = label }
  ex_list[#ex_list + 1] = made
end
remark("short", "Frame ends before the message", "MALFORMED", "ERROR")
remark("bad_magic", "Magic is not 0xbabe", "MALFORMED", "ERROR")
remark("bad_length", "Length field does not fit the frame", "MALFORMED", "ERROR")
remark("no_text", "No message", "MALFORMED", "ERROR")
remark("not_json", "Text is not JSON", "MALFORMED", "ERROR")
remark("bad_chunk", "Chunk outside of its place", "MALFORMED", "ERROR")
remark("bad_fragment", "Second fragment of another message", "MALFORMED", "WARN")
remark("too_deep", "JSON nested too deep to be shown", "PROTOCOL", "WARN")
remark("too_long", "Longer than a switch reads", "PROTOCOL", "WARN")
remark("no_cmd", "Message without a command", "PROTOCOL", "WARN")
remark("unknown", "No such command", "PROTOCOL", "WARN")
remark("odd_length", "Length field differs from the text's length", "PROTOCOL", "NOTE")
remark("odd_reserved", "Reserved bytes in use", "PROTOCOL", "NOTE")
remark("behind", "Bytes that nobody reads", "PROTOCOL", "NOTE")
remark("cut", "Not captured whole", "UNDECODED", "NOTE")
remark("many", "Not every member is shown", "UNDECODED", "NOTE")
qel.experts = ex_list

---- texts -----------------------------------------------------------------------------------------

-- Length of the well-formed UTF-8 character at `at`, or nil.
local function utf8_length(s, at)
  local lead, second = s:byte(at, at + 1)
  if lead < 0x80 then return 1 end
  if lead < 0xC2 or lead > 0xF4 or not second then return nil end
  local size = lead < 0xE0 and 2 or lead < 0xF0 and 3 or 4
  local low, high = 0x80, 0xBF
  if lead == 0xE0 then low = 0xA0 elseif lead == 0xF0 then low = 0x90 end
  if lead == 0xED then high = 0x9F elseif lead == 0xF4 then high = 0x8F end
  if second < low or second > high then return nil end
  for i = 2, size - 1 do
    local byte = s:byte(at + i)
    if not byte or byte < 0x80 or byte > 0xBF then return nil end
  end
  return size
end

-- `s` fit to be shown: control bytes and bytes that are no UTF-8 as \xNN.
local function clean(s)
  if not s:find("[^\32-\126]") then return s end
  local out, at = {}, 1
  while at <= #s do
    local size = utf8_length(s, at)
    local byte = s:byte(at)
    if size and byte >= 0x20 and byte ~= 0x7F then
      out[#out + 1] = s:sub(at, at + size - 1)
    else
      out[#out + 1] = ("\\x%02x"):format(byte)
      size = 1
    end
    at = at + size
  end
  return table.concat(out)
end

-- The same, at most MAX_INFO bytes of it.
local function quoted(s)
  if #s > MAX_INFO then return clean(s:sub(1, MAX_INFO)) .. "..." end
  return clean(s)
end

local function utf8_char(code)
  if code < 0x80 then return string.char(code) end
  local tail = {}
  local limit = 0x40
  repeat
    table.insert(tail, 1, string.char(0x80 + code % 0x40))
    code = math.floor(code / 0x40)
    limit = limit / 2
  until code < limit
  return string.char(256 - 2 * limit + code) .. table.concat(tail)
end

---- JSON ------------------------------------------------------------------------------------------
--
-- A value is {kind, first, last, ...}: its 1-based place in the text, and `text` (strings decoded,
-- numbers as written), `items` of an array, or `members` of an object, {name, first, value} each.
-- As lenient as the programs' own reader: any byte up to a blank is white space, control bytes may
-- stand in strings, and what follows the value is left alone.

local ESCAPES = { b = "\b", f = "\f", n = "\n", r = "\r", t = "\t", ['"'] = '"', ["\\"] = "\\", ["/"] = "/" }
local WORDS = { t = "true", f = "false", n = "null" }

local function skip_blanks(s, at)
  return s:find("[^\1-\32]", at) or #s + 1
end

-- The character of the \u escape at `at` and the place behind it, or nil.
local function read_unicode(s, at)
  local hex = s:match("^\\u(%x%x%x%x)", at)
  if not hex then return nil end
  local code = tonumber(hex, 16)
  if code >= 0xD800 and code < 0xDC00 then
    local low = s:match("^\\u([dD][c-fC-F]%x%x)", at + 6)
    if not low then return nil end
    return utf8_char(0x10000 + (code - 0xD800) * 0x400 + tonumber(low, 16) - 0xDC00), at + 12
  end
  if code == 0 or (code >= 0xDC00 and code < 0xE000) then return nil end
  return utf8_char(code), at + 6
end

-- The string whose opening quote is at `at`, decoded, and the place of its closing quote, or nil.
local function read_string(s, at)
  local parts, from = {}, at + 1
  while true do
    local stop = s:find('["\\]', from)
    if not stop then return nil end
    parts[#parts + 1] = s:sub(from, stop - 1)
    if s:sub(stop, stop) == '"' then return table.concat(parts), stop end
    local letter = s:sub(stop + 1, stop + 1)
    local char, behind = ESCAPES[letter], stop + 2
    if letter == "u" then char, behind = read_unicode(s, stop) end
    if not char then return nil end
    parts[#parts + 1] = char
    from = behind
  end
end

local read_value

-- Reads the inside of an object or array, whose bracket is at `at`, item by item. Returns the place
-- of the closing bracket, or nil and, when it is not a matter of syntax, why.
local function read_items(s, at, closing, read_item)
  at = skip_blanks(s, at + 1)
  if s:sub(at, at) == closing then return at end
  while true do
    local last, why = read_item(skip_blanks(s, at))
    if not last then return nil, why end
    at = skip_blanks(s, last + 1)
    local char = s:sub(at, at)
    if char == closing then return at end
    if char ~= "," then return nil end
    at = at + 1
  end
end

local function read_array(s, at, depth)
  local node = { kind = "array", first = at, items = {} }
  local why
  node.last, why = read_items(s, at, "]", function(from)
    local value, reason = read_value(s, from, depth + 1)
    node.items[#node.items + 1] = value
    return value and value.last, reason
  end)
  return node.last and node, why
end

local function read_object(s, at, depth)
  local node = { kind = "object", first = at, members = {} }
  local why
  node.last, why = read_items(s, at, "}", function(from)
    if s:sub(from, from) ~= '"' then return nil end
    local name, quote = read_string(s, from)
    if not name then return nil end
    local colon = skip_blanks(s, quote + 1)
    if s:sub(colon, colon) ~= ":" then return nil end
    local value, reason = read_value(s, skip_blanks(s, colon + 1), depth + 1)
    node.members[#node.members + 1] = { name = name, first = from, value = value }
    return value and value.last, reason
  end)
  return node.last and node, why
end

read_value = function(s, at, depth)
  if depth > MAX_DEPTH then return nil, "deep" end
  local char = s:sub(at, at)
  if char == "{" then return read_object(s, at, depth) end
  if char == "[" then return read_array(s, at, depth) end
  if char == '"' then
    local text, last = read_string(s, at)
    return text and { kind = "string", first = at, last = last, text = text }
  end
  local word = WORDS[char]
  if word then
    return s:sub(at, at + #word - 1) == word
      and { kind = word, first = at, last = at + #word - 1, text = word } or nil
  end
  local number = s:match("^-?%d[%d%.eE+-]*", at)
  if not number or not tonumber(number) then return nil end
  return { kind = "number", first = at, last = at + #number - 1, text = number }
end

local function parse(s)
  local at = s:sub(1, 3) == "\239\187\191" and 4 or 1
  return read_value(s, skip_blanks(s, at), 1)
end

-- The member `name` of an object as the programs find it: case folded, the first of equal ones.
local function member(node, name)
  if not node or node.kind ~= "object" then return nil end
  for _, one in ipairs(node.members) do
    if one.name:lower() == name then return one.value end
  end
  return nil
end

local function string_of(node)
  return node and node.kind == "string" and node.text or nil
end

-- The value of a number without fraction within 32 bits, signed or (with `wide`) unsigned too.
local function integer_of(node, wide)
  local value = node and node.kind == "number" and tonumber(node.text)
  if not value or value ~= math.floor(value) then return nil end
  if value < -0x80000000 or value > (wide and 0xFFFFFFFF or 0x7FFFFFFF) then return nil end
  return value
end

-- The value of a number of decimal digits as a UInt64, exact, or nil.
local function uint64_of(node)
  local digits = node.kind == "number" and node.text:match("^%d+$")
  if not digits or #digits > 20 then return nil end
  local low, high = 0, 0
  for i = 1, #digits do
    low = low * 10 + digits:byte(i) - 48
    high = high * 10 + math.floor(low / 0x100000000)
    low = low % 0x100000000
    if high > 0xFFFFFFFF then return nil end
  end
  return UInt64.new(low, high)
end

---- the members of a message ----------------------------------------------------------------------
--
-- `m`, the message: range(first, last) the bytes of a place in the text, left: how many members may
-- still be shown, info: what the list of frames says, in pieces.

local function budget(m)
  m.left = m.left - 1
  return m.left >= 0
end

-- Shows any value under its name, and what is in it, as filterable "path: value".
local function show_any(m, tree, path, name, node, first)
  if not budget(m) then return end
  local text = m.text:sub(node.first, node.last)
  if node.kind == "string" then text = node.text end
  local item = tree:add(f.member, m.range(first or node.first, node.last), clean(path .. ": " .. text))
  item:set_text(quoted(name) .. ": " .. quoted(text))
  for i, one in ipairs(node.items or {}) do
    show_any(m, item, ("%s[%d]"):format(path, i - 1), ("[%d]"):format(i - 1), one)
  end
  for _, one in ipairs(node.members or {}) do
    show_any(m, item, path .. "." .. one.name, one.name, one.value, one.first)
  end
end

-- How the value of a field of each kind is made; nil: the value is of another kind.
local VALUES = {
  text = function(node) return node.kind == "string" and clean(node.text) or nil end,
  either = function(node) return node.text and clean(node.text) end, -- text or number
  number = function(node) return integer_of(node) end,
  counter = uint64_of,
  crc = function(node)
    local value = integer_of(node, true)
    return value and value % 0x100000000
  end,
}

-- Shows a value as the field `spec` {key, kind}, or as it is when it is of another kind. Returns its
-- item when it was shown as the field.
local function show_field(m, tree, spec, path, name, node, first)
  local value = spec and VALUES[spec[2]](node)
  if value == nil then
    show_any(m, tree, path, name, node, first)
    return nil
  end
  if not budget(m) then return nil end
  local item = tree:add(f[spec[1]], m.range(first or node.first, node.last), value)
  local seconds = spec[1] == "timestamp" and tonumber(value)
  if seconds and seconds >= 0 and seconds < 0x100000000 then
    item:append_text(os.date("! (%Y-%m-%d %H:%M:%S UTC)", math.floor(seconds)))
  end
  return item
end

-- Shows each member of `node` by the table `specs` (name -> {key, kind}).
local function show_members(m, tree, path, node, specs)
  for _, one in ipairs(node.members) do
    show_field(m, tree, specs[one.name:lower()], path .. one.name, one.name, one.value, one.first)
  end
end

---- ports -----------------------------------------------------------------------------------------


-- Rows of the reports: what stands at each place, and the row in words.
local ROWS = {
  ports_info = {
    { "port.index", "number" }, { "port.medium", "number" }, { "port.media", "text" }, { "port.aux", "number" },
    words = function(index, medium, media)
      return ("number %s, %s %s"):format(index, MEDIUM[tonumber(medium)] or "medium " .. medium, media)
    end,
  },
  ports_pos = {
    { "port.x", "number" }, { "port.y", "number" },
    words = function(x, y) return ("column %s, row %s"):format(x, y) end,
  },
  ports_conf = {
    { "port.enable", "number" }, { "port.speed_name", "text" }, { "port.iso", "number" }, { "port.eee", "number" },
    { "port.llpp", "number" }, { "port.mstp", "number" }, { "port.lldp", "number" }, { "port.poe", "number" },
    words = function(enable, speed, ...)
      local names, on = { "iso", "eee", "llpp", "mstp", "lldp", "poe" }, {}
      for i, value in ipairs({ ... }) do
        if value ~= "0" then on[#on + 1] = names[i] end
      end
      return ("%s, %s%s"):format(enable == "0" and "disabled" or "enabled", speed,
        #on > 0 and ", on: " .. table.concat(on, " ") or "")
    end,
  },
  ports_link = {
    { "port.link", "number" }, { "port.speed", "number" }, { "port.duplex", "number" },
    { "port.restart", "number" },
    words = function(link, speed, duplex, restart)
      local text = LINK[tonumber(link)] or "link " .. link
      if link ~= "0" then
        text = ("%s, %s Mbit/s, %s duplex"):format(text, speed, duplex == "0" and "half" or "full")
      end
      return restart == "0" and text or ("%s, restarts in %s s"):format(text, restart)
    end,
  },
  ports_stats = {
    { "port.tx_sum", "counter" }, { "port.rx_sum", "counter" },
    { "port.tx_rate", "counter" }, { "port.rx_rate", "counter" },
    words = function(tx, rx, tx_rate, rx_rate)
      return ("sent %s, received %s bytes; %s and %s bytes/s"):format(tx, rx, tx_rate, rx_rate)
    end,
  },
  ports_poe_conf = {
    { "port.poe", "number" }, { "port.poe_priority", "number" },
    words = function(enable, priority)
      return ("%s, priority %s"):format(enable == "0" and "off" or "on", priority)
    end,
  },
}

-- A row of exactly the values that the report has, as texts, or nil.
local function row_texts(node, row)
  if node.kind ~= "array" or #node.items ~= #row then return nil end
  local texts = {}
  for i, one in ipairs(node.items) do
    if VALUES[row[i][2]](one) == nil then return nil end
    texts[i] = clean(one.text)
  end
  return texts
end

local function show_row(m, item, path, node, row)
  local texts = row_texts(node, row)
  if texts then item:append_text(": " .. row.words((table.unpack or unpack)(texts))) end
  if node.kind ~= "array" then return show_any(m, item, path, "Value", node) end
  for i, one in ipairs(node.items) do
    show_field(m, item, row[i], ("%s[%d]"):format(path, i - 1), ("[%d]"):format(i - 1), one)
  end
end

local CLIENT = {
  client_state = { "client.state", "text" }, client_mac = { "client.mac", "text" },
  client_ip = { "client.ip", "text" }, client_type = { "client.type", "text" },
}

local function show_client(m, item, path, node)
  if node.kind ~= "object" then return show_any(m, item, path, "Value", node) end
  local words = {}
  for _, name in ipairs({ "client_state", "client_mac", "client_ip", "client_type" }) do
    local text = string_of(member(node, name))
    if text and text ~= "" then words[#words + 1] = clean(text) end
  end
  item:append_text(": " .. table.concat(words, " "))
  if #node.members > 0 then show_members(m, item, path .. ".", node, CLIENT) end
  return table.concat(words, " ")
end

local SETTINGS = {
  enable = { "port.enable", "number" }, speed = { "port.speed_name", "either" },
  iso = { "port.iso", "number" }, eee = { "port.eee", "number" }, llpp = { "port.llpp", "number" },
  mstp = { "port.mstp", "number" }, lldp = { "port.lldp", "number" }, poe = { "port.poe", "number" },
}

local function show_settings(m, item, path, node)
  if node.kind ~= "object" then return show_any(m, item, path, "Value", node) end
  local words = {}
  for i, one in ipairs(node.members) do
    if i <= 8 and one.value.text then words[i] = one.name .. " " .. one.value.text end
  end
  words = quoted(table.concat(words, " "))
  item:append_text(": " .. words)
  show_members(m, item, path .. ".", node, SETTINGS)
  return words
end

-- Shows the ports that are the keys of `data`; `show` shows what a port's key stands for and may
-- return words for the list of frames.
local function show_ports(m, tree, data, show)
  local words
  for _, one in ipairs(data.members) do
    if not budget(m) then break end
    local item = tree:add(f.port, m.range(one.first, one.value.last), clean(one.name))
    item:set_text(quoted(one.name))
    words = show(m, item, "data." .. one.name, one.value) or words
  end
  if #data.members == 0 then return end
  if #data.members == 1 then
    m.info[#m.info + 1] = quoted(data.members[1].name) .. (words and " " .. quoted(words) or "")
  else
    m.info[#m.info + 1] = ("%d ports"):format(#data.members)
  end
end

local function rows(name)
  return function(m, tree, data)
    show_ports(m, tree, data, function(message, item, path, node)
      return show_row(message, item, path, node, ROWS[name])
    end)
  end
end

-- The first-member form: the first key names the port, the others are not read.
local function one_port(key, kind)
  return function(m, tree, data)
    for i, one in ipairs(data.members) do
      if i > 1 then
        show_any(m, tree, "data." .. one.name, one.name .. " (not read)", one.value, one.first)
      elseif budget(m) then
        local text = m.text:sub(one.value.first, one.value.last)
        local item = tree:add(f.port, m.range(one.first, one.value.last), clean(one.name))
        item:set_text(quoted(one.name) .. ": " .. quoted(text))
        show_field(m, item, { key, kind }, "data." .. one.name, "Value", one.value)
        m.info[#m.info + 1] = quoted(one.name) .. " " .. quoted(text)
      end
    end
  end
end

---- messages --------------------------------------------------------------------------------------

local function number(key) return { key, "number" } end
local function text(key) return { key, "text" } end

-- A message whose data has members of known names; `summary` are those told in the list of frames.
local function named(specs, ...)
  local summary = { ... }
  return function(m, tree, data)
    show_members(m, tree, "data.", data, specs)
    for _, name in ipairs(summary) do
      local node = member(data, name)
      if node and node.text then m.info[#m.info + 1] = name .. " " .. quoted(node.text) end
    end
  end
end

local IDENTITY = {
  mac = text("system_mac"), sys_ip = text("sys_ip"), sys_mask = number("sys_mask"), name = text("name"),
  model = text("model"), type = text("device_type"), uptime = number("uptime"), hw_version = text("hw_version"),
  sw_version = text("sw_version"), active = number("active"), sys_active = number("sys_active"),
  cpu = number("cpu"), mem = number("mem"), ntick = number("ntick"),
}
local SYSTEM = {
  sys_ip = text("sys_ip"), sys_mask = number("sys_mask"), dhcp = number("dhcp"), ret = text("ret"),
  timestamp = { "timestamp", "either" },
}
local TRANSFER = {
  state = number("chunk.state"), index = number("chunk.index"), idx = number("chunk.index"),
  next = number("chunk.next"), length = number("chunk.length"), total_length = number("chunk.total"),
  crc = { "chunk.crc", "crc" }, file = text("chunk.file"),
}
local MODULE = { mdl = text("module"), cmd = text("module_cmd"), cfg_flag = number("cfg_flag") }

-- "data" of messages to a switch and from it, by subcommand.
local TO_SWITCH = {
  probe = named(IDENTITY, "ntick"),
  port_enable = one_port("port.enable", "number"),
  port_speed = one_port("port.speed_name", "text"),
  port_restart = one_port("port.restart", "number"),
  ports_conf = function(m, tree, data) show_ports(m, tree, data, show_settings) end,
  sys_ip = named(SYSTEM, "sys_ip"),
  sys_time = named(SYSTEM, "timestamp"),
  sys_active = named(IDENTITY, "sys_active"),
  name = named(IDENTITY, "name"),
  hfs_upgrade = named({ upgrade_serverinfo = text("location") }, "upgrade_serverinfo"),
  qelipc = named(MODULE, "mdl", "cmd"),
  config_upload = named(TRANSFER, "index"),
  config_download = named(TRANSFER, "index", "length", "total_length"),
  firm_download = named(TRANSFER, "index", "length", "total_length"),
}
local TO_GATEWAY = {
  answer = named(IDENTITY, "name", "sys_ip", "ntick"),
  ports_client = function(m, tree, data) show_ports(m, tree, data, show_client) end,
  sys_info = named(SYSTEM, "ret", "sys_ip"),
  config_upload = named(TRANSFER, "state", "idx", "length", "total_length"),
  config_download = named(TRANSFER, "state", "index"),
  firm_download = named(TRANSFER, "state", "index"),
}
for name in pairs(ROWS) do TO_GATEWAY[name] = rows(name) end

-- What a switch looks up, by the kind of the verb; the two transfers count with any verb.
local function set_of(...)
  local set = {}
  for _, name in ipairs({ ... }) do set[name] = true end
  return set
end
local QUERY_VERBS = set_of("get", "probe", "ping")
local QUERIES = set_of("probe", "ports_info", "ports_conf", "ports_link", "ports_poe", "ports_client",
  "ports_stats", "ping", "qelipc", "config_download", "firm_download")
local ACTIONS = set_of("ports_conf", "port_enable", "port_speed", "port_restart", "sys_ip", "sys_time",
  "hfs_upgrade", "sys_reboot", "config_reset", "sys_active", "config_upload", "name",
  "config_download", "firm_download")
-- Messages that bring a chunk.
local CHUNKS = { [true] = set_of("config_download", "firm_download"), [false] = set_of("config_upload") }

local ENVELOPE = {
  mac = text("mac"), cmd = text("cmd"), subcmd = text("subcmd"), type = text("type"),
  pktid = { "pktid", "either" }, devid = text("devid"), reqid = { "reqid", "either" },
}

---- which answer belongs to which request -----------------------------------------------------------

-- The requests that an answer's subcommand may belong to.
local ANSWERED = {
  answer = { "probe" }, pong = { "ping" }, ports_info = { "ports_info" }, ports_pos = { "ports_info" },
  ports_conf = { "ports_conf" }, ports_link = { "ports_link" }, ports_poe_conf = { "ports_poe" },
  ports_stats = { "ports_stats" }, ports_client = { "ports_client" }, sys_info = { "sys_ip", "sys_time" },
  config_upload = { "config_upload" }, config_download = { "config_download" },
  firm_download = { "firm_download" }, qelipc = { "qelipc" },
}
local GROUP_ADDRESS = Address.ether("01:80:c2:00:00:1f")
local GROUP = "every switch"

local requests  -- "gateway subcmd tag" -> {switch or GROUP -> {frame, time, ports seen}}
local facts     -- frame number -> what the first pass found: trap, request, time, response, fragment_of
local long_ones -- "switch gateway length" -> {frame, text} of the last message in two frames
local bursts    -- "switch gateway" -> the ports_client request that is being answered

local function forget()
  requests, facts, long_ones, bursts = {}, {}, {}, {}
end
forget()
qel.init = forget

local function facts_of(frame)
  facts[frame] = facts[frame] or {}
  return facts[frame]
end

-- What an answer echoes of its request: with it the two are told from others like them.
local ECHOED = { probe = "ntick", answer = "ntick" }
local function tag_of(m, data)
  local name = ECHOED[m.subcmd]
  if m.subcmd == "config_upload" then name = m.to_switch and "index" or "idx" end
  local node = name and member(data, name)
  return node and node.text or ""
end

local function remember_request(pinfo, m, data)
  if not m.subcmd or not (QUERIES[m.subcmd] or ACTIONS[m.subcmd]) then return end
  local key = ("%s %s %s"):format(m.gateway, m.subcmd, tag_of(m, data))
  requests[key] = requests[key] or {}
  requests[key][m.switch] = { frame = pinfo.number, time = pinfo.rel_ts, seen = {} }
end

-- The latest request that the answer `m` may belong to, or nil.
local function find_request(m, data)
  local best
  for _, subcmd in ipairs(ANSWERED[m.subcmd or "qelipc"] or {}) do
    local sent = requests[("%s %s %s"):format(m.gateway, subcmd, tag_of(m, data))] or {}
    for _, switch in ipairs({ m.switch, GROUP }) do
      if sent[switch] and (not best or sent[switch].frame > best.frame) then best = sent[switch] end
    end
  end
  return best
end

-- A client report answers a request when it is one of an unbroken row of them behind it, each of
-- another port: a switch does one thing after the other. Any other is a trap.
local function find_client_request(m, data)
  local first = data and data.kind == "object" and data.members[1]
  local port = first and first.name or ""
  local request = find_request(m, data)
  if request and not request.closed and not request.seen[port] then
    request.seen[port] = true
    bursts[m.switch .. " " .. m.gateway] = request
    return request
  end
  return nil
end

local function close_burst(m)
  local burst = bursts[m.switch .. " " .. m.gateway]
  if burst and m.subcmd ~= "ports_client" then burst.closed = true end
end

local function match_answer(pinfo, m, data)
  local fact = facts_of(pinfo.number)
  local request
  if m.subcmd == "ports_client" then
    request = find_client_request(m, data)
    fact.trap = request == nil
  else
    close_burst(m)
    request = find_request(m, data)
  end
  if request then
    fact.request, fact.time = request.frame, pinfo.rel_ts - request.time
    local asked = facts_of(request.frame)
    asked.response = asked.response or pinfo.number
  end
end

local function show_facts(pinfo, m, tree)
  local fact = facts[pinfo.number]
  if not fact then return end
  if fact.trap then
    tree:add(f.trap, true):set_generated():set_text("Trap: no request in this capture asked for it")
    m.info[1] = "trap"
  end
  if fact.request then tree:add(f.request_in, fact.request):set_generated() end
  if fact.time and fact.time >= 0 then
    local seconds = math.floor(fact.time)
    tree:add(f.time, NSTime.new(seconds, math.floor((fact.time - seconds) * 1e9 + 0.5))):set_generated()
  end
  if fact.response then tree:add(f.response_in, fact.response):set_generated() end
end

---- a message -------------------------------------------------------------------------------------

local function flag(item, key, words)
  item:add_proto_expert_info(ex[key].made, words or ex[key].label)
end

local function show_envelope(m, tree, root)
  for _, one in ipairs(root.members) do
    local name = one.name:lower()
    if name == "data" and one.value.kind == "object" and budget(m) then
      local data = tree:add(m.range(one.first, one.value.last), "Data")
      if #one.value.members == 0 then data:append_text(": none") end
      local show = (m.to_switch and TO_SWITCH or TO_GATEWAY)[m.subcmd] or named({})
      show(m, data, one.value)
    else
      show_field(m, tree, ENVELOPE[name], one.name, one.name, one.value, one.first)
    end
  end
  if m.left < 0 then flag(tree, "many", ("Only the first %d members are shown"):format(MAX_SHOWN)) end
end

-- What the frame is, for the list of frames, and remarks on a command that nothing listens to.
local function name_message(m, root, item)
  m.cmd, m.subcmd = string_of(member(root, "cmd")), string_of(member(root, "subcmd"))
  local kind = string_of(member(root, "type"))
  if m.cmd then
    m.info[1] = quoted(m.cmd)
    if m.subcmd and m.subcmd ~= m.cmd then m.info[2] = quoted(m.subcmd) end
  elseif kind and member(root, "pktid") then
    m.info[1] = "typed " .. quoted(kind)
    return
  elseif m.to_switch then
    m.info[1] = "[no command]"
    flag(item, "no_cmd", "A switch ignores a message without a command")
    return
  else
    m.info[1] = "module reply"
    return
  end
  if m.to_switch and not (QUERY_VERBS[m.cmd] and QUERIES or ACTIONS)[m.subcmd] then
    flag(item, "unknown", "No switch listens to this command and subcommand")
  end
end

-- Reads and shows the text of `m`. Returns its root, or nil when it is no JSON.
local function show_text(m, pinfo, tree, item)
  local root, why = parse(m.text)
  if not root then
    if m.cut then
      m.info[1] = "[cut] " .. quoted(m.text)
    elseif why == "deep" then
      m.info[1] = "[nested too deep]"
      flag(item, "too_deep", ("Nested deeper than %d levels"):format(MAX_DEPTH))
    else
      m.info[1] = "[not JSON] " .. quoted(m.text)
      flag(item, "not_json")
    end
    return nil
  end
  name_message(m, root, item)
  if not pinfo.visited then
    if m.to_switch then
      remember_request(pinfo, m, member(root, "data"))
    else
      match_answer(pinfo, m, member(root, "data"))
    end
  end
  if root.kind == "object" then
    show_envelope(m, tree, root)
  else
    show_any(m, tree, "", "Value", root)
  end
  if m.text:find("[^\1-\32]", root.last + 1) then
    flag(item, "behind", "Bytes behind the JSON value, which nobody reads")
  end
  return root
end

-- Shows the chunk of a message that has one. Returns where it ends in the message, or nil.
local function show_chunk(m, tree, root)
  local length = integer_of(member(member(root, "data"), "length"))
  if not length or length <= 0 then return nil end
  if not m.announced then
    flag(tree, "bad_chunk", "A chunk needs the length field of a frame to tell its place")
    return nil
  end
  if m.announced <= m.text_length then
    flag(tree, "bad_chunk", ("The chunk would begin at byte %d, inside the text"):format(m.announced))
    return nil
  end
  local last = m.announced + length
  local limit = m.to_switch and math.min(m.on_wire, READ_BY_SWITCH) or m.on_wire
  if last > limit then
    flag(tree, "bad_chunk", ("The chunk ends %d bytes beyond what is there to be read"):format(last - limit))
  end
  local shown = math.min(last, m.captured) - m.announced
  if shown <= 0 then return nil end
  local item = tree:add(f.chunk, m.bytes(m.announced, shown))
  item:set_text(("Chunk: %d bytes"):format(shown))
  return m.announced + shown
end

-- Shows what follows the `used` bytes of the message.
local function show_rest(m, tree, used)
  if used >= m.captured then return end
  local range = m.bytes(used, m.captured - used)
  if m.raw:find("[^%z]", used + 1) then
    local item = tree:add(f.trailing, range)
    item:set_text(("Trailing bytes: %d"):format(m.captured - used))
    flag(item, "behind", ("%d bytes behind the message"):format(m.captured - used))
  else
    tree:add(f.padding, range):set_text(("Padding: %d zeros"):format(m.captured - used))
  end
end

-- The second frame of a long answer: the end of the text once more, then zeros. Shows it and returns
-- true, or false when the frame is something else.
local function show_second_fragment(m, pinfo, tree)
  if m.to_switch or not m.announced or m.announced <= FRAGMENT or m.announced > m.on_wire then return false end
  local tail = m.announced - FRAGMENT
  if m.text_length == 0 or m.text_length > tail or m.text_length < tail - 1 then return false end
  tree:add(f.second_fragment, true):set_generated():set_text(
    "Second fragment: it repeats the end of a message that its first frame holds whole")
  local key = ("%s %s %d"):format(m.switch, m.gateway, m.announced)
  local first = long_ones[key]
  local fact = facts_of(pinfo.number)
  if not pinfo.visited and first then
    fact.fragment_of, fact.fragment_name = first.frame, first.name
    fact.differs = first.text:sub(FRAGMENT + 1) ~= m.text
  end
  m.info[1] = "second fragment"
  if fact.fragment_of then
    tree:add(f.fragment_of, fact.fragment_of):set_generated()
    m.info[1] = ("second fragment of frame %d (%s)"):format(fact.fragment_of, fact.fragment_name)
  end
  local item = tree:add(f.tail, m.bytes(0, m.text_length), clean(m.text))
  if fact.differs then flag(item, "bad_fragment", "It does not repeat the end of the frame before") end
  show_rest(m, tree, m.text_length)
  return true
end

local function remember_long(m, pinfo)
  if m.to_switch or pinfo.visited or not m.announced or m.announced <= FRAGMENT then return end
  local key = ("%s %s %d"):format(m.switch, m.gateway, m.announced)
  local name = table.concat(m.info, " ", 1, math.min(2, #m.info))
  long_ones[key] = { frame = pinfo.number, text = m.text, name = name }
end

local function check_length(m, item, has_chunk)
  if m.announced < 0 then
    flag(item, "bad_length", ("The length counts %d bytes before the message"):format(LENGTH_BIAS))
  elseif m.announced > m.on_wire then
    flag(item, "bad_length", ("The length reaches %d bytes beyond the frame"):format(m.announced - m.on_wire))
  elseif not has_chunk and not m.cut and m.announced ~= m.text_length and m.announced ~= m.text_length + 1 then
    flag(item, "odd_length", ("The text has %d bytes, the length tells of %d"):format(m.text_length, m.announced))
  end
end

-- Shows the message that begins at `offset`; `length_item` and m.announced are those of a frame.
local function show_message(m, tvb, pinfo, tree, offset, length_item)
  m.captured, m.on_wire = tvb:len() - offset, tvb:reported_len() - offset
  m.bytes = function(from, count) return tvb:range(offset + from, count) end
  m.range = function(first, last) return tvb:range(offset + first - 1, last - first + 1) end
  m.raw = tvb:raw(offset)
  m.left = MAX_SHOWN
  if m.captured < m.on_wire then
    flag(tree, "cut", ("%d bytes were not captured"):format(m.on_wire - m.captured))
  end
  local limit = m.captured
  if m.to_switch then
    if not m.udp then limit = math.min(limit, READ_BY_SWITCH) end
  elseif m.announced and m.announced > 0 then
    limit = math.min(limit, m.announced)
  end
  m.text_length = (m.raw:find("%z") or m.captured + 1) - 1
  m.text_length = math.min(m.text_length, limit)
  m.text = m.raw:sub(1, m.text_length)
  m.cut = m.captured < m.on_wire and m.text_length == m.captured
  if show_second_fragment(m, pinfo, tree) then return end
  if m.text_length == 0 then
    m.info[1] = "[no message]"
    flag(tree, "no_text")
    if length_item and m.announced > m.on_wire then check_length(m, length_item, false) end
    return show_rest(m, tree, 0)
  end
  local item = tree:add(f.text, m.bytes(0, m.text_length), clean(m.text))
  local root = show_text(m, pinfo, tree, item)
  remember_long(m, pinfo)
  local has_chunk = root and CHUNKS[m.to_switch][m.subcmd or ""]
  if length_item then check_length(m, length_item, has_chunk) end
  if m.to_switch and not m.udp and m.on_wire > READ_BY_SWITCH then
    flag(item, "too_long", ("A switch reads the first %d bytes of %d"):format(READ_BY_SWITCH, m.on_wire))
  end
  local used = m.text_length
  if used < m.captured and (not m.announced or m.announced == used + 1) and m.raw:byte(used + 1) == 0 then
    tree:add(f.terminator, m.bytes(used, 1))
    used = used + 1
  end
  used = has_chunk and show_chunk(m, tree, root) or used
  show_rest(m, tree, used)
  show_facts(pinfo, m, tree)
  if qel.prefs.json and root then pcall(m.json, m.bytes(0, m.text_length):tvb(), pinfo) end
end

---- frames and datagrams --------------------------------------------------------------------------

-- Shows the header in as far as it is there. Returns the length field and its item, or nil.
local function show_header(tvb, tree)
  local size = math.min(tvb:len(), HEADER)
  local header = tree:add(tvb:range(0, size), "Header")
  if size >= 2 and header:add(f.zero, tvb:range(0, 2)) and tvb:range(0, 2):uint() ~= 0 then
    flag(header, "odd_reserved")
  end
  if size >= 4 then
    local item = header:add(f.magic, tvb:range(2, 2))
    if tvb:range(2, 2):uint() ~= MAGIC then flag(item, "bad_magic") end
  end
  if size < HEADER then
    if tvb:reported_len() < HEADER then
      flag(header, "short", ("%d of %d bytes before the message"):format(size, HEADER))
    else
      flag(header, "cut", "Not even the header was captured")
    end
    return nil
  end
  local length = tvb:range(4, 2):uint()
  local item = header:add(f.length, tvb:range(4, 2))
  if length >= LENGTH_BIAS then item:append_text((" (message of %d bytes)"):format(length - LENGTH_BIAS)) end
  local reserved = header:add(f.reserved, tvb:range(6, 12))
  if tvb:raw(6, 12):find("[^%z]") then flag(reserved, "odd_reserved") end
  header:append_text((": magic 0x%04x, length %d"):format(tvb:range(2, 2):uint(), length))
  return length, item
end

local function finish(m, pinfo, tree)
  pinfo.cols.protocol = "QEL"
  local info = table.concat(m.info, ", ", 2)
  if #m.info > 1 then info = m.info[1] .. " " .. info else info = m.info[1] or "" end
  pinfo.cols.info = info
  tree:append_text(": " .. info)
end

local function begin(tvb, pinfo, root, m)
  local tree = root:add(qel, tvb:range(0, tvb:len()))
  tree:add(f.direction, m.to_switch and 1 or 2):set_generated()
  local from, to = tostring(pinfo.src), tostring(pinfo.dst)
  if m.udp then from, to = from .. ":" .. pinfo.src_port, to .. ":" .. pinfo.dst_port end
  if pinfo.dst == GROUP_ADDRESS then to = GROUP end
  m.switch, m.gateway = m.to_switch and to or from, m.to_switch and from or to
  m.json = function(text_tvb, info) Dissector.get("json"):call(text_tvb, info, root) end
  return tree
end

function qel.dissector(tvb, pinfo, root)
  local m = { to_switch = pinfo.match ~= ETHERTYPE_TO_GATEWAY, udp = false, info = {} }
  local tree = begin(tvb, pinfo, root, m)
  local length, length_item = show_header(tvb, tree)
  if length then
    m.announced = length - LENGTH_BIAS
    show_message(m, tvb, pinfo, tree, HEADER, length_item)
  else
    m.info[1] = "[short frame]"
  end
  finish(m, pinfo, tree)
  return math.max(tvb:len(), 1) -- 0 would mean that the frame is not ours
end

function qel_udp.dissector(tvb, pinfo, root)
  local m = { to_switch = pinfo.dst_port == UDP_PORT_SWITCH, udp = true, info = {} }
  local tree = begin(tvb, pinfo, root, m)
  show_message(m, tvb, pinfo, tree, 0, nil)
  finish(m, pinfo, tree)
  return math.max(tvb:len(), 1) -- 0 would mean that the frame is not ours
end

local ethertypes = DissectorTable.get("ethertype")
ethertypes:add(ETHERTYPE_TO_SWITCH, qel)
ethertypes:add(ETHERTYPE_TO_GATEWAY, qel)
DissectorTable.get("udp.port"):add(UDP_PORT_SWITCH, qel_udp)

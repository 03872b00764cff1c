-- Wireshark dissector for the TarnSDK wire protocol (TCP port 6868).
--
-- Usage:
--   tshark -X lua_script:tools/wireshark/tarn.lua -r capture.pcap -V
--   wireshark -X lua_script:tools/wireshark/tarn.lua capture.pcap
-- or copy this file into the personal Lua plugins folder
-- (~/.local/lib/wireshark/plugins/). Display filter: "tarn".
--
-- Stream layout: frames follow one another with nothing in between.
--   '#' (0x23) | type int32 = 11 | length N int32 | N body bytes | ';' (0x3B)
-- Every integer is 4 little-endian bytes, floats IEEE 754 single precision,
-- every text an int32 length followed by that many raw bytes.
--
-- Body (one message):
--   head_word, sender, receiver, key, text1, text2, text3, int_param,
--   '%', action count, action bodies back to back, '%'
-- Action body:
--   type, path count, path way-points (24 bytes: code, x, y, z, flag,
--   space type), arc count, arc way-points (40 bytes: the same six values
--   and four arc parameters), target code (text), target x, target y,
--   target space type, param (text)
--
-- Damaged input is reported the way the library's receiver sees it: bytes
-- before a '#' are skipped, an oversized length or a wrong terminator makes
-- the receiver drop everything up to and including the first ';' counted
-- from the frame's '#', and the dissector resumes at the same place. A wrong
-- type word or a body that does not decode stalls the library's receiver for
-- good; the dissector flags it and carries on with the next frame so that the
-- rest of the conversation stays readable.

local tarn = Proto("tarn", "TarnSDK Protocol")

local FRAME_MARKER = "#"
local FRAME_END = 0x3B -- ';'
local BODY_MARKER = 0x25 -- '%'
local FRAME_TYPE = 11
local HEADER_SIZE = 9
local MAX_FRAME = 1000000 -- length word + 10; receivers discard anything larger

local key_names = {
  [0] = "KEY_NONE",
  [1] = "KEY_CONNECT",
  [2] = "KEY_INIT",
  [3] = "KEY_KILL",
  [7] = "KEY_ORIENTATION",
  [12] = "KEY_ACTION",
  [13] = "KEY_GET_DETAIL",
  [14] = "KEY_DETAIL",
  [20] = "KEY_SET_PARAM",
}

local pf = {
  frame = ProtoField.none("tarn.frame", "Frame"),
  marker = ProtoField.uint8("tarn.marker", "Frame marker", base.HEX),
  ftype = ProtoField.int32("tarn.type", "Frame type", base.DEC),
  length = ProtoField.int32("tarn.length", "Body length", base.DEC),
  body = ProtoField.bytes("tarn.body", "Body"),
  terminator = ProtoField.uint8("tarn.terminator", "Frame terminator", base.HEX),
  junk = ProtoField.bytes("tarn.junk", "Skipped bytes"),

  message = ProtoField.none("tarn.message", "Message"),
  head_word = ProtoField.int32("tarn.head_word", "Head word", base.DEC),
  sender = ProtoField.string("tarn.sender", "Sender"),
  receiver = ProtoField.string("tarn.receiver", "Receiver"),
  key = ProtoField.int32("tarn.key", "Key", base.DEC, key_names),
  key_name = ProtoField.string("tarn.key_name", "Key name"),
  text1 = ProtoField.string("tarn.text1", "Text parameter 1"),
  text2 = ProtoField.string("tarn.text2", "Text parameter 2"),
  text3 = ProtoField.string("tarn.text3", "Text parameter 3"),
  text_len = ProtoField.int32("tarn.text_length", "Length", base.DEC),
  int_param = ProtoField.int32("tarn.int_param", "Int parameter", base.DEC),
  open_marker = ProtoField.uint8("tarn.open_marker", "Opening marker", base.HEX),
  action_count = ProtoField.int32("tarn.action_count", "Action count", base.DEC),
  close_marker = ProtoField.uint8("tarn.close_marker", "Closing marker", base.HEX),

  action = ProtoField.none("tarn.action", "Action"),
  action_type = ProtoField.int32("tarn.action.type", "Action type", base.DEC),
  path_count = ProtoField.int32("tarn.action.path_count", "Path way-points", base.DEC),
  arc_count = ProtoField.int32("tarn.action.arc_count", "Arc way-points", base.DEC),
  param = ProtoField.string("tarn.action.param", "Param"),

  wp = ProtoField.none("tarn.wp", "Way-point"),
  wp_code = ProtoField.int32("tarn.wp.code", "Code", base.DEC),
  wp_x = ProtoField.float("tarn.wp.x", "X"),
  wp_y = ProtoField.float("tarn.wp.y", "Y"),
  wp_z = ProtoField.float("tarn.wp.z", "Z"),
  wp_flag = ProtoField.int32("tarn.wp.flag", "Flag", base.DEC),
  wp_space = ProtoField.int32("tarn.wp.space_type", "Space type", base.DEC),

  arc = ProtoField.none("tarn.arc", "Arc way-point"),
  arc_code = ProtoField.int32("tarn.arc.code", "Code", base.DEC),
  arc_x = ProtoField.float("tarn.arc.x", "X"),
  arc_y = ProtoField.float("tarn.arc.y", "Y"),
  arc_z = ProtoField.float("tarn.arc.z", "Z"),
  arc_flag = ProtoField.int32("tarn.arc.flag", "Flag", base.DEC),
  arc_space = ProtoField.int32("tarn.arc.space_type", "Space type", base.DEC),
  arc_p1 = ProtoField.float("tarn.arc.param1", "Arc parameter 1"),
  arc_p2 = ProtoField.float("tarn.arc.param2", "Arc parameter 2"),
  arc_p3 = ProtoField.float("tarn.arc.param3", "Arc parameter 3"),
  arc_p4 = ProtoField.float("tarn.arc.param4", "Arc parameter 4"),

  target = ProtoField.none("tarn.target", "Target"),
  target_code = ProtoField.string("tarn.target.code", "Code"),
  target_x = ProtoField.float("tarn.target.x", "X"),
  target_y = ProtoField.float("tarn.target.y", "Y"),
  target_space = ProtoField.int32("tarn.target.space_type", "Space type", base.DEC),

  damaged = ProtoField.bool("tarn.damaged", "Damaged"),
}

local field_list = {}
for _, f in pairs(pf) do
  field_list[#field_list + 1] = f
end
tarn.fields = field_list

local ef = {
  junk = ProtoExpert.new("tarn.junk.expert", "Bytes before the frame marker (the receiver drops them)",
    expert.group.SEQUENCE, expert.severity.WARN),
  oversized = ProtoExpert.new("tarn.oversized", "Oversized frame (the receiver drops it)",
    expert.group.MALFORMED, expert.severity.ERROR),
  bad_terminator = ProtoExpert.new("tarn.bad_terminator", "Bad frame terminator (the receiver resynchronises)",
    expert.group.MALFORMED, expert.severity.ERROR),
  bad_type = ProtoExpert.new("tarn.bad_type", "Wrong frame type word (the receiver stalls on this frame)",
    expert.group.MALFORMED, expert.severity.ERROR),
  decode_failed = ProtoExpert.new("tarn.decode_failed", "Body does not decode (the receiver stalls on this frame)",
    expert.group.MALFORMED, expert.severity.ERROR),
  truncated = ProtoExpert.new("tarn.truncated", "Body ends early",
    expert.group.MALFORMED, expert.severity.WARN),
  throws = ProtoExpert.new("tarn.length_minus_ten", "Length word -10 (the receiver raises an exception)",
    expert.group.MALFORMED, expert.severity.ERROR),
}
tarn.experts = { ef.junk, ef.oversized, ef.bad_terminator, ef.bad_type, ef.decode_failed, ef.truncated, ef.throws }

-- Texts may hold any byte, NUL included: show them escaped so that nothing is
-- cut at a NUL and nothing unprintable reaches the display.
local function printable(raw)
  return (raw:gsub("[%c\128-\255\\]", function(c)
    if c == "\\" then
      return "\\\\"
    end
    return string.format("\\x%02x", c:byte())
  end))
end

-- A bounded reader over the body. Every read checks the remaining bytes, so
-- a hostile count or length can neither run past the body nor loop long.
local Reader = {}
Reader.__index = Reader

local function new_reader(tvb, offset, limit)
  return setmetatable({ tvb = tvb, pos = offset, limit = limit, short = false, flagged = false }, Reader)
end

function Reader:left()
  return self.limit - self.pos
end

-- The next n bytes as a range, or nil (with the reader marked short) when the
-- body ends first.
function Reader:take(n)
  if self:left() < n then
    self.short = true
    return nil
  end
  local r = self.tvb(self.pos, n)
  self.pos = self.pos + n
  return r
end

function Reader:int32(tree, field)
  local r = self:take(4)
  if not r then
    return nil
  end
  if tree then
    tree:add_le(field, r)
  end
  return r:le_int(), r
end

function Reader:float(tree, field)
  local r = self:take(4)
  if not r then
    return nil
  end
  tree:add_le(field, r)
  return r:le_float()
end

function Reader:byte(tree, field)
  local r = self:take(1)
  if not r then
    return nil
  end
  tree:add(field, r)
  return r:uint()
end

-- A length-prefixed text: one item over length and bytes, the length below it.
-- Returns the raw text, or nil when the body ends or the length is impossible.
function Reader:text(tree, field)
  if self:left() < 4 then
    self.short = true
    return nil
  end
  local len = self.tvb(self.pos, 4):le_int()
  if len < 0 or len > self:left() - 4 then
    local item = tree:add(field, self.tvb(self.pos, 4), "<length " .. len .. " out of range>")
    item:add_le(pf.text_len, self.tvb(self.pos, 4))
    if len < 0 then
      item:add_proto_expert_info(ef.decode_failed,
        string.format("Text length %d: the decoder raises a length error", len))
    else
      item:add_proto_expert_info(ef.truncated, string.format("Text length %d runs past the body", len))
    end
    self.pos = self.limit
    self.short = true
    self.flagged = true
    return nil
  end
  local raw = len > 0 and self.tvb(self.pos + 4, len):raw() or ""
  local item = tree:add(field, self.tvb(self.pos, 4 + len), printable(raw))
  item:add_le(pf.text_len, self.tvb(self.pos, 4))
  self.pos = self.pos + 4 + len
  return raw
end

local function dissect_waypoint(rd, tree, arc)
  local start = rd.pos
  local size = arc and 40 or 24
  if rd:left() < size then
    rd.short = true
    return false
  end
  local sub = tree:add(arc and pf.arc or pf.wp, rd.tvb(start, size))
  local code = rd:int32(sub, arc and pf.arc_code or pf.wp_code)
  local x = rd:float(sub, arc and pf.arc_x or pf.wp_x)
  local y = rd:float(sub, arc and pf.arc_y or pf.wp_y)
  local z = rd:float(sub, arc and pf.arc_z or pf.wp_z)
  -- flag travels before space type, the reverse of the record's order
  local flag = rd:int32(sub, arc and pf.arc_flag or pf.wp_flag)
  local space = rd:int32(sub, arc and pf.arc_space or pf.wp_space)
  if arc then
    rd:float(sub, pf.arc_p1)
    rd:float(sub, pf.arc_p2)
    rd:float(sub, pf.arc_p3)
    rd:float(sub, pf.arc_p4)
  end
  sub:append_text(string.format(": code %d (%g, %g, %g) flag %d space %d", code, x, y, z, flag, space))
  return true
end

local function dissect_action(rd, tree, index)
  local start = rd.pos
  if rd:left() < 4 then
    rd.short = true
    return false
  end
  local sub = tree:add(pf.action, rd.tvb(start, 4))
  sub:append_text(" " .. index)
  local atype = rd:int32(sub, pf.action_type)
  local ok = atype ~= nil
  for _, arc in ipairs({ false, true }) do
    if not ok then
      break
    end
    local n = rd:int32(sub, arc and pf.arc_count or pf.path_count)
    ok = n ~= nil
    for _ = 1, (n or 0) do -- a count of 0 or less means none
      if not dissect_waypoint(rd, sub, arc) then
        ok = false
        break
      end
    end
  end
  ok = ok and rd:left() >= 4
  if ok then
    local tstart = rd.pos
    local target = sub:add(pf.target, rd.tvb(tstart, 4))
    local code = rd:text(target, pf.target_code)
    local tx = code and rd:float(target, pf.target_x)
    local ty = tx and rd:float(target, pf.target_y)
    local ts = ty and rd:int32(target, pf.target_space)
    if ts then
      target:set_len(rd.pos - tstart)
      target:append_text(string.format(": %s (%g, %g) space %d", printable(code), tx, ty, ts))
    end
    ok = ts ~= nil and rd:text(sub, pf.param) ~= nil
  end
  sub:set_len(math.max(1, rd.pos - start))
  sub:append_text(string.format(", type %d", atype or 0))
  return ok
end

-- Decodes one body. Returns a short summary for the Info column and whether
-- the body is sound; flags problems on the message item.
local function dissect_body(tvb, offset, len, tree)
  local msg = tree:add(pf.message, tvb(offset, len))
  local rd = new_reader(tvb, offset, offset + len)
  local hw = rd:int32(msg, pf.head_word)
  local sender = hw and rd:text(msg, pf.sender)
  local receiver = sender and rd:text(msg, pf.receiver)
  local key, key_range
  if receiver then
    key, key_range = rd:int32(msg, pf.key)
  end
  if key then
    msg:add(pf.key_name, key_range, key_names[key] or "unknown"):set_generated()
  end
  local t1 = key and rd:text(msg, pf.text1)
  local t2 = t1 and rd:text(msg, pf.text2)
  local t3 = t2 and rd:text(msg, pf.text3)
  local ip = t3 and rd:int32(msg, pf.int_param)
  if not key then
    if not rd.flagged then
      msg:add_proto_expert_info(ef.truncated, "Body ends inside the addresses")
    end
    return "[undecodable]", false
  end
  local info = string.format("%s → %s %s", printable(sender), printable(receiver),
    key_names[key] or ("key " .. key))
  if ip and ip ~= 0 then
    info = info .. " " .. ip
  end
  if t1 and t1 ~= "N" then
    info = info .. " \"" .. printable(t1) .. "\""
  end
  msg:append_text(": " .. info)

  if not ip then
    if not rd.flagged then
      msg:add_proto_expert_info(ef.truncated, "Body ends before the opening marker")
    end
    return info, false
  end
  local open = rd:byte(msg, pf.open_marker)
  if open ~= BODY_MARKER then
    msg:add_proto_expert_info(ef.decode_failed,
      open and string.format("Opening marker is 0x%02x, not '%%'", open) or "Body ends before the opening marker")
    return info, false
  end
  local count = rd:int32(msg, pf.action_count)
  for i = 1, (count or 0) do
    if not dissect_action(rd, msg, i) then
      if rd.flagged then
        return info, false
      end
      msg:add_proto_expert_info(ef.truncated, string.format("Body ends inside action %d of %d", i, count))
      return info, false
    end
  end
  local close = rd:byte(msg, pf.close_marker)
  if close == nil then
    msg:add_proto_expert_info(ef.truncated, "Body ends before the closing marker")
    return info, false
  end
  if close ~= BODY_MARKER then
    msg:add_proto_expert_info(ef.decode_failed, string.format("Closing marker is 0x%02x, not '%%'", close))
    return info, false
  end
  if rd:left() > 0 then
    msg:add_proto_expert_info(ef.truncated, string.format("%d bytes after the closing marker", rd:left()))
  end
  return info, true
end

-- Where the receiver resumes after dropping a damaged frame: just past the
-- first ';' counted from the frame's '#', or nil when there is none yet.
-- `raw` is the whole tvb as a Lua string (searching it is far cheaper than
-- one TvbRange per byte); offsets are 0-based like the tvb's.
local function resync_point(raw, offset)
  local i = raw:find(string.char(FRAME_END), offset + 1, true)
  return i -- 1-based index of the ';' == 0-based offset just past it
end

local function header_items(tvb, offset, frame)
  frame:add(pf.marker, tvb(offset, 1))
  frame:add_le(pf.ftype, tvb(offset + 1, 4))
  frame:add_le(pf.length, tvb(offset + 5, 4))
end

function tarn.dissector(tvb, pinfo, tree)
  local total = tvb:len()
  local raw = tvb:raw()
  local offset = 0
  local infos = {}

  while offset < total do
    -- Skip to the next frame marker, as the receiver does.
    local found = raw:find(FRAME_MARKER, offset + 1, true)
    local start = found and found - 1
    if start ~= offset then
      local stop = start or total
      local skipped = tree:add(tarn, tvb(offset, stop - offset))
      skipped:add(pf.junk, tvb(offset, stop - offset))
      skipped:append_text(string.format(", %d bytes skipped", stop - offset))
      skipped:add_proto_expert_info(ef.junk)
      infos[#infos + 1] = "[skipped]"
      if not start then
        break
      end
      offset = start
    end

    if total - offset < HEADER_SIZE then
      pinfo.desegment_offset = offset
      pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
      break
    end

    local ftype = tvb(offset + 1, 4):le_int()
    local len = tvb(offset + 5, 4):le_int()
    -- Same test as the receiver: len + 10 in 32 bits, compared unsigned.
    local frame_size = (len + 10) % 4294967296
    if frame_size > MAX_FRAME then
      local resume = resync_point(raw, offset) or total
      local frame = tree:add(tarn, tvb(offset, resume - offset))
      header_items(tvb, offset, frame)
      frame:add(pf.damaged, tvb(offset + 5, 4), true):set_generated()
      frame:append_text(", oversized")
      frame:add_proto_expert_info(ef.oversized, string.format("Length %d: frame of more than %d bytes", len, MAX_FRAME))
      infos[#infos + 1] = "[oversized]"
      offset = resume
    elseif len + 10 > total - offset then
      pinfo.desegment_offset = offset
      pinfo.desegment_len = len + 10 - (total - offset)
      break
    else
      local frame_end = offset + len + 9
      local damaged = false
      if len == -10 then
        -- The terminator would sit at index -1: the receiver's bounds-checked
        -- access throws instead of resynchronising.
        local frame = tree:add(tarn, tvb(offset, HEADER_SIZE))
        header_items(tvb, offset, frame)
        frame:add(pf.damaged, tvb(offset + 5, 4), true):set_generated()
        frame:append_text(", length -10")
        frame:add_proto_expert_info(ef.throws)
        infos[#infos + 1] = "[length -10]"
        offset = offset + HEADER_SIZE
        damaged = true
      elseif tvb(frame_end, 1):uint() ~= FRAME_END then
        local resume = resync_point(raw, offset)
        local frame = tree:add(tarn, tvb(offset, (resume or total) - offset))
        header_items(tvb, offset, frame)
        frame:add(pf.damaged, tvb(frame_end, 1), true):set_generated()
        frame:add(pf.terminator, tvb(frame_end, 1))
        frame:append_text(", bad terminator")
        frame:add_proto_expert_info(ef.bad_terminator,
          string.format("Byte at the terminator position is 0x%02x, not ';'", tvb(frame_end, 1):uint()))
        infos[#infos + 1] = "[bad terminator]"
        offset = resume or total
        damaged = true
      end
      if not damaged then
        local frame = tree:add(tarn, tvb(offset, len + 10))
        header_items(tvb, offset, frame)
        local info, sound = "", true
        if len > 0 then
          frame:add(pf.body, tvb(offset + HEADER_SIZE, len))
          info, sound = dissect_body(tvb, offset + HEADER_SIZE, len, frame)
        else
          sound = false
          frame:add_proto_expert_info(ef.decode_failed, len == 0 and "Empty body" or "Negative body length")
        end
        frame:add(pf.terminator, tvb(frame_end, 1))
        if ftype ~= FRAME_TYPE then
          frame:add_proto_expert_info(ef.bad_type, string.format("Type word %d, not %d", ftype, FRAME_TYPE))
          info = "[wrong type] " .. info
          sound = false
        end
        if not sound then
          frame:add(pf.damaged, tvb(offset, len + 10), true):set_generated()
        end
        frame:append_text(", " .. info)
        infos[#infos + 1] = info
        offset = offset + len + 10
      end
    end
  end

  if #infos == 0 then
    return
  end
  pinfo.cols.protocol = "TARN"
  pinfo.cols.info = table.concat(infos, " | ")
  return total
end

DissectorTable.get("tcp.port"):add(6868, tarn)

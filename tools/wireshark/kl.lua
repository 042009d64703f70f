-- kl.lua: a dissector for captures of kl-loader's traffic (kl-msg monitor --pcap), link
-- type 147 (USER0). Each record: the sending process id, the receiving process id and the
-- frame's whole length (4 bytes each, little-endian), then the frame's body as delivered:
-- a message in its wire form ("M2", then field records). Every field is shown with its
-- name (where kl knows one), type and value; nested messages and arrays are opened.
--
--   tshark -X lua_script:tools/wireshark/kl.lua -r traffic.pcap -V
--   (or copy it to ~/.local/lib/wireshark/plugins/)

local kl = Proto("kl", "kl message")
local f_from = ProtoField.uint32("kl.from", "Sender", base.DEC)
local f_to = ProtoField.uint32("kl.to", "Receiver", base.DEC)
local f_length = ProtoField.uint32("kl.length", "Body length", base.DEC)
local f_field = ProtoField.string("kl.field", "Field")
kl.fields = { f_from, f_to, f_length, f_field }

-- The names kl-msg knows, as `kl-msg names --lua` prints them (a test keeps them equal).
-- names begin
local FIELD_NAMES = {
  [0xff0001] = "SYS_TO",
  [0xff0002] = "SYS_FROM",
  [0xff0003] = "SYS_TYPE",
  [0xff0004] = "SYS_STATUS",
  [0xff0005] = "SYS_REPLYEXP",
  [0xff0006] = "SYS_REQID",
  [0xff0007] = "SYS_CMD",
  [0xff0008] = "SYS_ERRNO",
  [0xff0009] = "SYS_ERRSTR",
  [0xff000a] = "SYS_USER",
  [0xff000b] = "SYS_POLICY",
  [0xff000d] = "SYS_CTRL",
  [0xff000e] = "SYS_RADDR",
  [0xff000f] = "SYS_CTRL_ARG",
  [0xff0011] = "SYS_NOTIFYCMD",
  [0xff0012] = "SYS_ORIGIN",
  [0xfe0001] = "STD_ID",
  [0xfe0002] = "STD_OBJS",
  [0xfe0003] = "STD_GETALLID",
  [0xfe0004] = "STD_GETALLNO",
  [0xfe0005] = "STD_NEXTID",
  [0xfe0006] = "STD_UNDOID",
  [0xfe0007] = "STD_DYNAMIC",
  [0xfe0008] = "STD_INACTIVE",
  [0xfe0009] = "STD_DESCR",
  [0xfe000a] = "STD_DISABLED",
  [0xfe000b] = "STD_FINISHED",
  [0xfe0013] = "STD_DEAD",
  [0xfe0014] = "STD_COUNT",
  [0xfe0015] = "STD_GETALL_COOKIE",
  [0xfe0016] = "STD_QUERY",
  [0xfe0017] = "STD_QUERY_OP",
  [0xfe0018] = "STD_MAXOBJS",
  [0xfe0019] = "STD_OBJ_COUNT",
}
local COMMAND_NAMES = {
  [0xfe0000] = "CMD_NOOP",
  [0xfe0001] = "CMD_GETPOLICIES",
  [0xfe0002] = "CMD_GETOBJ",
  [0xfe0003] = "CMD_SETOBJ",
  [0xfe0004] = "CMD_GETALL",
  [0xfe0005] = "CMD_ADDOBJ",
  [0xfe0006] = "CMD_REMOVEOBJ",
  [0xfe0007] = "CMD_MOVEOBJ",
  [0xfe000b] = "CMD_NOTIFY",
  [0xfe000c] = "CMD_SHUTDOWN",
  [0xfe000d] = "CMD_GET",
  [0xfe000e] = "CMD_SET",
  [0xfe000f] = "CMD_START",
  [0xfe0010] = "CMD_POLL",
  [0xfe0011] = "CMD_CANCEL",
  [0xfe0012] = "CMD_SUBSCRIBE",
  [0xfe0013] = "CMD_UNSUBSCRIBE",
  [0xfe0014] = "CMD_DISCONNECTED",
  [0xfe0015] = "CMD_GETCOUNT",
  [0xfe0016] = "CMD_RESET",
}
-- names end

local TYPE_NAMES = { [0] = "bool", [1] = "u32", [2] = "u64", [3] = "addr6", [4] = "string",
                     [5] = "message", [6] = "raw" }
local SYS_CMD = 0xff0007

local band, rshift = bit32.band, bit32.rshift

local function field_label(id, type_code, array)
  local number = band(id, 0x00ffffff)
  local name = FIELD_NAMES[number] or string.format("0x%x", number)
  return (TYPE_NAMES[type_code] or "?") .. (array and "[]" or "") .. ":" .. name
end

local function u32_text(number, value)
  if number == SYS_CMD and COMMAND_NAMES[value] then
    return string.format("%s (0x%x)", COMMAND_NAMES[value], value)
  end
  return string.format("%u (0x%x)", value, value)
end

local function addr6_text(range)
  local parts = {}
  for i = 0, 14, 2 do parts[#parts + 1] = string.format("%x", range(i, 2):uint()) end
  return table.concat(parts, ":")
end

local decode_message

-- One record at `pos`; returns the position after it, or nil when the body is cut short.
local function decode_record(buf, pos, stop, tree, depth)
  if pos + 4 > stop then return nil end
  local word = buf(pos, 4):le_uint()
  local id = band(word, 0xfeffffff)
  local flag = band(word, 0x01000000) ~= 0
  local array = band(word, 0x80000000) ~= 0
  local type_code = band(rshift(word, 27), 0xf)
  local number = band(id, 0x00ffffff)
  local label = field_label(id, type_code, array)
  local p = pos + 4
  if not array then
    if type_code == 0 then
      tree:add(f_field, buf(pos, 4), label .. " = " .. tostring(flag))
      return p
    elseif type_code == 1 then
      local n = flag and 1 or 4
      if p + n > stop then return nil end
      tree:add(f_field, buf(pos, 4 + n), label .. " = " .. u32_text(number, buf(p, n):le_uint()))
      return p + n
    elseif type_code == 2 then
      if p + 8 > stop then return nil end
      tree:add(f_field, buf(pos, 12), label .. " = " .. tostring(buf(p, 8):le_uint64()))
      return p + 8
    elseif type_code == 3 then
      if p + 16 > stop then return nil end
      tree:add(f_field, buf(pos, 20), label .. " = " .. addr6_text(buf(p, 16)))
      return p + 16
    elseif type_code >= 4 and type_code <= 6 then
      local lsize = flag and 1 or 2
      if p + lsize > stop then return nil end
      local len = flag and buf(p, 1):uint() or buf(p, 2):le_uint()
      p = p + lsize
      if p + len > stop then return nil end
      if type_code == 4 then
        tree:add(f_field, buf(pos, p + len - pos), label .. " = \"" .. buf(p, len):string() .. "\"")
      elseif type_code == 5 then
        local sub = tree:add(f_field, buf(pos, p + len - pos), label)
        decode_message(buf, p, len, sub, depth + 1)
      else
        tree:add(f_field, buf(pos, p + len - pos), label .. " = " .. tostring(buf(p, len):bytes()))
      end
      return p + len
    end
    return nil
  end
  if p + 2 > stop then return nil end
  local count = buf(p, 2):le_uint()
  p = p + 2
  local sub = tree:add(f_field, buf(pos, 6), label .. string.format(" (%d elements)", count))
  local widths = { [0] = 1, [1] = 4, [2] = 8, [3] = 16 }
  for i = 0, count - 1 do
    local w = widths[type_code]
    if w then
      if p + w > stop then return nil end
      local e = buf(p, w)
      local text
      if type_code == 0 then text = tostring(e:uint() ~= 0)
      elseif type_code == 1 then text = u32_text(number, e:le_uint())
      elseif type_code == 2 then text = tostring(e:le_uint64())
      else text = addr6_text(e) end
      sub:add(f_field, e, string.format("[%d] = %s", i, text))
      p = p + w
    elseif type_code >= 4 and type_code <= 6 then
      if p + 2 > stop then return nil end
      local len = buf(p, 2):le_uint()
      if p + 2 + len > stop then return nil end
      if type_code == 4 then
        sub:add(f_field, buf(p, 2 + len), string.format("[%d] = \"%s\"", i, buf(p + 2, len):string()))
      elseif type_code == 5 then
        local m = sub:add(f_field, buf(p, 2 + len), string.format("[%d]", i))
        decode_message(buf, p + 2, len, m, depth + 1)
      else
        sub:add(f_field, buf(p, 2 + len), string.format("[%d] = %s", i, tostring(buf(p + 2, len):bytes())))
      end
      p = p + 2 + len
    else
      return nil
    end
  end
  sub:set_len(p - pos)
  return p
end

-- The message of `len` bytes at `offset`, its fields added to `tree`.
decode_message = function(buf, offset, len, tree, depth)
  if len < 2 or buf(offset, 2):uint() ~= 0x4d32 or depth > 32 then
    tree:add_expert_info(PI_MALFORMED, PI_WARN, "not a message in the current wire form")
    return
  end
  local pos, stop = offset + 2, offset + len
  while pos + 4 <= stop do
    local after = decode_record(buf, pos, stop, tree, depth)
    if not after then
      tree:add_expert_info(PI_MALFORMED, PI_ERROR, "a field record is cut short")
      return
    end
    pos = after
  end
end

function kl.dissector(buf, pinfo, tree)
  if buf:len() < 12 then return 0 end
  pinfo.cols.protocol = "KL"
  local from, to, length = buf(0, 4):le_uint(), buf(4, 4):le_uint(), buf(8, 4):le_uint()
  pinfo.cols.src = tostring(from)
  pinfo.cols.dst = tostring(to)
  local root = tree:add(kl, buf(), string.format("kl message, %d -> %d", from, to))
  root:add_le(f_from, buf(0, 4))
  root:add_le(f_to, buf(4, 4))
  root:add_le(f_length, buf(8, 4))
  local body = buf:len() - 12
  if body < length then
    root:add_expert_info(PI_UNDECODED, PI_NOTE, "the loader sent only the body's beginning")
    return buf:len()
  end
  decode_message(buf, 12, body, root, 0)
  return buf:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, kl)

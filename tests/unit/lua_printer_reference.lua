-- The rules of the printer once more, written the slow and plain way, and random values to compare both on.
-- Returns describe(value) -> text and make(seed) -> value.

local WIDTH = 80

local function visible(piece)
  piece = piece:match("^[^\0]*")
  piece = piece:gsub("\27[^m]*m", ""):gsub("\27.*", "")
  return #piece
end

local function count(s, pattern)
  return select(2, s:gsub(pattern, ""))
end

local function score(s)
  local breaks = count(s, "[\t\n\v\r]")
  local printable = count(s, "[\32-\126]")
  return #s + breaks * (WIDTH // 2) - (#s - breaks - printable) * (WIDTH // 4)
end

local function level_of(s)
  local level = 0
  for chain in s:gmatch("%]([%]=]*)") do
    local equals = 0
    for c in chain:gmatch(".") do
      if c == "=" then equals = equals + 1 else level = math.max(level, equals + 1) end
    end
  end
  return level
end

local letters = {[7] = "\\a", [8] = "\\b", [9] = "\\t", [10] = "\\n", [11] = "\\v", [12] = "\\f", [13] = "\\r",
                 [34] = '\\"', [92] = "\\\\"}

local function describe(value)
  local out, column, indent, open = {}, 0, 0, {}

  local function put(s)
    out[#out + 1] = s
    column = column + visible(s)
  end
  local function newline()
    out[#out + 1] = "\n" .. (" "):rep(indent)
    column = indent
  end
  local function piece(s)
    local v = visible(s)
    if column + v > WIDTH and indent + v <= WIDTH then newline() end
    put(s)
  end

  local function text(s)
    if score(s) <= WIDTH then
      put('"')
      for i = 1, #s do
        local b = s:byte(i)
        if letters[b] then put(letters[b])
        elseif b < 32 or b > 126 then piece(("\\%03d"):format(b))
        else put(string.char(b)) end
      end
      put('"')
    else
      local equals = ("="):rep(level_of(s))
      put("[" .. equals .. "[\n")
      piece(s)
      put("]" .. equals .. "]")
    end
  end

  local function address(v)
    local mt = debug.getmetatable(v)
    return (mt == nil and tostring(v) or "?: ?"):match(": (.*)")
  end

  local show

  local function equal(a, b)
    return a == b -- __eq takes part
  end

  local function items(t)
    if indent > WIDTH * 8 // 10 then return piece("{ ... }") end
    for j = #open, 1, -1 do
      if equal(open[j], t) then return piece(("{ [%d]... }"):format(-(#open - j + 1))) end
    end
    open[#open + 1] = t
    put("{ ")
    local outer = indent
    indent = column
    local many, fresh = false, false
    local n = rawlen(t)
    for i = 1, n do
      local v = t[i]
      local nested = type(v) == "table"
      if nested then
        many = true
        if not fresh then newline() end
      end
      show(v)
      put(", ")
      fresh = false
      if nested and i < n then
        newline()
        fresh = true
      end
    end
    for k, v in next, t do
      if not (math.type(k) == "integer" and k >= 1 and k <= n) then
        many = true
        newline()
        if type(k) == "string" and (k == "" or k:find("^[%a_][%w_]*$")) then
          piece("") piece(k) piece("")
        else
          put("[") show(k) put("]")
        end
        put(" = ")
        show(v)
        put(",")
      end
    end
    open[#open] = nil
    indent = outer
    if many then
      newline()
      put("}")
    else
      put(" }")
    end
  end

  function show(v)
    local mt = debug.getmetatable(v)
    local hook = mt and rawget(mt, "__tostring")
    if hook ~= nil then
      local _, result = pcall(hook, v)
      if type(result) == "string" or type(result) == "number" then piece(tostring(result)) end
      return
    end
    local kind = type(v)
    if kind == "number" then piece(tostring(v))
    elseif kind == "nil" or kind == "boolean" then piece(tostring(v))
    elseif kind == "string" then text(v)
    elseif kind == "table" then items(v)
    elseif kind == "userdata" then return -- light: nothing
    else piece(("<%s: %s>"):format(kind, address(v))) end
  end

  show(value)
  return table.concat(out)
end

-- Random values -------------------------------------------------------------------------------------------------------

local function make(seed)
  math.randomseed(seed)
  local r = math.random
  local function one_of(t) return t[r(#t)] end

  local function text()
    local kind = r(10)
    local s = {}
    if kind <= 5 then
      for i = 1, r(0, 12) do s[i] = string.char(r(32, 126)) end
    elseif kind == 6 then
      for i = 1, r(0, 30) do s[i] = string.char(r(0, 255)) end
    elseif kind == 7 then
      for i = 1, r(0, 120) do s[i] = one_of{"a", "b", "]", "=", "[", "\n", "]]", "]=", " ", "\t"} end
    elseif kind == 8 then
      for i = 1, r(60, 200) do s[i] = string.char(r(32, 126)) end
    elseif kind == 9 then
      for i = 1, r(0, 40) do s[i] = one_of{"\27[1m", "\27", "m", "x", "\0", "\200", "\a", "\r", "\\", '"'} end
    else
      for i = 1, r(0, 60) do s[i] = one_of{"\200\201\202", "ab", "\1"} end
    end
    return table.concat(s)
  end

  local function name()
    return one_of{"a", "end", "_x1", "Value", "x9", "", "1a", "a b", "a.b", ("k"):rep(r(70, 90)), "é", "A_very_long_name_of_a_parameter"}
  end

  local value

  local function table_of(depth, around)
    local t = {}
    around[#around + 1] = t
    for i = 1, one_of{0, 0, 1, 3, r(40)} do
      if r(12) > 1 then t[i] = value(depth - 1, around) end
    end
    for _ = 1, one_of{0, 0, 1, 2, r(8)} do
      local key
      local kind = r(12)
      if kind <= 7 then key = name()
      elseif kind == 8 then key = r(-5, 60)
      elseif kind == 9 then key = r() * 10
      elseif kind == 10 then key = r(2) == 1
      elseif kind == 11 then key = value(depth - 2, around)
      else key = text() end
      if key ~= nil and key == key then t[key] = value(depth - 1, around) end
    end
    local kind = r(30)
    if kind == 1 then
      local s = text()
      setmetatable(t, {__tostring = function() return s end})
    elseif kind == 2 then setmetatable(t, {__tostring = function() error("no text", 0) end})
    elseif kind == 3 then setmetatable(t, {__tostring = function() return {} end})
    elseif kind == 4 then setmetatable(t, {__index = function(_, k) return k * 2 end})
    elseif kind == 5 then
      local eq = one_of{function() return true end, function() return false end, function(a, b) return rawlen(a) == rawlen(b) end}
      setmetatable(t, {__eq = eq})
    elseif kind == 6 then setmetatable(t, {__tostring = one_of{12, false, "text"}})
    elseif kind == 7 then setmetatable(t, {__index = {10, 20, {30}}}) end
    around[#around] = nil
    return t
  end

  function value(depth, around)
    if depth > 0 and r(3) == 1 then return table_of(depth, around) end
    local kind = r(24)
    if kind <= 6 then return r(-100, 100)
    elseif kind == 7 then return one_of{math.maxinteger, math.mininteger, 0, -0.0, 1e15, 1e100, 1/0, -1/0, 0/0, 0.1}
    elseif kind == 8 then return (r() - 0.5) * 10 ^ r(-20, 20)
    elseif kind <= 11 then return r(2) == 1
    elseif kind <= 18 then return text()
    elseif kind == 19 then return nil
    elseif kind == 20 then return one_of{print, function() return seed end}
    elseif kind == 21 then return coroutine.create(print)
    elseif kind == 22 then return #around > 0 and one_of(around) or nil
    elseif kind == 23 then return io.stderr
    else return debug.upvalueid(function() return seed end, 1) end
  end

  if r(10) == 1 then return value(4, {}) end
  return table_of(r(6), {})
end

-- Values that must load back.
local function make_plain(seed)
  math.randomseed(seed)
  local r = math.random
  local function value(depth)
    local kind = depth > 0 and r(4) or r(2, 4)
    if kind == 2 then return (r(2) * 2 - 3) * (r(0, math.maxinteger) >> r(0, 62))
    elseif kind == 3 then return r(2) == 1
    elseif kind == 4 then
      local s = {}
      for i = 1, r(0, 20) do s[i] = string.char(r(32, 126)) end
      return table.concat(s)
    end
    local t = {}
    for i = 1, r(0, 12) do t[i] = value(depth - 1) end
    for _ = 1, r(0, 4) do
      t["n" .. r(0, 99999)] = value(depth - 1)
      t[r(-50, 500)] = value(depth - 1)
    end
    return t
  end
  return value(4)
end

local function same(a, b)
  if type(a) ~= "table" or type(b) ~= "table" then return a == b and math.type(a) == math.type(b) end
  for k, v in pairs(a) do if not same(v, b[k]) then return false end end
  for k in pairs(b) do if a[k] == nil then return false end end
  return true
end

return describe, make, make_plain, same

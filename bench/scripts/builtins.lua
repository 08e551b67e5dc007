-- Many calls of cheap built-in functions.

local abs, floor = math.abs, math.floor
local byte, char, find, format = string.byte, string.char, string.find, string.format
local sub, upper = string.sub, string.upper

local function sign(x)
  if x > 0 then return 1 elseif x < 0 then return -1 else return 0 end
end

local total, letters = 0, 0
for i = 1, 500000 do
  local offset = i - 250000
  total = total + floor(abs(offset) / 1000) + sign(offset)
  local text = format("% .7g", offset)
  total = total + #text + byte(sub(text, 1, 1)) + byte(sub(text, -1))
  local letter = char(97 + i % 26)
  if upper(letter) == "Q" then letters = letters + 1 end
  total = total + (find("etaoinshrdlu", letter, 1, true) or 0)
end
print(total, letters)

-- A text read character by character: fields counted, the rest summed up.

local byte, sub = string.byte, string.sub

local function sample_text(lines)
  local pieces = {}
  for i = 1, lines do
    pieces[i] = i .. ",clip,1920x1080;"
  end
  return table.concat(pieces)
end

local text = sample_text(150000)
local fields, records, check = 0, 0, 0
for i = 1, #text do
  local c = sub(text, i, i)
  if c == "," then
    fields = fields + 1
  elseif c == ";" then
    records = records + 1
  else
    check = (check * 31 + byte(c)) % 1000003
  end
end
print(fields, records, check)

-- The words of a generated text, counted.

local function sample_text(count)
  local first = { "ba", "ke", "li", "mo", "nu", "pra", "ste", "tri", "vo", "wu" }
  local middle = { "la", "ne", "ri", "so", "tu", "ma", "de", "fi", "go", "hu" }
  local last = { "n", "r", "s", "t", "l", "m", "x", "d", "k", "p" }
  local pieces, n = {}, 0
  local seed = 42
  for _ = 1, count do
    seed = (seed * 16807) % 0x7FFFFFFF
    pieces[n + 1] = first[seed % 10 + 1]
    pieces[n + 2] = middle[seed % 7 + 1]
    pieces[n + 3] = middle[seed % 9 + 1]
    pieces[n + 4] = last[seed % 8 + 1]
    pieces[n + 5] = " "
    n = n + 5
  end
  return table.concat(pieces)
end

local text = sample_text(1000000)
local counts = {}
for word in text:gmatch("[^ ]+") do
  counts[word] = (counts[word] or 0) + 1
end

local different, highest = 0, 0
for _, count in pairs(counts) do
  different = different + 1
  if count > highest then highest = count end
end
print(different, highest, counts["balalan"])

-- A long text built piece by piece.

local function report(lines)
  local words = { "alpha", "beta", "gamma", "delta", "epsilon" }
  local pieces, n = {}, 0
  for i = 1, lines do
    pieces[n + 1] = words[i % 5 + 1]
    pieces[n + 2] = ", "
    pieces[n + 3] = words[i % 3 + 1]
    pieces[n + 4] = ";"
    n = n + 4
  end
  return table.concat(pieces)
end

local text = report(2000000)
print(#text, text:sub(1, 40), text:sub(-20))

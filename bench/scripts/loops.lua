-- Nested integer loops.

local function total(size)
  local sum = 0
  for i = 1, size do
    for j = 1, size do
      for k = 1, size do
        sum = sum + (i * j + k) % 7
      end
    end
  end
  return sum
end

print(total(330))

-- The product of two square matrices of floating-point numbers.

local function new_matrix(size, modulus)
  local matrix = {}
  for i = 1, size do
    local row = {}
    for j = 1, size do
      row[j] = ((i - 1) * 3 + j - 1) % modulus + 0.5
    end
    matrix[i] = row
  end
  return matrix
end

local function product(a, b, size)
  local c = {}
  for i = 1, size do
    local row = a[i]
    local result = {}
    for j = 1, size do
      local sum = 0.0
      for k = 1, size do
        sum = sum + row[k] * b[k][j]
      end
      result[j] = sum
    end
    c[i] = result
  end
  return c
end

local size = 300
local c = product(new_matrix(size, 7), new_matrix(size, 5), size)
print(c[1][1], c[1][size], c[101][38], c[size][size])

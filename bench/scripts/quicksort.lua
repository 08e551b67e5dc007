-- Quicksort of an array of pseudo-random integers.

local function quicksort(a, low, high)
  while low < high do
    local pivot = a[(low + high) // 2]
    local i, j = low, high
    while i <= j do
      while a[i] < pivot do
        i = i + 1
      end
      while a[j] > pivot do
        j = j - 1
      end
      if i <= j then
        a[i], a[j] = a[j], a[i]
        i = i + 1
        j = j - 1
      end
    end

    -- The smaller part by a call, the larger one by the loop: the depth stays logarithmic.
    if j - low < high - i then
      quicksort(a, low, j)
      low = i
    else
      quicksort(a, i, high)
      high = j
    end
  end
end

local count = 800000
local numbers = {}
local seed = 42
for i = 1, count do
  seed = (seed * 16807) % 0x7FFFFFFF
  numbers[i] = seed
end

quicksort(numbers, 1, count)

local check = 0
for i = 1, count do
  check = (check * 31 + numbers[i]) % 1000003
end
print(check, numbers[1], numbers[count])

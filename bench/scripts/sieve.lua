-- The sieve of Eratosthenes.

local function count_primes(limit)
  local composite = {}
  for i = 1, limit do
    composite[i] = false
  end

  local count = 0
  for i = 2, limit do
    if not composite[i] then
      count = count + 1
      for j = i + i, limit, i do
        composite[j] = true
      end
    end
  end
  return count
end

print(count_primes(5000000))

-- 200,000 keys inserted into a table, then looked up.

local count = 200000
local t = {}
for i = 1, count do
  t["key" .. i] = i
end

local check = 0
for i = 1, count do
  check = (check * 31 + t["key" .. i]) % 1000003
end
print(check)

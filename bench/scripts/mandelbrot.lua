-- The Mandelbrot set: how many points of a grid stay bounded.

local function stays_bounded(cx, cy, limit)
  local x, y = 0.0, 0.0
  for _ = 1, limit do
    local xx = x * x
    local yy = y * y
    if xx + yy > 4.0 then return false end
    y = 2.0 * x * y + cy
    x = xx - yy + cx
  end
  return true
end

local width, height = 1200, 800
local inside = 0
for row = 0, height - 1 do
  local cy = row * 2.0 / height - 1.0
  for column = 0, width - 1 do
    local cx = column * 3.0 / width - 2.0
    if stays_bounded(cx, cy, 70) then inside = inside + 1 end
  end
end
print(inside)

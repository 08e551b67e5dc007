-- A queue: people in a circle, every third one leaves.

local function new_queue()
  return { head = 1, tail = 0 }
end

local function add_tail(queue, value)
  local tail = queue.tail + 1
  queue.tail = tail
  queue[tail] = value
end

local function remove_head(queue)
  local head = queue.head
  if head > queue.tail then return nil end
  local value = queue[head]
  queue[head] = nil
  queue.head = head + 1
  return value
end

local function last_one(people, leap)
  local circle = new_queue()
  for i = 1, people do
    add_tail(circle, i)
  end
  for _ = people, 2, -1 do
    for _ = 2, leap do
      add_tail(circle, remove_head(circle))
    end
    remove_head(circle)
  end
  return remove_head(circle)
end

print(last_one(1000000, 3))

-- Planets: each body is a table with its position, velocity and mass.

local sqrt = math.sqrt

local function new_body(x, y, z, vx, vy, vz, mass)
  local days_per_year = 365.24
  local solar_mass = 4.0 * math.pi * math.pi
  return {
    x = x,
    y = y,
    z = z,
    vx = vx * days_per_year,
    vy = vy * days_per_year,
    vz = vz * days_per_year,
    mass = mass * solar_mass,
  }
end

local function solar_system()
  return {
    new_body(0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 1.0),
    new_body(4.84143144246472090, -1.16032004402742839, -0.103622044471123109, 0.00166007664274403694, 0.00769901118419740425, -0.0000690460016972063023, 0.000954791938424326609),
    new_body(8.34336671824457987, 4.12479856412430479, -0.403523417114321381, -0.00276742510726411542, 0.00499852801234917238, 0.0000230417297573763929, 0.000285885980666130812),
    new_body(12.8943695621391310, -15.1111514016986312, -0.223307578892655734, 0.00296460137564761618, 0.00237847173959480950, -0.0000296589568540237556, 0.0000436624404335156298),
    new_body(15.3796971148509165, -25.9193146099879641, 0.179258772950371181, 0.00268067772490389322, 0.00162824170038242295, -0.0000951592254519715870, 0.0000515138902046611451),
  }
end

-- The sun gets the velocity that leaves the whole system at rest.
local function settle(bodies)
  local px, py, pz = 0.0, 0.0, 0.0
  for _, body in ipairs(bodies) do
    px = px + body.vx * body.mass
    py = py + body.vy * body.mass
    pz = pz + body.vz * body.mass
  end
  local sun = bodies[1]
  sun.vx = -px / sun.mass
  sun.vy = -py / sun.mass
  sun.vz = -pz / sun.mass
end

local function advance(bodies, dt)
  local last = #bodies
  for i = 1, last do
    local a = bodies[i]
    for j = i + 1, last do
      local b = bodies[j]
      local dx = a.x - b.x
      local dy = a.y - b.y
      local dz = a.z - b.z
      local distance2 = dx * dx + dy * dy + dz * dz
      local pull = dt / (distance2 * sqrt(distance2))
      local pull_of_b = b.mass * pull
      a.vx = a.vx - dx * pull_of_b
      a.vy = a.vy - dy * pull_of_b
      a.vz = a.vz - dz * pull_of_b
      local pull_of_a = a.mass * pull
      b.vx = b.vx + dx * pull_of_a
      b.vy = b.vy + dy * pull_of_a
      b.vz = b.vz + dz * pull_of_a
    end
  end
  for _, body in ipairs(bodies) do
    body.x = body.x + dt * body.vx
    body.y = body.y + dt * body.vy
    body.z = body.z + dt * body.vz
  end
end

local function energy(bodies)
  local sum = 0.0
  local last = #bodies
  for i = 1, last do
    local a = bodies[i]
    sum = sum + 0.5 * a.mass * (a.vx * a.vx + a.vy * a.vy + a.vz * a.vz)
    for j = i + 1, last do
      local b = bodies[j]
      local dx = a.x - b.x
      local dy = a.y - b.y
      local dz = a.z - b.z
      sum = sum - a.mass * b.mass / sqrt(dx * dx + dy * dy + dz * dz)
    end
  end
  return sum
end

local bodies = solar_system()
settle(bodies)
print(energy(bodies))
for _ = 1, 150000 do
  advance(bodies, 0.01)
end
print(energy(bodies))

-- Objects: tables whose members are values and functions.

local function deposit(self, amount)
  self.balance = self.balance + amount
  self.moves = self.moves + 1
end

local function withdraw(self, amount)
  if amount > self.balance then return false end
  self.balance = self.balance - amount
  self.moves = self.moves + 1
  return true
end

local function worth(self)
  return self.balance - self.moves
end

local function new_account(owner, balance)
  return {
    owner = owner,
    balance = balance,
    moves = 0,
    deposit = deposit,
    withdraw = withdraw,
    worth = worth,
  }
end

local savings = new_account("savings", 1000)
local spending = new_account("spending", 0)
local refused = 0
for i = 1, 4000000 do
  local amount = i % 13
  if savings:withdraw(amount) then
    spending:deposit(amount)
  else
    refused = refused + 1
    savings:deposit(spending.balance)
    spending.balance = 0
  end
end
print(savings:worth(), spending:worth(), refused)

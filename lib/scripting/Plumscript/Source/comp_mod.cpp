// Modules and their symbol tables.
//
// Lists only grow while a text is compiled; an index that was handed out stays right. Functions,
// texts, names and line records live in deques, so their addresses hold for the module's life. The
// flat arrays are made from the lists by modLink and are all that a running program needs.
#include "comp_mod.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "containers.h"
#include "psc.h"

namespace {

constexpr int32_t kTableBuckets = 256;

std::string lowered(std::string_view text) {
  std::string s(text);
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
  }
  return s;
}

template <class T>
uint32_t indexByValue(std::vector<T>& list, T value) {
  for (size_t i = 0; i < list.size(); i++) {
    if (list[i] == value) return static_cast<uint32_t>(i);
  }
  list.push_back(value);
  return static_cast<uint32_t>(list.size() - 1);
}

uint32_t storedIndex(const void* data) {
  return static_cast<uint32_t>(*static_cast<const uint64_t*>(data));
}

}  // namespace

psModule* modNew() {
  auto* module = new psModule;
  module->function_table = hashNew(8, kTableBuckets);
  module->string_table = hashNew(8, kTableBuckets);
  module->name_table = hashNew(8, kTableBuckets);
  if (!module->function_table || !module->string_table || !module->name_table) {
    modFree(module);
    throw std::bad_alloc();
  }
  return module;
}

void modFree(psModule* module) {
  psAssertText(module != nullptr, "mod");
  for (psFunction& function : module->function_list) subFree(&function);
  if (module->global_object != nullptr) pscSubRef(module->global_object);
  hashFree(module->function_table);
  hashFree(module->string_table);
  hashFree(module->name_table);
  delete module;
}

const std::string* modAddFileName(psModule* module, std::string_view name) {
  return &module->file_names.emplace_back(name);
}

psFunction* modNewSub(psModule* module, std::string_view name, psFunction* parent) {
  psAssertText(!name.empty(), "len>0");
  psFunction* function = &module->function_list.emplace_back();
  function->name = lowered(name);
  function->index = static_cast<int>(module->function_list.size()) - 1;
  function->parent = parent;
  function->module = module;
  hashAdd(module->function_table, function->name, &function);
  return function;
}

psFunction* modFindSub(const psModule* module, std::string_view name) {
  void* found = hashFind(module->function_table, name);
  return found != nullptr ? *static_cast<psFunction**>(found) : nullptr;
}

// Memory is taken before anything changes, so a module that was linked before stays whole when it
// is refused.
void modLink(psModule* module) {
  module->integers.reserve(module->integer_list.size());
  module->floats.reserve(module->float_list.size());
  module->doubles.reserve(module->double_list.size());
  module->strings.reserve(module->string_list.size());
  module->names.reserve(module->name_list.size());
  module->functions.reserve(module->function_list.size());
  for (psFunction& function : module->function_list) {
    function.label_positions.reserve(function.labels.size());
  }
  modUnlink(module);
  module->integers = module->integer_list;
  module->floats = module->float_list;
  module->doubles = module->double_list;
  for (const std::string& text : module->string_list) module->strings.push_back(&text);
  for (const psName& name : module->name_list) module->names.push_back(&name);
  for (psFunction& function : module->function_list) {
    // A chain of definitions is gone through once: the next time it is one step.
    while (function.newer != nullptr && function.newer->newer != nullptr) {
      function.newer = function.newer->newer;
    }
    module->functions.push_back(function.newer != nullptr ? function.newer : &function);
    function.variable_count = static_cast<uint32_t>(function.variables.size());
    function.label_positions.clear();
    for (const psLabel& label : function.labels) function.label_positions.push_back(label.pc);
  }
}

void modUnlink(psModule* module) {
  module->integers.clear();
  module->floats.clear();
  module->doubles.clear();
  module->strings.clear();
  module->names.clear();
  module->functions.clear();
}

void subFree(psFunction* function) {
  psAssertText(function != nullptr, "sub");
  psFreeDecoded(function);
  function->code = {};
  function->proto = {};
  function->callvarinits = {};
  function->label_positions = {};
  function->variables = {};
  function->labels = {};
}

uint32_t AddIntConstant(psModule* module, int32_t value) {
  const auto next = static_cast<uint32_t>(module->integer_list.size());
  const auto [at, added] = module->integer_index.try_emplace(value, next);
  if (added) module->integer_list.push_back(value);
  return at->second;
}

// At most a few hundred of these can be used by one module, so a search by value will do.
uint32_t AddFloatConstant(psModule* module, float value) {
  return indexByValue(module->float_list, value);
}

uint32_t AddDoubleConstant(psModule* module, double value) {
  return indexByValue(module->double_list, value);
}

uint32_t AddStringConstant(psModule* module, std::string_view text) {
  if (const void* found = hashFindExact(module->string_table, text)) return storedIndex(found);
  const uint64_t index = module->string_list.size();
  hashAddExact(module->string_table, module->string_list.emplace_back(text), &index);
  return static_cast<uint32_t>(index);
}

uint32_t AddName(psModule* module, std::string_view text) {
  if (const void* found = hashFind(module->name_table, text)) return storedIndex(found);
  const uint64_t index = module->name_list.size();
  std::string name = lowered(text);
  const uint32_t hash = psKeyHash(name);
  const auto bucket = static_cast<uint8_t>(psKeyBucket(hash));
  uint64_t first8 = 0;
  std::memcpy(&first8, name.data(), std::min(name.size(), sizeof first8));
  module->name_list.push_back({std::move(name), hash, bucket, first8});
  hashAdd(module->name_table, module->name_list.back().text, &index);
  return static_cast<uint32_t>(index);
}

int subAddVar(psFunction* function, std::string_view name, uint16_t type) {
  std::vector<psVariable>& variables = function->variables;
  for (size_t i = 0; i < variables.size(); i++) {
    if (hashEqualFold(variables[i].name, name)) return static_cast<int>(i);
  }
  variables.push_back({lowered(name), type});
  return static_cast<int>(variables.size()) - 1;
}

const psVariable& GetVarByIndex(const psFunction* function, unsigned index) {
  psAssert(index < function->variables.size());
  return function->variables[index];
}

const psName& GetIdByIndex(const psModule* module, unsigned index) {
  psAssert(index < module->name_list.size());
  return module->name_list[index];
}

unsigned long psNextCounter() {
  static std::atomic<unsigned long> counter{0};
  return counter.fetch_add(1, std::memory_order_relaxed);
}

const psLineData* DebugPCToLine(const psModule* module, int32_t pc, const psFunction* function) {
  psAssertText(module != nullptr, "code->mod");
  for (const psLineData& line : module->lines) {
    if (line.function != function) continue;
    if (pc == -1) return &line;
    if (pc >= 0 && static_cast<uint32_t>(pc) >= line.pc_start && pc <= line.pc_last) return &line;
  }
  return nullptr;
}

// Texts compiled in a core of their own, and what came out of them in forms that a table row can
// hold: code as "1; a; add; -> x", errors as "2(3) 14(x)", line records as "0:1 5:2".
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <regex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bytecode.h"
#include "comp.h"
#include "comp_mod.h"
#include "component_test.h"
#include "disasm.h"

namespace compiled {

// The errors in the order in which they were recorded: code(line), or 14(label).
inline std::string describe(const psCompileErrors& errors) {
  std::string text;
  for (const psCompileError& error : errors) {
    if (!text.empty()) text += ' ';
    text += std::to_string(error.code) + '(';
    text += error.code == kPsLabelNotFound ? error.label : std::to_string(error.line);
    text += ')';
  }
  return text;
}

// Names that the compiler makes up are numbered through the whole process: "$anon_1f" reads
// "$anon".
inline std::string withoutNumbers(std::string text) {
  for (size_t at = 0; (at = text.find("$anon_", at)) != std::string::npos;) {
    size_t end = at + 6;
    while (end < text.size() && std::isxdigit(static_cast<unsigned char>(text[end]))) end++;
    text.erase(at + 5, end - at - 5);
    at += 5;
  }
  return text;
}

// The instructions from an offset on, as the disassembler writes them, but shorter: what only
// pushes a value is the value, "&f" a function, "-> x" stores, "as Float" converts, "mid(2)" is a
// built-in function with its arguments, "J1@13" a label and its offset.
inline std::string instructions(const psFunction* function, uint32_t from = 0) {
  static const std::pair<std::regex, const char*> kShorter[] = {
      {std::regex("^(pushint2?|pushstring2?) +#|^pushlocal +|^pushbool +|^push(?=invalid)"), ""},
      {std::regex("^pushfun +#"), "&"},
      {std::regex("^poplocal +"), "-> "},
      {std::regex("^convert +\\[sp\\], newtype="), "as "},
      {std::regex("^convert +(\\S+), newtype="), "$1 as "},
      {std::regex("^call_(?:global +)?(\\w+)(?: +num_args=|\\(num_args=)(\\d+)\\)?"), "$1($2)"},
      {std::regex("^num_fun_args +"), "args "},
      {std::regex(" +\\[sp-(\\d+)\\]$"), " $1"},
      {std::regex("^print +num_args=(\\d+), pattern="), "print $1 "},
      {std::regex("^dim +(\\S+), numdims="), "dim $1 "},
      {std::regex("^createobject_idx index="), "createobject "},
      {std::regex("J0*(\\d+) +' ?(?:jump to )?addr="), "J$1@"},
      {std::regex(" +"), " "}};
  std::string text;
  for (uint32_t pc = from; pc < function->code.size();) {
    std::string one;
    pc = Disasm_impl(function, pc, &one);
    one.pop_back();  // the line end
    for (const auto& [longer, shorter] : kShorter) one = std::regex_replace(one, longer, shorter);
    text += (text.empty() ? "" : "; ") + one;
  }
  return withoutNumbers(std::move(text));
}

inline std::string hex(const std::vector<uint8_t>& bytes) {
  std::string text;
  char pair[4];
  for (const uint8_t byte : bytes) {
    std::snprintf(pair, sizeof pair, "%s%02x", text.empty() ? "" : " ", byte);
    text += pair;
  }
  return text;
}

// Which lines the code belongs to: "offset:line …", a pair wherever the line changes.
inline std::string lineMap(const psFunction* function) {
  std::string text;
  int last = -1;
  for (size_t pc = 0; pc < function->code.size(); pc++) {
    const psLineData* record = DebugPCToLine(function->module, static_cast<int32_t>(pc), function);
    const int line = record != nullptr ? record->line_num : 0;
    if (line == last) continue;
    last = line;
    if (!text.empty()) text += ' ';
    text += std::to_string(pc) + ':' + (record != nullptr ? std::to_string(line) : "none");
  }
  return text;
}

class Program {
 public:
  Program() = default;
  Program(psModule* module, psCompileErrors errors) : errors_(std::move(errors)), module_(module) {}
  Program(Program&& other) noexcept
      : errors_(std::move(other.errors_)), module_(std::exchange(other.module_, nullptr)) {}
  Program& operator=(Program&&) = delete;
  ~Program() {
    if (module_ != nullptr) modFree(module_);
  }

  psModule* module() const { return module_; }
  std::string errors() const { return describe(errors_); }
  const psCompileErrors& errorList() const { return errors_; }
  psFunction* function(std::string_view name) const {
    return module_ != nullptr ? modFindSub(module_, name) : nullptr;
  }
  psFunction* main() const { return function("main"); }
  // The code of one function; what is wrong when there is none.
  std::string code(std::string_view name = "main") const {
    if (module_ == nullptr) return "errors " + errors();
    const psFunction* found = function(name);
    return found != nullptr ? instructions(found) : "no function";
  }

 private:
  psCompileErrors errors_;
  psModule* module_ = nullptr;
};

class Compiler {
 public:
  Compiler() { compInit(); }
  ~Compiler() { compUninit(); }
  Compiler(const Compiler&) = delete;
  Compiler& operator=(const Compiler&) = delete;

  component_test::Core& core() { return core_; }
  pscDomain* domain() { return core_.domain(); }
  Program compile(std::string_view text, psProc* process = nullptr) {
    psModule* module = nullptr;
    psCompileErrors errors = compileText(text, &module, "test.plm", domain(), process);
    EXPECT_EQ(errors.empty(), module != nullptr);
    return {module, std::move(errors)};
  }

 private:
  component_test::Core core_;
};

// Count copies of a text in which every "~" is the copy's number, from 0 on.
inline std::string numbered(int count, std::string_view pattern) {
  std::string text;
  for (int i = 0; i < count; i++) {
    for (const char c : pattern) {
      if (c == '~') {
        text += std::to_string(i);
      } else {
        text += c;
      }
    }
  }
  return text;
}

inline std::string repeated(int count, std::string_view piece) {
  std::string text;
  for (int i = 0; i < count; i++) text += piece;
  return text;
}

}  // namespace compiled

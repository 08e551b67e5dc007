// Every text comes from the instruction table; this file finds out what its directives stand for.
#include "disasm.h"

#include <cstdarg>
#include <cstdio>

#include "bytecode.h"
#include "clglobal.h"

namespace {

// Appends a formatted text of any length.
[[gnu::format(printf, 2, 3)]] void append(std::string* text, const char* format, ...) {
  char buffer[256];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  if (length >= 0 && static_cast<size_t>(length) < sizeof buffer) {
    text->append(buffer, static_cast<size_t>(length));
  } else if (length >= 0) {
    const size_t size = text->size();
    text->resize(size + static_cast<size_t>(length) + 1);
    std::vsnprintf(text->data() + size, static_cast<size_t>(length) + 1, format, again);
    text->resize(size + static_cast<size_t>(length));
  }
  va_end(again);
}

// The formats come from the instruction table, where the compiler cannot match them to arguments.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <class... Args>
void appendRow(std::string* text, const psOpcodeRow* row, Args... args) {
  append(text, row->listing, args...);
}
#pragma GCC diagnostic pop

const char* localName(const psFunction* function, unsigned slot) {
  return GetVarByIndex(function, slot).name.c_str();
}

const char* memberName(const psFunction* function, unsigned index) {
  return GetIdByIndex(function->module, index).text.c_str();
}

int labelAddress(const psFunction* function, unsigned label) {
  psAssert(label < function->label_positions.size());
  return function->label_positions[label];
}

const char* stringConstant(const psFunction* function, unsigned index) {
  psAssert(index < function->module->strings.size());
  return function->module->strings[index]->c_str();
}

int integerConstant(const psFunction* function, unsigned index) {
  psAssert(index < function->module->integers.size());
  return function->module->integers[index];
}

}  // namespace

uint32_t Disasm_impl(const psFunction* function, uint32_t pc, std::string* text) {
  const uint8_t* code = function->code.data();
  const auto size = static_cast<uint32_t>(function->code.size());
  const int len = psInstructionLength(code, size, pc);
  psAssert(len > 0);
  const uint32_t next = pc + static_cast<uint32_t>(len);
  const psOpcodeRow* row = psOpcodeInfo(code[pc]);
  const unsigned b1 = len > 1 ? code[pc + 1] : 0;
  const unsigned b2 = len > 2 ? code[pc + 2] : 0;
  const unsigned wide = b1 + 256 * b2;
  const psModule* module = function->module;
  switch (row->operands) {
    case psOperands::kNone: *text += row->listing; break;
    case psOperands::kString8: appendRow(text, row, stringConstant(function, b1)); break;
    case psOperands::kString16: appendRow(text, row, stringConstant(function, wide)); break;
    case psOperands::kInt8: appendRow(text, row, integerConstant(function, b1)); break;
    case psOperands::kInt16: appendRow(text, row, integerConstant(function, wide)); break;
    case psOperands::kFloat8:
      psAssert(b1 < module->floats.size());
      appendRow(text, row, static_cast<double>(module->floats[b1]));
      break;
    case psOperands::kDouble8:
      psAssert(b1 < module->doubles.size());
      appendRow(text, row, module->doubles[b1]);
      break;
    case psOperands::kFunction16: {
      const unsigned index = 256 * b1 + b2;
      psAssert(index < module->functions.size());
      appendRow(text, row, module->functions[index]->name.c_str());
      break;
    }
    case psOperands::kGlobalCall:
      psAssert(b2 < static_cast<unsigned>(kPsGlobalFunctionCount));
      appendRow(text, row, kPsGlobalFunctions[b2].name, b1);
      break;
    case psOperands::kCount:
    case psOperands::kClassIndex: appendRow(text, row, b1); break;
    case psOperands::kRelative:
      // The pretests show the byte behind them, too. Kept so.
      appendRow(text, row, b1, next < size ? code[next] : 0);
      break;
    case psOperands::kPrint: {
      const std::string pattern(code + pc + 2, code + next - 1);
      appendRow(text, row, b1, pattern.c_str());
      break;
    }
    case psOperands::kLabel: appendRow(text, row, b1, labelAddress(function, b1)); break;
    case psOperands::kType: appendRow(text, row, psTypeInternalName(b1)); break;
    case psOperands::kLocal: appendRow(text, row, localName(function, b1)); break;
    case psOperands::kLocalType:
      appendRow(text, row, localName(function, b1), psTypeInternalName(b2));
      break;
    case psOperands::kName8: appendRow(text, row, memberName(function, b1)); break;
    case psOperands::kName16: appendRow(text, row, memberName(function, wide)); break;
    case psOperands::kLocalLabel:
      appendRow(text, row, localName(function, b1), b2, labelAddress(function, b2));
      break;
    case psOperands::kCountLocal: appendRow(text, row, localName(function, b2), b1); break;
  }
  return next;
}

uint32_t DisasmStmt(const psFunction* function, uint32_t pc, std::string* text) {
  constexpr const char* kMargin = "         ";  // of the label column
  const uint8_t* code = function->code.data();
  const int len = psInstructionLength(code, static_cast<uint32_t>(function->code.size()), pc);
  psAssert(len > 0);
  int label = -1;
  for (size_t i = 0; i < function->label_positions.size() && label < 0; i++) {
    if (function->label_positions[i] == static_cast<int32_t>(pc)) label = static_cast<int>(i);
  }
  if (label >= 0) {
    char column[24];
    std::snprintf(column, sizeof column, "J%03d ", label);
    append(text, "%-9s", column);
  } else {
    *text += kMargin;
  }
  for (int i = 0; i < len; i++) {
    if (i > 0 && i % 3 == 0) {
      *text += '\n';
      *text += kMargin;
    }
    append(text, "%02x ", code[pc + static_cast<uint32_t>(i)]);
  }
  if (len % 3 == 1) *text += "      ";
  if (len % 3 == 2) *text += "   ";
  return Disasm_impl(function, pc, text);
}

// The disassembler: instructions as people read them.
//
// Both functions append to a text and give the offset of the next instruction. pc must be where an
// instruction begins (a broken one is an assertion failure), and the module must be linked.
#pragma once

#include <cstdint>
#include <string>

#include "comp_mod.h"

// One instruction: "pushint     #5\n".
uint32_t Disasm_impl(const psFunction* function, uint32_t pc, std::string* text);
// One instruction with the label that leads to it and its bytes, three on a line, before the text.
uint32_t DisasmStmt(const psFunction* function, uint32_t pc, std::string* text);

// Emitters, and everything about code that is only settled or moved after it was emitted:
// identifiers, variables, pending references, labels, line records.
//
// The invariant is that every pending reference, line record and open line of the function being
// compiled names the code it was made for, whatever has moved since.
#include "comp_internal.h"

#include <algorithm>
#include <cstdio>

#include "clglobal.h"

namespace {

struct BuiltinCall {
  std::string_view name;
  psOpcode opcode;
};
constexpr BuiltinCall kBuiltinCalls[] = {
    {"CreateObject", kOpCallCreateObject},
    {"Type", kOpCallType},
    {"Pos", kOpCallPos},
    {"GetGlobalAA", kOpCallGetGlobalAA},
    {"Eval", kOpCallEval},
    {"Box", kOpCallBox},
    {"ObjFun", kOpCallObjFun},
    {"Run", kOpCallRun},
    {"GetLastRunRuntimeError", kOpCallRunRtErr},
    {"GetLastRunCompileError", kOpCallRunClErr},
};

// One-byte form below 256, else the two-byte one.
psStatus emitIndexed(psParser* p, psOpcode narrow, psOpcode wide, uint32_t index) {
  if (index > kPsMaxWideIndex) return kPsConstantTableFull;
  if (index <= 255) {
    emit(p, narrow, static_cast<uint8_t>(index));
  } else {
    emit(p, wide, static_cast<uint8_t>(index & 0xff), static_cast<uint8_t>(index >> 8));
  }
  return kPsOkay;
}

psStatus emitNarrow(psParser* p, psOpcode opcode, uint32_t index) {
  emit(p, opcode);
  if (index > kPsMaxByteIndex) return kPsConstantTableFull;
  emit(p, static_cast<uint8_t>(index));
  return kPsOkay;
}

}  // namespace

psStatus EmitInt(psParser* p, int32_t value) {
  return emitIndexed(p, kOpPushInt, kOpPushInt2, AddIntConstant(p->module, value));
}

psStatus EmitFloat(psParser* p, float value) {
  return emitNarrow(p, kOpPushFloat, AddFloatConstant(p->module, value));
}

psStatus EmitDouble(psParser* p, double value) {
  return emitNarrow(p, kOpPushDouble, AddDoubleConstant(p->module, value));
}

psStatus EmitString(psParser* p, std::string_view text) {
  return emitIndexed(p, kOpPushString, kOpPushString2, AddStringConstant(p->module, text));
}

// The one operand with its high byte first.
psStatus EmitPushFun(psParser* p, int index) {
  if (static_cast<uint32_t>(index) > kPsMaxWideIndex) return kPsConstantTableFull;
  emit(p, kOpPushFun, static_cast<uint8_t>(index >> 8), static_cast<uint8_t>(index & 0xff));
  return kPsOkay;
}

psStatus EmitDot(psParser* p, std::string_view name) {
  return emitIndexed(p, kOpDot, kOpDot2, AddName(p->module, name));
}

psStatus EmitDotSet(psParser* p, uint32_t index) {
  return emitIndexed(p, kOpDotSet, kOpDotSet2, index);
}

psStatus EmitAttr(psParser* p, std::string_view name) {
  const uint32_t index = AddName(p->module, name);
  if (index > kPsMaxWideIndex) return kPsConstantTableFull;
  emit(p, kOpAttr, static_cast<uint8_t>(index & 0xff), static_cast<uint8_t>(index >> 8));
  return kPsOkay;
}

psStatus EmitVar(psParser* p, int index, psVarKind kind) {
  if (index < 0) return kPsTypeMismatch;
  if (static_cast<uint32_t>(index) > kPsMaxByteIndex) return kPsVariableTableFull;
  const auto byte = static_cast<uint8_t>(index);
  switch (kind) {
    case kVarPush: emit(p, kOpPushLocal, byte, 0); break;
    case kVarPop: emit(p, kOpPopLocal, byte, 0); break;
    case kVarByte: emit(p, byte); break;
  }
  return kPsOkay;
}

psStatus EmitNewArray(psParser* p) {
  psStatus err = EmitString(p, "koArray");
  if (err == kPsOkay) err = EmitInt(p, 10);
  if (err != kPsOkay) return err;
  emit(p, kOpPushTrue);
  emit(p, kOpCallCreateObject, 3);
  return kPsOkay;
}

void EmitNewAA(psParser* p) {
  if (p->aa_class_index < 0) {
    const pscClass* cl = pscFindClassByName("koAssociativeArray");
    p->aa_class_index = cl != nullptr ? cl->index : 0;
  }
  emit(p, kOpCreateObjectIdx, static_cast<uint8_t>(p->aa_class_index));
}

psStatus EmitDefaultReturn(psParser* p, uint32_t type) {
  if (type == psVoid || type == psDynamic) {
    emit(p, kOpPushInvalid);
  } else {
    const psStatus err = EmitInt(p, 0);
    if (err != kPsOkay) return err;
    emit(p, kOpConvertTop, static_cast<uint8_t>(type));
  }
  emit(p, kOpReturn);
  return kPsOkay;
}

// --- Identifiers and variables ----------------------------------------------------------------

namespace {

void growIdents(psParser* p) {
  std::vector<psIdent*> table(std::max<size_t>(256, p->ident_table.size() * 2));
  const size_t mask = table.size() - 1;
  for (psIdent* ident : p->ident_table) {
    if (ident == nullptr) continue;
    size_t at = ident->hash & mask;
    while (table[at] != nullptr) at = (at + 1) & mask;
    table[at] = ident;
  }
  p->ident_table.swap(table);
}

// The place of a name in the table, free or not; the table must not be empty.
size_t identPlace(const psParser* p, std::string_view text, uint32_t hash) {
  const size_t mask = p->ident_table.size() - 1;
  size_t at = hash & mask;
  while (true) {
    const psIdent* ident = p->ident_table[at];
    if (ident == nullptr || (ident->hash == hash && hashEqualFold(ident->text, text))) return at;
    at = (at + 1) & mask;
  }
}

}  // namespace

psIdent* mpFindIdent(const psParser* p, std::string_view text, uint32_t hash) {
  return p->ident_table.empty() ? nullptr : p->ident_table[identPlace(p, text, hash)];
}

psIdent* mpIdent(psParser* p, std::string_view text, uint32_t hash) {
  if (p->idents.size() * 2 >= p->ident_table.size()) growIdents(p);
  psIdent*& place = p->ident_table[identPlace(p, text, hash)];
  if (place != nullptr) return place;
  psIdent* ident = &p->idents.emplace_back();
  ident->text = text;
  for (char& c : ident->text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
  }
  ident->hash = hash;
  for (const BuiltinCall& call : kBuiltinCalls) {
    if (hashEqualFold(call.name, text)) ident->builtin = call.opcode;
  }
  for (int i = 0; i < kPsGlobalFunctionCount && ident->global_function < 0; i++) {
    if (hashEqualFold(kPsGlobalFunctions[i].name, text)) {
      ident->global_function = static_cast<int16_t>(i);
    }
  }
  place = ident;
  return ident;
}

int mpVariable(psParser* p, psFunction* function, psIdent* ident) {
  if (function == nullptr) function = p->sp.sub;
  const auto known = static_cast<size_t>(ident->var_index);
  if (ident->var_function == function && known < function->variables.size() &&
      function->variables[known].name == ident->text) {
    return ident->var_index;
  }
  ident->var_index = subAddVar(function, ident->text, lexTypeFromSuffix(ident->text));
  ident->var_function = function;
  return ident->var_index;
}

// --- References -------------------------------------------------------------------------------

void mpAddVarOrSubReference(psParser* p, psIdent* ident, uint32_t pc) {
  p->references.push_back({ident, p->sp.sub, pc});
}

bool mpResolveReferences(psParser* p) {
  bool all = true;
  for (const psReference& reference : p->references) {
    psIdent* ident = reference.ident;
    if (!ident->resolved) {
      void* found = hashFindHashed(p->module->function_table, ident->text, ident->hash);
      if (found != nullptr) ident->function = *static_cast<psFunction**>(found);
      ident->resolved = true;
    }
    uint8_t* code = &reference.function->code[reference.pc];
    psAssertText(code[0] == kOpPushLocal, "mem[emit_at] == (128+41)");
    psStatus err = kPsOkay;
    if (ident->function != nullptr) {
      const auto index = static_cast<uint32_t>(ident->function->index);
      if (index > kPsMaxWideIndex) {
        err = kPsConstantTableFull;
      } else {
        code[0] = kOpPushFun;
        code[1] = static_cast<uint8_t>(index >> 8);
        code[2] = static_cast<uint8_t>(index & 0xff);
      }
    } else {
      const int index = mpVariable(p, reference.function, ident);
      if (static_cast<uint32_t>(index) > kPsMaxByteIndex) {
        err = kPsVariableTableFull;
      } else {
        code[1] = static_cast<uint8_t>(index);
      }
    }
    if (err == kPsOkay) continue;
    all = false;
    if (AddError(p, err) != kPsOkay) break;
  }
  return all;
}

// --- Snapshots and moving code ----------------------------------------------------------------

psSnapshot mpSnapshot(const psParser* p) {
  return {p->lex, pcNow(p), p->references.size(), p->module->lines.size(),
          p->sp.sub->variables.size()};
}

void mpRestore(psParser* p, const psSnapshot& s) {
  rdSeek(p->sp.code, s.pc);
  p->lex = s.lex;
  p->references.resize(s.references);
  p->sp.sub->variables.resize(s.variables);
  while (p->module->lines.size() > s.lines) p->module->lines.pop_back();
}

namespace {

// The records since the snapshot that belong to the function being compiled, in code order. The
// first is of the line on which the snapshot was taken.
std::vector<psLineData*> ownLines(psParser* p, const psSnapshot& at) {
  std::vector<psLineData*> own;
  std::deque<psLineData>& lines = p->module->lines;
  for (size_t i = at.lines; i < lines.size(); i++) {
    if (lines[i].function == p->sp.sub) own.push_back(&lines[i]);
  }
  return own;
}

// A record of the line the parser is on, as it will be when the line ends.
psLineData currentLine(const psParser* p, uint32_t pc) {
  const char* to = p->lex.pos;
  while (*to != '\0' && *to != p->lex.line_end) to++;
  psLineData line;
  line.srccpy = lexLineText(p, to);
  line.pc_start = pc;
  line.line_num = p->lex.line_num;
  line.function = p->sp.sub;
  line.file = p->lex.file;
  return line;
}

// Line records after [t0, t1) and [t1, end) have changed places. A line whose code is now in two
// places gets a record for each.
void moveLines(psParser* p, const psSnapshot& at, uint32_t t0, uint32_t t1, uint32_t end) {
  const std::vector<psLineData*> own = ownLines(p, at);
  if (own.empty()) return;
  if (p->lex.line_num == at.lex.line_num) {
    // Pieces of one line, around an anonymous function: the first stands for all.
    for (size_t i = 1; i < own.size(); i++) own[i]->pc_start = end;
    p->lex.line_pc_start = end;
    return;
  }
  // Lines by number: own[0], own[1] …, and last the line that is still open.
  const size_t open = own.size();
  const auto start = [&](size_t line) {
    return line < open ? own[line]->pc_start : line == open ? p->lex.line_pc_start : end;
  };
  struct Piece {
    size_t line;
    uint32_t pc;
  };
  std::vector<Piece> pieces;
  const auto add = [&](size_t line, uint32_t pc) {
    if (pieces.empty() || pieces.back().line != line) pieces.push_back({line, pc});
  };
  if (start(0) < t0) add(0, start(0));
  for (size_t i = 0; i <= open; i++) {
    const uint32_t begin = start(i);
    const uint32_t next = start(i + 1);
    const bool empty = begin == next && i < open;
    if (std::max(begin, t1) < next || (empty && begin >= t1)) {
      add(i, std::max(begin, t1) - (t1 - t0));
    }
  }
  for (size_t i = 0; i <= open; i++) {
    const uint32_t begin = start(i);
    const uint32_t next = start(i + 1);
    const bool empty = begin == next && i < open;
    if (std::max(begin, t0) < std::min(next, t1) || (empty && begin < t1)) {
      add(i, std::max(begin, t0) + (end - t1));
    }
  }
  std::vector<psLineData> records;
  records.reserve(pieces.size());
  uint32_t open_pc = end;
  if (pieces.back().line == open) {
    open_pc = pieces.back().pc;
    pieces.pop_back();
  }
  for (const Piece& piece : pieces) {
    records.push_back(piece.line < open ? *own[piece.line] : currentLine(p, 0));
    records.back().pc_start = piece.pc;
  }
  psAssert(records.size() >= own.size());
  for (size_t i = 0; i < records.size(); i++) {
    if (i < own.size()) {
      *own[i] = std::move(records[i]);
    } else {
      p->module->lines.push_back(std::move(records[i]));
    }
  }
  p->lex.line_pc_start = open_pc;
}

}  // namespace

void mpInsertCode(psParser* p, const psSnapshot& at, const uint8_t* bytes, uint32_t n) {
  rdInsert(p->sp.code, at.pc, bytes, n);
  for (size_t i = at.references; i < p->references.size(); i++) {
    psReference& reference = p->references[i];
    if (reference.function == p->sp.sub) reference.pc += n;
  }
  if (p->module->lines.size() == at.lines) return;
  const std::vector<psLineData*> own = ownLines(p, at);
  if (own.empty()) return;
  for (size_t i = 1; i < own.size(); i++) own[i]->pc_start += n;
  p->lex.line_pc_start += n;
}

void mpMoveBehind(psParser* p, const psSnapshot& at, uint32_t middle) {
  const uint32_t first = at.pc;
  const uint32_t end = pcNow(p);
  rdExchange(p->sp.code, first, middle);
  for (size_t i = at.references; i < p->references.size(); i++) {
    psReference& reference = p->references[i];
    if (reference.function != p->sp.sub) continue;
    if (reference.pc < middle) {
      reference.pc += end - middle;
    } else {
      reference.pc -= middle - first;
    }
  }
  if (p->module->lines.size() != at.lines) moveLines(p, at, first, middle, end);
}

void mpCreditLine(psParser* p, const psSnapshot& at, uint32_t pc) {
  if (p->lex.line_num == at.lex.line_num) return;
  const std::vector<psLineData*> own = ownLines(p, at);
  psAssert(!own.empty());
  psLineData line = *own[0];
  line.pc_start = pc;
  if (p->lex.line_pc_start < pc) {
    p->module->lines.push_back(currentLine(p, p->lex.line_pc_start));
  }
  p->module->lines.push_back(std::move(line));
  p->lex.line_pc_start = pcNow(p);
}

// --- Labels -----------------------------------------------------------------------------------

bool mpDefineLabel(psParser* p, const psID& id) {
  psIdent* ident = mpIdent(p, id);
  if (!p->sp.defined.try_emplace(ident, pcNow(p)).second) return false;
  p->sp.labels.push_back({ident, id.text(), pcNow(p)});
  return true;
}

void mpAddGoto(psParser* p, const psID& id) {
  p->sp.gotos.push_back({mpIdent(p, id), id.text(), pcNow(p), p->lex.line_num});
  emit(p, 0);
}

void mpResolveGotos(psParser* p) {
  if (p->sp.gotos.empty()) return;
  std::vector<psLabel>& labels = p->sp.sub->labels;
  std::unordered_map<const psIdent*, size_t> index;  // of the first label with a name
  constexpr size_t kUnknown = SIZE_MAX;
  for (const psGoto& jump : p->sp.gotos) index[jump.ident] = kUnknown;
  // Those of earlier compilations into the same function; internal ones are no identifiers.
  for (size_t i = 0; i < labels.size(); i++) {
    const psIdent* ident = mpFindIdent(p, labels[i].name, hashFold(labels[i].name));
    const auto named = index.find(ident);
    if (named != index.end() && named->second == kUnknown) named->second = i;
  }
  for (const psLabelDefinition& label : p->sp.labels) {
    const auto named = index.find(label.ident);
    if (named == index.end()) continue;
    if (named->second == kUnknown) named->second = labels.size();
    labels.push_back({std::string(label.name), static_cast<int32_t>(label.pc)});
  }
  for (const psGoto& jump : p->sp.gotos) {
    const size_t found = index[jump.ident];
    const size_t examined = found != kUnknown ? found + 1 : labels.size();
    // An operand byte reaches label 255; every label looked at behind it is one more error.
    for (size_t i = 256; i < examined; i++) {
      if (AddError(p, kPsLabelNotFound, jump.name, jump.line) != kPsOkay) break;
    }
    if (found == kUnknown) {
      AddError(p, kPsLabelNotFound, jump.name, jump.line);
    } else if (found <= 255) {
      rdWrite(p->sp.code, jump.pc, static_cast<uint8_t>(found));
    }
  }
}

int subNewLabel(psFunction* function, int32_t pc) {
  char name[24];
  std::snprintf(name, sizeof name, "_$%lx", psNextCounter());
  function->labels.push_back({name, pc});
  return static_cast<int>(function->labels.size()) - 1;
}

// Functions, statements, errors, and the entry points.
//
// The first word of a statement chooses it; a word that no statement begins with makes it an
// assignment or a call. Block statements compile their bodies by MatchStatements, which also is
// where errors are recorded: after one, compilation goes on with the next line, so that several can
// be reported, until the fifth or one that makes going on pointless.
#include <algorithm>
#include <new>

#include "comp_internal.h"

// --- Errors -----------------------------------------------------------------------------------

psStatus AddError(psParser* p, psStatus code, std::string_view label, int32_t line) {
  if (p->error_count >= kPsMaxCompileErrors) return code;
  psCompileError& error = p->errors.emplace_back();
  error.file = *p->lex.file;
  error.code = code;
  error.line = line;
  p->error_count++;
  psStatus result = kPsOkay;
  switch (code) {
    case kPsLabelNotFound:
      // Found at the end of a function: there is no line to skip.
      error.label = label.substr(0, 15);
      return kPsOkay;
    case kPsUnexpectedEof:
      error.code = kPsBlockNotTerminated;
      error.line = p->sp.block_line;
      [[fallthrough]];
    case kPsInternalLimit:
    case kPsVariableTableFull:
    case kPsConstantTableFull:
      p->error_count = kPsMaxCompileErrors;
      result = code;
      break;
    default: break;
  }
  lexSkipLine(p);
  return result;
}

psStatus AddError(psParser* p, psStatus code) { return AddError(p, code, {}, p->lex.line_num); }

namespace {

psStatus MatchSimpleStatement(psParser* p);
psStatus MatchSimpleStatement(psParser* p, const psID& id);

bool takeChar(psParser* p, char c) {
  if (lexPeek(p) != c) return false;
  p->lex.pos++;
  return true;
}

// --- Jumps ------------------------------------------------------------------------------------

// Emits a relative jump with an open distance; gives the position of its operand.
uint32_t emitForward(psParser* p, psOpcode opcode) {
  emit(p, opcode, 0);
  return pcNow(p) - 1;
}

// Makes a relative jump lead here. One that is too far becomes a jump to a label; false when the
// function has too many of them, and then the jump leads to the next instruction.
bool patchForward(psParser* p, uint32_t operand) {
  const uint32_t distance = pcNow(p) - operand;
  if (distance <= kPsMaxRelative) {
    rdWrite(p->sp.code, operand, static_cast<uint8_t>(distance));
    return true;
  }
  const int label = subNewLabel(p->sp.sub, static_cast<int32_t>(pcNow(p)));
  if (static_cast<uint32_t>(label) > kPsMaxByteIndex) {
    rdWrite(p->sp.code, operand, 1);
    return false;
  }
  const bool conditional = rdRead(p->sp.code, operand - 1) == kOpIfFalseRelative;
  rdWrite(p->sp.code, operand - 1, conditional ? kOpIfFalseLabel : kOpJump);
  rdWrite(p->sp.code, operand, static_cast<uint8_t>(label));
  return true;
}

// The number of a new label in *label; the given error when instructions cannot name it.
psStatus newLabel(psParser* p, int32_t pc, int* label, psStatus error) {
  *label = subNewLabel(p->sp.sub, pc);
  return static_cast<uint32_t>(*label) <= kPsMaxByteIndex ? static_cast<psStatus>(kPsOkay) : error;
}

// An exit label, made before its position is known, leads here.
void placeLabel(psParser* p, int label) {
  psLabel* n = &p->sp.sub->labels[static_cast<size_t>(label)];
  psAssert(n->pc == -1);
  n->pc = static_cast<int32_t>(pcNow(p));
}

psStatus lineEnd(psParser* p) { return required(lexEndOfStatement(p)); }

psStatus expression(psParser* p) { return required(MatchExpr(p)); }

// --- End words --------------------------------------------------------------------------------

psEndWord endWordBehindEnd(psParser* p) {
  psID id;
  if (!lexGetID(p, &id, false, true)) return kEndWordNone;
  switch (id.keyword) {
    case kKwIf: return kEndWordIf;
    case kKwWhile: return kEndWordWhile;
    case kKwFor: return kEndWordFor;
    case kKwFunction: return kEndWordFunction;
    case kKwSub: return kEndWordSub;
    default: lexRewindToID(p, id); return kEndWordNone;
  }
}

// One of the words that may end the block; anything else is left where it is.
bool MatchEndWord(psParser* p, unsigned words) {
  if (lexPeek(p) == '\0') {
    if (words & kEndWordEof) p->sp.matched = kEndWordEof;
    return words & kEndWordEof;
  }
  psID id;
  if (!lexGetID(p, &id, false, true)) return false;
  unsigned word = kEndWordNone;
  switch (id.keyword) {
    case kKwEnd: word = endWordBehindEnd(p); break;
    case kKwEndIf: word = kEndWordIf; break;
    case kKwEndWhile: word = kEndWordWhile; break;
    case kKwEndFunction: word = kEndWordFunction; break;
    case kKwEndSub: word = kEndWordSub; break;
    case kKwNext: word = kEndWordNext; break;
    case kKwElseIf: word = kEndWordElseIf; break;
    case kKwElse: word = lexMatchWord(p, kKwIf) == kPsOkay ? kEndWordElseIf : kEndWordElse; break;
    case kKwNone:
      if (lexIDEquals(id, "endfor")) word = kEndWordFor;
      break;
    default: break;
  }
  if ((word & words) == 0) {
    lexRewindToID(p, id);
    return false;
  }
  p->sp.matched = static_cast<psEndWord>(word);
  return true;
}

// --- Simple statements ------------------------------------------------------------------------

// PRINT: the instruction's pattern tells what the values are and what stands between them.
constexpr size_t kPrintPatternFull = 19;

psStatus emitPrint(psParser* p, int values, const char* pattern, size_t length, bool newline) {
  emit(p, kOpPrint, static_cast<uint8_t>(values));
  for (size_t i = 0; i < length; i++) emit(p, static_cast<uint8_t>(pattern[i]));
  if (newline) emit(p, 'N');
  emit(p, 'E');
  return kPsOkay;
}

psStatus MatchPRINT(psParser* p) {
  char pattern[kPrintPatternFull + 8];
  size_t length = 0;
  int values = 0;
  // An output channel, then a position; the statement may end behind either.
  for (const char c : {'#', '@'}) {
    if (!takeChar(p, c)) continue;
    const psStatus err = expression(p);
    if (err != kPsOkay) return err;
    pattern[length++] = c;
    values++;
    if (!takeChar(p, ',')) return emitPrint(p, values, pattern, length, true);
  }
  bool newline = true;
  while (length <= kPrintPatternFull) {
    bool any = false;
    psStatus err = MatchExpr(p);
    if (err == kPsOkay) {
      pattern[length++] = 'P';
      values++;
      any = newline = true;
    } else if (err != kPsNoMatch) {
      return err;
    }
    if (lexMatchWord(p, kKwTab) == kPsOkay) {
      if (!takeChar(p, '(')) return kPsSyntaxError;
      err = expression(p);
      if (err != kPsOkay) return err;
      if (!takeChar(p, ')')) return kPsSyntaxError;
      pattern[length++] = 'T';
      values++;
      any = newline = true;
    }
    if (takeChar(p, ';')) {
      any = true;
      newline = false;
    }
    if (takeChar(p, ',')) {
      pattern[length++] = ',';
      any = true;
      newline = false;
    }
    if (!any) break;
  }
  return emitPrint(p, values, pattern, length, newline);
}

// A label's name behind GOTO, THEN or ELSE, if what follows it shows that it is one.
bool atLabelName(psParser* p, psID* id, bool comma) {
  if (!lexGetID(p, id, true, false)) return false;
  if (lexAtStatementEnd(p) || (comma && *p->lex.pos == ',')) return true;
  psID next;
  const bool named = lexGetID(p, &next, false, true) && next.keyword == kKwElse;
  p->lex.pos = named ? next.start : id->start;
  return named;
}

psStatus MatchGOTO(psParser* p) {
  psID id;
  if (!atLabelName(p, &id, true)) return kPsSyntaxError;
  emit(p, kOpJump);
  mpAddGoto(p, id);
  return kPsOkay;
}

psStatus MatchDIM(psParser* p) {
  do {
    psID id;
    if (!lexGetID(p, &id, false, false)) return kPsSyntaxError;
    const int index = mpVariable(p, p->sp.sub, mpIdent(p, id));
    psStatus err = required(MatchArrayArgs(p, kOpDim));
    if (err == kPsOkay) err = EmitVar(p, index, kVarByte);
    if (err != kPsOkay) return err;
  } while (takeChar(p, ','));
  return kPsOkay;
}

psStatus MatchExitWhile(psParser* p) {
  emit(p, kOpJump);
  if (p->sp.exit_while < 0) return kPsExitWhileOutside;
  emit(p, static_cast<uint8_t>(p->sp.exit_while));
  return kPsOkay;
}

psStatus MatchEXIT(psParser* p) {
  if (lexMatchWord(p, kKwWhile) == kPsOkay) return MatchExitWhile(p);
  if (lexMatchWord(p, kKwFor) != kPsOkay) return kPsSyntaxError;
  if (p->sp.exit_for < 0) return kPsExitForOutside;
  emit(p, kOpJump, static_cast<uint8_t>(p->sp.exit_for));
  return kPsOkay;
}

psStatus MatchRETURN(psParser* p) {
  const uint32_t type = p->sp.sub->proto.back();
  const psStatus err = MatchExpr(p);
  if (err == kPsOkay) {
    if (type == psVoid) return kPsReturnValueInVoid;
    if (type != psDynamic) emit(p, kOpConvertTop, static_cast<uint8_t>(type));
  } else if (err == kPsNoMatch) {
    if (type != psVoid) return kPsReturnNeedsValue;
    emit(p, kOpPushInvalid);
  } else {
    return err;
  }
  emit(p, kOpReturn);
  return kPsOkay;
}

// --- IF ---------------------------------------------------------------------------------------

// What follows THEN or ELSE on a line: a label, or simple statements. 184: neither.
psStatus MatchLineIfStatements(psParser* p) {
  if (lexPeek(p) == '\0') return kPsNoMatch;
  psID id;
  if (atLabelName(p, &id, false)) {
    emit(p, kOpJump);
    mpAddGoto(p, id);
    return kPsOkay;
  }
  psStatus err = MatchSimpleStatement(p);
  if (err != kPsOkay) return err;
  while (lexPeek(p) == ':') {
    while (takeChar(p, ':')) {
    }
    if (lexAtStatementEnd(p)) break;
    err = MatchSimpleStatement(p);
    if (err == kPsNoMatch) {
      if (!lexGetID(p, &id, false, true)) return kPsSyntaxError;
      lexRewindToID(p, id);
      return id.keyword == kKwElse ? kPsOkay : kPsSyntaxError;
    }
    if (err != kPsOkay) return err;
  }
  return kPsOkay;
}

// Behind the condition's jump; a statement follows on the line. 184: it is none that may.
psStatus MatchLineIf(psParser* p, uint32_t condition) {
  psStatus err = MatchLineIfStatements(p);
  if (err != kPsOkay) return err;
  if (lexMatchWord(p, kKwElse) != kPsOkay) {
    // A function may run out of labels here; the IF then always takes its THEN part. Kept so.
    patchForward(p, condition);
    return kPsOkay;
  }
  const uint32_t over = emitForward(p, kOpJmpFwd);
  if (!patchForward(p, condition)) return kPsInternalLimit;
  err = required(MatchLineIfStatements(p));
  if (err != kPsOkay) return err;
  return patchForward(p, over) ? kPsOkay : kPsInternalLimit;
}

psStatus condition(psParser* p, uint32_t* jump) {
  const psStatus err = expression(p);
  if (err != kPsOkay) return err;
  lexMatchWord(p, kKwThen);
  *jump = emitForward(p, kOpIfFalseRelative);
  return kPsOkay;
}

// Behind the condition's jump, where the line ends.
psStatus MatchBlockIf(psParser* p, uint32_t jump) {
  std::vector<uint32_t> ends;
  while (true) {
    psStatus err = lineEnd(p);
    if (err == kPsOkay) err = MatchStatements(p, kEndWordElseIf | kEndWordElse | kEndWordIf);
    if (err != kPsOkay) return required(err);
    const psEndWord word = p->sp.matched;
    if (word == kEndWordIf) {
      if (!patchForward(p, jump)) return kPsInternalLimit;
      break;
    }
    ends.push_back(emitForward(p, kOpJmpFwd));
    if (!patchForward(p, jump)) return kPsInternalLimit;
    if (word == kEndWordElse) {
      err = MatchStatements(p, kEndWordIf);
      if (err != kPsOkay) return required(err);
      break;
    }
    err = condition(p, &jump);
    if (err != kPsOkay) return err;
  }
  for (const uint32_t end : ends) {
    if (!patchForward(p, end)) return kPsInternalLimit;
  }
  return kPsOkay;
}

// The line end behind the condition makes it a block; only an IF that begins its line may be one.
psStatus MatchIF(psParser* p, const psID& id, bool begins_line) {
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  psSnapshot start = mpSnapshot(p);
  start.lex.pos = id.start;
  uint32_t jump = 0;
  psStatus err = condition(p, &jump);
  if (err != kPsOkay) return err;
  if (lexAtStatementEnd(p)) {
    if (begins_line) return MatchBlockIf(p, jump);
    err = kPsNoMatch;
  } else {
    err = MatchLineIf(p, jump);
  }
  if (err == kPsNoMatch) mpRestore(p, start);
  return err;
}

// --- Loops ------------------------------------------------------------------------------------

// The body of FOR and FOR EACH, between the loop's instruction and the one that goes round.
psStatus MatchForBody(psParser* p, int exit_label, int* body_label) {
  psStatus err = lineEnd(p);
  if (err != kPsOkay) return err;
  err = newLabel(p, static_cast<int32_t>(pcNow(p)), body_label, kPsTooManyLabels);
  if (err != kPsOkay) return err;
  const int outer = p->sp.exit_for;
  p->sp.exit_for = exit_label;
  err = MatchStatements(p, kEndWordNext | kEndWordFor);
  p->sp.exit_for = outer;
  return err == kPsNoMatch ? static_cast<psStatus>(kPsBlockNotTerminated) : err;
}

// The variable behind NEXT, if there is one, must be the loop's.
psStatus MatchNextVariable(psParser* p, int index) {
  psID id;
  if (!lexGetID(p, &id, false, false)) return kPsOkay;
  const psVariable& variable = p->sp.sub->variables[static_cast<size_t>(index)];
  return lexIDEquals(id, variable.name) ? kPsOkay : kPsNextMismatch;
}

void emitLoop(psParser* p, psOpcode opcode, int index, int label) {
  emit(p, opcode, static_cast<uint8_t>(index), static_cast<uint8_t>(label));
}

// Where the loop ends two values lie on the stack: limit and step, or collection and iterator.
void endLoop(psParser* p, int exit_label) {
  placeLabel(p, exit_label);
  emit(p, kOpDrop, kOpDrop);
}

psStatus MatchFOREACH(psParser* p) {
  psID id;
  if (!lexGetID(p, &id, false, false)) return kPsSyntaxError;
  const int index = mpVariable(p, p->sp.sub, mpIdent(p, id));
  if (static_cast<uint32_t>(index) > kPsMaxByteIndex) return kPsVariableTableFull;
  if (p->sp.sub->variables[static_cast<size_t>(index)].type != psDynamic) {
    return kPsForEachVariableType;
  }
  if (lexMatchWord(p, "in") != kPsOkay) return kPsSyntaxError;
  psStatus err = expression(p);
  if (err != kPsOkay) return err;
  int exit_label = 0;
  int body_label = 0;
  err = newLabel(p, -1, &exit_label, kPsTooManyLabels);
  if (err != kPsOkay) return err;
  emitLoop(p, kOpForEach, index, exit_label);
  err = MatchForBody(p, exit_label, &body_label);
  if (err != kPsOkay) return err;
  emitLoop(p, kOpNextEach, index, body_label);
  endLoop(p, exit_label);
  return MatchNextVariable(p, index);
}

psStatus MatchFOR(psParser* p) {
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  if (lexMatchWord(p, kKwEach) == kPsOkay) return MatchFOREACH(p);
  psID id;
  if (!lexGetID(p, &id, false, false) || lexPeek(p) != '=') return kPsSyntaxError;
  int index = 0;
  psStatus err = MatchVariableAssignment(p, id, &index);
  if (err != kPsOkay) return err;
  if (lexMatchWord(p, kKwTo) != kPsOkay) return kPsSyntaxError;
  err = expression(p);
  if (err != kPsOkay) return err;
  err = lexMatchWord(p, kKwStep) == kPsOkay ? expression(p) : EmitInt(p, 1);
  if (err != kPsOkay) return err;
  int exit_label = 0;
  int body_label = 0;
  err = newLabel(p, -1, &exit_label, kPsTooManyLabels);
  if (err != kPsOkay) return err;
  emitLoop(p, kOpFor, index, exit_label);
  err = MatchForBody(p, exit_label, &body_label);
  if (err != kPsOkay) return err;
  if (p->sp.matched == kEndWordNext) err = MatchNextVariable(p, index);
  if (err != kPsOkay) return err;
  emitLoop(p, kOpNext, index, body_label);
  endLoop(p, exit_label);
  return kPsOkay;
}

psStatus MatchWHILE(psParser* p) {
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  int top = 0;
  int exit_label = 0;
  psStatus err = newLabel(p, static_cast<int32_t>(pcNow(p)), &top, kPsConstantTableFull);
  if (err == kPsOkay) err = newLabel(p, -1, &exit_label, kPsConstantTableFull);
  if (err == kPsOkay) err = expression(p);
  if (err != kPsOkay) return err;
  emit(p, kOpIfFalseLabel, static_cast<uint8_t>(exit_label));
  err = lineEnd(p);
  if (err != kPsOkay) return err;
  const int outer = p->sp.exit_while;
  p->sp.exit_while = exit_label;
  err = required(MatchStatements(p, kEndWordWhile));
  p->sp.exit_while = outer;
  if (err != kPsOkay) return err;
  emit(p, kOpJump, static_cast<uint8_t>(top));
  placeLabel(p, exit_label);
  return kPsOkay;
}

// --- Statements -------------------------------------------------------------------------------

// The statements that may stand on a line with others. The first word has been read.
psStatus MatchSimpleStatement(psParser* p, const psID& id) {
  switch (id.keyword) {
    case kKwNone:
    case kKwCreateObject:
    case kKwType:
    case kKwObjFun: return MatchAssignmentOrCall(p, id);
    case kKwIf: return MatchIF(p, id, false);
    case kKwPrint: return MatchPRINT(p);
    case kKwGoto: return MatchGOTO(p);
    case kKwDim: return MatchDIM(p);
    case kKwExitWhile: return MatchExitWhile(p);
    case kKwExit: return MatchEXIT(p);
    case kKwReturn: return MatchRETURN(p);
    case kKwStop: emit(p, kOpStop); return kPsOkay;
    case kKwEnd:
      // END IF and the like end blocks.
      if (endWordBehindEnd(p) != kEndWordNone) break;
      emit(p, kOpEnd);
      return kPsOkay;
    default: break;
  }
  lexRewindToID(p, id);
  return kPsNoMatch;
}

psStatus MatchSimpleStatement(psParser* p) {
  if (takeChar(p, '?')) return MatchPRINT(p);
  psID id;
  if (!lexGetID(p, &id, false, true)) return kPsNoMatch;
  return MatchSimpleStatement(p, id);
}

psStatus MatchAnyStatement(psParser* p) {
  if (lexAtEndOfStatement(p)) return kPsOkay;
  if (takeChar(p, '?')) return MatchPRINT(p);
  const bool begins_line = lexAtLineStart(p);
  psID id;
  if (!lexGetID(p, &id, begins_line, true)) return kPsNoMatch;
  if (begins_line && id.keyword == kKwNone && takeChar(p, ':')) {
    return mpDefineLabel(p, id) ? kPsOkay : kPsLabelTwice;
  }
  if (*id.start >= '0' && *id.start <= '9') {
    lexRewindToID(p, id);
    return kPsNoMatch;
  }
  switch (id.keyword) {
    case kKwIf: return MatchIF(p, id, begins_line);
    case kKwFor: return MatchFOR(p);
    case kKwWhile: return MatchWHILE(p);
    case kKwRem: lexSkipLine(p); return kPsOkay;
    default: return MatchSimpleStatement(p, id);
  }
}

psStatus MatchStatement(psParser* p) {
  const psStatus err = MatchAnyStatement(p);
  if (err == kPsOkay || err == kPsNoMatch || p->error_count >= kPsMaxCompileErrors) return err;
  return AddError(p, err);
}

// The lines of a block up to one of its end words, which is consumed.
psStatus MatchLines(psParser* p, unsigned end_words) {
  while (true) {
    psStatus err = kPsOkay;
    psID number;
    if (lexAtLineStart(p) && lexLineNumber(p, &number) && !mpDefineLabel(p, number)) {
      err = kPsLabelTwice;
    }
    if (err == kPsOkay) err = MatchStatement(p);
    if (err == kPsNoMatch) {
      if (MatchEndWord(p, end_words)) return kPsOkay;
      err = lexPeek(p) == '\0' ? kPsUnexpectedEof : kPsSyntaxError;
    } else if (err == kPsOkay) {
      err = lineEnd(p);
    }
    if (err == kPsOkay) continue;
    err = AddError(p, err);
    if (err != kPsOkay) return err;
  }
}

}  // namespace

psStatus MatchStatements(psParser* p, unsigned end_words) {
  const int32_t outer = p->sp.block_line;
  p->sp.block_line = p->lex.line_num;
  const psStatus err = MatchLines(p, end_words);
  p->sp.block_line = outer;
  return err;
}

psStatus StoreCode(psParser* p) {
  p->sp.sub->code.assign(p->sp.code.bytes.begin(), p->sp.code.bytes.end());
  return kPsOkay;
}

// --- Functions --------------------------------------------------------------------------------

namespace {

struct TypeWord {
  std::string_view word;
  psTypeEnum type;
};
constexpr TypeWord kTypeWords[] = {
    {"integer", psInteger},  {"float", psFloat},           {"single", psFloat},
    {"double", psDouble},    {"boolean", psBoolean},       {"string", psString},
    {"object", psComponent}, {"function", psFunctionType}, {"dynamic", psDynamic},
    {"void", psVoid},
};

// Behind AS.
bool MatchType(psParser* p, bool void_allowed, uint32_t* type) {
  psID id;
  if (!lexGetID(p, &id, false, true)) return false;
  for (const TypeWord& word : kTypeWords) {
    if (!lexIDEquals(id, word.word)) continue;
    *type = word.type;
    return word.type != psVoid || void_allowed;
  }
  return false;
}

// Names as they are spoken of: slots behind the parameters that every function has. A parameter
// that has one of these names hides it.
void addFixedVariables(psFunction* function) {
  function->variables.push_back({"global", psInterfaceType});
  function->variables.push_back({"m", psComponent});
}

// Where execution starts for one number of arguments.
psStatus addEntry(psParser* p, std::vector<uint16_t>* entries) {
  if (pcNow(p) >= kPsNoEntry) return kPsInternalLimit;
  entries->push_back(static_cast<uint16_t>(pcNow(p)));
  return kPsOkay;
}

// One parameter, from its name on.
psStatus MatchParameter(psParser* p, const psID& id, std::vector<uint32_t>* proto,
                        std::vector<uint16_t>* entries, bool* has_default) {
  std::vector<psVariable>& variables = p->sp.sub->variables;
  if (lexPeek(p) == '=') {
    const size_t registered = variables.size();
    psStatus err = addEntry(p, entries);
    int index = 0;
    if (err == kPsOkay) err = MatchVariableAssignment(p, id, &index);
    if (err != kPsOkay) return err;
    variables.resize(registered);
    *has_default = true;
  } else {
    if (*has_default) return kPsInitializerMissing;
    entries->push_back(kPsNoEntry);
  }
  uint32_t type = lexTypeFromSuffix(id.text());
  if (lexMatchWord(p, "as") == kPsOkay) {
    const uint32_t suffix_type = type;
    if (!MatchType(p, false, &type)) return kPsTypeInvalid;
    if (suffix_type != psDynamic && suffix_type != type) return kPsTypeMismatch;
  }
  if (proto->size() >= kPsMaxParametersDeclared) return kPsInternalLimit;
  const size_t index = variables.size();
  // A second parameter of the same name would have no slot of its own.
  if (static_cast<size_t>(subAddVar(p->sp.sub, id.text(), static_cast<uint16_t>(type))) != index) {
    return kPsSyntaxError;
  }
  proto->push_back(type);
  return index > kPsMaxByteIndex ? kPsVariableTableFull : kPsOkay;
}

// From the "(" to the result type. Code: the defaults, then the conversions of typed parameters.
psStatus MatchParameters(psParser* p, uint32_t default_type) {
  psFunction* sub = p->sp.sub;
  if (!takeChar(p, '(')) return kPsSyntaxError;
  std::vector<uint32_t> proto;
  std::vector<uint16_t> entries;
  bool has_default = false;
  psID id;
  if (lexPeek(p) != ')') {
    do {
      if (!lexGetID(p, &id, false, false)) return kPsSyntaxError;
      const psStatus err = MatchParameter(p, id, &proto, &entries, &has_default);
      if (err != kPsOkay) return err;
    } while (takeChar(p, ','));
  }
  psStatus err = addEntry(p, &entries);
  if (err != kPsOkay) return err;
  if (!takeChar(p, ')')) return kPsSyntaxError;
  uint32_t result = default_type;
  if (lexMatchWord(p, "as") == kPsOkay && !MatchType(p, true, &result)) return kPsTypeInvalid;
  proto.push_back(result);
  sub->proto = std::move(proto);
  sub->callvarinits = std::move(entries);
  addFixedVariables(sub);
  // The fixed ones must fit a frame, whether they are named or not.
  if (sub->variables.size() > kPsMaxByteIndex + 1) return kPsVariableTableFull;
  for (int i = 0; i < sub->parameters(); i++) {
    const uint32_t type = sub->proto[static_cast<size_t>(i)];
    if (type == psDynamic) continue;
    emit(p, kOpConvertLocal, static_cast<uint8_t>(i), static_cast<uint8_t>(type));
  }
  return kPsOkay;
}

bool mayRedefine(const psParser* p, const psFunction* function) {
  return function->index < p->redefinable_below && function != p->module->main_function;
}

// Behind the words SUB or FUNCTION, up to and including the end of the header's line.
psStatus MatchSubDeclarationLine1(psParser* p, uint32_t default_type, bool anonymous) {
  if (anonymous) {
    char name[32];
    std::snprintf(name, sizeof name, "$anon_%lx", psNextCounter());
    p->sp.sub = modNewSub(p->module, name, p->sp.parent);
  } else {
    psID id;
    if (!lexGetID(p, &id, false, false)) return kPsSyntaxError;
    const void* found = hashFindHashed(p->module->function_table, id.text(), id.hash);
    psFunction* earlier = found != nullptr ? *static_cast<psFunction* const*>(found) : nullptr;
    if (earlier != nullptr && !mayRedefine(p, earlier)) return kPsDefinedTwice;
    p->sp.sub = modNewSub(p->module, id.text(), nullptr);
    if (earlier != nullptr) earlier->newer = p->sp.sub;
  }
  const psStatus err = MatchParameters(p, default_type);
  return err == kPsOkay ? lineEnd(p) : err;
}

// Behind the words SUB or FUNCTION, with a fresh function state; the caller drops it.
psStatus CompileFunction(psParser* p, psEndWord end_word, uint32_t default_type, bool anonymous) {
  p->lex.line_pc_start = 0;
  psStatus err = MatchSubDeclarationLine1(p, default_type, anonymous);
  if (err == kPsOkay) err = required(MatchStatements(p, end_word));
  if (err == kPsOkay) err = EmitDefaultReturn(p, p->sp.sub->proto.back());
  if (err == kPsOkay && !anonymous) {
    err = lineEnd(p);
    // The next function may follow on the same line.
    lexMarkOpenLine(p);
  }
  if (err != kPsOkay) return err;
  mpResolveGotos(p);
  return StoreCode(p);
}

// Between functions. The code store keeps its memory for the next one.
void leaveFunction(psParser* p) {
  psSubState& sp = p->sp;
  sp.sub = nullptr;
  sp.parent = nullptr;
  rdSeek(sp.code, 0);
  sp.exit_while = sp.exit_for = -1;
  sp.block_line = 0;
  sp.gotos.clear();
  sp.labels.clear();
  if (!sp.defined.empty()) sp.defined.clear();
}

psStatus MatchOneFunction(psParser* p) {
  psID id;
  if (!lexGetID(p, &id, false, true)) return kPsNoMatch;
  psStatus err;
  if (id.keyword == kKwSub) {
    err = CompileFunction(p, kEndWordSub, psVoid, false);
  } else if (id.keyword == kKwFunction) {
    err = CompileFunction(p, kEndWordFunction, psDynamic, false);
  } else {
    lexRewindToID(p, id);
    return kPsNoMatch;
  }
  // An error keeps the state: it is recorded with the block's line.
  if (err == kPsOkay) leaveFunction(p);
  return err;
}

psStatus MatchLibraries(psParser* p) {
  psStatus err;
  do {
    if (SkipBlankLines(p) == kPsInternalLimit) return kPsInternalLimit;
    err = lexMatchWord(p, "library");
    if (err == kPsOkay) err = MatchLIBRARY(p);
  } while (err == kPsOkay);
  return err;
}

void beginOldStyleModule(psParser* p) {
  p->sp.sub = modNewSub(p->module, "Main", nullptr);
  p->sp.sub->proto = {psVoid};
  p->sp.sub->callvarinits = {0};
  p->lex.line_pc_start = 0;
  addFixedVariables(p->sp.sub);
}

psStatus endOldStyleModule(psParser* p) {
  lexMarkOpenLine(p);
  emit(p, kOpEnd);
  mpResolveGotos(p);
  const psStatus err = StoreCode(p);
  leaveFunction(p);
  return err;
}

// A text without functions is the body of Main.
psStatus MatchOldStyleModule(psParser* p) {
  beginOldStyleModule(p);
  const psStatus err = required(MatchStatements(p, kEndWordEof));
  return err == kPsOkay ? endOldStyleModule(p) : err;
}

}  // namespace

psStatus MatchAnonymousFunction(psParser* p, int* index) {
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  // The line's record ends here and goes on behind the function, which has records of its own.
  lexMarkLine(p);
  p->lex.line_pc_start = 0;
  p->lex.line_src_start = p->lex.pos;
  psSubState outer = std::move(p->sp);
  p->sp = {};
  p->sp.parent = outer.sub;
  lexMatchWord(p, kKwFunction);
  const psStatus err = CompileFunction(p, kEndWordFunction, psDynamic, true);
  lexMarkLine(p);
  *index = p->sp.sub->index;
  p->sp = std::move(outer);
  p->lex.line_src_start = p->lex.pos;
  p->lex.line_pc_start = pcNow(p);
  return err;
}

psStatus MatchFunctions(psParser* p) {
  for (bool first = true;; first = false) {
    if (SkipBlankLines(p) == kPsInternalLimit) return kPsInternalLimit;
    if (lexPeek(p) == '\0') return kPsOkay;
    const psStatus err = MatchOneFunction(p);
    if (err == kPsNoMatch && !first) return kPsSyntaxError;
    if (err != kPsOkay) return err;
  }
}

psStatus MatchProgram(psParser* p) {
  psStatus err = MatchLibraries(p);
  if (err == kPsNoMatch) err = MatchFunctions(p);
  if (err == kPsNoMatch) err = MatchOldStyleModule(p);
  if (err == kPsOkay) {
    return p->errors.empty() ? static_cast<psStatus>(kPsOkay)
                             : static_cast<psStatus>(p->errors.front().code);
  }
  AddError(p, err);
  leaveFunction(p);
  return err;
}

psStatus MatchFinish(psParser* p) {
  // Texts of nothing at all are an empty program.
  if (p->module->function_list.empty()) {
    beginOldStyleModule(p);
    endOldStyleModule(p);
  }
  if (!mpResolveReferences(p)) return static_cast<psStatus>(p->errors.front().code);
  modLink(p->module);
  p->module->main_function = modFindSub(p->module, "Main");
  lexFinishLineData(p->module);
  return kPsOkay;
}

// --- Entry points -----------------------------------------------------------------------------

void compInit() { lexInitKeywords(); }

void compUninit() { lexFreeKeywords(); }

psParser* compNew(pscDomain* domain, psProc* process) {
  psParser* p = nullptr;
  try {
    p = new psParser;
    p->module = modNew();
  } catch (const std::bad_alloc&) {
    delete p;
    return nullptr;
  }
  p->owns_module = true;
  p->module->process = process;
  p->domain = domain;
  return p;
}

void compFree(psParser* p) {
  if (p == nullptr) return;
  if (p->owns_module) modFree(p->module);
  delete p;
}

namespace {

// Memory is refused somewhere inside a compilation: all that it made is dropped by its owner.
psCompileErrors outOfMemory(psParser* p, std::string_view file_name) {
  psCompileErrors errors;
  if (p != nullptr) errors = std::move(p->errors);
  psCompileError& error = errors.emplace_back();
  error.code = kPsOutOfMemory;
  error.line = p != nullptr ? p->lex.line_num : 0;
  error.file = file_name;
  return errors;
}

}  // namespace

psCompileErrors compInto(psParser* p, std::string_view text, std::string_view file_name) {
  if (p == nullptr || text.size() > kPsMaxSourceBytes) return outOfMemory(p, file_name);
  try {
    const std::string* file = modAddFileName(p->module, file_name);
    // A text ends where one that is NUL-terminated would.
    const std::string copy(text.substr(0, text.find('\0')));
    lexInit(p, copy.c_str(), 1, file);
    MatchProgram(p);
    return std::move(p->errors);
  } catch (const std::bad_alloc&) {
    return outOfMemory(p, file_name);
  }
}

psCompileErrors compFinish(psParser* p, psModule** module) {
  *module = nullptr;
  try {
    static const std::string no_file;
    // Names are resolved when the texts have gone.
    p->lex.pos = p->lex.text_start = p->lex.line_src_start = "";
    if (p->lex.file == nullptr) p->lex.file = &no_file;
    if (MatchFinish(p) == kPsOkay && p->errors.empty()) {
      *module = p->module;
      p->owns_module = false;
    }
    return std::move(p->errors);
  } catch (const std::bad_alloc&) {
    return outOfMemory(p, p->lex.file != nullptr ? std::string_view(*p->lex.file) : "");
  }
}

psCompileErrors compileText(std::string_view text, psModule** module, std::string_view file_name,
                            pscDomain* domain, psProc* process) {
  *module = nullptr;
  psParser* p = compNew(domain, process);
  psCompileErrors errors = compInto(p, text, file_name);
  if (errors.empty()) errors = compFinish(p, module);
  compFree(p);
  return errors;
}

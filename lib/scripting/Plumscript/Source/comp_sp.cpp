// Expressions, and the statements that begin with a name.
//
// One function a level of precedence, from the loosest down to the primary with its chain of calls,
// members and indexes. Each looks at the next character to see whether its operators follow, so an
// operand costs one look a level and nothing is emitted in vain. The one thing that cannot be seen
// before its end is how many arguments a call has; a call of a global function's name with a count
// that no global function takes gets the prefix of an ordinary call inserted before its arguments.
#include "clglobal.h"
#include "comp_internal.h"

namespace {

psStatus MatchPower(psParser* p);
psStatus MatchCallArgs(psParser* p, psOpcode opcode, int* count);

// --- Chains -----------------------------------------------------------------------------------

enum psAccessor { kAccessNone, kAccessCall, kAccessMember, kAccessIndex };

psStatus MatchDot(psParser* p) {
  if (lexPeek(p) != '.') return kPsNoMatch;
  const char* dot = p->lex.pos++;
  psID id;
  if (!lexGetID(p, &id, false, true)) {
    p->lex.pos = dot;
    return kPsNoMatch;
  }
  return EmitDot(p, id.text());
}

// Any number of calls, members and indexes. *last is the last of them (left alone when there is
// none), *opcode_at where its instruction is.
psStatus MatchChain(psParser* p, psAccessor* last, uint32_t* opcode_at) {
  while (true) {
    psStatus err;
    psAccessor accessor;
    switch (lexPeek(p)) {
      case '(':
        err = MatchCallArgs(p, kOpCall, nullptr);
        accessor = kAccessCall;
        break;
      case '.':
        *opcode_at = pcNow(p);
        err = MatchDot(p);
        accessor = kAccessMember;
        break;
      case '[':
        err = MatchArrayArgs(p, kOpArray);
        accessor = kAccessIndex;
        if (err == kPsOkay) *opcode_at = pcNow(p) - 2;
        break;
      default: return kPsOkay;
    }
    if (err == kPsNoMatch) return kPsOkay;
    if (err != kPsOkay) return err;
    *last = accessor;
  }
}

// Expressions separated by ',' up to the closing character, which is consumed.
psStatus MatchList(psParser* p, char close, int* count) {
  *count = 0;
  while (true) {
    const psStatus err = MatchExpr(p);
    if (err != kPsOkay) return required(err);
    if (++*count > 255) return kPsInternalLimit;
    const char c = lexPeek(p);
    if (c != ',' && c != close) return kPsSyntaxError;
    p->lex.pos++;
    if (c == close) return kPsOkay;
  }
}

// "(" arguments ")". Emits the opcode and the number of arguments, unless the caller wants the
// number. An ordinary call has the number before its arguments, too.
psStatus MatchCallArgs(psParser* p, psOpcode opcode, int* count) {
  if (lexPeek(p) != '(') return kPsNoMatch;
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  p->lex.pos++;
  const uint32_t placeholder = pcNow(p) + 1;
  if (opcode == kOpCall) emit(p, kOpNumFunArgs, 0);
  int n = 0;
  if (lexPeek(p) == ')') {
    p->lex.pos++;
  } else {
    const psStatus err = MatchList(p, ')', &n);
    if (err != kPsOkay) return err;
  }
  if (opcode == kOpCall) rdWrite(p->sp.code, placeholder, static_cast<uint8_t>(n));
  if (count != nullptr) {
    *count = n;
  } else {
    emit(p, opcode, static_cast<uint8_t>(n));
  }
  return kPsOkay;
}

// --- Calls ------------------------------------------------------------------------------------

// CreateObject("class"): the class is looked up now. 184 for every other form of arguments.
psStatus MatchCreateObjectIdx(psParser* p) {
  const char* start = p->lex.pos;
  p->lex.pos++;  // the '('
  std::string_view name;
  if (lexString(p, &name) != kPsOkay || lexPeek(p) != ')') {
    p->lex.pos = start;
    return kPsNoMatch;
  }
  p->lex.pos++;
  if (p->last_class != name || name.empty()) {
    p->last_class = name;
    const pscClass* cl = pscFindClassByName(p->last_class.c_str());
    p->last_class_index = cl != nullptr ? static_cast<uint8_t>(cl->index) : 0;
  }
  emit(p, kOpCreateObjectIdx, p->last_class_index);
  return kPsOkay;
}

psStatus MatchBuiltinCall(psParser* p, psOpcode opcode) {
  if (lexPeek(p) != '(') return kPsSyntaxError;
  if (opcode == kOpCallCreateObject) {
    const psStatus err = MatchCreateObjectIdx(p);
    if (err != kPsNoMatch) return err;
  }
  return MatchCallArgs(p, opcode, nullptr);
}

void emitReference(psParser* p, psIdent* ident) {
  mpAddVarOrSubReference(p, ident, pcNow(p));
  emit(p, kOpPushLocal, 0, 0);
}

// The index of the global function with this name and this number of parameters, or -1.
int globalFunction(const psIdent* ident, int count) {
  for (int i = ident->global_function; i < kPsGlobalFunctionCount; i++) {
    const fundes& f = kPsGlobalFunctions[i];
    if ((f.nargs == count || f.nargs == kPsVariadic) && hashEqualFold(f.name, ident->text)) {
      return i;
    }
  }
  return -1;
}

// A call of a name that some global function has. Whether it is that function's depends on the
// number of arguments; a script's own function may take another number.
psStatus MatchGlobalFunctionCall(psParser* p, psIdent* ident) {
  const psSnapshot start = mpSnapshot(p);
  int count = 0;
  const psStatus err = MatchCallArgs(p, kOpCallGlobal, &count);
  if (err != kPsOkay) return err;
  const auto n = static_cast<uint8_t>(count);
  const int index = globalFunction(ident, count);
  if (index > 255) return kPsInternalLimit;
  if (index >= 0) {
    emit(p, kOpCallGlobal, n, static_cast<uint8_t>(index));
    return kPsOkay;
  }
  const uint8_t prefix[] = {kOpPushLocal, 0, 0, kOpNumFunArgs, n};
  mpInsertCode(p, start, prefix, sizeof prefix);
  p->references.insert(p->references.begin() + static_cast<ptrdiff_t>(start.references),
                       {ident, p->sp.sub, start.pc});
  emit(p, kOpCall, n);
  return kPsOkay;
}

// A call of a name; "(" follows.
psStatus MatchNamedCall(psParser* p, psIdent* ident) {
  if (ident->global_function >= 0) return MatchGlobalFunctionCall(p, ident);
  emitReference(p, ident);
  return MatchCallArgs(p, kOpCall, nullptr);
}

// --- Literals ---------------------------------------------------------------------------------

psStatus MatchListSeparator(psParser* p) {
  const psStatus blank = SkipBlankLines(p);
  if (blank != kPsNoMatch) return blank;
  if (lexPeek(p) != ',') return kPsSyntaxError;
  p->lex.pos++;
  const psStatus err = SkipBlankLines(p);
  return err == kPsNoMatch ? static_cast<psStatus>(kPsOkay) : err;
}

// Behind "[".
psStatus MatchArrayLiteral(psParser* p) {
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  psStatus err = EmitNewArray(p);
  if (err != kPsOkay) return err;
  err = SkipBlankLines(p);
  if (err == kPsInternalLimit) return err;
  while (true) {
    if (lexPeek(p) == ']') break;
    emit(p, kOpDup);
    err = EmitDot(p, "push");
    if (err != kPsOkay) return err;
    emit(p, kOpNumFunArgs, 1);
    err = MatchExpr(p);
    if (err != kPsOkay) return required(err);
    emit(p, kOpCall, 1);
    emit(p, kOpDrop);
    if (lexPeek(p) == ']') break;
    err = MatchListSeparator(p);
    if (err != kPsOkay) return err;
  }
  p->lex.pos++;
  return kPsOkay;
}

// Behind "{".
psStatus MatchAALiteral(psParser* p) {
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  EmitNewAA(p);
  psStatus err = SkipBlankLines(p);
  if (err == kPsInternalLimit) return err;
  psID key;
  while (lexGetID(p, &key, false, true)) {
    if (lexPeek(p) != ':') return kPsSyntaxError;
    p->lex.pos++;
    emit(p, kOpDup);
    err = MatchExpr(p);
    if (err != kPsOkay) return required(err);
    emit(p, kOpSwap);
    err = EmitDotSet(p, AddName(p->module, key.text()));
    if (err != kPsOkay) return err;
    if (lexPeek(p) == '}') break;
    err = MatchListSeparator(p);
    if (err != kPsOkay) return err;
  }
  if (lexPeek(p) != '}') return kPsSyntaxError;
  p->lex.pos++;
  return kPsOkay;
}

// Behind "(".
psStatus MatchParenExpr(psParser* p) {
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  const psStatus err = MatchExpr(p);
  if (err != kPsOkay) return required(err);
  if (lexPeek(p) != ')') return kPsSyntaxError;
  p->lex.pos++;
  return kPsOkay;
}

psStatus MatchString(psParser* p) {
  std::string_view text;
  const psStatus err = lexString(p, &text);
  return err == kPsOkay ? EmitString(p, text) : err;
}

// --- Operators --------------------------------------------------------------------------------

// The multiplicative operators behind a first operand. MOD needs no word boundary: in "MODE" it is
// seen, too.
psStatus MatchMulTail(psParser* p) {
  while (true) {
    psOpcode opcode;
    switch (lexPeek(p)) {
      case '*':
        opcode = kOpMul;
        p->lex.pos++;
        break;
      case '/':
        opcode = kOpDiv;
        p->lex.pos++;
        break;
      case 'm':
      case 'M':
        if (lexMatchText(p, "mod") != kPsOkay) return kPsOkay;
        opcode = kOpMod;
        break;
      default: return kPsOkay;
    }
    const psStatus err = MatchPower(p);
    if (err != kPsOkay) return required(err);
    emit(p, opcode);
  }
}

psStatus MatchAddTail(psParser* p) {
  while (true) {
    const char c = lexPeek(p);
    if (c != '+' && c != '-') return kPsOkay;
    p->lex.pos++;
    psStatus err = MatchPower(p);
    if (err == kPsOkay) err = MatchMulTail(p);
    if (err != kPsOkay) return required(err);
    emit(p, c == '+' ? kOpAdd : kOpSub);
  }
}

psStatus MatchMulAdd(psParser* p) {
  psStatus err = MatchPower(p);
  if (err == kPsOkay) err = MatchMulTail(p);
  if (err == kPsOkay) err = MatchAddTail(p);
  return err;
}

// Steps over a comparison operator.
bool MatchRelOp(psParser* p, psOpcode* opcode) {
  const char c = lexPeek(p);
  const char* s = p->lex.pos;
  int length = 1;
  if (c == '<') {
    *opcode = s[1] == '=' ? kOpLe : s[1] == '>' ? kOpNe : kOpLt;
    length = *opcode == kOpLt ? 1 : 2;
  } else if (c == '>') {
    *opcode = s[1] == '=' ? kOpGe : kOpGt;
    length = *opcode == kOpGt ? 1 : 2;
  } else if (c == '=') {
    *opcode = kOpEq;
  } else {
    return false;
  }
  p->lex.pos = s + length;
  return true;
}

// An operand of AND and NOT: additive expressions with comparisons between them.
psStatus MatchComparison(psParser* p) {
  psStatus err = MatchMulAdd(p);
  if (err != kPsOkay) return err;
  psOpcode opcode;
  while (MatchRelOp(p, &opcode)) {
    err = MatchMulAdd(p);
    if (err != kPsOkay) return required(err);
    emit(p, opcode);
  }
  return kPsOkay;
}

// first operand, then for each further one: pretest, operand, operator. A pretest jumps to the end
// of the whole chain.
psStatus MatchLogicalChain(psParser* p, psKeyword word, psOpcode pretest, psOpcode opcode,
                           psStatus (*operand)(psParser*)) {
  psStatus err = operand(p);
  if (err != kPsOkay) return err;
  const char initial = word == kKwAnd ? 'a' : 'o';
  uint32_t placeholders[kPsMaxChainOperators];
  int n = 0;
  while ((lexPeek(p) | 0x20) == initial && lexMatchWord(p, word) == kPsOkay) {
    if (n == kPsMaxChainOperators) return kPsInternalLimit;
    emit(p, pretest);
    placeholders[n++] = pcNow(p);
    emit(p, 0);
    err = operand(p);
    if (err != kPsOkay) return required(err);
    emit(p, opcode);
  }
  const uint32_t end = pcNow(p);
  for (int i = 0; i < n; i++) {
    const uint32_t distance = end - placeholders[i];
    if (distance > kPsMaxRelative) return kPsInternalLimit;
    rdWrite(p->sp.code, placeholders[i], static_cast<uint8_t>(distance));
  }
  return kPsOkay;
}

psStatus MatchAndExpr(psParser* p) {
  return MatchLogicalChain(p, kKwAnd, kOpAndPretest, kOpAnd, MatchComparison);
}

// A prefix operator, which has been consumed, and its operand.
psStatus MatchUnary(psParser* p, psStatus (*operand)(psParser*), psOpcode opcode) {
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  const psStatus err = operand(p);
  if (err != kPsOkay) return required(err);
  if (opcode != kOpNop) emit(p, opcode);
  return kPsOkay;
}

// A primary that begins with a letter or '_'.
psStatus MatchWordTerm(psParser* p) {
  psID id;
  lexGetID(p, &id, false, true);
  switch (id.keyword) {
    case kKwNone: break;
    case kKwTrue: emit(p, kOpPushTrue); return kPsOkay;
    case kKwFalse: emit(p, kOpPushFalse); return kPsOkay;
    case kKwInvalid: emit(p, kOpPushInvalid); return kPsOkay;
    case kKwLineNum: return EmitInt(p, p->lex.line_num);
    case kKwNot: return MatchUnary(p, MatchComparison, kOpNot);
    case kKwCreateObject: return MatchBuiltinCall(p, kOpCallCreateObject);
    case kKwType: return MatchBuiltinCall(p, kOpCallType);
    case kKwObjFun: return MatchBuiltinCall(p, kOpCallObjFun);
    case kKwFunction: {
      lexRewindToID(p, id);
      int index = 0;
      const psStatus err = MatchAnonymousFunction(p, &index);
      return err == kPsOkay ? EmitPushFun(p, index) : required(err);
    }
    default: lexRewindToID(p, id); return kPsNoMatch;
  }
  psIdent* ident = mpIdent(p, id);
  if (ident->builtin != 0) return MatchBuiltinCall(p, static_cast<psOpcode>(ident->builtin));
  if (lexPeek(p) == '(') return MatchNamedCall(p, ident);
  emitReference(p, ident);
  return kPsOkay;
}

psStatus MatchTerm(psParser* p) {
  psStatus err;
  const char c = lexPeek(p);
  switch (c) {
    case '"': err = MatchString(p); break;
    case '&': err = lexHexNumber(p); break;
    case '{':
      p->lex.pos++;
      err = MatchAALiteral(p);
      break;
    case '[':
      p->lex.pos++;
      err = MatchArrayLiteral(p);
      break;
    case '(':
      p->lex.pos++;
      err = MatchParenExpr(p);
      break;
    case '-':
      p->lex.pos++;
      err = MatchUnary(p, MatchPower, kOpNeg);
      break;
    case '+':
      p->lex.pos++;
      err = MatchUnary(p, MatchPower, kOpNop);
      break;
    default:
      if (c == '.' || (c >= '0' && c <= '9')) {
        err = lexNumber(p);
      } else if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_') {
        err = MatchWordTerm(p);
      } else {
        return kPsNoMatch;
      }
  }
  if (err != kPsOkay) return err;
  psAccessor last;
  uint32_t opcode_at;
  err = MatchChain(p, &last, &opcode_at);
  if (err != kPsOkay || lexPeek(p) != '@') return err;
  p->lex.pos++;
  psID attribute;
  if (!lexGetID(p, &attribute, false, true)) return kPsSyntaxError;
  return EmitAttr(p, attribute.text());
}

psStatus MatchPower(psParser* p) {
  psStatus err = MatchTerm(p);
  if (err != kPsOkay || lexPeek(p) != '^') return err;
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  p->lex.pos++;
  err = MatchPower(p);
  if (err != kPsOkay) return required(err);
  emit(p, kOpExp);
  return kPsOkay;
}

}  // namespace

psStatus MatchExpr(psParser* p) {
  return MatchLogicalChain(p, kKwOr, kOpOrPretest, kOpOr, MatchAndExpr);
}

psStatus MatchArrayArgs(psParser* p, psOpcode opcode) {
  if (lexPeek(p) != '[') return kPsNoMatch;
  psNesting nesting(p);
  if (nesting.tooDeep()) return kPsInternalLimit;
  const char* open = p->lex.pos++;
  if (lexPeek(p) == ']') {
    p->lex.pos = open;
    return kPsNoMatch;
  }
  int n = 0;
  const psStatus err = MatchList(p, ']', &n);
  if (err != kPsOkay) return err;
  emit(p, opcode, static_cast<uint8_t>(n));
  return kPsOkay;
}

psStatus SkipBlankLines(psParser* p) {
  bool any = false;
  while (true) {
    const char c = lexPeek(p);
    if (c == '\0') break;
    if (!lexAtEndOfStatement(p)) {
      // A whole line of remark; in an associative array literal "rem" may be a key elsewhere.
      if ((c | 0x20) != 'r' || p->lex.pos > p->lex.line_first) break;
      if (lexMatchWord(p, kKwRem) != kPsOkay) break;
      lexSkipLine(p);
    }
    const psStatus err = lexEndOfStatement(p);
    if (err != kPsOkay) return err;
    any = true;
  }
  return any ? kPsOkay : kPsNoMatch;
}

// --- Statements that begin with a name --------------------------------------------------------

psStatus MatchVariableAssignment(psParser* p, const psID& id, int* index) {
  psSnapshot start = mpSnapshot(p);
  start.lex.pos = id.start;
  psFunction* sub = p->sp.sub;
  *index = mpVariable(p, sub, mpIdent(p, id));
  psStatus err = kPsOkay;
  if (static_cast<uint32_t>(*index) > kPsMaxByteIndex) {
    err = kPsVariableTableFull;
  } else {
    p->lex.pos++;  // the '='
    err = required(MatchExpr(p));
  }
  if (err != kPsOkay) {
    mpRestore(p, start);
    return err;
  }
  const uint16_t type = sub->variables[static_cast<size_t>(*index)].type;
  const uint32_t store = pcNow(p);
  if (type != psDynamic) {
    // What can fail is the target's, and so is its line.
    emit(p, kOpConvertTop, static_cast<uint8_t>(type));
    EmitVar(p, *index, kVarPop);
    mpCreditLine(p, start, store);
    return kPsOkay;
  }
  return EmitVar(p, *index, kVarPop);
}

namespace {

// Base and chain; what follows decides what it was. The target's code comes out before the value's
// and then moves behind it.
psStatus matchTargetOrCall(psParser* p, psIdent* ident, bool reserved, const psSnapshot& start) {
  psAccessor last = kAccessCall;
  uint32_t opcode_at = 0;
  psStatus err;
  if (ident->builtin != 0) {
    err = MatchBuiltinCall(p, static_cast<psOpcode>(ident->builtin));
  } else if (reserved) {
    return kPsNoMatch;
  } else if (lexPeek(p) == '(') {
    err = MatchNamedCall(p, ident);
  } else {
    // Registered at once: a base that is no call is never a function.
    last = kAccessNone;
    err = EmitVar(p, mpVariable(p, p->sp.sub, ident), kVarPush);
  }
  if (err == kPsOkay) err = MatchChain(p, &last, &opcode_at);
  if (err != kPsOkay) return err;

  if (last == kAccessCall) {
    psID id;
    bool ends = lexAtStatementEnd(p);
    if (!ends && lexGetID(p, &id, false, true)) {
      ends = id.keyword == kKwElse;
      lexRewindToID(p, id);
    }
    if (!ends) return kPsNoMatch;
    emit(p, kOpDrop);
    return kPsOkay;
  }
  if (last == kAccessNone || lexPeek(p) != '=') return kPsNoMatch;
  p->lex.pos++;
  uint8_t set = 0;
  switch (rdRead(p->sp.code, opcode_at)) {
    case kOpArray: set = kOpArraySet; break;
    case kOpDot: set = kOpDotSet; break;
    case kOpDot2: set = kOpDotSet2; break;
    default: psAssertText(false, "opcode!=(128+41)");
  }
  rdWrite(p->sp.code, opcode_at, set);
  const uint32_t value = pcNow(p);
  err = MatchExpr(p);
  if (err != kPsOkay) return required(err);
  mpMoveBehind(p, start, value);
  return kPsOkay;
}

}  // namespace

psStatus MatchAssignmentOrCall(psParser* p, const psID& id) {
  const char c = lexPeek(p);
  const bool reserved = id.keyword != kKwNone;
  if (c == '=' && !reserved) {
    int index;
    return MatchVariableAssignment(p, id, &index);
  }
  if (c != '(' && c != '.' && c != '[') {
    lexRewindToID(p, id);
    return kPsNoMatch;
  }
  psSnapshot start = mpSnapshot(p);
  start.lex.pos = id.start;
  const psStatus err = matchTargetOrCall(p, mpIdent(p, id), reserved, start);
  if (err != kPsOkay) mpRestore(p, start);
  return err;
}

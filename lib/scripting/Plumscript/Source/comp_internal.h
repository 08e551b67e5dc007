// What the compiler's files share: the state of a compilation and the matchers.
//
// A matcher stands at the parser's position and returns 255 (matched, code emitted), 184 (not this
// construct: nothing consumed but blanks, nothing emitted) or an error code. Once a matcher has
// consumed the beginning of its construct, a 184 from further down is a syntax error (required()).
//
// Rules of these files:
// 1. A construct is chosen by looking, not by trying: text is compiled once, so compiling is
//    linear. Only a statement that fails goes back to where it began, which every error does at
//    most once.
// 2. Whatever recurses into itself enters a psNesting; nothing recurses deeper than kPsMaxNesting.
// 3. Code moves only behind positions that somebody still holds (placeholders, chains). Pending
//    references and line records move with it.
// 4. The text is NUL-terminated, so looking at the next character is always allowed.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bytecode.h"
#include "comp.h"
#include "comp_mod.h"
#include "ramdisk.h"

// A text longer than this is refused, as is a file; scripts are a thousandth of it.
constexpr size_t kPsMaxSourceBytes = size_t{64} << 20;
// Lines of a module. Each keeps a record for as long as the module lives, so a file of nothing but
// line ends would take a hundred times its size.
constexpr size_t kPsMaxLines = 1'000'000;
// Library files read in one compilation. Libraries that name libraries twice would double with
// every level otherwise.
constexpr int kPsMaxLibraryFiles = 1000;

constexpr int kPsMaxChainOperators = 32;  // of one AND or OR chain
constexpr int kPsMaxRelative = 255;       // what a distance byte holds
constexpr uint32_t kPsMaxWideIndex = 65534;
constexpr uint32_t kPsMaxByteIndex = 254;
constexpr int kPsMaxParametersDeclared = 256;

// --- The lexer --------------------------------------------------------------------------------

// The reserved words, in the order of their table.
enum psKeyword : int8_t {
  kKwNone = -1,
  kKwEnd,
  kKwLet,
  kKwPrint,
  kKwIf,
  kKwElse,
  kKwEndIf,
  kKwThen,
  kKwGoto,
  kKwFor,
  kKwTo,
  kKwStep,
  kKwNext,
  kKwReturn,
  kKwDim,
  kKwNot,
  kKwAnd,
  kKwOr,
  kKwTab,
  kKwStop,
  kKwObjFun,
  kKwType,
  kKwTrue,
  kKwFalse,
  kKwCreateObject,
  kKwWhile,
  kKwEndWhile,
  kKwExitWhile,
  kKwEach,
  kKwExit,
  kKwInvalid,
  kKwEndFunction,
  kKwEndSub,
  kKwElseIf,
  kKwRem,
  kKwLineNum,
  kKwSub,
  kKwFunction,
  kKwCount,
};

struct psLexer {
  const char* pos = nullptr;
  const char* text_start = nullptr;
  const char* line_src_start = nullptr;  // what the next line record copies from
  const char* line_begin = nullptr;      // first character of the current line
  const char* line_first = nullptr;      // its first character that is no space or tab
  uint32_t line_pc_start = 0;            // code position where the current line began
  int32_t line_num = 1;
  char line_end = '\n';
  const std::string* file = nullptr;
};

struct psID {
  const char* start = nullptr;
  uint32_t length = 0;  // with the type suffix
  uint32_t hash = 0;    // hashFold
  psKeyword keyword = kKwNone;
  std::string_view text() const { return {start, length}; }
};

// --- Identifiers ------------------------------------------------------------------------------

// One record for each name that is read, assigned or used as a label, however often: what the name
// means to the compiler, and where it was found last.
struct psIdent {
  std::string text;  // lower case
  uint32_t hash = 0;
  uint8_t builtin = 0;                       // opcode of the built-in call with this name, or 0
  int16_t global_function = -1;              // the first global function with this name, or -1
  const psFunction* var_function = nullptr;  // function whose variable was looked up last
  int var_index = -1;                        // and its index there; checked before use
  bool resolved = false;                     // function is known (when references are resolved)
  psFunction* function = nullptr;            // the function with this name
};

// A name read in an expression: settled when the whole text is compiled.
struct psReference {
  psIdent* ident;
  psFunction* function;  // the one whose code holds the placeholder
  uint32_t pc;
};

// --- Parser state -----------------------------------------------------------------------------

// The words that end a block, as a set.
enum psEndWord : uint16_t {
  kEndWordNone = 0,
  kEndWordEof = 1,
  kEndWordIf = 2,
  kEndWordElseIf = 4,
  kEndWordElse = 8,
  kEndWordWhile = 16,
  kEndWordFor = 32,
  kEndWordNext = 64,
  kEndWordFunction = 128,
  kEndWordSub = 256,
};

struct psGoto {
  psIdent* ident;
  std::string_view name;  // as written; the text outlives the function's compilation
  uint32_t pc;            // of the operand byte
  int32_t line;
};

struct psLabelDefinition {
  psIdent* ident;
  std::string_view name;
  uint32_t pc;
};

// The function being compiled; an anonymous function has its own while the enclosing one waits.
struct psSubState {
  psFunction* sub = nullptr;  // null between functions
  psFunction* parent = nullptr;
  psRamdisk code;
  int exit_while = -1;  // label indexes
  int exit_for = -1;
  int32_t block_line = 0;            // where the innermost block began
  psEndWord matched = kEndWordNone;  // the block terminator matched last
  std::vector<psGoto> gotos;
  std::vector<psLabelDefinition> labels;
  std::unordered_map<const psIdent*, uint32_t> defined;  // labels by name
};

struct psParser {
  psLexer lex;
  psSubState sp;
  psModule* module = nullptr;
  bool owns_module = false;
  pscDomain* domain = nullptr;
  psCompileErrors errors;
  int error_count = 0;  // kPsMaxCompileErrors stops the compilation, however many are recorded
  int nesting = 0;
  int library_depth = 0;
  int library_files = 0;
  // A function with a lower index may be defined anew, the module's main one apart.
  int redefinable_below = 0;
  std::vector<psReference> references;
  std::deque<psIdent> idents;
  std::vector<psIdent*> ident_table;  // open addressing, a power of two; at most half full
  std::string last_class;             // the class name looked up last, and the index found
  uint8_t last_class_index = 0;
  int aa_class_index = -1;  // of associative array literals; -1: not looked up yet
};

// Counts one level of nesting for a scope.
struct psNesting {
  explicit psNesting(psParser* parser) : p(parser) { p->nesting++; }
  ~psNesting() { p->nesting--; }
  psNesting(const psNesting&) = delete;
  psNesting& operator=(const psNesting&) = delete;
  bool tooDeep() const { return p->nesting > kPsMaxNesting; }
  psParser* p;
};

// Where a construct began: what goes back when it fails, and from where records move when its code
// does.
struct psSnapshot {
  psLexer lex;
  uint32_t pc;
  size_t references;
  size_t lines;
  size_t variables;
};
psSnapshot mpSnapshot(const psParser* p);
void mpRestore(psParser* p, const psSnapshot& s);

psIdent* mpIdent(psParser* p, std::string_view text, uint32_t hash);
inline psIdent* mpIdent(psParser* p, const psID& id) { return mpIdent(p, id.text(), id.hash); }
psIdent* mpFindIdent(const psParser* p, std::string_view text, uint32_t hash);  // null when absent
// The variable's index in the function being compiled, or in the one given; registered when absent.
int mpVariable(psParser* p, psFunction* function, psIdent* ident);
// Records that the placeholder at pc reads the name.
void mpAddVarOrSubReference(psParser* p, psIdent* ident, uint32_t pc);
// Gives every pending reference its meaning; false when one has none that fits.
bool mpResolveReferences(psParser* p);
// Inserts n bytes at pc; what was compiled since the snapshot was taken there moves.
void mpInsertCode(psParser* p, const psSnapshot& at, const uint8_t* bytes, uint32_t n);
// The code since the snapshot, up to middle, moves behind the rest.
void mpMoveBehind(psParser* p, const psSnapshot& at, uint32_t middle);
// What is emitted from pc on belongs to the line where the snapshot was taken.
void mpCreditLine(psParser* p, const psSnapshot& at, uint32_t pc);

bool mpDefineLabel(psParser* p, const psID& id);  // false: defined before
void mpAddGoto(psParser* p, const psID& id);      // with its placeholder
void mpResolveGotos(psParser* p);
int subNewLabel(psFunction* function, int32_t pc);

// --- Lexer (comp_lex.cpp) ---------------------------------------------------------------------

// The text must be NUL-terminated and outlive its compilation.
void lexInit(psParser* p, const char* text, int32_t line, const std::string* file);
void lexSkipBlanks(psParser* p);
// The next character behind blanks.
char lexPeek(psParser* p);
bool lexGetID(psParser* p, psID* id, bool digit_start, bool reserved);
inline void lexRewindToID(psParser* p, const psID& id) { p->lex.pos = id.start; }
bool lexIDEquals(const psID& id, std::string_view word);
psStatus lexMatchWord(psParser* p, psKeyword word);
psStatus lexMatchWord(psParser* p, std::string_view word);
psStatus lexMatchText(psParser* p, std::string_view text);
uint16_t lexTypeFromSuffix(std::string_view name);
psStatus lexNumber(psParser* p);
psStatus lexHexNumber(psParser* p);
psStatus lexString(psParser* p, std::string_view* text);  // the text between the quotes
bool lexAtEndOfStatement(psParser* p);
// The end of the text ends a statement too.
bool lexAtStatementEnd(psParser* p);
psStatus lexEndOfStatement(psParser* p);  // steps over it; 174 when the module has too many lines
bool lexAtLineStart(const psParser* p);
void lexSkipLine(psParser* p);
bool lexLineNumber(psParser* p, psID* id);
void lexMarkLine(psParser* p);
// A function's code ends where ':' did: the part of the line that became code gets its record now.
void lexMarkOpenLine(psParser* p);
void lexFinishLineData(psModule* module);
// The record's text of the current line up to a position.
std::string lexLineText(const psParser* p, const char* to);

// --- Emitters (comp_emit.cpp) -----------------------------------------------------------------

inline void emit(psParser* p, uint8_t byte) { rdAppend(p->sp.code, byte); }
inline void emit(psParser* p, uint8_t a, uint8_t b) {
  emit(p, a);
  emit(p, b);
}
inline void emit(psParser* p, uint8_t a, uint8_t b, uint8_t c) {
  emit(p, a, b);
  emit(p, c);
}
inline uint32_t pcNow(const psParser* p) { return rdPosition(p->sp.code); }

psStatus EmitInt(psParser* p, int32_t value);
psStatus EmitFloat(psParser* p, float value);
psStatus EmitDouble(psParser* p, double value);
psStatus EmitString(psParser* p, std::string_view text);
psStatus EmitPushFun(psParser* p, int index);
psStatus EmitDot(psParser* p, std::string_view name);
psStatus EmitDotSet(psParser* p, uint32_t index);
psStatus EmitAttr(psParser* p, std::string_view name);
enum psVarKind { kVarPush, kVarPop, kVarByte };
psStatus EmitVar(psParser* p, int index, psVarKind kind);
psStatus EmitNewArray(psParser* p);
void EmitNewAA(psParser* p);
psStatus EmitDefaultReturn(psParser* p, uint32_t type);

// --- Expressions (comp_sp.cpp) ----------------------------------------------------------------

inline psStatus required(psStatus status) {
  return status == kPsNoMatch ? static_cast<psStatus>(kPsSyntaxError) : status;
}

psStatus MatchExpr(psParser* p);
psStatus MatchArrayArgs(psParser* p, psOpcode opcode);
// 255 when anything was skipped, 184 when not, 174 when the module has too many lines.
psStatus SkipBlankLines(psParser* p);
// A statement that begins with this name: an assignment or a call. 184: neither.
psStatus MatchAssignmentOrCall(psParser* p, const psID& id);
// "= expression" behind the name of a variable. *index is the variable's.
psStatus MatchVariableAssignment(psParser* p, const psID& id, int* index);

// --- Functions and statements (comp_main.cpp) -------------------------------------------------

// Behind the word FUNCTION: an anonymous function. *index is the new function's.
psStatus MatchAnonymousFunction(psParser* p, int* index);
psStatus MatchStatements(psParser* p, unsigned end_words);
// Functions up to the end of the text. 184: it begins with something else.
psStatus MatchFunctions(psParser* p);
psStatus MatchProgram(psParser* p);
psStatus MatchFinish(psParser* p);
// Records an error and skips the rest of the line. 255: compile on.
psStatus AddError(psParser* p, psStatus code);
psStatus AddError(psParser* p, psStatus code, std::string_view label, int32_t line);
psStatus StoreCode(psParser* p);

// --- Sources and libraries (comp_source.cpp) --------------------------------------------------

// Behind the word LIBRARY.
psStatus MatchLIBRARY(psParser* p);

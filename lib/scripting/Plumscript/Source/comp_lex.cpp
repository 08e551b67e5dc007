// Scanners that read the text where the parser stands, and the line records.
//
// A scanner consumes what it recognises or leaves the position where it was (but for blanks) and
// says so with 184. None of them crosses a line end except lexEndOfStatement, which is therefore
// the only place where lines are counted and their records made.
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "comp_internal.h"

namespace {

constexpr const char* kReservedWords[] = {
    "END",  "LET",      "PRINT",        "IF",     "ELSE",     "ENDIF",     "THEN",
    "GOTO", "FOR",      "TO",           "STEP",   "NEXT",     "RETURN",    "DIM",
    "NOT",  "AND",      "OR",           "TAB",    "STOP",     "OBJFUN",    "TYPE",
    "TRUE", "FALSE",    "CREATEOBJECT", "WHILE",  "ENDWHILE", "EXITWHILE", "EACH",
    "EXIT", "INVALID",  "ENDFUNCTION",  "ENDSUB", "ELSEIF",   "REM",       "LINE_NUM",
    "SUB",  "FUNCTION",
};
static_assert(std::size(kReservedWords) == kKwCount);
constexpr uint32_t kLongestReservedWord = 12;

psHashTable* reserved_words = nullptr;

// Classes of characters. Bytes above 127 have none, so they begin and continue nothing.
enum : uint8_t { kIdStart = 1, kDigit = 2, kSuffix = 4, kIdPart = kIdStart | kDigit };
struct Classes {
  uint8_t of[256] = {};
  constexpr Classes() {
    for (int c = 'a'; c <= 'z'; c++) of[c] = of[c - 32] = kIdStart;
    of[static_cast<int>('_')] = kIdStart;
    for (int c = '0'; c <= '9'; c++) of[c] = kDigit;
    for (char c : {'!', '#', '$', '%'}) of[static_cast<int>(c)] = kSuffix;
  }
};
constexpr Classes kClasses;
uint8_t classOf(char c) { return kClasses.of[static_cast<unsigned char>(c)]; }
bool isDigit(char c) { return classOf(c) == kDigit; }

psKeyword keywordOf(std::string_view text, uint32_t hash) {
  if (text.size() < 2 || text.size() > kLongestReservedWord) return kKwNone;
  const void* found = hashFindHashed(reserved_words, text, hash);
  return found != nullptr ? static_cast<psKeyword>(*static_cast<const int32_t*>(found)) : kKwNone;
}

// A new line begins at the position.
void beginLine(psLexer* lex) {
  lex->line_begin = lex->pos;
  const char* s = lex->pos;
  while (*s == ' ' || *s == '\t') s++;
  lex->line_first = s;
}

}  // namespace

void lexInitKeywords() {
  if (reserved_words != nullptr) return;
  reserved_words = hashNew(4, 64);
  psAssert(reserved_words);
  for (int32_t i = 0; i < kKwCount; i++) hashAdd(reserved_words, kReservedWords[i], &i);
}

void lexFreeKeywords() {
  hashFree(reserved_words);
  reserved_words = nullptr;
}

void lexInit(psParser* p, const char* text, int32_t line, const std::string* file) {
  psAssertText(reserved_words != nullptr, "lexInitKeywords has run");
  psLexer* lex = &p->lex;
  *lex = {};
  lex->pos = lex->text_start = lex->line_src_start = text;
  lex->line_num = line;
  lex->file = file;
  // A CR that comes before the first LF, and has none behind it, ends lines all by itself.
  const char* s = text + std::strcspn(text, "\r\n");
  lex->line_end = s[0] == '\r' && s[1] != '\n' ? '\r' : '\n';
  beginLine(lex);
}

void lexSkipBlanks(psParser* p) {
  const char* s = p->lex.pos;
  while (*s == ' ' || *s == '\t' || (*s == '\r' && p->lex.line_end == '\n')) s++;
  p->lex.pos = s;
}

char lexPeek(psParser* p) {
  lexSkipBlanks(p);
  return *p->lex.pos;
}

// --- Words ------------------------------------------------------------------------------------

bool lexGetID(psParser* p, psID* id, bool digit_start, bool reserved) {
  lexSkipBlanks(p);
  const char* s = p->lex.pos;
  if (!(classOf(*s) & (digit_start ? kIdPart : kIdStart))) return false;
  uint32_t h = 0;
  id->start = s;
  do {
    h = hashFoldStep(h, static_cast<unsigned char>(*s++));
  } while (classOf(*s) & kIdPart);
  if (classOf(*s) == kSuffix) h = hashFoldStep(h, static_cast<unsigned char>(*s++));
  id->length = static_cast<uint32_t>(s - id->start);
  id->hash = hashEnd(h);
  id->keyword = keywordOf(id->text(), id->hash);
  if (!reserved && id->keyword != kKwNone) return false;
  p->lex.pos = s;
  return true;
}

bool lexIDEquals(const psID& id, std::string_view word) { return hashEqualFold(id.text(), word); }

psStatus lexMatchWord(psParser* p, psKeyword word) {
  psID id;
  if (!lexGetID(p, &id, false, true)) return kPsNoMatch;
  if (id.keyword == word) return kPsOkay;
  lexRewindToID(p, id);
  return kPsNoMatch;
}

psStatus lexMatchWord(psParser* p, std::string_view word) {
  psID id;
  if (!lexGetID(p, &id, false, true)) return kPsNoMatch;
  if (lexIDEquals(id, word)) return kPsOkay;
  lexRewindToID(p, id);
  return kPsNoMatch;
}

// No word boundary is asked for: scripts rely on "5 mod3".
psStatus lexMatchText(psParser* p, std::string_view text) {
  lexSkipBlanks(p);
  const char* s = p->lex.pos;
  for (char c : text) {
    const char have = *s >= 'A' && *s <= 'Z' ? static_cast<char>(*s | 0x20) : *s;
    const char want = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    if (have != want) return kPsNoMatch;
    s++;
  }
  p->lex.pos = s;
  return kPsOkay;
}

uint16_t lexTypeFromSuffix(std::string_view name) {
  if (name.size() < 2) return psDynamic;
  switch (name.back()) {
    case '!': return psFloat;
    case '#': return psDouble;
    case '$': return psString;
    case '%': return psInteger;
    default: return psDynamic;
  }
}

// --- Literals ---------------------------------------------------------------------------------

namespace {

constexpr size_t kLongestNumber = 78;

double toDouble(std::string_view text) {
  if (text.size() > kLongestNumber) return 0;
  double value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc::result_out_of_range) return value;
  // Too large or too small: the C conversion says what it is then.
  char copy[kLongestNumber + 1];
  copy[text.copy(copy, kLongestNumber)] = '\0';
  return std::strtod(copy, nullptr);
}

}  // namespace

psStatus lexNumber(psParser* p) {
  lexSkipBlanks(p);
  const char* s = p->lex.pos;
  if (!isDigit(*s) && *s != '.') return kPsNoMatch;
  int digits = 0;
  bool fraction = false;
  // Every '.' with a digit behind it belongs to the literal; the conversion stops at the second.
  for (;; s++) {
    if (isDigit(*s)) {
      if (digits < 10) digits++;
    } else if (*s == '.' && isDigit(s[1])) {
      fraction = true;
    } else {
      break;
    }
  }
  bool exponent = false;
  bool is_double = digits > 9;
  const char e = static_cast<char>(*s | 0x20);
  if (e == 'e' || e == 'd') {
    if (e == 'e') exponent = true;
    if (e == 'd') is_double = true;
    s++;
    if (*s == '+' || *s == '-') s++;
    while (isDigit(*s)) s++;
  }
  bool is_float = false;
  if (*s == '#') {
    s++;
    is_double = true;
  } else if (is_double) {
    if (*s == '!' || *s == '%') s++;
  } else if (*s == '!') {
    s++;
    is_float = true;
  } else {
    is_float = exponent || fraction;
    if (*s == '%') s++;
  }
  const std::string_view text(p->lex.pos, static_cast<size_t>(s - p->lex.pos));
  psStatus err;
  if (is_double) {
    // The conversion does not know the exponent letter 'd': 1.5D3 is 1.5.
    err = EmitDouble(p, toDouble(text));
  } else if (is_float) {
    err = EmitFloat(p, static_cast<float>(toDouble(text)));
  } else {
    int32_t value = 0;  // nine digits at most
    for (char c : text) {
      if (isDigit(c)) value = value * 10 + (c - '0');
    }
    err = EmitInt(p, value);
  }
  if (err == kPsOkay) p->lex.pos = s;
  return err;
}

psStatus lexHexNumber(psParser* p) {
  if (lexPeek(p) != '&') return kPsNoMatch;
  p->lex.pos++;
  if ((lexPeek(p) | 0x20) != 'h') return kPsSyntaxError;
  uint32_t value = 0;
  const char* s = p->lex.pos + 1;
  for (;; s++) {
    const char c = static_cast<char>(*s | 0x20);
    if (isDigit(*s)) {
      value = value * 16 + static_cast<uint32_t>(*s - '0');
    } else if (c >= 'a' && c <= 'f') {
      value = value * 16 + static_cast<uint32_t>(c - 'a' + 10);
    } else {
      break;
    }
  }
  p->lex.pos = s;
  return EmitInt(p, static_cast<int32_t>(value));
}

psStatus lexString(psParser* p, std::string_view* text) {
  if (lexPeek(p) != '"') return kPsNoMatch;
  const char* s = p->lex.pos + 1;
  const char* end = s;
  while (*end != '"' && *end != '\n' && *end != '\r' && *end != '\0') end++;
  if (*end != '"') return kPsMissingQuote;
  *text = {s, static_cast<size_t>(end - s)};
  p->lex.pos = end + 1;
  return kPsOkay;
}

// --- Statement and line ends ------------------------------------------------------------------

bool lexAtEndOfStatement(psParser* p) {
  const char c = lexPeek(p);
  return c == ':' || c == p->lex.line_end || c == '\'';
}

bool lexAtStatementEnd(psParser* p) { return lexAtEndOfStatement(p) || *p->lex.pos == '\0'; }

void lexSkipLine(psParser* p) {
  const char* s = p->lex.pos;
  while (*s != '\0' && *s != p->lex.line_end) s++;
  p->lex.pos = s;
}

psStatus lexEndOfStatement(psParser* p) {
  psLexer* lex = &p->lex;
  const char c = lexPeek(p);
  if (c == ':') {
    lex->pos++;
    return kPsOkay;
  }
  if (c == '\'') {
    lexSkipLine(p);
  } else if (c != lex->line_end && c != '\0') {
    return kPsNoMatch;
  }
  if (p->module->lines.size() >= kPsMaxLines) return kPsInternalLimit;
  lexMarkLine(p);
  lex->line_num++;
  if (*lex->pos != '\0') lex->pos++;
  lex->line_src_start = lex->pos;
  lex->line_pc_start = pcNow(p);
  beginLine(lex);
  return kPsOkay;
}

bool lexAtLineStart(const psParser* p) {
  const psLexer& lex = p->lex;
  // The first line has no line end before it: behind blanks there is no line start.
  if (lex.line_begin == lex.text_start) return lex.pos == lex.text_start;
  return lex.pos <= lex.line_first;
}

bool lexLineNumber(psParser* p, psID* id) {
  lexSkipBlanks(p);
  const char* s = p->lex.pos;
  uint32_t h = 0;
  while (isDigit(*s)) h = hashFoldStep(h, static_cast<unsigned char>(*s++));
  if (s == p->lex.pos || std::strchr(" \t\n\r", *s) == nullptr)
    return false;  // the NUL is found too
  *id = {p->lex.pos, static_cast<uint32_t>(s - p->lex.pos), hashEnd(h), kKwNone};
  p->lex.pos = s;
  return true;
}

// --- Line records -----------------------------------------------------------------------------

std::string lexLineText(const psParser* p, const char* to) {
  std::string text(p->lex.line_src_start, static_cast<size_t>(to - p->lex.line_src_start));
  if (*to == '\0') {
    text += '\n';
  } else if (!text.empty() && text.back() == '\r') {
    text.back() = '\n';
  }
  return text;
}

void lexMarkLine(psParser* p) {
  psLineData& line = p->module->lines.emplace_back();
  line.srccpy = lexLineText(p, p->lex.pos);
  line.function = p->sp.sub;
  line.pc_start = p->sp.sub != nullptr ? p->lex.line_pc_start : 0;
  line.line_num = p->lex.line_num;
  line.file = p->lex.file;
}

void lexMarkOpenLine(psParser* p) {
  if (p->lex.line_pc_start >= pcNow(p)) return;
  lexMarkLine(p);
  p->lex.line_src_start = p->lex.pos;
  p->lex.line_pc_start = pcNow(p);
}

// A line's code ends where the next line of the same function begins, whatever lies between in the
// list: lines of anonymous functions, lines outside functions, or other functions when the next
// lines were compiled live.
void lexFinishLineData(psModule* module) {
  std::vector<int64_t> next(module->function_list.size(), -1);
  for (auto line = module->lines.rbegin(); line != module->lines.rend(); ++line) {
    if (line->function == nullptr) {
      line->pc_last = -1;
      continue;
    }
    int64_t& begin = next[static_cast<size_t>(line->function->index)];
    const int64_t end = begin >= 0 ? begin : static_cast<int64_t>(line->function->code.size());
    line->pc_last = static_cast<int32_t>(end - 1);
    begin = line->pc_start;
  }
}

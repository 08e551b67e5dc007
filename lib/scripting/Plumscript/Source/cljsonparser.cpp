// JSON text to containers and back.
//
// The parser walks the text once, by characters where the next token is the one that is expected
// and by tokens where it has to name what it found instead. Texts without escapes are taken
// straight from the input; the others are unescaped onto a scratch stack, where a key stays until
// its value is there. The writer fills one growing block, which becomes the result. Both recurse
// once a level and at most kMaxDepth levels, and neither runs script code, so what they look at
// stays put.
#include "cljsonparser.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "clwrappers.h"
#include "containers.h"
#include "ps_heap.h"

namespace {

constexpr int kMaxDepth = 256;

__attribute__((format(printf, 2, 3))) void report(const char* function, const char* format, ...) {
  char message[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof message, format, args);
  va_end(args);
  pscDiagnostic(function, message);
}

// --- Eight bytes at a time --------------------------------------------------------------------
// Each test sets the top bit of the bytes it is about. A borrow may set bits above the first such
// byte, so only the lowest bit set is to be trusted.

static_assert(std::endian::native == std::endian::little);

constexpr uint64_t kOnes = 0x0101010101010101;
constexpr uint64_t kTops = 0x8080808080808080;

inline uint64_t load8(const char* p) {
  uint64_t word;
  std::memcpy(&word, p, sizeof word);
  return word;
}
constexpr uint64_t bytesBelow(uint64_t word, uint8_t limit) {
  return (word - kOnes * limit) & ~word & kTops;
}
constexpr uint64_t bytesEqual(uint64_t word, uint8_t byte) {
  return bytesBelow(word ^ kOnes * byte, 1);
}

// A block of the script heap that grows geometrically and is used as a stack.
template <class T>
class Stack {
 public:
  ~Stack() { psFree(items_, size_t{capacity_} * sizeof(T)); }
  Stack() = default;
  Stack(const Stack&) = delete;
  Stack& operator=(const Stack&) = delete;

  size_t size() const { return size_; }
  T* at(size_t i) { return items_ + i; }
  void shrink(size_t size) { size_ = size; }
  // Room for n more at the top, not counted yet; null when memory is refused.
  T* reserve(size_t n) {
    if (n > capacity_ - size_) {
      const size_t capacity = std::max<size_t>({size_ + n, capacity_ * 2, 64});
      void* block = psRealloc(items_, capacity_ * sizeof(T), capacity * sizeof(T));
      if (block == nullptr) return nullptr;
      items_ = static_cast<T*>(block);
      capacity_ = capacity;
    }
    return items_ + size_;
  }
  void grow(size_t n) { size_ += n; }

 private:
  T* items_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

// --- Parser -----------------------------------------------------------------------------------

// These numbers appear in messages; a punctuation token is its own character.
enum JsonToken : int {
  kTokenString = 1000,
  kTokenInteger,
  kTokenFloat,
  kTokenEnd,
  kTokenTrue,
  kTokenFalse,
  kTokenNull,
};

constexpr bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

constexpr int hexDigit(char c) {
  if (isDigit(c)) return c - '0';
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Weights of the digits behind a decimal point; later ones add nothing.
constexpr float kWeights[] = {
    1e-1f,  1e-2f,  1e-3f,  1e-4f,  1e-5f,  1e-6f,  1e-7f,  1e-8f,  1e-9f,  1e-10f, 1e-11f, 1e-12f,
    1e-13f, 1e-14f, 1e-15f, 1e-16f, 1e-17f, 1e-18f, 1e-19f, 1e-20f, 1e-21f, 1e-22f, 1e-23f, 1e-24f,
    1e-25f, 1e-26f, 1e-27f, 1e-28f, 1e-29f, 1e-30f, 1e-31f, 1e-32f, 1e-33f, 1e-34f, 1e-35f, 1e-36f,
    1e-37f, 1e-38f, 1e-39f, 1e-40f, 1e-41f, 1e-42f, 1e-43f, 1e-44f, 1e-45f};

// Beyond this every mantissa but 0 gives infinity or 0 in single precision, and the power itself is
// still a finite double, so that 0 stays 0.
constexpr int kMaxExponent = 300;

class JsonParser {
 public:
  JsonParser(pscDomain* domain, psText text)
      : domain_(domain), p_(text.data()), end_(text.data() + text.size()) {}

  // The value at the current position, with one reference; false after the message.
  bool parseValue(psTypedValue* out, int depth);
  void skipSpace() {
    while (p_ < end_ && isSpace(*p_)) ++p_;
  }
  bool atEnd() const { return p_ >= end_; }

 private:
  // Text of a string token, in the input or on the scratch stack.
  struct Piece {
    const char* data;  // null: at offset of the scratch stack
    size_t offset;
    size_t length;
  };
  psText textOf(const Piece& piece) {
    return psText(piece.data != nullptr ? piece.data : scratch_.at(piece.offset), piece.length);
  }

  // The next non-blank character, or NUL at the end of the input.
  char peek() {
    skipSpace();
    return p_ < end_ ? *p_ : '\0';
  }
  static bool outOfMemory() {
    report("ParseJSON", "Out of memory");
    return false;
  }

  const char* skipPlain(const char* p) const;
  bool parseString(Piece* piece);
  bool parseEscapedString(const char* start, Piece* piece);
  bool parseNumber(psTypedValue* out);
  bool parseWord(psTypedValue* out, int* token);
  bool parseArray(psTypedValue* out, int depth);
  bool parseMembers(psAssocArray* members, int depth);
  bool parseObject(psTypedValue* out, int depth);
  bool mismatch(int wanted);

  pscDomain* domain_;
  const char* p_;
  const char* end_;
  Stack<char> scratch_;
};

// The first character from p on that a string cannot simply hold: a quote, a backslash, a line end
// or the end of the input.
const char* JsonParser::skipPlain(const char* p) const {
  for (;;) {
    while (end_ - p >= 8) {
      const uint64_t word = load8(p);
      const uint64_t hits = bytesEqual(word, '"') | bytesEqual(word, '\\') | bytesBelow(word, 0x20);
      if (hits != 0) {
        p += std::countr_zero(hits) / 8;
        break;
      }
      p += 8;
    }
    while (p < end_ && *p != '"' && *p != '\\' && static_cast<unsigned char>(*p) >= 0x20) ++p;
    // Other control characters are kept.
    if (p >= end_ || *p == '"' || *p == '\\' || *p == '\n' || *p == '\r') return p;
    ++p;
  }
}

bool JsonParser::parseString(Piece* piece) {
  const char* start = p_ + 1;
  const char* stop = skipPlain(start);
  if (stop < end_ && *stop == '"') {
    *piece = {start, 0, static_cast<size_t>(stop - start)};
    p_ = stop + 1;
    return true;
  }
  return parseEscapedString(start, piece);
}

bool JsonParser::parseEscapedString(const char* start, Piece* piece) {
  const size_t offset = scratch_.size();
  const char* p = start;
  for (;;) {
    const char* stop = skipPlain(p);
    const size_t plain = static_cast<size_t>(stop - p);
    // An escape gives three bytes at most.
    char* out = scratch_.reserve(plain + 3);
    if (out == nullptr) return outOfMemory();
    std::memcpy(out, p, plain);
    out += plain;
    scratch_.grow(plain);
    p = stop;
    if (p >= end_ || *p == '\n' || *p == '\r') {
      report("ParseJSON", "Unterminated string");
      return false;
    }
    if (*p == '"') break;
    if (++p >= end_) return false;  // a backslash ends the text: no message
    const char escape = *p++;
    switch (escape) {
      case '"':
      case '\\':
      case '/': *out++ = escape; break;
      case 'b': *out++ = '\b'; break;
      case 'f': *out++ = '\f'; break;
      case 'n': *out++ = '\n'; break;
      case 'r': *out++ = '\r'; break;
      case 't': *out++ = '\t'; break;
      case 'u': {
        unsigned code = 0;
        for (int i = 0; i < 4; ++i, ++p) {
          const int digit = p < end_ ? hexDigit(*p) : -1;
          if (digit < 0) {
            report("ParseJSON", "Invalid \\u escape sequence");
            return false;
          }
          code = code << 4 | static_cast<unsigned>(digit);
        }
        // The halves of a surrogate pair stay two sequences.
        if (code < 0x80) {
          *out++ = static_cast<char>(code);
        } else if (code < 0x800) {
          *out++ = static_cast<char>(0xc0 | code >> 6);
          *out++ = static_cast<char>(0x80 | (code & 0x3f));
        } else {
          *out++ = static_cast<char>(0xe0 | code >> 12);
          *out++ = static_cast<char>(0x80 | (code >> 6 & 0x3f));
          *out++ = static_cast<char>(0x80 | (code & 0x3f));
        }
        break;
      }
      default: report("ParseJSON", "Unknown escape sequence %c", escape); return false;
    }
    scratch_.grow(static_cast<size_t>(out - scratch_.at(scratch_.size())));
  }
  p_ = p + 1;
  // Script text ends at its first NUL, which an escape can name.
  const size_t length = scratch_.size() - offset;
  *piece = {nullptr, offset, length > 0 ? strnlen(scratch_.at(offset), length) : 0};
  return true;
}

bool JsonParser::parseNumber(psTypedValue* out) {
  const char* p = p_;
  const bool negative = *p == '-';
  if (negative) ++p;
  uint64_t integer = 0;
  for (; p < end_ && isDigit(*p); ++p) integer = integer * 10 + static_cast<uint64_t>(*p - '0');
  if (p >= end_ || (*p != '.' && (*p | 0x20) != 'e')) {
    p_ = p;
    if (integer <= INT32_MAX) {
      const auto value = static_cast<int64_t>(integer);
      *out = psIntegerValue(negative ? -value : value);
    } else {
      const auto value = static_cast<float>(integer);
      *out = psFloatValue(negative ? -value : value);
    }
    return true;
  }
  auto value = static_cast<float>(integer);
  if (*p == '.') {
    ++p;
    const char* first = p;
    for (; p < end_ && isDigit(*p); ++p) {
      const auto place = static_cast<size_t>(p - first);
      // The product and, as far as single precision can tell, the sum are exact in double: this is
      // a fused multiply-add.
      if (place < std::size(kWeights)) {
        value = static_cast<float>(double{value} + (*p - '0') * double{kWeights[place]});
      }
    }
    if (p == first) {
      report("ParseJSON", "Invalid number format");
      return false;
    }
  }
  if (p < end_ && (*p | 0x20) == 'e') {
    ++p;
    const bool has_sign = p < end_ && (*p == '+' || *p == '-');
    const bool negative_exponent = has_sign && *p == '-';
    if (has_sign) ++p;
    if (!has_sign && (p >= end_ || !isDigit(*p))) {
      report("ParseJSON", "Invalid number format");
      return false;
    }
    int exponent = 0;
    for (; p < end_ && isDigit(*p); ++p) {
      exponent = std::min(exponent * 10 + (*p - '0'), kMaxExponent);
    }
    value = static_cast<float>(value * std::pow(10.0, negative_exponent ? -exponent : exponent));
  }
  p_ = p;
  *out = psFloatValue(negative ? -value : value);
  return true;
}

// null, true, false: only their own letters are looked at, whatever follows.
bool JsonParser::parseWord(psTypedValue* out, int* token) {
  struct Word {
    psText text;
    int token;
    psTypedValue value;
  };
  const Word words[] = {
      {"null", kTokenNull, psInvalidValue()},
      {"true", kTokenTrue, psBooleanValue(true)},
      {"false", kTokenFalse, psBooleanValue(false)},
  };
  const psText rest(p_, static_cast<size_t>(end_ - p_));
  for (const Word& word : words) {
    if (!rest.starts_with(word.text)) continue;
    p_ += word.text.size();
    *out = word.value;
    *token = word.token;
    return true;
  }
  report("ParseJSON", "Unknown identifier '%.*s'",
         static_cast<int>(std::min<size_t>(rest.size(), 511)), p_);
  return false;
}

// The token at the current position is not the one wanted: reads it to name it. Always false.
bool JsonParser::mismatch(int wanted) {
  const char c = peek();
  psTypedValue value;
  int token = c;
  if (atEnd()) {
    token = kTokenEnd;
  } else if (c == '"') {
    Piece piece;
    if (!parseString(&piece)) return false;
    token = kTokenString;
  } else if (c == '-' || isDigit(c)) {
    if (!parseNumber(&value)) return false;
    token = psIs(value, kPsIntegerFlag) ? kTokenInteger : kTokenFloat;
  } else if (psText(",:[]{}").find(c) == psText::npos) {
    if (!parseWord(&value, &token)) return false;
  }
  if (wanted != 0) {
    report("ParseJSON", "Match failed, wanted %d got %d", wanted, token);
  } else if (token == kTokenEnd) {
    report("ParseJSON", "Unexpected end of data");
  } else {
    report("ParseJSON", "Unexpected token type %d", token);
  }
  return false;
}

bool JsonParser::parseArray(psTypedValue* out, int depth) {
  ++p_;
  pscInstance* instance = pscCreateArray(domain_, 1, true);
  if (instance == nullptr) return outOfMemory();
  psArray* array = pscData<psArray>(instance);
  *out = psObjectValue(instance);
  if (peek() == ']') {
    ++p_;
    return true;
  }
  for (;;) {
    psTypedValue element;
    if (!parseValue(&element, depth - 1)) break;
    const int32_t tail = array->tail;
    psArrayPush(array, element);
    if (array->tail == tail) {
      outOfMemory();
      break;
    }
    const char c = peek();
    if (c != ',' && c != ']') {
      mismatch(',');
      break;
    }
    ++p_;
    if (c == ']') return true;
  }
  pscSubRef(instance);
  *out = psInvalidValue();
  return false;
}

bool JsonParser::parseMembers(psAssocArray* members, int depth) {
  if (peek() == '}') {
    ++p_;
    return true;
  }
  for (;;) {
    if (peek() != '"') return mismatch(kTokenString);
    const size_t scratch_top = scratch_.size();
    Piece key;
    if (!parseString(&key)) return false;
    if (peek() != ':') return mismatch(':');
    ++p_;
    psTypedValue value;
    if (!parseValue(&value, depth - 1)) return false;
    const psText name = textOf(key);
    psAssocAddReplace(members, name, psKeyHash(name), value);
    scratch_.shrink(scratch_top);
    const char c = peek();
    if (c != ',' && c != '}') return mismatch(',');
    ++p_;
    if (c == '}') return true;
  }
}

bool JsonParser::parseObject(psTypedValue* out, int depth) {
  ++p_;
  pscInstance* instance = psNewAssociativeArray(domain_);
  if (instance == nullptr) return outOfMemory();
  psAssocArray* members = pscData<psAssocArray>(instance);
  members->case_sensitive = true;
  if (!parseMembers(members, depth)) {
    pscSubRef(instance);
    return false;
  }
  *out = psObjectValue(instance);
  return true;
}

bool JsonParser::parseValue(psTypedValue* out, int depth) {
  *out = psInvalidValue();
  const char c = peek();
  if (c == '"') {
    const size_t scratch_top = scratch_.size();
    Piece piece;
    if (!parseString(&piece)) return false;
    pscInstance* text = psNewString(domain_, textOf(piece));
    scratch_.shrink(scratch_top);
    if (text == nullptr) return outOfMemory();
    *out = psStringObjectValue(text);
    return true;
  }
  if (isDigit(c) || c == '-') return parseNumber(out);
  if (c == '[' || c == '{') {
    if (depth == 0) {
      report("ParseJSON", "Max nesting depth exceeded");
      return false;
    }
    return c == '[' ? parseArray(out, depth) : parseObject(out, depth);
  }
  if (atEnd() || c == ',' || c == ':' || c == ']' || c == '}') return mismatch(0);
  int token;
  return parseWord(out, &token);
}

// --- Writer -----------------------------------------------------------------------------------

// One character of UTF-8 text from p on and its length. A byte that starts no sequence is a
// character of its own value. Surrogate halves pass: the parser makes them.
uint32_t decodeCharacter(const char* p, const char* end, int* length) {
  const auto byte = [p](int i) { return static_cast<unsigned char>(p[i]); };
  const auto tail = [&](int n) {
    if (end - p < n) return false;
    for (int i = 1; i < n; ++i) {
      if ((byte(i) & 0xc0) != 0x80) return false;
    }
    *length = n;
    return true;
  };
  const unsigned lead = byte(0);
  if (lead >= 0xc2 && lead < 0xe0 && tail(2)) return (lead & 0x1fu) << 6 | (byte(1) & 0x3fu);
  if ((lead & 0xf0) == 0xe0 && (lead != 0xe0 || (end - p > 1 && byte(1) >= 0xa0)) && tail(3)) {
    return (lead & 0x0fu) << 12 | (byte(1) & 0x3fu) << 6 | (byte(2) & 0x3fu);
  }
  if (lead >= 0xf0 && lead < 0xf5 && tail(4)) {
    const uint32_t code =
        (lead & 0x07u) << 18 | (byte(1) & 0x3fu) << 12 | (byte(2) & 0x3fu) << 6 | (byte(3) & 0x3fu);
    if (code >= 0x10000 && code <= 0x10ffff) return code;
  }
  *length = 1;
  return lead;
}

int encodeCharacter(uint32_t code, char* out) {
  if (code < 0x800) {
    out[0] = static_cast<char>(0xc0 | code >> 6);
    out[1] = static_cast<char>(0x80 | (code & 0x3f));
    return 2;
  }
  if (code < 0x10000) {
    out[0] = static_cast<char>(0xe0 | code >> 12);
    out[1] = static_cast<char>(0x80 | (code >> 6 & 0x3f));
    out[2] = static_cast<char>(0x80 | (code & 0x3f));
    return 3;
  }
  out[0] = static_cast<char>(0xf0 | code >> 18);
  out[1] = static_cast<char>(0x80 | (code >> 12 & 0x3f));
  out[2] = static_cast<char>(0x80 | (code >> 6 & 0x3f));
  out[3] = static_cast<char>(0x80 | (code & 0x3f));
  return 4;
}

class JsonWriter {
 public:
  explicit JsonWriter(int32_t flags) : raw_utf8_((flags & kPsJsonRawUtf8) != 0) {}
  ~JsonWriter() { psFree(block_, capacity_); }
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  bool formatValue(const psTypedValue& value, int depth);
  // The text as a koString, which takes the block over; null when memory is refused.
  pscInstance* finish(pscDomain* domain);

 private:
  struct Member {
    uint64_t prefix;  // the key's first eight bytes as a number, so that most comparisons are one
    const psAssocEntry* entry;
    bool operator<(const Member& other) const {
      if (prefix != other.prefix) return prefix < other.prefix;
      return psText(entry->key, entry->key_length) <
             psText(other.entry->key, other.entry->key_length);
    }
  };

  // Room for n more bytes and a NUL.
  bool reserve(size_t n) { return capacity_ - length_ > n || growBlock(n); }
  bool growBlock(size_t n);
  bool put(char c) {
    if (!reserve(1)) return false;
    block_[length_++] = c;
    return true;
  }
  bool put(psText text) {
    if (!reserve(text.size())) return false;
    std::memcpy(block_ + length_, text.data(), text.size());
    length_ += text.size();
    return true;
  }
  bool putInteger(int64_t value);
  bool putNumber(double value);
  bool putString(psText text);
  bool formatObject(pscInstance* instance, int depth);
  bool formatArray(psArray* array, int depth);
  bool formatMembers(psAssocArray* members, int depth);

  static bool outOfMemory() {
    report("FormatJSON", "Out of memory");
    return false;
  }

  const bool raw_utf8_;
  char* block_ = nullptr;
  size_t length_ = 0;
  size_t capacity_ = 0;
  Stack<Member> members_;
};

bool JsonWriter::growBlock(size_t n) {
  constexpr size_t kMaxBlock = kPsMaxTextLength + 1;
  if (n >= kMaxBlock - length_) return outOfMemory();
  const size_t wanted = std::max<size_t>({length_ + n + 1, capacity_ * 2, 256});
  const size_t capacity = std::min((wanted + 15) & ~size_t{15}, kMaxBlock);
  char* block = static_cast<char*>(psRealloc(block_, capacity_, capacity));
  if (block == nullptr) return outOfMemory();
  block_ = block;
  capacity_ = capacity;
  return true;
}

bool JsonWriter::putInteger(int64_t value) {
  constexpr size_t kLongest = 20;
  if (!reserve(kLongest)) return false;
  char* first = block_ + length_;
  length_ += static_cast<size_t>(std::to_chars(first, first + kLongest, value).ptr - first);
  return true;
}

bool JsonWriter::putNumber(double value) {
  // "%g" with a fraction, else "%.0f" while every digit is exact, else "%.10g"; in any locale.
  constexpr size_t kLongest = 31;
  if (!reserve(kLongest)) return false;
  char* first = block_ + length_;
  char* limit = first + kLongest;
  char* last;
  int exponent;
  std::frexp(value, &exponent);
  if (value != std::trunc(value)) {
    last = std::to_chars(first, limit, value, std::chars_format::general, 6).ptr;
  } else if (std::isinf(value) || exponent < 54) {
    last = std::to_chars(first, limit, value, std::chars_format::fixed, 0).ptr;
  } else {
    last = std::to_chars(first, limit, value, std::chars_format::general, 10).ptr;
  }
  length_ += static_cast<size_t>(last - first);
  return true;
}

bool JsonWriter::putString(psText text) {
  const char* p = text.data();
  const char* const end = p + text.size();
  // Room for the rest as it stands; what gets longer asks for more.
  if (!reserve(text.size() + 2)) return false;
  block_[length_++] = '"';
  while (p < end) {
    char* out = block_ + length_;
    while (end - p >= 8) {
      const uint64_t word = load8(p);
      const uint64_t hits = (word & kTops) | bytesBelow(word, 0x20) | bytesEqual(word, '"') |
                            bytesEqual(word, '\\') | bytesEqual(word, 0x7f);
      if (hits != 0) break;
      std::memcpy(out, &word, sizeof word);
      out += 8;
      p += 8;
    }
    while (p < end && *p >= 0x20 && *p != '"' && *p != '\\' && *p != 0x7f) *out++ = *p++;
    length_ = static_cast<size_t>(out - block_);
    if (p >= end) break;

    constexpr size_t kLongestEscape = 6;
    if (!reserve(static_cast<size_t>(end - p) + kLongestEscape + 1)) return false;
    out = block_ + length_;
    int taken = 1;
    const auto byte = static_cast<unsigned char>(*p);
    const uint32_t code = byte < 0x80 ? byte : decodeCharacter(p, end, &taken);
    char letter = 0;
    switch (code) {
      case '\b': letter = 'b'; break;
      case '\t': letter = 't'; break;
      case '\n': letter = 'n'; break;
      case '\f': letter = 'f'; break;
      case '\r': letter = 'r'; break;
      case '"':
      case '\\': letter = static_cast<char>(code); break;
      default: break;
    }
    if (letter != 0) {
      *out++ = '\\';
      *out++ = letter;
    } else if (code >= 0x80 && raw_utf8_) {
      out += encodeCharacter(code, out);
    } else {
      // Scripts rely on this: only the low sixteen bits of a code point are written.
      constexpr char kHex[] = "0123456789ABCDEF";
      *out++ = '\\';
      *out++ = 'u';
      for (int shift = 12; shift >= 0; shift -= 4) *out++ = kHex[code >> shift & 15];
    }
    length_ = static_cast<size_t>(out - block_);
    p += taken;
  }
  block_[length_++] = '"';
  return true;
}

bool JsonWriter::formatArray(psArray* array, int depth) {
  psGuard guard(array->lock);
  if (!put('[')) return false;
  // By index, not by the array's own enumeration: that may be a script's loop in progress.
  for (int32_t i = 0; i <= array->tail; ++i) {
    if (i > 0 && !put(',')) return false;
    if (!formatValue(psArrayElement(array, i), depth + 1)) return false;
  }
  return put(']');
}

bool JsonWriter::formatMembers(psAssocArray* array, int depth) {
  psGuard guard(array->lock);
  const size_t first = members_.size();
  Member* member = members_.reserve(std::max<size_t>(array->count, 1));
  if (member == nullptr) return outOfMemory();
  Member* const begin = member;
  for (const psAssocEntry* bucket : array->buckets) {
    for (const psAssocEntry* entry = bucket; entry != nullptr; entry = entry->next) {
      *member++ = {__builtin_bswap64(load8(entry->key)), entry};
    }
  }
  std::sort(begin, member);
  const size_t count = static_cast<size_t>(member - begin);
  members_.grow(count);

  if (!put('{')) return false;
  for (size_t i = 0; i < count; ++i) {
    const psAssocEntry* entry = members_.at(first + i)->entry;
    if (i > 0 && !put(',')) return false;
    if (!putString(psText(entry->key, entry->key_length)) || !put(':')) return false;
    if (!formatValue(entry->value, depth + 1)) return false;
  }
  members_.shrink(first);
  return put('}');
}

bool JsonWriter::formatObject(pscInstance* instance, int depth) {
  if (depth >= kMaxDepth) {
    report("FormatJSON", "Maximum nesting depth exceeded");
    return false;
  }
  if (instance == nullptr) return false;
  const pscClass* cl = instance->psc_class;
  if (cl == &clInvalid) return put("null");
  if (cl == &clBoolean) return put(*pscData<bool>(instance) ? "true" : "false");
  if (cl == &clInt) return putInteger(*pscData<int32_t>(instance));
  if (cl == &clFloat) return putNumber(*pscData<float>(instance));
  if (cl == &clIntrinsicDouble || cl == &clDouble) return putNumber(*pscData<double>(instance));
  if (cl == &clString) return putString(psStringText(instance));
  if (cl == &clAssociativeArray) return formatMembers(pscData<psAssocArray>(instance), depth);
  if (cl == &clArray) return formatArray(pscData<psArray>(instance), depth);
  return false;
}

bool JsonWriter::formatValue(const psTypedValue& value, int depth) {
  if (psIs(value, kPsObjectFlag)) return formatObject(value.value.psc, depth);
  if (psIs(value, kPsIntegerFlag)) return putInteger(value.value.i);
  if (psIs(value, kPsFloatFlag)) return putNumber(value.value.f);
  if (psIs(value, kPsBooleanFlag)) return put(value.value.i != 0 ? "true" : "false");
  if (psIs(value, kPsInvalidFlag)) return put("null");
  if (psIs(value, kPsStringConstantFlag)) return putString(GetStringPtr(&value));
  report("FormatJSON", "Value type not supported: %s", GetTypeString(&value, false));
  return false;
}

pscInstance* JsonWriter::finish(pscDomain* domain) {
  pscInstance* instance = psNewStringOfLength(domain, 0);
  if (instance == nullptr || !reserve(0)) {
    outOfMemory();
    if (instance != nullptr) pscSubRef(instance);
    return nullptr;
  }
  block_[length_] = 0;
  // What the growth took in advance is given back.
  const size_t exact = (length_ + 1 + 15) & ~size_t{15};
  if (exact < capacity_) {
    void* block = psRealloc(block_, capacity_, exact);
    if (block != nullptr) {
      block_ = static_cast<char*>(block);
      capacity_ = exact;
    }
  }
  psStringData* data = pscData<psStringData>(instance);
  data->text = block_;
  data->length = static_cast<uint32_t>(length_);
  data->capacity = static_cast<uint32_t>(capacity_);
  block_ = nullptr;
  capacity_ = 0;
  return instance;
}

pscInstance* boxed(pscDomain* domain, const psTypedValue& value) {
  switch (value.type_flags & ~kPsStringFlavourFlag) {
    case kPsObjectFlag: return value.value.psc;
    case kPsInvalidFlag: return pscNewComponentByClass(domain, &clInvalid);
    case kPsBooleanFlag: return psNewBoolean(domain, value.value.i != 0);
    case kPsIntegerFlag: return psNewInt(domain, static_cast<int32_t>(value.value.i));
    case kPsFloatFlag: return psNewFloat(domain, value.value.f);
    default: report("ParseJSON", "Unsupported return value"); return nullptr;
  }
}

}  // namespace

pscInstance* ParseJSON(pscDomain* domain, psText text) {
  // Script text ends at its first NUL.
  JsonParser parser(domain, text.substr(0, text.find('\0')));
  parser.skipSpace();
  if (parser.atEnd()) {
    report("ParseJSON", "Data is empty");
    return nullptr;
  }
  psTypedValue value;
  if (!parser.parseValue(&value, kMaxDepth)) return nullptr;
  parser.skipSpace();
  if (!parser.atEnd()) {
    report("ParseJSON", "Unexpected trailing data");
    ReleaseValue(&value);
    return nullptr;
  }
  return boxed(domain, value);
}

pscInstance* DoFormatJSON(pscDomain* domain, const psTypedValue& value, int32_t flags) {
  JsonWriter writer(flags);
  if (!writer.formatValue(value, 0)) return nullptr;
  return writer.finish(domain);
}

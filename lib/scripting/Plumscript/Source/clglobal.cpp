// The functions that scripts call without an object.
//
// Each is a plain function of the domain and its arguments, in the order of the table at the end;
// the position in the table is what compiled code refers to, so rows are only ever added at its
// end. Texts come in as views of the caller's text and are copied once, into the result. Texts are
// NUL-terminated for everyone who reads them, so none is made that holds a NUL.
#include "clglobal.h"

#include <dirent.h>
#include <fcntl.h>
#include <locale.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <numbers>
#include <string>

#include "cljsonparser.h"
#include "containers.h"
#include "hooks.h"
#include "ps_heap.h"
#include "ps_native.h"

// --- Text pieces shared with koString ---------------------------------------------------------

psText psTextLeft(psText text, int32_t n) {
  return text.substr(0, n > 0 ? static_cast<size_t>(n) : 0);
}

psText psTextRight(psText text, int32_t n) {
  const size_t wanted = n > 0 ? static_cast<size_t>(n) : 0;
  return wanted < text.size() ? text.substr(text.size() - wanted) : text;
}

psText psTextMid(psText text, int32_t position) {
  const size_t start = position > 1 ? static_cast<size_t>(position) - 1 : 0;
  return start < text.size() ? text.substr(start) : psText("", 0);
}

psText psTextMid(psText text, int32_t position, int32_t n) {
  return psTextLeft(psTextMid(text, position), n);
}

int32_t psTextInstr(int32_t start, psText text, psText needle) {
  const size_t from = start > 1 ? static_cast<size_t>(start) - 1 : 0;
  if (from >= text.size()) return 0;
  if (needle.empty()) return static_cast<int32_t>(from) + 1;
  const void* found = memmem(text.data() + from, text.size() - from, needle.data(), needle.size());
  if (found == nullptr) return 0;
  return static_cast<int32_t>(static_cast<const char*>(found) - text.data()) + 1;
}

namespace {

constexpr bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Takes leading white space and one sign off; true when the sign was a minus.
bool takeSign(psText* text) {
  while (!text->empty() && isSpace(text->front())) text->remove_prefix(1);
  if (text->empty() || (text->front() != '-' && text->front() != '+')) return false;
  const bool negative = text->front() == '-';
  text->remove_prefix(1);
  return negative;
}

// A number beyond the range of doubles, in any form: infinite or zero, as the C library reads it.
double outOfRange(const char* first, const char* last) {
  static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
  const size_t n = static_cast<size_t>(last - first);
  char* copy = static_cast<char*>(psAlloc(n + 1));
  if (copy == nullptr) return 0;
  std::memcpy(copy, first, n);
  copy[n] = 0;
  const double value = strtod_l(copy, nullptr, c_locale);
  psFree(copy, n + 1);
  return value;
}

}  // namespace

int32_t psTextToInt(psText text) {
  const bool negative = takeSign(&text);
  int64_t value = 0;
  for (char c : text) {
    if (!isDigit(c)) break;
    value = value * 10 + (c - '0');
    if (value > int64_t{INT32_MAX} + 1) return negative ? INT32_MIN : INT32_MAX;
  }
  if (negative) return static_cast<int32_t>(-value);
  return static_cast<int32_t>(std::min<int64_t>(value, INT32_MAX));
}

double psTextToDouble(psText text) {
  const bool negative = takeSign(&text);
  // The reader below would take a second sign.
  if (text.empty() || text.front() == '-') return 0;
  const char* first = text.data();
  const char* last = first + text.size();
  double value = 0;
  std::from_chars_result read{};
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    // Without a digit behind the prefix only the zero is a number; the reader would take a sign,
    // "inf" and "nan" there.
    const unsigned char next = static_cast<unsigned char>(text[2]);
    if (std::isxdigit(next) || next == '.') {
      read = std::from_chars(first + 2, last, value, std::chars_format::hex);
    }
  } else {
    read = std::from_chars(first, last, value, std::chars_format::general);
  }
  if (read.ec == std::errc::result_out_of_range) value = outOfRange(first, read.ptr);
  if (read.ec == std::errc::invalid_argument) value = 0;
  return negative ? -value : value;
}

namespace {

// --- Helpers ----------------------------------------------------------------------------------

const char* cString(psText text) { return text.data() != nullptr ? text.data() : ""; }

psStringResult newText(pscDomain* domain, psText text) { return {psNewString(domain, text)}; }

// Integer results saturate: a conversion that does not fit is undefined in C++.
int32_t saturated(double x) {
  if (std::isnan(x)) return 0;
  if (x >= 2147483647.0) return INT32_MAX;
  if (x <= -2147483648.0) return INT32_MIN;
  return static_cast<int32_t>(x);
}

// An open file that is closed on every way out.
class OpenFile {
 public:
  explicit OpenFile(int fd) : fd_(fd) {}
  ~OpenFile() { close(); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  explicit operator bool() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  bool close() {
    const bool closed = fd_ >= 0 && ::close(fd_) == 0;
    fd_ = -1;
    return closed;
  }

 private:
  int fd_;
};

int openScriptFile(psText path, int flags) {
  std::string native;
  if (!psHooks().mapFilename(path, &native)) return -1;
  return psHooks().openFile(native, flags | O_CLOEXEC, 0666);
}

// --- 0: time ----------------------------------------------------------------------------------

void sleepFor(pscDomain* domain, int32_t milliseconds) {
  if (milliseconds > 0) psHooks().beforeBlocking();
  psHooks().sleep(domain, milliseconds);
}

// --- 1..6: characters and numbers as text -----------------------------------------------------

int32_t asc(pscDomain*, psText text) {
  return text.empty() ? 0 : static_cast<unsigned char>(text.front());
}

psStringResult chr(pscDomain* domain, int32_t code) {
  // The code is stored in one byte: 256 is a NUL, which ends the text at once.
  const char byte = static_cast<char>(code);
  return newText(domain, code > 256 || byte == 0 ? psText() : psText(&byte, 1));
}

int32_t len(pscDomain*, psText text) { return static_cast<int32_t>(text.size()); }

psStringResult str(pscDomain* domain, double x) {
  // "% .7g", whatever locale a library has set.
  char buffer[40];
  buffer[0] = ' ';
  const auto [end, error] =
      std::to_chars(buffer + 1, buffer + sizeof buffer, x, std::chars_format::general, 7);
  const char* first = buffer[1] == '-' ? buffer + 1 : buffer;
  return newText(domain, psText(first, static_cast<size_t>(end - first)));
}

psStringResult strI(pscDomain* domain, int32_t i) {
  char buffer[16];
  buffer[0] = ' ';
  const auto [end, error] = std::to_chars(buffer + 1, buffer + sizeof buffer, i);
  const char* first = i < 0 ? buffer + 1 : buffer;
  return newText(domain, psText(first, static_cast<size_t>(end - first)));
}

double val(pscDomain*, psText text) { return psTextToDouble(text); }

// --- 7..20: numbers ---------------------------------------------------------------------------

double absolute(pscDomain*, double x) { return std::fabs(x); }
double atn(pscDomain*, double x) { return std::atan(x); }
double cdbl(pscDomain*, int32_t i) { return i; }
int32_t cint(pscDomain*, double x) { return saturated(std::floor(x + 0.5)); }
double cosine(pscDomain*, double x) { return std::cos(x); }
double exponential(pscDomain*, double x) { return std::exp(x); }
int32_t fix(pscDomain*, double x) {
  // Scripts rely on this: the result passes through single precision.
  return saturated(static_cast<float>(x > 0 ? std::floor(x) : std::ceil(x)));
}
int32_t integer(pscDomain*, double x) { return saturated(std::floor(x)); }
double logarithm(pscDomain*, double x) { return std::log(x); }
int32_t sgn(pscDomain*, double x) { return (x > 0) - (x < 0); }
int32_t sgnI(pscDomain*, int32_t i) { return (i > 0) - (i < 0); }
double sine(pscDomain*, double x) { return std::sin(x); }
double sqr(pscDomain*, double x) { return std::sqrt(x); }
double tangent(pscDomain*, double x) { return std::tan(x); }

// --- 21..28: text -----------------------------------------------------------------------------

psStringResult left(pscDomain* domain, psText text, int32_t n) {
  return newText(domain, psTextLeft(text, n));
}
psStringResult right(pscDomain* domain, psText text, int32_t n) {
  return newText(domain, psTextRight(text, n));
}

constexpr int32_t kMaxRepeat = 32000;

psStringResult repeat(pscDomain* domain, int32_t n, char byte) {
  if (n <= 0 || n > kMaxRepeat || byte == 0) return newText(domain, {});
  pscInstance* text = psNewStringOfLength(domain, static_cast<size_t>(n));
  if (text != nullptr) std::memset(psStringBuffer(text), byte, static_cast<size_t>(n));
  return {text};
}
psStringResult stringI(pscDomain* domain, int32_t n, int32_t code) {
  // Scripts rely on this: codes beyond ASCII read as X.
  return repeat(domain, n, code >= 128 ? 'X' : static_cast<char>(code));
}
psStringResult stringOf(pscDomain* domain, int32_t n, psText text) {
  return repeat(domain, n, text.empty() ? '\0' : text.front());
}

psStringResult mid(pscDomain* domain, psText text, int32_t position, int32_t n) {
  return newText(domain, psTextMid(text, position, n));
}
psStringResult midToEnd(pscDomain* domain, psText text, int32_t position) {
  return newText(domain, psTextMid(text, position));
}
int32_t instrFrom(pscDomain*, int32_t start, psText text, psText needle) {
  return psTextInstr(start, text, needle);
}
int32_t instr(pscDomain*, psText text, psText needle) { return psTextInstr(1, text, needle); }

// --- 29..31: objects --------------------------------------------------------------------------

psInterfaceRef getInterface(pscDomain*, pscInstance* object, psText name) {
  return object != nullptr ? pscGetInterface(object, cString(name)) : nullptr;
}

// The class that a value has, or would have as an object; null for kinds without one.
const pscClass* classOf(const psTypedValue& v) {
  switch (v.type_flags & ~(kPsBoxedFlag | kPsStringFlavourFlag)) {
    case kPsBooleanFlag: return &clBoolean;
    case kPsIntegerFlag: return &clInt;
    case kPsFloatFlag: return &clFloat;
    case kPsStringConstantFlag: return &clString;
    case kPsFunctionFlag: return &clFunction;
    case kPsObjectFlag: return v.value.psc != nullptr ? v.value.psc->psc_class : nullptr;
    default: return nullptr;
  }
}

psInterfaceRef findMemberFunction(pscDomain*, psTypedValue v, psText name) {
  psInterfaceRef found = nullptr;
  if (psIs(v, kPsInterfaceFlag)) {
    if (pscFindInterfaceFunction(v.value.iface, cString(name), -1)) found = v.value.iface;
  } else if (const pscClass* cl = classOf(v)) {
    found = pscFindClassMemberFunction(cl, cString(name), -1).iface;
  }
  ReleaseValue(&v);
  return found;
}

pscInstance* waitOnPort(pscDomain*, int32_t timeout, pscInstance* object) {
  if (object == nullptr) return nullptr;
  const void* port = pscGetMethods(object, "ifMessagePort");
  if (port == nullptr) return nullptr;
  return static_cast<const psIfMessagePort*>(port)->WaitMessage(object, timeout);
}

// --- 32, 33: text files -----------------------------------------------------------------------

constexpr size_t kMaxAsciiFile = 8388608;

bool fileTooBig(psText path, size_t size) {
  if (size < kMaxAsciiFile) return false;
  char number[32];
  std::snprintf(number, sizeof number, " (%zu)\n", size + 1);
  pscPrint("File too big: " + std::string(path) + number);
  return true;
}

// Reads up to size bytes; the number read, which is smaller at the end of the file, or -1.
ssize_t readFully(int fd, char* buffer, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::read(fd, buffer + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

// Ends a text that its writer filled through the buffer, at n bytes or before the first NUL.
void endText(pscInstance* text, size_t n) {
  psStringData* data = pscData<psStringData>(text);
  data->length = static_cast<uint32_t>(strnlen(data->text, n));
  data->text[data->length] = 0;
}

psStringResult readAsciiFile(pscDomain* domain, psText path) {
  // A fifo or a device put in a file's place must not hold the script up.
  OpenFile file(openScriptFile(path, O_RDONLY | O_NONBLOCK));
  struct stat status;
  if (!file || fstat(file.fd(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return newText(domain, {});
  }
  const size_t expected = static_cast<size_t>(status.st_size);
  if (fileTooBig(path, expected)) return {nullptr};
  pscInstance* text = psNewStringOfLength(domain, expected);
  if (text == nullptr) return {nullptr};
  ssize_t n = readFully(file.fd(), psStringBuffer(text), expected);
  size_t total = n > 0 ? static_cast<size_t>(n) : 0;
  // The size is a promise that a growing file, or one made up by the kernel, does not keep.
  if (n >= 0 && total == expected) {
    char chunk[16384];
    while ((n = readFully(file.fd(), chunk, sizeof chunk)) > 0) {
      total += static_cast<size_t>(n);
      if (fileTooBig(path, total) || !psStringAppend(text, psText(chunk, static_cast<size_t>(n)))) {
        pscSubRef(text);
        return {nullptr};
      }
    }
  }
  endText(text, total);
  return {text};
}

bool writeAsciiFile(pscDomain*, psText path, psText text) {
  OpenFile file(openScriptFile(path, O_WRONLY | O_CREAT | O_TRUNC));
  if (!file) return false;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(file.fd(), text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return file.close();
}

// --- 34, 35: directories ----------------------------------------------------------------------

// One character of UTF-8 text, taken off its front; a byte that starts no sequence is one of its
// own kind, so that it never equals the character with its number.
uint32_t takeCharacter(psText* text) {
  const unsigned char lead = static_cast<unsigned char>(text->front());
  const size_t n = lead < 0x80                   ? 1
                   : lead >= 0xc2 && lead < 0xe0 ? 2
                   : (lead & 0xf0) == 0xe0       ? 3
                   : lead >= 0xf0 && lead < 0xf5 ? 4
                                                 : 0;
  uint32_t value = n == 1 ? lead : lead & (0x7fu >> n);
  bool valid = n != 0 && n <= text->size();
  for (size_t i = 1; valid && i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>((*text)[i]);
    valid = (c & 0xc0) == 0x80;
    value = value << 6 | (c & 0x3fu);
  }
  text->remove_prefix(valid ? n : 1);
  return valid ? value : 0x80000000u | lead;
}

// A set, the text behind its opening bracket. Takes it off through the closing bracket; false when
// it is not closed. *matches tells whether the character is in the set.
bool takeSet(psText* pattern, uint32_t character, bool* matches) {
  bool complement = false;
  if (!pattern->empty() && pattern->front() == '^') {
    complement = true;
    pattern->remove_prefix(1);
  }
  bool found = false;
  for (bool first = true;; first = false) {
    if (pattern->empty()) return false;
    if (pattern->front() == ']' && !first) break;
    const auto member = [pattern](uint32_t* value) {
      if (pattern->front() == '\\') {
        pattern->remove_prefix(1);
        if (pattern->empty()) return false;
      }
      *value = takeCharacter(pattern);
      return true;
    };
    uint32_t low;
    if (!member(&low)) return false;
    uint32_t high = low;
    if (pattern->size() >= 2 && (*pattern)[0] == '-' && (*pattern)[1] != ']') {
      pattern->remove_prefix(1);
      if (!member(&high)) return false;
    }
    found = found || (character >= low && character <= high);
  }
  pattern->remove_prefix(1);
  *matches = found != complement;
  return true;
}

// Takes one element (not '*') off the pattern; false when it is malformed.
bool takeElement(psText* pattern, uint32_t character, bool* matches) {
  const char c = pattern->front();
  if (c == '?') {
    pattern->remove_prefix(1);
    *matches = true;
    return true;
  }
  if (c == '[') {
    pattern->remove_prefix(1);
    return takeSet(pattern, character, matches);
  }
  if (c == '\\') {
    pattern->remove_prefix(1);
    if (pattern->empty()) return false;
  }
  *matches = takeCharacter(pattern) == character;
  return true;
}

// A well-formed alternative against a whole name. Going back to the last '*' is enough: an earlier
// one could only take characters that the later one takes as well.
bool matchAlternative(psText pattern, psText name) {
  psText retry_pattern;
  psText retry_name;
  bool can_retry = false;
  for (;;) {
    if (!pattern.empty() && pattern.front() == '*') {
      pattern.remove_prefix(1);
      retry_pattern = pattern;
      retry_name = name;
      can_retry = true;
      continue;
    }
    if (pattern.empty() && name.empty()) return true;
    bool matches = false;
    if (!pattern.empty() && !name.empty()) {
      const uint32_t character = takeCharacter(&name);
      takeElement(&pattern, character, &matches);
    }
    if (matches) continue;
    if (!can_retry || retry_name.empty()) return false;
    takeCharacter(&retry_name);
    pattern = retry_pattern;
    name = retry_name;
  }
}

// The alternative at the front of a pattern list, taken off together with its comma; false when it
// is malformed.
bool takeAlternative(psText* list, psText* alternative, bool* more) {
  psText rest = *list;
  while (!rest.empty() && rest.front() != ',') {
    bool matches;
    if (rest.front() == '*') {
      rest.remove_prefix(1);
    } else if (!takeElement(&rest, 0, &matches)) {
      return false;
    }
  }
  *alternative = list->substr(0, list->size() - rest.size());
  *more = !rest.empty();
  if (*more) rest.remove_prefix(1);
  *list = rest;
  return true;
}

std::string upperCase(psText text) {
  std::string upper(text);
  for (char& c : upper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 0x20);
  }
  return upper;
}

// pattern is in upper case already.
bool matchName(psText pattern, psText name) {
  if (pattern == "*") return true;
  if (pattern.empty()) return name.empty();
  const std::string upper = upperCase(name);
  bool kept = false;
  for (bool more = true; more;) {
    psText alternative;
    if (!takeAlternative(&pattern, &alternative, &more)) return false;
    const bool negated = !alternative.empty() && alternative.front() == '!';
    if (negated) alternative.remove_prefix(1);
    if (matchAlternative(alternative, upper)) kept = !negated;
  }
  return kept;
}

template <class Wanted>
pscInstance* listNames(pscDomain* domain, psText path, Wanted wanted) {
  pscInstance* list = psNewList(domain);
  std::string native;
  if (list == nullptr || !psHooks().mapFilename(path, &native)) return list;
  const int fd = psHooks().openFile(native, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  DIR* folder = fd >= 0 ? fdopendir(fd) : nullptr;
  if (folder == nullptr) {
    if (fd >= 0) ::close(fd);
    return list;
  }
  while (const dirent* entry = readdir(folder)) {
    const psText name = entry->d_name;
    if (name == "." || name == ".." || !wanted(name)) continue;
    pscInstance* text = psNewString(domain, name);
    if (text == nullptr) break;
    psListAddTail(list, psObjectValue(text));
  }
  closedir(folder);
  return list;
}

pscInstance* listDir(pscDomain* domain, psText path) {
  return listNames(domain, path, [](psText) { return true; });
}

constexpr size_t kMaxPattern = 511;

pscInstance* matchFiles(pscDomain* domain, psText path, psText pattern) {
  const std::string upper = upperCase(pattern.substr(0, kMaxPattern));
  return listNames(domain, path, [&upper](psText name) { return matchName(upper, name); });
}

// --- 36, 37: letter case ----------------------------------------------------------------------

// Moves the letters from first to first + 25 by 32 places in the code.
psStringResult changeCase(pscDomain* domain, psText text, char first) {
  pscInstance* result = psNewStringOfLength(domain, text.size());
  if (result == nullptr) return {nullptr};
  char* out = psStringBuffer(result);
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool letter = static_cast<unsigned char>(c - first) < 26;
    out[i] = static_cast<char>(c ^ (letter ? 0x20 : 0));
  }
  return {result};
}
psStringResult lCase(pscDomain* domain, psText text) { return changeCase(domain, text, 'A'); }
psStringResult uCase(pscDomain* domain, psText text) { return changeCase(domain, text, 'a'); }

// --- 38..55, 60..62: the platform -------------------------------------------------------------

bool deleteFile(pscDomain*, psText name) { return psHooks().deleteFile(name); }
bool deleteDirectory(pscDomain*, psText name) { return psHooks().deleteDirectory(name); }
bool createDirectory(pscDomain*, psText name) { return psHooks().createDirectory(name); }
void rebootSystem(pscDomain*) { psHooks().rebootSystem(); }
void shutdownSystem(pscDomain*) { psHooks().shutdownSystem(); }

double upTime(pscDomain*, int32_t) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t milliseconds = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
  return static_cast<double>(milliseconds) / 1000.0;
}

float csng(pscDomain*, int32_t i) { return static_cast<float>(i); }

bool formatDrive(pscDomain*, psText drive, psText file_system) {
  return psHooks().formatDrive(drive, file_system);
}
bool ejectDrive(pscDomain*, psText drive) { return psHooks().ejectDrive(drive); }
bool copyFile(pscDomain*, psText from, psText to) { return psHooks().copyFile(from, to); }
bool moveFile(pscDomain*, psText from, psText to) { return psHooks().moveFile(from, to); }
int32_t strToI(pscDomain*, psText text) { return psTextToInt(text); }

psStringResult getDefaultDrive(pscDomain* domain) {
  return newText(domain, psHooks().getDefaultDrive());
}
void setDefaultDrive(pscDomain*, psText drive) { psHooks().setDefaultDrive(drive); }
void enableZoneSupport(pscDomain*, bool enable) { psHooks().enableZoneSupport(enable); }
void enableAudioMixer(pscDomain*, bool) {}
void restartScript(pscDomain*) { psHooks().restartScript(); }
void restartApplication(pscDomain*) { psHooks().restartApplication(); }

constexpr size_t kMaxNativePath = 4096;

psStringResult mapFilenameToNative(pscDomain* domain, psText name) {
  std::string native;
  if (!psHooks().mapFilename(name, &native) || native.size() > kMaxNativePath) return {nullptr};
  return newText(domain, native);
}

// --- 50: random numbers -----------------------------------------------------------------------

// The C library's generator from its default seed, on a state of its own so that nothing else in
// the process draws from the sequence.
struct Generator {
  std::mutex lock;
  char state[128] = {};  // the size of the default state, which selects the same generator
  random_data data = {};

  Generator() {
    initstate_r(1, state, sizeof state, &data);
    for (time_t n = time(nullptr) % 16; n > 0; --n) draw();
  }
  int32_t draw() {
    int32_t value;
    random_r(&data, &value);
    return value;
  }
};

Generator& theGenerator() {
  static Generator generator;
  return generator;
}

int32_t drawRandom() {
  Generator& generator = theGenerator();
  const std::lock_guard guard(generator.lock);
  return generator.draw();
}

psTypedValue rnd(pscDomain*, psTypedValue x) {
  int64_t n = 0;
  const bool numeric = GetIntValue(&x, &n);
  ReleaseValue(&x);
  if (!numeric) return psInvalidValue();
  const double r = drawRandom() * 0x1p-31;
  if (n != 0) return psIntegerValue(saturated(std::trunc(r * static_cast<double>(n) + 1.0)));
  // Rounding to single precision must not reach 1.
  return psFloatValue(std::min(static_cast<float>(r), 0x1.fffffep-1f));
}

// --- 51: the collector ------------------------------------------------------------------------

pscInstance* runGarbageCollector(pscDomain* domain) {
  const pscCollection counts = pscGarbageCollect(domain);
  pscInstance* result = psNewAssociativeArray(domain);
  if (result == nullptr) return nullptr;
  const auto add = [result](psText key, int value) {
    psAssocAddReplace(pscData<psAssocArray>(result), key, psKeyHash(key), psIntegerValue(value));
  };
  add("COUNT", counts.total);
  add("ROOT", counts.roots);
  add("ORPHANED", counts.orphaned);
  return result;
}

// --- 56..59: pi and JSON ----------------------------------------------------------------------

double pi(pscDomain*) { return std::numbers::pi; }

pscInstance* parseJson(pscDomain* domain, psText text) { return ParseJSON(domain, text); }

psStringResult formatJsonFlags(pscDomain* domain, pscInstance* object, int32_t flags) {
  return {DoFormatJSON(domain, psObjectValue(object), flags)};
}
psStringResult formatJson(pscDomain* domain, pscInstance* object) {
  return formatJsonFlags(domain, object, 0);
}

// --- 63: snapshots ----------------------------------------------------------------------------

pscInstance* stableEnumeration(pscDomain* domain, pscInstance* object) {
  if (object == nullptr || object->psc_class->if_enum == nullptr) return nullptr;
  const psIfEnum* enumeration = object->psc_class->if_enum;
  const psIfArray* array = object->psc_class->if_array;
  const int32_t count = array != nullptr ? std::max(array->Count(object), 0) : 0;
  pscInstance* result = pscCreateArray(domain, count, true);
  if (result == nullptr) return nullptr;
  psArray* elements = pscData<psArray>(result);
  enumeration->Reset(object);
  // A message port never comes to its end.
  while (enumeration->IsNext(object) && !pscBreakPending(domain)) {
    const int32_t tail = elements->tail;
    psArrayPush(elements, enumeration->Next(object));
    if (elements->tail == tail) break;  // memory refused
  }
  return result;
}

}  // namespace

void psSeedRandom(uint32_t seed) {
  Generator& generator = theGenerator();
  const std::lock_guard guard(generator.lock);
  srandom_r(seed, &generator.data);
}

// --- The table --------------------------------------------------------------------------------

constinit const fundes kPsGlobalFunctions[] = {
    psMethod<sleepFor>("sleep"),  // 0
    psMethod<asc>("asc"),
    psMethod<chr>("chr"),
    psMethod<len>("len"),
    psMethod<str>("str"),
    psMethod<strI>("strI"),
    psMethod<val>("val"),
    psMethod<absolute>("abs"),
    psMethod<atn>("atn"),
    psMethod<cdbl>("cdbl"),
    psMethod<cint>("cint"),  // 10
    psMethod<cosine>("cos"),
    psMethod<exponential>("exp"),
    psMethod<fix>("fix"),
    psMethod<integer>("int"),
    psMethod<logarithm>("log"),
    psMethod<sgn>("sgn"),
    psMethod<sgnI>("sgnI"),
    psMethod<sine>("sin"),
    psMethod<sqr>("sqr"),
    psMethod<tangent>("tan"),  // 20
    psMethod<left>("left"),
    psMethod<right>("right"),
    psMethod<stringI>("stringI"),
    psMethod<stringOf>("string"),
    psMethod<mid>("mid"),
    psMethod<midToEnd>("mid"),
    psMethod<instrFrom>("instr"),
    psMethod<instr>("instr"),
    psMethod<getInterface>("GetInterface"),
    psMethod<findMemberFunction>("FindMemberFunction"),  // 30
    psMethod<waitOnPort>("wait"),
    psMethod<readAsciiFile>("ReadAsciiFile"),
    psMethod<writeAsciiFile>("WriteAsciiFile"),
    psMethod<listDir>("ListDir"),
    psMethod<matchFiles>("MatchFiles"),
    psMethod<lCase>("LCase"),
    psMethod<uCase>("UCase"),
    psMethod<deleteFile>("DeleteFile"),
    psMethod<deleteDirectory>("DeleteDirectory"),
    psMethod<createDirectory>("CreateDirectory"),  // 40
    psMethod<rebootSystem>("RebootSystem"),
    psMethod<shutdownSystem>("ShutdownSystem"),
    psMethod<upTime>("UpTime"),
    psMethod<csng>("csng"),
    psMethod<formatDrive>("FormatDrive"),
    psMethod<ejectDrive>("EjectDrive"),
    psMethod<copyFile>("CopyFile"),
    psMethod<moveFile>("MoveFile"),
    psMethod<strToI>("strtoi"),
    psMethod<rnd>("rnd"),  // 50
    psMethod<runGarbageCollector>("RunGarbageCollector"),
    psMethod<getDefaultDrive>("GetDefaultDrive"),
    psMethod<setDefaultDrive>("SetDefaultDrive"),
    psMethod<enableZoneSupport>("EnableZoneSupport"),
    psMethod<enableAudioMixer>("EnableAudioMixer"),
    psMethod<pi>("Pi"),
    psMethod<parseJson>("ParseJSON"),
    psMethod<formatJson>("FormatJSON"),
    psMethod<formatJsonFlags>("FormatJSON"),
    psMethod<restartScript>("RestartScript"),  // 60
    psMethod<restartApplication>("RestartApplication"),
    psMethod<mapFilenameToNative>("MapFilenameToNative"),
    psMethod<stableEnumeration>("StableEnumeration"),
    {},
};
static_assert(std::size(kPsGlobalFunctions) == kPsGlobalFunctionCount + 1);

constinit const psInterface kPsGlobalInterface = {"ifGlobal", kPsGlobalFunctions};

constinit pscClass clGlobal = [] {
  pscClass cl;
  cl.ln_Name = "koGlobal";
  cl.interfaces = std::span<const psInterface>(&kPsGlobalInterface, 1);
  return cl;
}();

// koByteArray.
//
// One block of bytes, 0..tail of them used. Invariant: tail < capacity, and the block has capacity
// bytes. What lies above tail is never read; where scripts can look there, it reads as 0.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "container_tables.h"
#include "containers.h"
#include "hooks.h"
#include "ps_heap.h"
#include "ps_native.h"

namespace {

psByteArray* bytesOf(pscInstance* self) { return pscData<psByteArray>(self); }

size_t used(const psByteArray* me) { return static_cast<size_t>(me->tail + 1); }

// --- The block --------------------------------------------------------------------------------

// Sets the capacity, keeping the bytes; false (and unchanged) when refused. Never shrinks.
bool resizeBlock(psByteArray* me, int64_t capacity) {
  if (capacity > INT32_MAX) return false;
  void* moved =
      psRealloc(me->bytes, static_cast<size_t>(me->capacity), static_cast<size_t>(capacity));
  if (moved == nullptr) return false;
  me->bytes = static_cast<uint8_t*>(moved);
  me->capacity = static_cast<int32_t>(capacity);
  return true;
}

// Grows a resizable array so that it holds more than `index`, to `wanted` bytes by the growth rule:
// by a quarter (or sixteen bytes while it is small), or by what is needed if that is more.
bool grow(psByteArray* me, int64_t index, int64_t wanted) {
  if (!me->resizable || index >= INT32_MAX) return false;
  const int64_t step =
      std::max<int64_t>(wanted - me->capacity, me->capacity < 64 ? 16 : me->capacity / 4);
  return resizeBlock(me, std::min<int64_t>(me->capacity + step, INT32_MAX));
}

enum class Room { kYes, kTooSmall, kNoMemory };

// Prepares the array for contents of n bytes that replace the present ones (which are lost when the
// block is replaced): a block too small gives way to one of exactly n bytes.
Room roomForContents(psByteArray* me, size_t n) {
  if (n <= static_cast<size_t>(me->capacity)) return Room::kYes;
  if (!me->resizable || n > INT32_MAX) return Room::kTooSmall;
  auto* block = static_cast<uint8_t*>(psAlloc(n));
  if (block == nullptr) return Room::kNoMemory;
  psFree(me->bytes, static_cast<size_t>(me->capacity));
  me->bytes = block;
  me->capacity = static_cast<int32_t>(n);
  me->tail = -1;
  return Room::kYes;
}

// As roomForContents; an array for which memory was refused is left empty.
bool makeRoomForText(psByteArray* me, size_t n) {
  const Room room = roomForContents(me, n);
  if (room == Room::kNoMemory) me->tail = -1;
  return room == Room::kYes;
}

// Stores a byte, raising tail; bytes that come into use in between are 0.
bool store(psByteArray* me, int32_t index, uint8_t byte) {
  if (index < 0) return false;
  if (index >= me->capacity && !grow(me, index, static_cast<int64_t>(index) + index / 2)) {
    return false;
  }
  if (index > me->tail) {
    std::memset(me->bytes + me->tail + 1, 0, static_cast<size_t>(index - me->tail));
    me->tail = index;
  }
  me->bytes[index] = byte;
  return true;
}

void removeAt(psByteArray* me, int32_t index) {
  std::memmove(me->bytes + index, me->bytes + index + 1, static_cast<size_t>(me->tail - index));
  me->tail--;
}

// The byte a value stands for, 0 for one that is no number; the value is released.
uint8_t takeByte(const psTypedValue& value) {
  int64_t number = 0;
  if (!GetIntValue(&value, &number)) number = 0;
  ReleaseValue(&value);
  return static_cast<uint8_t>(number);
}

psTypedValue byteValue(const psByteArray* me, int32_t index) {
  if (index < 0 || index > me->tail) return psInvalidValue();
  return psIntegerValue(me->bytes[index]);
}

// --- Files ------------------------------------------------------------------------------------

// A descriptor that is closed at the end of the scope.
class File {
 public:
  File(psText name, int flags) {
    std::string native;
    constexpr unsigned kMode = 0666;
    if (psHooks().mapFilename(name, &native)) {
      fd_ = psHooks().openFile(native, flags | O_CLOEXEC, kMode);
    }
    // A pipe on a medium would make the script wait for its other end.
    struct stat status;
    if (fd_ >= 0 && (fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode))) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool isOpen() const { return fd_ >= 0; }

  bool write(const uint8_t* bytes, size_t n) const {
    while (n > 0) {
      const ssize_t written = ::write(fd_, bytes, n);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return false;
      bytes += written;
      n -= static_cast<size_t>(written);
    }
    return true;
  }

  // Reads up to n bytes; *got says how many there were. False on an error.
  bool read(uint8_t* bytes, size_t n, size_t* got) const {
    *got = 0;
    while (*got < n) {
      const ssize_t r = ::read(fd_, bytes + *got, n - *got);
      if (r < 0 && errno == EINTR) continue;
      if (r < 0) return false;
      if (r == 0) break;
      *got += static_cast<size_t>(r);
    }
    return true;
  }

  bool size(int64_t* bytes) const {
    struct stat status;
    if (fstat(fd_, &status) != 0) return false;
    *bytes = status.st_size;
    return true;
  }

  bool seek(int64_t offset) const { return lseek(fd_, offset, SEEK_SET) == offset; }

  // Closes the file; false when that reveals that something was not written.
  bool finish() {
    const int fd = fd_;
    fd_ = -1;
    return close(fd) == 0 || errno == EINTR;
  }

 private:
  int fd_ = -1;
};

bool writeRange(const psByteArray* me, psText name, int flags, size_t start, size_t n) {
  File file(name, flags);
  return file.isOpen() && (n == 0 || file.write(me->bytes + start, n)) && file.finish();
}

// Reads n bytes (fewer at the end of the file) as the new contents.
bool readContents(psByteArray* me, const File& file, size_t n) {
  if (roomForContents(me, n) != Room::kYes) return false;
  size_t got = 0;
  const bool fine = n == 0 || file.read(me->bytes, n, &got);
  me->tail = static_cast<int32_t>(got) - 1;
  return fine;
}

// --- ifByteArray ------------------------------------------------------------------------------

constexpr int kCreateFlags = O_WRONLY | O_CREAT | O_TRUNC;

bool WriteFile(pscInstance* self, psText name) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  return writeRange(me, name, kCreateFlags, 0, used(me));
}

bool WriteFileRange(pscInstance* self, psText name, int32_t start, int32_t length) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  if (start < 0 || length < 0 || start > me->tail) return false;
  const size_t rest = used(me) - static_cast<size_t>(start);
  return writeRange(me, name, kCreateFlags, static_cast<size_t>(start),
                    std::min(rest, static_cast<size_t>(length)));
}

bool ReadFile(pscInstance* self, psText name) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  const File file(name, O_RDONLY);
  int64_t size = 0;
  return file.isOpen() && file.size(&size) && readContents(me, file, static_cast<size_t>(size));
}

bool ReadFileRange(pscInstance* self, psText name, int32_t start, int32_t length) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  if (start < 0 || length < 0) return false;
  if (length > me->capacity && !me->resizable) return false;
  const File file(name, O_RDONLY);
  int64_t size = 0;
  if (!file.isOpen() || !file.size(&size) || !file.seek(start)) return false;
  // A length far beyond the end of the file asks for no more memory than the file can fill.
  const int64_t rest = std::max<int64_t>(size - start, 0);
  return readContents(me, file, static_cast<size_t>(std::min<int64_t>(rest, length)));
}

bool AppendFile(pscInstance* self, psText name) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  return writeRange(me, name, O_RDWR | O_CREAT | O_APPEND, 0, used(me));
}

void SetResize(pscInstance* self, int32_t size, bool resizable) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  me->resizable = resizable;
  if (size > me->capacity) resizeBlock(me, size);
}

// A koString of n bytes for the caller to fill; null for none and when it would be too long.
pscInstance* newText(pscInstance* self, size_t n) {
  return n > 0 && n <= kPsMaxTextLength ? psNewStringOfLength(self->domain, n) : nullptr;
}

psStringResult ToHexString(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  pscInstance* text = newText(self, used(me) * 2);
  if (text == nullptr) return {nullptr};
  char* out = psStringBuffer(text);
  for (int32_t i = 0; i <= me->tail; i++) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    *out++ = kDigits[me->bytes[i] >> 4];
    *out++ = kDigits[me->bytes[i] & 15];
  }
  return {text};
}

// A decoding table is indexed by the low seven bits of a character; what is no digit of the
// alphabet counts as 0.
using DecodingTable = std::array<uint8_t, 128>;

constexpr DecodingTable kHexValues = [] {
  DecodingTable table{};
  for (int i = 0; i < 10; i++) table[static_cast<size_t>('0' + i)] = static_cast<uint8_t>(i);
  for (int i = 0; i < 6; i++) {
    table[static_cast<size_t>('A' + i)] = static_cast<uint8_t>(10 + i);
    table[static_cast<size_t>('a' + i)] = static_cast<uint8_t>(10 + i);
  }
  return table;
}();

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr DecodingTable kBase64Values = [] {
  DecodingTable table{};
  for (size_t i = 0; i < 64; i++) {
    table[static_cast<size_t>(kBase64Alphabet[i])] = static_cast<uint8_t>(i);
  }
  return table;
}();

uint32_t decode(const DecodingTable& table, char c) {
  return table[static_cast<unsigned char>(c) & 0x7f];
}

void FromHexString(pscInstance* self, psText text) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  const size_t n = text.size() / 2;
  if (text.size() % 2 != 0 || !makeRoomForText(me, n)) return;
  for (size_t i = 0; i < n; i++) {
    me->bytes[i] = static_cast<uint8_t>(decode(kHexValues, text[2 * i]) << 4 |
                                        decode(kHexValues, text[2 * i + 1]));
  }
  me->tail = static_cast<int32_t>(n) - 1;
}

psStringResult ToBase64String(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  const size_t n = used(me);
  pscInstance* text = newText(self, (n + 2) / 3 * 4);
  if (text == nullptr) return {nullptr};
  char* out = psStringBuffer(text);
  for (size_t i = 0; i < n; i += 3) {
    const size_t here = std::min<size_t>(3, n - i);
    uint32_t group = 0;
    for (size_t k = 0; k < here; k++) group |= uint32_t{me->bytes[i + k]} << (16 - 8 * k);
    for (size_t k = 0; k < 4; k++) {
      *out++ = k <= here ? kBase64Alphabet[group >> (18 - 6 * k) & 63] : '=';
    }
  }
  return {text};
}

void FromBase64String(pscInstance* self, psText text) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  const size_t groups = text.size() / 4;
  if (groups == 0 || !makeRoomForText(me, groups * 3)) return;
  uint8_t* out = me->bytes;
  for (size_t i = 0; i < groups * 4; i += 4) {
    uint32_t group = 0;
    for (size_t k = 0; k < 4; k++) group = group << 6 | decode(kBase64Values, text[i + k]);
    *out++ = static_cast<uint8_t>(group >> 16);
    *out++ = static_cast<uint8_t>(group >> 8);
    *out++ = static_cast<uint8_t>(group);
  }
  const size_t end = groups * 4;
  const int32_t padding = text[end - 1] != '=' ? 0 : text[end - 2] != '=' ? 1 : 2;
  me->tail = static_cast<int32_t>(groups * 3) - 1 - padding;
}

psStringResult ToAsciiString(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  const psText bytes = psByteArrayText(me);
  const psText text = bytes.substr(0, bytes.find('\0'));
  return {text.size() <= kPsMaxTextLength ? psNewString(self->domain, text) : nullptr};
}

void FromAsciiString(pscInstance* self, psText text) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  if (!makeRoomForText(me, text.size())) return;
  if (!text.empty()) std::memcpy(me->bytes, text.data(), text.size());
  me->tail = static_cast<int32_t>(text.size()) - 1;
}

// Scripts rely on this: despite the name the byte comes without a sign.
int32_t GetSignedByte(pscInstance* self, int32_t index) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  return index >= 0 && index <= me->tail ? me->bytes[index] : 0;
}

// Scripts rely on this: the index counts words of eight bytes while its bound counts words of four,
// so the upper half of the indexes reads beyond the bytes there are (as 0).
int32_t GetSignedLong(pscInstance* self, int32_t index) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  if (index < 0 || index > me->tail / 4) return 0;
  uint32_t word = 0;
  for (int64_t i = 3; i >= 0; i--) {
    const int64_t at = static_cast<int64_t>(index) * 8 + i;
    word = word << 8 | (at <= me->tail ? me->bytes[at] : 0u);
  }
  return static_cast<int32_t>(word);
}

bool IsLittleEndianCPU(pscInstance*) { return true; }

// --- ifArray ----------------------------------------------------------------------------------
// Every change through these functions ends an enumeration: it begins again at the first byte.

psTypedValue Peek(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  return byteValue(me, me->tail);
}

psTypedValue Pop(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  me->enumidx = 0;
  const psTypedValue last = byteValue(me, me->tail);
  if (me->tail >= 0) me->tail--;
  return last;
}

void Push(pscInstance* self, psTypedValue value) {
  psByteArray* me = bytesOf(self);
  const uint8_t byte = takeByte(value);
  const psGuard guard(me->lock);
  if (me->tail < INT32_MAX - 1) store(me, me->tail + 1, byte);
}

psTypedValue Shift(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  me->enumidx = 0;
  const psTypedValue first = byteValue(me, 0);
  if (me->tail >= 0) removeAt(me, 0);
  return first;
}

void Unshift(pscInstance* self, psTypedValue value) {
  psByteArray* me = bytesOf(self);
  const uint8_t byte = takeByte(value);
  const psGuard guard(me->lock);
  me->enumidx = 0;
  if (me->tail + 1 >= me->capacity && !grow(me, me->tail + 1, static_cast<int64_t>(me->tail) + 2)) {
    return;
  }
  std::memmove(me->bytes + 1, me->bytes, used(me));
  me->bytes[0] = byte;
  me->tail++;
}

bool Delete(pscInstance* self, int32_t index) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  me->enumidx = 0;
  if (index < 0 || index > me->tail) return false;
  removeAt(me, index);
  return true;
}

int32_t Count(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  return me->tail + 1;
}

void Clear(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  me->tail = -1;
  me->enumidx = 0;
}

void Append(pscInstance* self, pscInstance* other) {
  if (other == nullptr || other == self || other->psc_class != &clByteArray) return;
  // The other array is copied under its own lock first: holding both would deadlock with a thread
  // that appends the other way round.
  uint8_t* copy = nullptr;
  size_t n = 0;
  {
    psByteArray* from = bytesOf(other);
    const psGuard guard(from->lock);
    n = used(from);
    if (n == 0) return;
    copy = static_cast<uint8_t*>(psAlloc(n));
    if (copy == nullptr) return;
    std::memcpy(copy, from->bytes, n);
  }
  {
    psByteArray* me = bytesOf(self);
    const psGuard guard(me->lock);
    const int64_t needed = me->tail + 1 + static_cast<int64_t>(n);
    if (needed > me->capacity) grow(me, needed - 1, needed);
    // Without room for all, the first bytes are taken, as if they came one by one.
    const size_t fitting = std::min(n, static_cast<size_t>(me->capacity) - used(me));
    if (fitting > 0) std::memcpy(me->bytes + me->tail + 1, copy, fitting);
    me->tail += static_cast<int32_t>(fitting);
  }
  psFree(copy, n);
}

// --- ifArrayGet, ifArraySet -------------------------------------------------------------------

psTypedValue GetEntry(pscInstance* self, int32_t index) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  return byteValue(me, index);
}

void SetEntry(pscInstance* self, int32_t index, psTypedValue value) {
  psByteArray* me = bytesOf(self);
  const uint8_t byte = takeByte(value);
  const psGuard guard(me->lock);
  store(me, index, byte);
}

// --- ifEnum -----------------------------------------------------------------------------------

void Reset(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  me->enumidx = 0;
}

psTypedValue Next(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  if (me->enumidx > me->tail) return psInvalidValue();
  return byteValue(me, me->enumidx++);
}

bool IsNext(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  return me->enumidx <= me->tail;
}

bool IsEmpty(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  const psGuard guard(me->lock);
  return me->tail < 0;
}

// --- The class --------------------------------------------------------------------------------

constexpr fundes kByteArrayFunctions[] = {
    psMethod<WriteFile>("WriteFile"),
    psMethod<WriteFileRange>("WriteFile"),
    psMethod<ReadFile>("ReadFile"),
    psMethod<ReadFileRange>("ReadFile"),
    psMethod<AppendFile>("AppendFile"),
    psMethod<SetResize>("SetResize"),
    psMethod<ToHexString>("ToHexString"),
    psMethod<FromHexString>("FromHexString"),
    psMethod<ToBase64String>("ToBase64String"),
    psMethod<FromBase64String>("FromBase64String"),
    psMethod<ToAsciiString>("ToAsciiString"),
    psMethod<FromAsciiString>("FromAsciiString"),
    psMethod<GetSignedByte>("GetSignedByte"),
    psMethod<GetSignedLong>("GetSignedLong"),
    psMethod<IsLittleEndianCPU>("IsLittleEndianCPU"),
    {},
};
constexpr fundes kArrayGetFunctions[] = {psMethod<GetEntry>("GetEntry"), {}};
constexpr fundes kArraySetFunctions[] = {psMethod<SetEntry>("SetEntry"), {}};

constexpr psIfArrayGet kArrayGetMethods = {GetEntry};
constexpr psIfArraySet kArraySetMethods = {SetEntry};

constexpr psInterface kInterfaces[] = {
    {"ifByteArray", kByteArrayFunctions},
    psArrayTables<Peek, Pop, Push, Shift, Unshift, Delete, Count, Clear, Append>::kInterface,
    {"ifArrayGet", kArrayGetFunctions, &kArrayGetMethods},
    {"ifArraySet", kArraySetFunctions, &kArraySetMethods},
    psEnumTables<Reset, Next, IsNext, IsEmpty>::kInterface,
};

bool init(pscInstance* self) {
  auto* me = new (bytesOf(self)) psByteArray{};
  me->tail = -1;
  me->resizable = true;
  return true;
}

void destroy(pscInstance* self) {
  psByteArray* me = bytesOf(self);
  psFree(me->bytes, static_cast<size_t>(me->capacity));
  me->~psByteArray();
}

}  // namespace

constinit pscClass clByteArray = [] {
  pscClass cl;
  cl.ln_Name = "koByteArray";
  cl.interfaces = kInterfaces;
  cl.instance_size = sizeof(psByteArray);
  cl.init = init;
  cl.destroy = destroy;
  return cl;
}();

pscInstance* psNewByteArray(pscDomain* domain, const void* data, size_t size) {
  pscInstance* instance = pscNewComponentByClass(domain, &clByteArray);
  if (instance == nullptr) return nullptr;
  psByteArray* me = bytesOf(instance);
  if (roomForContents(me, size) != Room::kYes) {
    pscSubRef(instance);
    return nullptr;
  }
  if (size > 0) std::memcpy(me->bytes, data, size);
  me->tail = static_cast<int32_t>(size) - 1;
  return instance;
}

// The wrapper classes: one intrinsic value in an instance's private data, and koString.
//
// A koString's text is either none (null, as after CreateObject), or lies in the instance's `local`
// bytes, or is a block of `capacity` bytes of the script heap. Whenever there is a text it is
// NUL-terminated at `length`, and length < capacity. Everything that changes a text goes through
// psStringAssign, psStringAppend or psNewStringOfLength, which keep that true when memory is
// refused.
#include "clwrappers.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <charconv>
#include <cstring>

#include "clglobal.h"
#include "containers.h"
#include "ps_heap.h"
#include "ps_native.h"

namespace {

constexpr pscClass wrapperClass(const char* name, std::span<const psInterface> interfaces,
                                size_t data_size) {
  pscClass cl;
  cl.ln_Name = name;
  cl.interfaces = interfaces;
  cl.instance_size = static_cast<int32_t>(data_size);
  return cl;
}

// A new instance of a class whose private data is one T.
template <class T>
pscInstance* newWrapper(pscDomain* domain, pscClass& cl, T value) {
  pscInstance* instance = pscAllocateInstance(domain, &cl);
  if (instance != nullptr) *pscData<T>(instance) = value;
  return instance;
}

template <class T>
T getValue(pscInstance* self) {
  return *pscData<T>(self);
}
template <class T>
void setValue(pscInstance* self, T value) {
  *pscData<T>(self) = value;
}

// --- koInt ------------------------------------------------------------------------------------

psStringResult intToStr(pscInstance* self) {
  char buffer[16];
  auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, getValue<int32_t>(self));
  return {psNewString(self->domain, psText(buffer, static_cast<size_t>(end - buffer)))};
}

constexpr psIfInt kIntMethods = {getValue<int32_t>, setValue<int32_t>};
constexpr fundes kIntFunctions[] = {
    psMethod<getValue<int32_t>>("GetInt"),
    psMethod<setValue<int32_t>>("SetInt"),
    {},
};
constexpr fundes kIntOpsFunctions[] = {psMethod<intToStr>("ToStr"), {}};
constexpr psInterface kIntInterfaces[] = {
    {"ifInt", kIntFunctions, &kIntMethods},
    {"ifIntOps", kIntOpsFunctions},
};

// --- koFloat, koDouble, koIntrinsicDouble, koBoolean ------------------------------------------

constexpr psIfFloat kFloatMethods = {getValue<float>, setValue<float>};
constexpr fundes kFloatFunctions[] = {
    psMethod<getValue<float>>("GetFloat"),
    psMethod<setValue<float>>("SetFloat"),
    {},
};
constexpr psInterface kFloatInterfaces[] = {{"ifFloat", kFloatFunctions, &kFloatMethods}};

constexpr psIfDouble kDoubleMethods = {getValue<double>, setValue<double>};
constexpr fundes kDoubleFunctions[] = {
    psMethod<getValue<double>>("GetDouble"),
    psMethod<setValue<double>>("SetDouble"),
    {},
};
constexpr psInterface kDoubleInterfaces[] = {{"ifDouble", kDoubleFunctions, &kDoubleMethods}};

constexpr psIfBoolean kBooleanMethods = {getValue<bool>, setValue<bool>};
constexpr fundes kBooleanFunctions[] = {
    psMethod<getValue<bool>>("GetBoolean"),
    psMethod<setValue<bool>>("SetBoolean"),
    {},
};
constexpr psInterface kBooleanInterfaces[] = {{"ifBoolean", kBooleanFunctions, &kBooleanMethods}};

// --- koFunction -------------------------------------------------------------------------------

bool functionInit(pscInstance* self) {
  setValue<int32_t>(self, -1);
  return true;
}
psFunctionIndex getSub(pscInstance* self) { return {getValue<int32_t>(self)}; }
void setSub(pscInstance* self, psFunctionIndex function) { setValue(self, function.index); }

constexpr psIfFunction kFunctionMethods = {getValue<int32_t>, setValue<int32_t>};
constexpr fundes kFunctionFunctions[] = {
    psMethod<getSub>("GetSub"),
    psMethod<setSub>("SetSub"),
    {},
};
constexpr psInterface kFunctionInterfaces[] = {
    {"ifFunction", kFunctionFunctions, &kFunctionMethods}};

constexpr pscClass functionClass() {
  pscClass cl = wrapperClass("koFunction", kFunctionInterfaces, sizeof(int32_t));
  cl.init = functionInit;
  return cl;
}

// --- koString: storage ------------------------------------------------------------------------

psStringData* stringData(pscInstance* self) { return pscData<psStringData>(self); }

void freeText(psStringData* data) {
  if (data->text != nullptr && data->text != data->local) psFree(data->text, data->capacity);
}

void stringDestroy(pscInstance* self) { freeText(stringData(self)); }

// Room for n bytes and the NUL, in units that the heap hands out anyway.
uint32_t capacityFor(size_t n) { return static_cast<uint32_t>((n + 1 + 15) & ~size_t{15}); }

// A block this much larger than its new text is given back on assignment.
constexpr uint32_t kKeptSlack = 4096;

void useLocal(psStringData* data) {
  data->text = data->local;
  data->capacity = psStringData::kInline;
}

// Makes room for n bytes, keeping the text. False and unchanged when memory is refused.
bool growText(psStringData* data, size_t n) {
  if (data->text == nullptr) {
    useLocal(data);
    data->length = 0;
    data->local[0] = 0;
  }
  if (n < data->capacity) return true;
  // Half as much again makes a run of appends linear; near the end of memory the exact size may
  // still be there.
  const size_t geometric = std::min(size_t{data->capacity} + data->capacity / 2, kPsMaxTextLength);
  for (const uint32_t wanted : {capacityFor(std::max(n, geometric)), capacityFor(n)}) {
    char* block;
    if (data->text == data->local) {
      block = static_cast<char*>(psAlloc(wanted));
      if (block != nullptr) std::memcpy(block, data->local, size_t{data->length} + 1);
    } else {
      block = static_cast<char*>(psRealloc(data->text, data->capacity, wanted));
    }
    if (block != nullptr) {
      data->text = block;
      data->capacity = wanted;
      return true;
    }
  }
  return false;
}

}  // namespace

bool psStringAssign(pscInstance* instance, psText text) {
  psStringData* data = stringData(instance);
  if (text.size() > kPsMaxTextLength) return false;
  const bool fits = data->text != nullptr && text.size() < data->capacity;
  const bool wasteful = data->capacity > kKeptSlack && text.size() < data->capacity / 4;
  if (fits && !wasteful) {
    if (!text.empty()) std::memmove(data->text, text.data(), text.size());
  } else if (text.size() < psStringData::kInline) {
    // The source may lie in the block that is given up.
    char* old = data->text;
    const uint32_t old_capacity = data->capacity;
    if (!text.empty()) std::memmove(data->local, text.data(), text.size());
    if (old != nullptr && old != data->local) psFree(old, old_capacity);
    useLocal(data);
  } else {
    const uint32_t capacity = capacityFor(text.size());
    char* block = static_cast<char*>(psAlloc(capacity));
    if (block == nullptr) return false;
    std::memcpy(block, text.data(), text.size());
    freeText(data);
    data->text = block;
    data->capacity = capacity;
  }
  data->length = static_cast<uint32_t>(text.size());
  data->text[data->length] = 0;
  return true;
}

bool psStringAppend(pscInstance* instance, psText text) {
  psStringData* data = stringData(instance);
  const size_t length = data->length;
  if (text.size() > kPsMaxTextLength - length) return false;
  const size_t total = length + text.size();
  if (data->text == nullptr || total >= data->capacity) {
    // Growing moves the text; a source inside it moves along.
    const auto address = reinterpret_cast<uintptr_t>(text.data());
    const auto own = reinterpret_cast<uintptr_t>(data->text);
    const bool inside = data->text != nullptr && address >= own && address <= own + length;
    const size_t offset = inside ? address - own : 0;
    if (!growText(data, total)) return false;
    if (inside) text = psText(data->text + offset, text.size());
  }
  if (!text.empty()) std::memmove(data->text + length, text.data(), text.size());
  data->length = static_cast<uint32_t>(total);
  data->text[total] = 0;
  return true;
}

pscInstance* psNewStringOfLength(pscDomain* domain, size_t n) {
  if (n > kPsMaxTextLength) return nullptr;
  pscInstance* instance = pscAllocateInstance(domain, &clString);
  if (instance == nullptr) return nullptr;
  psStringData* data = stringData(instance);
  if (n < psStringData::kInline) {
    useLocal(data);
  } else {
    data->capacity = capacityFor(n);
    data->text = static_cast<char*>(psAlloc(data->capacity));
    if (data->text == nullptr) {
      pscDiscardInstance(instance);
      return nullptr;
    }
  }
  data->length = static_cast<uint32_t>(n);
  data->text[n] = 0;
  return instance;
}

pscInstance* psNewString(pscDomain* domain, psText text) {
  pscInstance* instance = psNewStringOfLength(domain, text.size());
  if (instance != nullptr && !text.empty()) {
    std::memcpy(psStringBuffer(instance), text.data(), text.size());
  }
  return instance;
}

pscInstance* psNewStringConcat(pscDomain* domain, psText a, psText b) {
  if (a.size() > kPsMaxTextLength || b.size() > kPsMaxTextLength) return nullptr;
  pscInstance* instance = psNewStringOfLength(domain, a.size() + b.size());
  if (instance == nullptr) return nullptr;
  char* buffer = psStringBuffer(instance);
  if (!a.empty()) std::memcpy(buffer, a.data(), a.size());
  if (!b.empty()) std::memcpy(buffer + a.size(), b.data(), b.size());
  return instance;
}

// --- koString: methods ------------------------------------------------------------------------

namespace {

constexpr bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

psText firstBytes(psText text, int32_t n) {
  return text.substr(0, n > 0 ? static_cast<size_t>(n) : 0);
}

// A 0-based position as the 1-based one of the global functions.
int32_t oneBased(int32_t position) { return position < INT32_MAX ? position + 1 : position; }

psStringResult getString(pscInstance* self) {
  return {psNewString(self->domain, psStringText(self))};
}
void setString(pscInstance* self, psText text) { psStringAssign(self, text); }
void setStringOfLength(pscInstance* self, psText text, int32_t n) {
  psStringAssign(self, firstBytes(text, n));
}
void appendString(pscInstance* self, psText text, int32_t n) {
  if (n >= 1) psStringAppend(self, firstBytes(text, n));
}
int32_t stringLen(pscInstance* self) { return static_cast<int32_t>(stringData(self)->length); }

constexpr psText entityOf(char c) {
  switch (c) {
    case '"': return "&quot;";
    case '&': return "&amp;";
    case '\'': return "&apos;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    default: return {};
  }
}

psStringResult getEntityEncode(pscInstance* self) {
  const psText text = psStringText(self);
  size_t length = text.size();
  for (char c : text) {
    const psText entity = entityOf(c);
    if (!entity.empty()) length += entity.size() - 1;
  }
  pscInstance* result = psNewStringOfLength(self->domain, length);
  if (result == nullptr) return {nullptr};
  char* out = psStringBuffer(result);
  for (char c : text) {
    const psText entity = entityOf(c);
    if (entity.empty()) {
      *out++ = c;
    } else {
      std::memcpy(out, entity.data(), entity.size());
      out += entity.size();
    }
  }
  return {result};
}

pscInstance* tokenize(pscInstance* self, psText delimiters) {
  pscInstance* list = psNewList(self->domain);
  if (list == nullptr) return nullptr;
  std::bitset<256> is_delimiter;
  for (unsigned char c : delimiters) is_delimiter.set(c);
  const psText text = psStringText(self);
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && !is_delimiter[static_cast<unsigned char>(text[i])]) continue;
    if (i > start) {
      pscInstance* token = psNewString(self->domain, text.substr(start, i - start));
      if (token == nullptr) break;
      psListAddTail(list, psObjectValue(token));
    }
    start = i + 1;
  }
  return list;
}

psStringResult trim(pscInstance* self) {
  psText text = psStringText(self);
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return {psNewString(self->domain, text)};
}

int32_t toInt(pscInstance* self) { return psTextToInt(psStringText(self)); }
float toFloat(pscInstance* self) { return static_cast<float>(psTextToDouble(psStringText(self))); }

psStringResult left(pscInstance* self, int32_t n) {
  return {psNewString(self->domain, psTextLeft(psStringText(self), n))};
}
psStringResult right(pscInstance* self, int32_t n) {
  return {psNewString(self->domain, psTextRight(psStringText(self), n))};
}
psStringResult midToEnd(pscInstance* self, int32_t position) {
  return {psNewString(self->domain, psTextMid(psStringText(self), oneBased(position)))};
}
psStringResult mid(pscInstance* self, int32_t position, int32_t n) {
  return {psNewString(self->domain, psTextMid(psStringText(self), oneBased(position), n))};
}
int32_t instr(pscInstance* self, psText needle) {
  return psTextInstr(1, psStringText(self), needle) - 1;
}
int32_t instrFrom(pscInstance* self, int32_t start, psText needle) {
  return psTextInstr(oneBased(start), psStringText(self), needle) - 1;
}

constexpr psIfString kStringMethods = {psStringText, psStringAssign};
constexpr fundes kStringFunctions[] = {
    psMethod<getString>("GetString"),
    psMethod<setString>("SetString"),
    {},
};
constexpr fundes kStringOpsFunctions[] = {
    psMethod<setStringOfLength>("SetString"),
    psMethod<appendString>("AppendString"),
    psMethod<stringLen>("Len"),
    psMethod<getEntityEncode>("GetEntityEncode"),
    psMethod<tokenize>("Tokenize"),
    psMethod<trim>("Trim"),
    psMethod<toInt>("ToInt"),
    psMethod<toFloat>("ToFloat"),
    psMethod<left>("Left"),
    psMethod<right>("Right"),
    psMethod<midToEnd>("Mid"),
    psMethod<mid>("Mid"),
    psMethod<instr>("Instr"),
    psMethod<instrFrom>("Instr"),
    {},
};
constexpr psInterface kStringInterfaces[] = {
    {"ifString", kStringFunctions, &kStringMethods},
    {"ifStringOps", kStringOpsFunctions},
};

constexpr pscClass stringClass() {
  pscClass cl = wrapperClass("koString", kStringInterfaces, sizeof(psStringData));
  cl.destroy = stringDestroy;
  return cl;
}

}  // namespace

// --- Classes ----------------------------------------------------------------------------------

constinit pscClass clInt = wrapperClass("koInt", kIntInterfaces, sizeof(int32_t));
constinit pscClass clFloat = wrapperClass("koFloat", kFloatInterfaces, sizeof(float));
constinit pscClass clDouble = wrapperClass("koDouble", kDoubleInterfaces, sizeof(double));
constinit pscClass clIntrinsicDouble =
    wrapperClass("koIntrinsicDouble", kDoubleInterfaces, sizeof(double));
constinit pscClass clBoolean = wrapperClass("koBoolean", kBooleanInterfaces, sizeof(bool));
constinit pscClass clInvalid = wrapperClass("koInvalid", {}, 0);
constinit pscClass clFunction = functionClass();
constinit pscClass clString = stringClass();

pscInstance* psNewInt(pscDomain* domain, int32_t value) { return newWrapper(domain, clInt, value); }
pscInstance* psNewFloat(pscDomain* domain, float value) {
  return newWrapper(domain, clFloat, value);
}
pscInstance* psNewDouble(pscDomain* domain, double value) {
  return newWrapper(domain, clIntrinsicDouble, value);
}
pscInstance* psNewBoolean(pscDomain* domain, bool value) {
  return newWrapper(domain, clBoolean, value);
}

void pscCreateClassNamedInt(const char* name, psInterface* iface, pscClass* clInt) {
  psAssertText(clInt != nullptr, "clInt");
  *iface = {"ifInt", kIntFunctions, &kIntMethods};
  *clInt = wrapperClass(name, std::span<const psInterface>(iface, 1), sizeof(int32_t));
}

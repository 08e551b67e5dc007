// Modules: what a compilation produces and the virtual machine runs.
//
// While a text is compiled the lists grow; modLink then builds the flat arrays that instructions
// index. Live compilation unlinks, extends and links again; element addresses of functions, texts
// and line records never change while the module lives, so values and decoded code may point at
// them.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "hash.h"
#include "typedvals.h"

struct psModule;
struct psProc;
struct psFunction;
struct pscClass;
struct psDecodedCode;  // run_decode.h

struct psVariable {
  std::string name;  // lower case
  uint16_t type;     // declared psTypeEnum
};

struct psLabel {
  std::string name;
  int32_t pc;  // -1: not yet known
};

struct psFunction {
  std::string name;  // lower case
  int index = 0;     // in the module's function table
  std::vector<uint8_t> code;
  std::vector<uint32_t> proto;           // declared types of the parameters, then of the result
  std::vector<uint16_t> callvarinits;    // entry points by number of arguments; 0xFFFF: too few
  std::vector<int32_t> label_positions;  // flat, by label index; built by modLink
  std::vector<psVariable> variables;     // slots: parameters, global, m, the others
  uint32_t variable_count = 0;           // filled by modLink
  std::vector<psLabel> labels;
  psFunction* parent = nullptr;  // of an anonymous function: the one whose text contains it
  psFunction* newer = nullptr;   // what calls of this one lead to since it was defined anew
  psModule* module = nullptr;
  // The interpreter's decoded forms, newest range last; owned, dropped by subFree.
  psDecodedCode* decoded = nullptr;

  int parameters() const { return static_cast<int>(proto.size()) - 1; }
};
constexpr uint16_t kPsNoEntry = 0xFFFF;

// One source line that ended while compiling.
struct psLineData {
  std::string srccpy;
  uint32_t pc_start = 0;
  int32_t line_num = 0;
  int32_t pc_last = -1;  // last code position of the line; -1: no code or not known
  psFunction* function = nullptr;
  const std::string* file = nullptr;
};

// One slot of the member lookup cache: the class seen last at this name and what was found there.
struct psNameCache {
  const pscClass* cl = nullptr;
  const fundes* function = nullptr;
};

struct psName {
  std::string text;  // lower case
  uint32_t hash;     // psKeyHash of the text
  uint8_t bucket;    // its associative-array bucket
  // The first eight characters as associative arrays keep them (zero bytes behind the last one):
  // for most names one comparison of words decides.
  uint64_t first8;
  psNameCache cache = {};  // of the virtual machine's member lookup
};

struct psModule {
  // Flat arrays, built by modLink.
  std::vector<int32_t> integers;
  std::vector<float> floats;
  std::vector<double> doubles;
  std::vector<const std::string*> strings;
  std::vector<const psName*> names;
  std::vector<psFunction*> functions;
  psFunction* main_function = nullptr;

  pscInstance* global_object = nullptr;  // `m` of plain calls; one reference, released by modFree
  psProc* process = nullptr;
  std::deque<psLineData> lines;

  // What compilation appends to.
  std::vector<int32_t> integer_list;
  std::unordered_map<int32_t, uint32_t> integer_index;
  std::vector<float> float_list;
  std::vector<double> double_list;
  std::deque<std::string> string_list;
  std::deque<psName> name_list;
  std::deque<psFunction> function_list;
  std::deque<std::string> file_names;
  psHashTable* function_table = nullptr;  // name -> psFunction*
  psHashTable* string_table = nullptr;    // exact text -> uint32_t index (8 bytes of data)
  psHashTable* name_table = nullptr;      // name -> uint32_t index (8 bytes of data)
};

psModule* modNew();
void modFree(psModule* module);
// A copy of the name that lives as long as the module.
const std::string* modAddFileName(psModule* module, std::string_view name);
psFunction* modNewSub(psModule* module, std::string_view name, psFunction* parent);
psFunction* modFindSub(const psModule* module, std::string_view name);  // null when absent
void modLink(psModule* module);
void modUnlink(psModule* module);
// Drops a function's code, tables and decoded forms.
void subFree(psFunction* function);
// Drops the interpreter's decoded forms of a function; they are the interpreter's own.
void psFreeDecoded(psFunction* function);
// The same for what was made from the code at an offset, where appended code began, and behind it;
// frames may go on running the rest.
void psFreeDecodedFrom(psFunction* function, uint32_t pc);

// Indexes of constants and names, appended when new.
uint32_t AddIntConstant(psModule* module, int32_t value);
uint32_t AddFloatConstant(psModule* module, float value);
uint32_t AddDoubleConstant(psModule* module, double value);
uint32_t AddStringConstant(psModule* module, std::string_view text);
uint32_t AddName(psModule* module, std::string_view text);
// Index of the variable with this name (ignoring case); appended with the type when absent.
int subAddVar(psFunction* function, std::string_view name, uint16_t type);

// The variable or name behind an index, for listings; asserts that it exists.
const psVariable& GetVarByIndex(const psFunction* function, unsigned index);
const psName& GetIdByIndex(const psModule* module, unsigned index);

// The process-wide counter behind "$anon_…" and "_$…" names: its value, then one more.
unsigned long psNextCounter();

// The first line record of the function whose range contains pc (-1: the function's first record);
// null when none.
const psLineData* DebugPCToLine(const psModule* module, int32_t pc, const psFunction* function);

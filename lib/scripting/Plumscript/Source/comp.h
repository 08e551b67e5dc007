// The compiler's entry points.
//
// There is no token stream and no syntax tree: scanners read the text where the parser stands, and
// the parser emits bytecode as it goes. A compilation collects up to five errors, each with its
// line, and gives either a linked module or the errors.
//
// Every text, of any bytes, either compiles or gives errors: recursive constructs are bounded
// (kPsMaxNesting), and so are libraries that name libraries (kPsMaxLibraryDepth).
//
// A module is compiled by one thread; the one that runs it, when it is running.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "comp_mod.h"
#include "status.h"

// Parentheses, literals, blocks, anonymous functions and unary operators inside one another. Deeper
// is error 174. Chosen so that the parser's recursion stays far below a thread's stack.
constexpr int kPsMaxNesting = 250;
constexpr int kPsMaxLibraryDepth = 32;
constexpr int kPsMaxCompileErrors = 5;

struct psCompileError {
  uint32_t code = 0;
  int32_t line = 0;  // 0: not known
  std::string file;
  std::string label;  // code 14 only: at most 15 characters
};
using psCompileErrors = std::vector<psCompileError>;

struct psParser;

// The file name under which appended statements are known.
constexpr std::string_view kPsLiveFileName = "$LIVECOMPILE";

// Once a process, before the first compilation, and after the last.
void compInit();
void compUninit();
void lexInitKeywords();
void lexFreeKeywords();

// Compiles one text into a new module. Errors: *module is null. The text need not be terminated.
psCompileErrors compileText(std::string_view text, psModule** module, std::string_view file_name,
                            pscDomain* domain, psProc* process);

// Compiling several texts into one module: a parser on a new module (null when memory is refused,
// which compInto reports), compInto for each text, then compFinish, which hands the module over
// (null when there were errors). After errors from compInto nothing but compFree may follow.
psParser* compNew(pscDomain* domain, psProc* process);
psCompileErrors compInto(psParser* parser, std::string_view text, std::string_view file_name);
psCompileErrors compFinish(psParser* parser, psModule** module);
void compFree(psParser* parser);

// Appends statements to a function that may be running. On success *start is where the appended
// code begins; it ends with `end`. On errors the module is unchanged.
psCompileErrors LiveCompile(std::string_view text, psModule* module, psFunction* function,
                            uint32_t* start, pscDomain* domain);

// Adds a text's functions to a module that may be running. One with the name of a function that is
// there already takes its place, also in calls that were compiled before; frames of the old one go
// on running it, and its memory is the module's until the end. The main function stays as it is
// (error 173). On errors the module is unchanged.
psCompileErrors LiveDefine(std::string_view text, psModule* module, pscDomain* domain);

// Takes back what a LiveCompile appended, once it has run: a function has room for so many labels
// and so much code, and a session of any number of statements in one of them must not use it up.
// The mark is taken before the LiveCompile; frames of the function, inner and outer ones, stand
// before the appended code. Variables, constants and anonymous functions stay.
struct psLiveMark {
  size_t code;
  size_t labels;
  size_t lines;
};
psLiveMark LiveMark(const psModule* module, const psFunction* function);
void LiveForget(psModule* module, psFunction* function, const psLiveMark& mark);

// Prefixes under which LIBRARY files are looked for, in order; for the rest of the process.
void compSetLibraryPrefixes(std::vector<std::string> prefixes);

// Reads a script source. On success the text behind a byte-order mark; otherwise *error is 185 or
// 225. *enciphered is set when the source was an enciphered one.
bool ReadScriptSource(const std::string& native_path, std::string* text, psStatus* error,
                      bool* enciphered);

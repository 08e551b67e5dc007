// The debugger's commands: one table that finds the command of a line and makes up the help text.
// What is no command is a statement.
//
// A command without an argument is the whole line, so that `c = 1` or `list = []` stay statements.
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "listing.h"
#include "publicapis.h"
#include "run_debugger_internal.h"

namespace {

constexpr psStatus kStay = 0;
constexpr psStatus kContinue = kPsOkay;
constexpr psStatus kEndRun = kPsNormalEnd;

psIo* console(psProc* p) { return p->debug_session->debug_con; }
subctx* selected(psProc* p) { return p->debug_session->selected; }

void printHeader(psProc* p, const subctx* frame) {
  io_write(console(p), psFunctionHeader(frame->sub, frame->calling_args_n));
}

// --- Frames -----------------------------------------------------------------------------------

psStatus up(psProc* p, const std::string&) {
  psDebugSession* s = p->debug_session;
  if (s->selected->prev == nullptr) {
    io_write(console(p), "End of Context Chain\n");
    return kStay;
  }
  s->below.push_back(s->selected);
  s->selected = s->selected->prev;
  printHeader(p, s->selected);
  return kStay;
}

psStatus down(psProc* p, const std::string&) {
  psDebugSession* s = p->debug_session;
  if (s->below.empty()) {
    io_write(console(p), "End of Context Chain\n");
    return kStay;
  }
  s->selected = s->below.back();
  s->below.pop_back();
  printHeader(p, s->selected);
  return kStay;
}

psStatus backtrace(psProc* p, const std::string&) {
  debugBacktrace(p);
  return kStay;
}

psStatus variables(psProc* p, const std::string&) {
  debugVariables(p);
  return kStay;
}

// The type text of a local: the name of the value as it is, and the one that a boxed value used to
// have where the two differ.
std::string typeText(const psTypedValue* v) {
  const std::string name = GetTypeString(v, false);
  const std::string boxed = GetTypeString(v, true);
  return name == boxed ? name : name + " (2.1 was " + boxed + ")";
}

void printObject(psIo* io, const char* name, const psTypedValue* v) {
  const pscInstance* object = v->value.psc;
  const unsigned word = v->type_flags;
  if (object == nullptr) {
    io_printf(io, "%-8s &h%04x ERROR: NULL tv.value.psc\n", name, word);
    return;
  }
  const auto count = static_cast<unsigned long>(object->ref_cnt.load(std::memory_order_relaxed));
  const char* format = object->psc_class == &clIntrinsicDouble ? "%-8s &h%04x %s, refcnt=%lu\n"
                                                               : "%-8s &h%04x psc:%s, refcnt=%lu\n";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  io_printf(io, format, name, word, typeText(v).c_str(), count);
#pragma GCC diagnostic pop
}

void printVariable(psProc* p, const char* name, const psTypedValue* v) {
  psIo* io = console(p);
  const unsigned word = v->type_flags;
  if (psIs(*v, kPsObjectFlag)) {
    printObject(io, name, v);
    return;
  }
  const std::string type = typeText(v);
  if ((word & ~unsigned{kPsBoxedFlag | kPsStringFlavourFlag}) == 0) {
    io_printf(io, "%-8s &h%04x %s val:Uninitialized\n", name, word, type.c_str());
  } else if (psIs(*v, kPsStringConstantFlag)) {
    io_printf(io, "%-8s &h%04x %s (VT_STR_CONST) val:%.100s\n", name, word, type.c_str(),
              v->value.text != nullptr ? v->value.text : "");
  } else if (psIs(*v, kPsInterfaceFlag)) {
    io_printf(io, "%-8s &h%04x kotINTERFACE:%s\n", name, word, type.c_str());
  } else if (psIs(*v, kPsIntegerFlag | kPsFloatFlag)) {
    io_printf(io, "%-8s &h%04x %s val:%ld\n", name, word, type.c_str(),
              static_cast<long>(IntVal(v)));
  } else if (psIs(*v, kPsBooleanFlag)) {
    io_printf(io, "%-8s &h%04x %s val:%s\n", name, word, type.c_str(),
              v->value.i != 0 ? "true" : "false");
  } else if (psIs(*v, kPsInvalidFlag)) {
    io_printf(io, "%-8s &h%04x %s val:invalid\n", name, word, type.c_str());
  } else if (psIs(*v, kPsFunctionFlag)) {
    const auto index = static_cast<uint64_t>(v->value.i);
    io_printf(io, "%-8s &h%04x %s val:%s\n", name, word, type.c_str(),
              index < p->mod->functions.size() ? p->mod->functions[index]->name.c_str() : "");
  } else {
    io_printf(io, "%-8s &h%04x (UNKNOWN!)\n", name, word);
  }
}

// --- Code -------------------------------------------------------------------------------------

psStatus list(psProc* p, const std::string&) {
  debugList(p);
  return kStay;
}

void printListing(psProc* p, bool instructions) {
  const std::string text = psFunctionListing(selected(p)->sub, instructions);
  io_write(console(p), text.empty() ? psText("<no source>\n") : psText(text));
}

psStatus disassembly(psProc* p, const std::string&) {
  printListing(p, true);
  return kStay;
}

psStatus last(psProc* p, const std::string&) {
  debugLast(p);
  return kStay;
}

psStatus next(psProc* p, const std::string&) {
  const subctx* frame = selected(p);
  debugPrintSource(console(p), DebugPCToLine(p->mod, static_cast<int32_t>(frame->pc), frame->sub));
  return kStay;
}

psStatus lineData(psProc* p, const std::string&) {
  for (const psLineData& line : p->mod->lines) {
    std::string text = line.srccpy;
    if (!text.ends_with('\n')) text += '\n';
    io_printf(console(p), "%03d: %03d, %03d, %8p, ", line.line_num, static_cast<int>(line.pc_start),
              line.pc_last, static_cast<const void*>(line.function));
    io_write(console(p), text);
  }
  return kStay;
}

psStatus statistics(psProc* p, const std::string&) {
  psIo* io = console(p);
  const subctx* frame = selected(p);
  const psFunction* function = frame->sub;
  const psModule* mod = p->mod;
  const int byte = frame->pc < function->code.size() ? function->code[frame->pc] : 0;
  const auto size = [](const auto& list) { return static_cast<int>(list.size()); };
  constexpr int kMaxIndex = 65535;

  io_write(io, "Sub Context Data:\n");
  io_printf(io, "calling_args_n: %d\n", frame->calling_args_n);
  io_printf(io, "calling_evsp: %td\n", frame->calling_evsp - p->eval_stack);
  io_printf(io, "pc: %d\n", static_cast<int>(frame->pc));
  io_printf(io, "bytecode(pc): &0h%x, %d\n", static_cast<unsigned>(byte), byte - 128);
  io_printf(io, "Variables:  %d (max of %d)\n", static_cast<int>(frame->varlistsize), 255);
  io_printf(io, "ByteCode Image Size: %d\n", size(function->code));
  io_write(io, "Module Constant Table Sizes:\n");
  io_printf(io, "Integer:   %d (max of %d)\n", size(mod->integers), kMaxIndex);
  io_printf(io, "String:    %d (max of %d)\n", size(mod->strings), kMaxIndex);
  io_printf(io, "Float:     %d (max of 256)\n", size(mod->floats));
  io_printf(io, "Double:    %d (max of 256)\n", size(mod->doubles));
  io_printf(io, "Function:  %d (max of %d)\n", size(mod->functions), kMaxIndex);
  io_printf(io, "Source Lns: %d\n", size(mod->lines));
  io_printf(io, "Identifer: %d (max of %d)\n", size(mod->names), kMaxIndex);
  io_write(io,
           "Plumscript Component High Water not available.\n"
           "Module Identifier Table Cache Hit/Miss not availble.\n"
           "  Build with PS_ENABLE_STATS\n");
  return kStay;
}

void printHistogram(psIo* io, const char* heading, const psHashTable* table) {
  constexpr int kLengths = 5;
  uint32_t counts[kLengths];
  hashHistogram(table, counts, kLengths);
  io_write(io, heading);
  for (int i = 0; i < kLengths; i++) io_printf(io, "[%d]=%d\n", i, static_cast<int>(counts[i]));
}

psStatus hashTables(psProc* p, const std::string&) {
  psIo* io = console(p);
  printHistogram(io, "Function Hash Table Bucket Histogram\n", p->mod->function_table);
  printHistogram(io, "\nString Hash Table Bucket Histogram\n", p->mod->string_table);
  printHistogram(io, "\nIdentifier Hash Table Bucket Histogram\n", p->mod->name_table);
  return kStay;
}

// --- Classes and instances --------------------------------------------------------------------

psStatus classes(psProc* p, const std::string&) {
  pscEnumeratePublicClasses(
      [](pscClass* cl, void* io) {
        io_write(static_cast<psIo*>(io), std::string(cl->ln_Name) + '\n');
      },
      console(p));
  return kStay;
}

psStatus interfaces(psProc* p, const std::string& name) {
  psIo* io = console(p);
  const pscClass* cl = pscFindClassByName(name.c_str());
  if (cl == nullptr) {
    io_printf(io, "%s: class not found\n", name.c_str());
    return kStay;
  }
  io_printf(io, "%s implements:\n", cl->ln_Name);
  for (const psInterface& interface : cl->interfaces) io_printf(io, " %s\n", interface.name);
  return kStay;
}

psStatus methods(psProc* p, const std::string& name) {
  std::string text = "class not specified\n";
  if (!name.empty()) psMethodsListing(name, &text);
  io_write(console(p), text);
  return kStay;
}

// The live instances, each with a reference of ours and the count it had without: their texts are
// read by class code, which must not be called while the list is locked.
using Instances = std::vector<std::pair<pscInstance*, unsigned long>>;

Instances liveInstances(pscDomain* domain) {
  Instances found;
  pscEnumerateInstances(
      domain,
      [](pscInstance* i, void* list) {
        // Another thread may be dropping the last reference; one at zero is no longer alive.
        int64_t count = i->ref_cnt.load();
        while (count > 0 && !i->ref_cnt.compare_exchange_weak(count, count + 1)) {
        }
        if (count <= 0) return;
        psc_changed.store(true);
        static_cast<Instances*>(list)->emplace_back(i, static_cast<unsigned long>(count));
      },
      &found);
  return found;
}

psStatus instances(psProc* p, const std::string&) {
  psIo* io = console(p);
  for (const auto& [instance, count] : liveInstances(p->domain)) {
    const pscClass* cl = instance->psc_class;
    io_printf(io, "%20s refcnt=%2lu addr=%p", cl->ln_Name, count, static_cast<void*>(instance));
    if (cl->if_string != nullptr) {
      const std::string text(cl->if_string->GetText(instance));
      if (!text.empty()) io_printf(io, " [%.32s]", text.c_str());
    } else if (cl->if_int != nullptr) {
      io_printf(io, " [%d]", cl->if_int->GetInt(instance));
    }
    io_putc(io, '\n');
    pscSubRef(instance);
  }
  return kStay;
}

// In the order in which the classes' first instances were made.
psStatus instanceCounts(psProc* p, const std::string&) {
  std::vector<std::pair<const pscClass*, unsigned>> counts;
  pscEnumerateInstances(
      p->domain,
      [](pscInstance* i, void* arg) {
        auto* list = static_cast<std::vector<std::pair<const pscClass*, unsigned>>*>(arg);
        for (auto& [cl, n] : *list) {
          if (cl != i->psc_class) continue;
          n++;
          return;
        }
        list->emplace_back(i->psc_class, 1);
      },
      &counts);
  for (const auto& [cl, n] : counts) io_printf(console(p), "%s: %u\n", cl->ln_Name, n);
  return kStay;
}

psStatus collectGarbage(psProc* p, const std::string&) {
  const pscCollection found = pscGarbageCollect(p->domain);
  psIo* io = console(p);
  io_printf(io, "total number of current pscs: %d\n", found.total);
  io_printf(io, "number of root pscs: %d\n", found.roots);
  io_printf(io, "number of orphaned pscs: %d\n", found.orphaned);
  return kStay;
}

// --- Running on -------------------------------------------------------------------------------

psStatus resume(psProc*, const std::string&) { return kContinue; }

psStatus endRun(psProc*, const std::string&) { return kEndRun; }

psStatus step(psProc* p, const std::string&) {
  debugBeginStep(p, false);
  return kContinue;
}

psStatus trace(psProc* p, const std::string&) {
  debugBeginStep(p, true);
  return kContinue;
}

psStatus help(psProc* p, const std::string&);

// --- The table --------------------------------------------------------------------------------

struct Command {
  const char* name;   // null: nothing but help
  const char* alias;  // or null
  bool has_argument;
  psStatus (*run)(psProc* p, const std::string& argument);
  const char* help;  // null: not listed
};

constexpr Command kCommands[] = {
    {"bt", nullptr, false, backtrace,
     "   bt         Print backtrace of call function context frames"},
    {"classes", nullptr, false, classes, "   classes    List public classes"},
    {"cont", "c", false, resume, "   cont or c  Continue Script Execution"},
    {"da", nullptr, false, disassembly,
     "   da         Show disassembly and bytecode for this function"},
    {"down", "d", false, down, "   down or d  Move down the function context chain one"},
    {"exit", nullptr, false, endRun, "   exit       Exit shell"},
    {"gc", nullptr, false, collectGarbage, "   gc         Run garbage collector"},
    {"hash", nullptr, false, hashTables, "   hash       Internal hash tables histogram"},
    {"interfaces", nullptr, true, interfaces,
     "   interfaces <class>\n"
     "              List interfaces implemented by specified class"},
    {"last", nullptr, false, last, "   last       Show last line that executed"},
    {"methods", nullptr, true, methods,
     "   methods <class>\n"
     "              List methods provided by specified class"},
    {nullptr, nullptr, false, nullptr,
     "   methods <class>.<interface>\n"
     "              List methods provided by specified interface on class"},
    {"next", nullptr, false, next, "   next       Show the next line to execute"},
    {"ld", nullptr, false, lineData, "   ld         Show line data (source records)"},
    {"list", nullptr, false, list, "   list       List current function"},
    {"bsc", nullptr, false, instances, "   bsc        List Plumscript Component instances"},
    {"counts", nullptr, false, instanceCounts,
     "   counts     List count of Plumscript Component instances"},
    {"stats", nullptr, false, statistics, "   stats      Shows statistics"},
    {"step", "s", false, step, "   step or s  Step one program statement"},
    {"t", nullptr, false, trace, "   t          Step one statement and show each executed opcode"},
    {"up", "u", false, up, "   up or u    Move up the function context chain one"},
    {"var", nullptr, false, variables,
     "   var        Display local variables and their types/values"},
    {nullptr, nullptr, false, nullptr, "   print,?    Print variable value or expression"},
    {nullptr, nullptr, false, nullptr,
     "   Type any expression for a live compile and run, in the context\n"
     "   of the current function.  Put the 'stop' statement in your code\n"
     "   to trigger a breakpoint.  Then use 'c', 's', or other commands."},
    {"help", nullptr, false, help, nullptr},
};

psStatus help(psProc* p, const std::string&) {
  std::string text = "\nCommand List:\n";
  for (const Command& command : kCommands) {
    if (command.help != nullptr) text += std::string(command.help) + '\n';
  }
  io_write(console(p), text);
  return kStay;
}

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

psText trimmed(psText text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool isName(const Command& command, psText word) {
  return command.name != nullptr &&
         (hashEqualFold(command.name, word) ||
          (command.alias != nullptr && hashEqualFold(command.alias, word)));
}

// The command of a line and its argument; null for a statement.
const Command* findCommand(psText line, std::string* argument) {
  size_t end = 0;
  while (end < line.size() && !isBlank(line[end])) end++;
  const psText rest = trimmed(line.substr(end));
  for (const Command& command : kCommands) {
    if (!isName(command, line.substr(0, end))) continue;
    // `methods = 1` and `methods [0] = 1` assign to a variable.
    const bool assigns = !rest.empty() && (rest[0] == '=' || rest[0] == '[');
    if (!rest.empty() && (!command.has_argument || assigns)) return nullptr;
    *argument = rest;
    return &command;
  }
  return nullptr;
}

}  // namespace

psStatus DebugExecuteLine(psProc* p, psText line) {
  std::string argument;
  const psText text = trimmed(line);
  if (text.empty()) return kStay;
  if (const Command* command = findCommand(text, &argument)) return command->run(p, argument);
  debugRunStatements(p, line);
  return kStay;
}

// --- What the stop report shows too -----------------------------------------------------------

const psLineData* debugFrameLine(const psProc* p, const subctx* frame) {
  if (frame == p->ctx) return DebugPCToLine(p->mod, p->error_offset, p->error_function);
  return frame->pc > 0 ? DebugPCToLine(p->mod, static_cast<int32_t>(frame->pc) - 1, frame->sub)
                       : nullptr;
}

void debugPrintSource(psIo* io, const psLineData* line) {
  io_write(io, line != nullptr ? psSourceLine(*line) : "<no source>\n");
}

void debugList(psProc* p) { printListing(p, false); }

void debugLast(psProc* p) { debugPrintSource(console(p), debugFrameLine(p, p->ctx)); }

void debugBacktrace(psProc* p) {
  for (const subctx* frame = selected(p); frame != nullptr; frame = frame->prev) {
    printHeader(p, frame);
    const psLineData* line = debugFrameLine(p, frame);
    io_printf(console(p), "   file/line: %s(%d)\n",
              line != nullptr && line->file != nullptr ? line->file->c_str() : "<no source>",
              line != nullptr ? line->line_num : 0);
  }
}

void debugVariables(psProc* p) {
  const subctx* frame = selected(p);
  if (frame == nullptr) {
    io_write(console(p), "No Local Variable Frame\n");
    return;
  }
  for (uint32_t i = 0; i < frame->varlistsize; i++) {
    printVariable(p, GetVarByIndex(frame->sub, i).name.c_str(), &frame->locals[i]);
  }
}

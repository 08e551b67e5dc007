// repl: statements are compiled onto the end of an empty Main, whose one frame lives until the end
// of input, and run there; a sub or function with a name becomes one of Main's module. What only
// lacks its end is kept until more lines complete it.
#include <algorithm>
#include <string_view>

#include "apps/plumscript/commands.h"
#include "apps/plumscript/host.h"
#include "apps/plumscript/line_reader.h"
#include "apps/plumscript/output.h"
#include "hash.h"

namespace {

constexpr char kGreeting[] = "Statements run as they are typed. ? prints a value, Ctrl-D ends.\n";
constexpr char kPrompt[] = "> ";
constexpr char kContinuationPrompt[] = "... ";
// A statement, all its lines together.
constexpr size_t kMaxStatement = 1024 * 1024;

// Whether a literal of an array or associative array is open. The statement ends with a line end.
bool LeavesBracketOpen(std::string_view statement) {
  int open = 0;
  for (size_t i = 0; i < statement.size(); ++i) {
    switch (statement[i]) {
      case '[':
      case '{': ++open; break;
      case ']':
      case '}': --open; break;
      case '"': i = statement.find_first_of("\"\n", i + 1); break;
      case '\'': i = statement.find('\n', i + 1); break;
    }
  }
  return open > 0;
}

// A block that lacks its end has an error of its own, a literal has not.
bool LacksItsEnd(std::string_view statement, const psCompileErrors& errors) {
  const bool literal = LeavesBracketOpen(statement);
  return !errors.empty() &&
         std::all_of(errors.begin(), errors.end(), [literal](const psCompileError& e) {
           return e.code == kPsBlockNotTerminated || (literal && e.code == kPsSyntaxError);
         });
}

// Whether it begins with SUB or FUNCTION: no statement does.
bool IsDefinition(std::string_view statement) {
  statement.remove_prefix(std::min(statement.find_first_not_of(" \t\n:"), statement.size()));
  const size_t end = statement.find_first_of(" \t\n(:'");
  const std::string_view word = statement.substr(0, end);
  return hashEqualFold(word, "sub") || hashEqualFold(word, "function");
}

void RunStatement(Host& host, uint32_t start) {
  psProc* p = host.process();
  // A break that came too late for the statement before is not meant for this one.
  if ((p->break_word & kPsBreakSticky) == 0) p->break_word &= ~kPsBreakCodeMask;
  psStatus status;
  {
    const Host::Run run(host);
    status = psRunAppended(p, start);
  }
  if (status == kPsNormalEnd || status == kPsOkay || status == kPsReturned) return;
  p->last_status = status;
  host.PrintRuntimeError();
}

int ReadAndRun(Host& host, LineReader& reader) {
  psProc* p = host.process();
  std::string statement;
  std::string line;
  psCompileErrors errors;  // of the statement that lacks its end
  while (host.requested() == kExitNormal && Out().failure() == 0) {
    Out().Flush();
    if (reader.interactive() && !io_at_line_start(host.console())) {
      io_putc(host.console(), '\n');
    }
    const LineReader::Result result =
        reader.Read(statement.empty() ? kPrompt : kContinuationPrompt, &line);
    if (result == LineReader::Result::kEnd) {
      host.PrintCompileErrors(errors);
      return kExitNormal;
    }
    const bool too_long =
        result == LineReader::Result::kTooLong || statement.size() + line.size() > kMaxStatement;
    if (too_long) {
      Out().Error("plumscript: a statement has at most " + std::to_string(kMaxStatement) +
                  " bytes\n");
    }
    if (too_long || result == LineReader::Result::kInterrupted) {
      statement.clear();
      errors.clear();
      continue;
    }

    statement += line;
    statement += '\n';
    if (IsDefinition(statement)) {
      errors = LiveDefine(statement, p->mod, p->domain);
      if (LacksItsEnd(statement, errors)) continue;
      host.PrintCompileErrors(errors);
      errors.clear();
      statement.clear();
      continue;
    }
    uint32_t start = 0;
    const psLiveMark mark = LiveMark(p->mod, p->ctx->sub);
    errors = LiveCompile(statement, p->mod, p->ctx->sub, &start, p->domain);
    if (LacksItsEnd(statement, errors)) continue;
    host.PrintCompileErrors(errors);
    if (errors.empty()) {
      RunStatement(host, start);
      p->ctx->resume = nullptr;
      LiveForget(p->mod, p->ctx->sub, mark);
    }
    errors.clear();
    statement.clear();
  }
  return host.requested();
}

}  // namespace

int RunInteractively() {
  Host host;
  host.SetScript(nullptr);
  const auto reader = LineReader::Make(kMaxStatement);
  if (!scriptCompileText(host.process(), "", "$REPL")) {
    host.PrintCompileErrors();
    return kExitLoadError;
  }
  if (const psStatus status = psBeginFrame(host.process(), host.console()); status != kPsOkay) {
    host.process()->last_status = status;
    host.PrintRuntimeError();
    return kExitRuntimeError;
  }
  if (reader->interactive()) Out().Error(kGreeting);
  const int status = ReadAndRun(host, *reader);
  psEndFrame(host.process());
  return status;
}

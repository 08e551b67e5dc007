// Assertions, the pointer check and the end of a process that broke its own rules.
//
// Assertions guard invariants that this process establishes itself; they are active in every build,
// because a device in the field must leave a report rather than carry on with corrupt state.
// Nothing that a script, a file, a peer or an operator supplies may reach one.
#pragma once

namespace lattix {

// Prints "file(line): function: assertion 'expression' failed\n" to standard error and aborts.
// Callable from any thread; allocates nothing.
[[noreturn]] void AssertionFailed(const char* file, int line, const char* function,
                                  const char* expression) noexcept;

// The check of a pointer that crossed a thread, a C callback or a static slot: it must be non-null,
// at least 4096 and a multiple of 8. Otherwise prints "Pointer=%p\n" and fails the assertion
// "Invalid pointer".
void CheckPointer(const void* pointer) noexcept;
// The report that CheckPointer makes, for guards that find out in other ways.
[[noreturn]] void InvalidPointer(const void* pointer) noexcept;

// For std::set_terminate: prints the exception that nobody caught, if there is one, and aborts.
[[noreturn]] void TerminateHandler() noexcept;

}  // namespace lattix

// The second form reports another text than the expression's own.
#define LATTIX_ASSERT_TEXT(condition, text) \
  (__builtin_expect(!!(condition), 1)       \
       ? (void)0                            \
       : lattix::AssertionFailed(__FILE__, __LINE__, __func__, text))
#define LATTIX_ASSERT(condition) LATTIX_ASSERT_TEXT(condition, #condition)

// The interpreter's slow operations: what the loop calls when a fast path does not apply.
//
// All of them are for the thread that runs the process, and keep the loop's discipline of the
// stack: an operation that fails leaves Invalid where its result would be, having consumed what its
// success would consume. `own` tells which operands are the operation's to consume (kOwnLeft,
// kOwnRight).
#pragma once

#include "run_fast.h"

namespace ps_run {

// --- Operators --------------------------------------------------------------------------------

// The result of a binary operator goes to *result, which may be where an operand on the stack was.
psStatus slowBinary(pscDomain* domain, const psTypedValue* x, const psTypedValue* y, unsigned own,
                    uint8_t op, bool raw, psTypedValue* result);
// The same with a local variable as the destination. A failure leaves the variable as it was; what
// the plain operator would leave on the stack, which need not be Invalid, is in *failed_result.
psStatus slowBinaryToLocal(pscDomain* domain, const psTypedValue* x, const psTypedValue* y,
                           unsigned own, uint8_t op, psTypedValue* local,
                           psTypedValue* failed_result);
// Whether a comparison holds, for a jump that needs no Boolean.
psStatus slowCompare(pscDomain* domain, const psTypedValue* x, const psTypedValue* y, unsigned own,
                     uint8_t op, bool* truth);
// What an assignment, a parameter or a result of a declared type makes of a value on the stack; an
// unboxed double stays one where a double is wanted.
psStatus convertTop(pscDomain* domain, psTypedValue* v, psTypeEnum type);

// --- Elements and members ---------------------------------------------------------------------

// container[index] and container[index] = value, by way of the container's interface.
psStatus slowIndex(const psTypedValue* container, const psTypedValue* index, unsigned own,
                   psTypedValue* result);
psStatus slowIndexSet(pscDomain* domain, const psTypedValue* container, const psTypedValue* index,
                      unsigned own, const psTypedValue* value);
// The plain way, for a value, a container and n indexes on the stack.
psStatus slowArraySet(pscDomain* domain, psTypedValue* value, int n);
// object.name where no call follows; the object is consumed. another_dot: a further plain access
// follows, which an absent member cannot satisfy.
psStatus readMember(psTypedValue* slot, psName* name, bool another_dot);

// object.name( … ): leaves a bound method, or receiver and native function. The stack must have
// room for two entries at slot; *entries tells how many are used. A failure leaves one, Invalid, as
// deep as a bound method would be.
psStatus resolveMethod(pscDomain* domain, psTypedValue* slot, psName* name, int nargs,
                       int* entries);

// object.ifName.Method( … ): a member called ifName wins; *whole_call tells that the call was
// resolved (two entries) instead.
psStatus resolveInterface(pscDomain* domain, psTypedValue* slot, psName* iface_name,
                          const psName* method, int nargs, bool* whole_call);

// The plain way, for an object and a value on the stack.
psStatus slowMemberSet(pscDomain* domain, psTypedValue* value, psTypedValue* object,
                       const psName& name);

// --- Loops, calls and sums of texts -----------------------------------------------------------

enum class Each { kBody, kSkipOne, kSkipTwo, kFailed };

// The entry of FOR EACH: the collection is at slot, which must have room for the iterator above it.
Each enterForEach(psTypedValue* slot, psTypedValue* variable, psStatus* status);

// Whether there was another element; it is in the variable then.
psStatus stepForEach(const psTypedValue* collection, psTypedValue* variable, bool* more);

// Replaces n arguments at args by the result of a native global function.
psStatus callGlobal(psProc* p, const fundes* function, int n, psTypedValue* args);

// s becomes s followed by the pieces, which are consumed.
psStatus appendPieces(pscDomain* domain, psTypedValue* s, const psTypedValue* pieces);

// A stop in the middle of a chain: the gathered pieces become the sum so far, which is what the
// plain instructions have in this place.
void leaveChain(psProc* p);

}  // namespace ps_run

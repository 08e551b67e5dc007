// The handlers of the binary operators, and of the comparisons fused with a jump, as macros: each
// is written once and made for every combination of where its operands are and where its result
// goes.
//
// To be included by the loop (run_loop.cpp) alone: the macros speak of its registers (sp, ip,
// locals, p, status) and labels.
#pragma once

// The left and the right operand of a binary operator in each mode, what it takes from the stack,
// and which operands are its own to consume.
#define X_LL (&locals[ip->a])
#define Y_LL (&locals[ip->b])
#define X_LK (&locals[ip->a])
#define Y_LK (ip->x.constant)
#define X_KL (ip->x.constant)
#define Y_KL (&locals[ip->b])
#define X_SL (sp - 1)
#define Y_SL (&locals[ip->b])
#define X_SK (sp - 1)
#define Y_SK (ip->x.constant)
#define X_SS (sp - 2)
#define Y_SS (sp - 1)
#define POPS_LL 0
#define POPS_LK 0
#define POPS_KL 0
#define POPS_SL 1
#define POPS_SK 1
#define POPS_SS 2
#define OWN_LL 0
#define OWN_LK 0
#define OWN_KL 0
#define OWN_SL kOwnLeft
#define OWN_SK kOwnLeft
#define OWN_SS (kOwnLeft | kOwnRight)

#define SLOW_TO_STACK(OP, MODE)                                           \
  status = slowBinary(p->domain, X_##MODE, Y_##MODE, OWN_##MODE, kOp##OP, \
                      ip->c == kPsTakesRawDouble, sp - POPS_##MODE);      \
  sp += 1 - POPS_##MODE;                                                  \
  if (PS_UNLIKELY(status != kPsOkay)) goto failed;                        \
  NEXT;
#define SLOW_TO_LOCAL(OP, MODE)                                                                  \
  psTypedValue failed_result;                                                                    \
  status = slowBinaryToLocal(p->domain, X_##MODE, Y_##MODE, OWN_##MODE, kOp##OP, &locals[ip->c], \
                             &failed_result);                                                    \
  sp -= POPS_##MODE;                                                                             \
  if (PS_UNLIKELY(status != kPsOkay)) {                                                          \
    moveValue(sp++, failed_result);                                                              \
    goto failed;                                                                                 \
  }                                                                                              \
  NEXT;

#define DELIVER_S(MODE, SET, R) \
  sp += 1 - POPS_##MODE;        \
  SET(sp - 1, R);               \
  NEXT;
#define DELIVER_L(MODE, SET, R)                  \
  psTypedValue* to = &locals[ip->c];             \
  sp -= POPS_##MODE;                             \
  if (PS_UNLIKELY(psIs(*to, kPsCountedFlags))) { \
    const psTypedValue old = *to;                \
    SET(to, R);                                  \
    ReleaseValue(&old);                          \
    NEXT;                                        \
  }                                              \
  SET(to, R);                                    \
  NEXT;
#define SLOW_S SLOW_TO_STACK
#define SLOW_L SLOW_TO_LOCAL

// Two doubles whose result the next operator or store takes without a box, or one that goes into a
// local.
#define DOUBLES_S(MODE, FLOATING)                                                        \
  double i, j;                                                                           \
  if (PS_LIKELY(ip->c == kPsTakesRawDouble) && readDouble(x, &i) && readDouble(y, &j)) { \
    const double r = FLOATING;                                                           \
    releaseOwned(x, y, OWN_##MODE);                                                      \
    sp += 1 - POPS_##MODE;                                                               \
    sp[-1].value.d = r;                                                                  \
    sp[-1].meta = kPsRawDoubleFlag;                                                      \
    NEXT;                                                                                \
  }
#define DOUBLES_L(MODE, FLOATING)                                      \
  double i, j;                                                         \
  if (readDouble(x, &i) && readDouble(y, &j)) {                        \
    const double r = FLOATING;                                         \
    releaseOwned(x, y, OWN_##MODE);                                    \
    sp -= POPS_##MODE;                                                 \
    status = storeDouble(p->domain, &locals[ip->c], r, kPsObjectFlag); \
    if (PS_UNLIKELY(status != kPsOkay)) {                              \
      *sp++ = psInvalidValue();                                        \
      goto failed;                                                     \
    }                                                                  \
    NEXT;                                                              \
  }

// Two Integers, two Floats or two doubles; everything else is slow.
#define ARITHMETIC(OP, MODE, DST, INTEGER, FLOATING)     \
  L_##OP##MODE##_##DST : {                               \
    const psTypedValue* x = X_##MODE;                    \
    const psTypedValue* y = Y_##MODE;                    \
    const unsigned both = x->type_flags & y->type_flags; \
    if (PS_LIKELY(both & kPsIntegerFlag)) {              \
      const auto i = static_cast<uint64_t>(x->value.i);  \
      const auto j = static_cast<uint64_t>(y->value.i);  \
      const auto r = static_cast<int64_t>(INTEGER);      \
      DELIVER_##DST(MODE, setInteger, r)                 \
    }                                                    \
    if (both & kPsFloatFlag) {                           \
      const float i = x->value.f;                        \
      const float j = y->value.f;                        \
      const float r = FLOATING;                          \
      DELIVER_##DST(MODE, setFloat, r)                   \
    }                                                    \
    DOUBLES_##DST(MODE, FLOATING) SLOW_##DST(OP, MODE)   \
  }

// Division gives a Float; by zero it is an error.
#define DIVISION(OP, MODE, DST)                                                        \
  L_##OP##MODE##_##DST : {                                                             \
    const psTypedValue* x = X_##MODE;                                                  \
    const psTypedValue* y = Y_##MODE;                                                  \
    const unsigned both = x->type_flags & y->type_flags;                               \
    if (PS_LIKELY((both & kPsFloatFlag) && y->value.f != 0.0f)) {                      \
      const float r = x->value.f / y->value.f;                                         \
      DELIVER_##DST(MODE, setFloat, r)                                                 \
    }                                                                                  \
    if ((both & kPsIntegerFlag) && y->value.i != 0) {                                  \
      const float r = static_cast<float>(x->value.i) / static_cast<float>(y->value.i); \
      DELIVER_##DST(MODE, setFloat, r)                                                 \
    }                                                                                  \
    SLOW_##DST(OP, MODE)                                                               \
  }

#define MODULO(OP, MODE, DST)                                                             \
  L_##OP##MODE##_##DST : {                                                                \
    const psTypedValue* x = X_##MODE;                                                     \
    const psTypedValue* y = Y_##MODE;                                                     \
    if (PS_LIKELY((x->type_flags & y->type_flags & kPsIntegerFlag) && y->value.i > 0)) {  \
      const int64_t i = x->value.i;                                                       \
      const int64_t j = y->value.i;                                                       \
      /* A 32-bit division takes a fraction of the time of a 64-bit one. */               \
      const int64_t r =                                                                   \
          ((i | j) >> 32) == 0                                                            \
              ? static_cast<int64_t>(static_cast<uint32_t>(i) % static_cast<uint32_t>(j)) \
              : i % j;                                                                    \
      DELIVER_##DST(MODE, setInteger, r)                                                  \
    }                                                                                     \
    SLOW_##DST(OP, MODE)                                                                  \
  }

// Bitwise on two Integers, logical on two Booleans.
#define LOGIC(OP, MODE, DST, SYMBOL)                               \
  L_##OP##MODE##_##DST : {                                         \
    const psTypedValue* x = X_##MODE;                              \
    const psTypedValue* y = Y_##MODE;                              \
    const unsigned both = x->type_flags & y->type_flags;           \
    if (both & kPsBooleanFlag) {                                   \
      const int64_t r = (x->value.i != 0) SYMBOL(y->value.i != 0); \
      DELIVER_##DST(MODE, setBoolean, r)                           \
    }                                                              \
    if (both & kPsIntegerFlag) {                                   \
      const int64_t r = x->value.i SYMBOL y->value.i;              \
      DELIVER_##DST(MODE, setInteger, r)                           \
    }                                                              \
    SLOW_##DST(OP, MODE)                                           \
  }

#define POWER(OP, MODE, DST) \
  L_##OP##MODE##_##DST : { SLOW_##DST(OP, MODE) }

#define COMPARE_S(OP, MODE, SYMBOL)                             \
  L_##OP##MODE##_S : {                                          \
    const psTypedValue* x = X_##MODE;                           \
    const psTypedValue* y = Y_##MODE;                           \
    const unsigned both = x->type_flags & y->type_flags;        \
    if (PS_LIKELY(both & kPsIntegerFlag)) {                     \
      const int64_t r = -int64_t{x->value.i SYMBOL y->value.i}; \
      DELIVER_S(MODE, setBoolean, r)                            \
    }                                                           \
    if (both & kPsFloatFlag) {                                  \
      const int64_t r = -int64_t{x->value.f SYMBOL y->value.f}; \
      DELIVER_S(MODE, setBoolean, r)                            \
    }                                                           \
    SLOW_TO_STACK(OP, MODE)                                     \
  }
#define COMPARE_J(OP, MODE, SYMBOL)                                       \
  L_##OP##MODE##_J : {                                                    \
    const psTypedValue* x = X_##MODE;                                     \
    const psTypedValue* y = Y_##MODE;                                     \
    const unsigned both = x->type_flags & y->type_flags;                  \
    bool truth;                                                           \
    if (PS_LIKELY(both & kPsIntegerFlag)) {                               \
      truth = x->value.i SYMBOL y->value.i;                               \
    } else if (both & kPsFloatFlag) {                                     \
      truth = x->value.f SYMBOL y->value.f;                               \
    } else {                                                              \
      bool holds;                                                         \
      status = slowCompare(p->domain, x, y, OWN_##MODE, kOp##OP, &holds); \
      if (PS_UNLIKELY(status != kPsOkay)) {                               \
        sp += 1 - POPS_##MODE;                                            \
        sp[-1] = psInvalidValue();                                        \
        goto failed;                                                      \
      }                                                                   \
      truth = holds;                                                      \
    }                                                                     \
    sp -= POPS_##MODE;                                                    \
    if (truth) NEXT;                                                      \
    ip += ip->jump;                                                       \
    DISPATCH;                                                             \
  }

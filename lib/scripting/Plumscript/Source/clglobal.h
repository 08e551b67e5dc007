// The global functions: the static functions of ifGlobal, the one interface of koGlobal. A
// call_global instruction names its function by the position in this table.
#pragma once

#include <cstdint>

#include "psc.h"

constexpr int kPsGlobalFunctionCount = 64;
// The descriptor table (terminated by a record without a name).
extern const fundes kPsGlobalFunctions[];
extern const psInterface kPsGlobalInterface;

// Shared with the methods of koString: positions are 1-based here.
psText psTextLeft(psText text, int32_t n);
psText psTextRight(psText text, int32_t n);
psText psTextMid(psText text, int32_t position, int32_t n);
psText psTextMid(psText text, int32_t position);
int32_t psTextInstr(int32_t start, psText text, psText needle);
int32_t psTextToInt(psText text);
double psTextToDouble(psText text);

// Starts the sequence of rnd anew, for every script of the process. Any thread.
void psSeedRandom(uint32_t seed);

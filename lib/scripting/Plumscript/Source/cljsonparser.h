// The runtime's own JSON reader and writer, behind ParseJSON and FormatJSON.
#pragma once

#include "psc.h"

// A new component (container or boxed scalar) with one reference, or null after printing why.
pscInstance* ParseJSON(pscDomain* domain, psText text);
constexpr int32_t kPsJsonRawUtf8 = 1;  // write characters above 127 as they are
// The text in a koString with one reference, or null after printing why.
pscInstance* DoFormatJSON(pscDomain* domain, const psTypedValue& value, int32_t flags);

// JSON documents of other processes as script objects.
//
// Scripts' own ParseJSON and FormatJSON are the core's (cljsonparser.h); these two serve native
// objects that hold a document parsed by the JSON library.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "lib/scripting/CommonAPI/Include/ko_ref.h"

// A document nested deeper than this does not convert.
constexpr int kKelvoMaxJsonDepth = 256;

// Containers become koArray and koAssociativeArray, strings koString, booleans koBoolean, null (and
// a discarded document) koInvalid. Every number becomes a Double; an integer counts by its low 32
// bits only. Throws std::runtime_error for a document nested too deeply and std::bad_alloc when
// memory is refused; nothing is left then. A binary value is a failed assertion: no text gives one.
//
// For the script's thread, or another one that holds the collector off.
KelvoObjectRef JsonToKelvoObject(pscDomain* domain, const nlohmann::json& json);

// The text of a scalar: a string itself, an integer's low 32 bits in decimal, a floating number as
// printf's "%f", "1" or "0" for a boolean, nothing for null. Throws std::runtime_error "JSON is
// compound" or "JSON is binary". Any thread.
std::string JsonValueToText(const nlohmann::json& json);

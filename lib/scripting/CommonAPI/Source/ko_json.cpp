// The one place of the object framework that sees the JSON library.
#include "lib/scripting/CommonAPI/Include/ko_json.h"

#include <fmt/format.h>

#include <cstdint>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "lib/platform/assertion.h"
#include "lib/scripting/CommonAPI/Include/ko_container.h"
#include "lib/scripting/CommonAPI/Include/ko_value.h"
#include "lib/scripting/Plumscript/Source/clwrappers.h"

namespace {

using Json = nlohmann::json;

// Integers count by their low 32 bits: scripts in the field know them that way.
int32_t LowSigned(const Json& json) { return static_cast<int32_t>(json.get<int64_t>()); }
uint32_t LowUnsigned(const Json& json) { return static_cast<uint32_t>(json.get<uint64_t>()); }

KelvoObjectRef Require(pscInstance* instance) {
  if (instance == nullptr) throw std::bad_alloc();
  return KelvoObjectRef::Adopt(instance);
}

KelvoObjectRef Convert(pscDomain* domain, const Json& json, int depth) {
  if (json.is_structured() && depth == 0) {
    throw std::runtime_error(
        fmt::format("JSON is nested deeper than {} levels", kKelvoMaxJsonDepth));
  }
  switch (json.type()) {
    case Json::value_t::null:
    case Json::value_t::discarded: return Require(pscNewComponentByClass(domain, &clInvalid));
    case Json::value_t::boolean: return Require(psNewBoolean(domain, json.get<bool>()));
    case Json::value_t::number_integer: return Require(psNewDouble(domain, LowSigned(json)));
    case Json::value_t::number_unsigned: return Require(psNewDouble(domain, LowUnsigned(json)));
    case Json::value_t::number_float: return Require(psNewDouble(domain, json.get<double>()));
    case Json::value_t::string: return KelvoNewString(domain, json.get_ref<const std::string&>());
    case Json::value_t::object: {
      KelvoAssocArrayCreator members(domain);
      for (const auto& [key, member] : json.items()) {
        members.Set(key, Convert(domain, member, depth - 1));
      }
      return members.Take();
    }
    case Json::value_t::array: {
      KelvoArrayCreator elements(domain);
      for (const Json& element : json) elements.Add(Convert(domain, element, depth - 1));
      return elements.Take();
    }
    case Json::value_t::binary: break;
  }
  LATTIX_ASSERT(false);
  return {};
}

}  // namespace

KelvoObjectRef JsonToKelvoObject(pscDomain* domain, const nlohmann::json& json) {
  return Convert(domain, json, kKelvoMaxJsonDepth);
}

std::string JsonValueToText(const nlohmann::json& json) {
  switch (json.type()) {
    case Json::value_t::null:
    case Json::value_t::discarded: return {};
    case Json::value_t::string: return json.get<std::string>();
    case Json::value_t::number_integer: return std::to_string(LowSigned(json));
    case Json::value_t::number_unsigned: return std::to_string(LowUnsigned(json));
    case Json::value_t::number_float: return fmt::format("{:f}", json.get<double>());
    case Json::value_t::boolean: return json.get<bool>() ? "1" : "0";
    case Json::value_t::object:
    case Json::value_t::array: throw std::runtime_error("JSON is compound");
    case Json::value_t::binary: break;
  }
  throw std::runtime_error("JSON is binary");
}

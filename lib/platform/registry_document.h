// The registry's content: its limits, and its form as a JSON document.
//
// The document is an object of sections, each an object of key and string:
//   {"autorun":{"bootstrap":"sys:/bootstrap.js"},"networking":{"curl_debug":"1"}}
// It is what the store's file holds and what the clients' JSON operations take and give.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace Registry {

// Sections by name, each its values by key. A section without keys does not exist.
using Section = std::map<std::string, std::string, std::less<>>;
using Sections = std::map<std::string, Section, std::less<>>;

// In bytes.
inline constexpr size_t kMaxNameSize = 255;
inline constexpr size_t kMaxValueSize = 1u << 20;
// The registry's size is that of its JSON document, as FormatDocument writes it: that is what the
// storage holds and what goes over the bus.
inline constexpr size_t kMaxStoreSize = 8u << 20;
// The longest document that is read at all: one of that size may have been indented by hand.
inline constexpr size_t kMaxDocumentSize = 2 * kMaxStoreSize;

// Whether the text is what a D-Bus string can carry: UTF-8 (RFC 3629) with neither NUL nor one of
// Unicode's 66 noncharacters, which the bus library refuses as well.
bool IsText(std::string_view text);

// Throw InvalidName, or InvalidEncoding for bytes that are not UTF-8.
void CheckName(std::string_view name);
// Throws Full when it is too long, InvalidEncoding when it is no text.
void CheckValue(std::string_view value);

// Throws InvalidJson for a text that is no JSON (with the parser's message) or has another shape,
// what the two functions above throw for its names and values, and Full for one longer than
// kMaxDocumentSize. Takes memory in proportion to the text, however deeply that nests.
Sections ParseDocument(std::string_view text);

// The document without white space; sections and keys in the order of their bytes.
std::string FormatDocument(const Sections& sections);

}  // namespace Registry

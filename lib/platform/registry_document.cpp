// The document is parsed event by event straight into the sections, and the first event that does
// not fit its shape ends the parsing: a tree of the whole text, which a hostile one could make a
// hundred times its size, never exists. It is written straight from them, for every change writes
// the whole of it.
#include "lib/platform/registry_document.h"

#include <cstdint>
#include <exception>
#include <nlohmann/json.hpp>
#include <utility>

#include "lib/platform/registry_client.h"

namespace Registry {

namespace {

using nlohmann::json;

// The parser quotes what it read last, which may be a string of any length.
constexpr size_t kMaxParserMessage = 512;

std::string ParserMessage(const std::exception& error) {
  std::string message = error.what();
  if (message.size() > kMaxParserMessage) {
    size_t end = kMaxParserMessage;
    while (end > 0 && (message[end] & 0xc0) == 0x80) --end;
    message.resize(end);
    message += "...";
  }
  return message;
}

// Decodes the character at the front of `text` and removes it; false when it is not UTF-8.
bool NextCharacter(std::string_view* text, char32_t* character) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>((*text)[i]); };
  const unsigned char first = byte(0);
  size_t size = 1;
  char32_t least = 0;
  if (first < 0x80) {
    *character = first;
  } else if (first >= 0xc2 && first < 0xe0) {
    *character = first & 0x1f;
    size = 2;
    least = 0x80;
  } else if (first >= 0xe0 && first < 0xf0) {
    *character = first & 0x0f;
    size = 3;
    least = 0x800;
  } else if (first >= 0xf0 && first < 0xf5) {
    *character = first & 0x07;
    size = 4;
    least = 0x10000;
  } else {
    return false;
  }
  if (text->size() < size) return false;
  for (size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return false;
    *character = *character << 6 | (byte(i) & 0x3f);
  }
  text->remove_prefix(size);
  return *character >= least && *character <= 0x10ffff &&
         !(*character >= 0xd800 && *character < 0xe000);
}

bool IsNoncharacter(char32_t c) { return (c >= 0xfdd0 && c <= 0xfdef) || (c & 0xfffe) == 0xfffe; }

bool IsControl(char32_t c) { return c < 0x20 || (c >= 0x7f && c < 0xa0); }

// As a JSON string (RFC 8259), escaping no more than must be.
void AppendString(std::string_view text, std::string* document) {
  constexpr char kHex[] = "0123456789abcdef";
  *document += '"';
  size_t copied = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x20 && byte != '"' && byte != '\\') continue;
    document->append(text, copied, i - copied);
    copied = i + 1;
    if (byte >= 0x20) {
      *document += '\\';
      *document += text[i];
    } else {
      *document += "\\u00";
      *document += kHex[byte >> 4];
      *document += kHex[byte & 15];
    }
  }
  document->append(text, copied);
  *document += '"';
}

// Receives the parser's events. Names and values are judged as they come; an event that returns
// false ends the parsing, with the reason in m_failure.
class DocumentReader final : public nlohmann::json_sax<json> {
 public:
  Sections TakeSections() {
    if (m_failure) std::rethrow_exception(m_failure);
    return std::move(m_sections);
  }

  bool start_object(std::size_t) override {
    if (m_depth == 2) return WrongShape();
    ++m_depth;
    return true;
  }
  bool end_object() override {
    --m_depth;
    return true;
  }
  bool key(std::string& name) override {
    return Judge([&] {
      CheckName(name);
      (m_depth == 1 ? m_section : m_key) = std::move(name);
    });
  }
  bool string(std::string& value) override {
    if (m_depth != 2) return WrongShape();
    return Judge([&] {
      CheckValue(value);
      m_sections[m_section].insert_or_assign(std::move(m_key), std::move(value));
    });
  }

  bool null() override { return WrongShape(); }
  bool boolean(bool) override { return WrongShape(); }
  bool number_integer(number_integer_t) override { return WrongShape(); }
  bool number_unsigned(number_unsigned_t) override { return WrongShape(); }
  bool number_float(number_float_t, const std::string&) override { return WrongShape(); }
  bool binary(json::binary_t&) override { return WrongShape(); }
  bool start_array(std::size_t) override { return WrongShape(); }
  bool end_array() override { return WrongShape(); }

  bool parse_error(std::size_t, const std::string&, const json::exception& error) override {
    return Fail(std::make_exception_ptr(InvalidJson(ParserMessage(error))));
  }

 private:
  bool Fail(std::exception_ptr failure) {
    m_failure = std::move(failure);
    return false;
  }
  bool WrongShape() { return Fail(std::make_exception_ptr(InvalidJson())); }
  template <typename Step>
  bool Judge(Step step) {
    try {
      step();
      return true;
    } catch (const Error&) {
      return Fail(std::current_exception());
    }
  }

  Sections m_sections;
  int m_depth = 0;  // objects that are open: 1 is the document, 2 a section
  std::string m_section;
  std::string m_key;
  std::exception_ptr m_failure;
};

}  // namespace

bool IsText(std::string_view text) {
  while (!text.empty()) {
    char32_t c;
    if (!NextCharacter(&text, &c) || c == 0 || IsNoncharacter(c)) return false;
  }
  return true;
}

void CheckName(std::string_view name) {
  if (name.empty() || name.size() > kMaxNameSize) throw InvalidName();
  while (!name.empty()) {
    char32_t c;
    if (!NextCharacter(&name, &c) || IsNoncharacter(c)) throw InvalidEncoding();
    if (IsControl(c)) throw InvalidName();
  }
}

void CheckValue(std::string_view value) {
  if (value.size() > kMaxValueSize) throw Full();
  if (!IsText(value)) throw InvalidEncoding();
}

Sections ParseDocument(std::string_view text) {
  if (text.size() > kMaxDocumentSize) throw Full();
  DocumentReader reader;
  json::sax_parse(text, &reader);
  return reader.TakeSections();
}

std::string FormatDocument(const Sections& sections) {
  std::string document = "{";
  const char* next_section = "";
  for (const auto& [section, keys] : sections) {
    document += next_section;
    AppendString(section, &document);
    document += ":{";
    const char* next_key = "";
    for (const auto& [key, value] : keys) {
      document += next_key;
      AppendString(key, &document);
      document += ':';
      AppendString(value, &document);
      next_key = ",";
    }
    document += '}';
    next_section = ",";
  }
  return document += '}';
}

}  // namespace Registry

#include "platform/foundation/PropertyList.h"

#include <locale.h>
#include <plist/plist.h>
#include <unicode/utf8.h>

#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>

#include "platform/foundation/Encoding.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

// The library reads and frees a binary list by recursion: 256 KiB cannot nest deep enough to exhaust a stack. An XML
// list is read in a loop but freed by recursion, so its depth is counted first.
constexpr std::size_t kMaxBinaryBytes = 256U << 10;
constexpr std::size_t kMaxXmlBytes = 16U << 20;
constexpr int kMaxDepth = 512;

// Seconds between 1970 and 2001, from which the library counts.
constexpr double kReferenceDate = 978307200;

using Node = std::unique_ptr<std::remove_pointer_t<plist_t>, void (*)(plist_t)>;

Node owned(plist_t node) { return Node(node, plist_free); }

/// Numbers are read and written with a point, whatever locale the host has chosen.
class PlainNumbers {
 public:
  PlainNumbers() : previous_(::uselocale(plain())) {}
  ~PlainNumbers() { ::uselocale(previous_); }
  PlainNumbers(const PlainNumbers&) = delete;
  PlainNumbers& operator=(const PlainNumbers&) = delete;

 private:
  static locale_t plain() {
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
  }
  locale_t previous_;
};

std::string xmlOf(plist_t node) {
  char* text = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(node, &text, &length);
  std::string xml(text == nullptr ? "" : text, length);
  plist_to_xml_free(text);
  return xml;
}

/// The key of an item, taken from its text: asked for it, the library ends the process if it holds a NUL, as one of a
/// binary list can.
std::string keyOf(plist_t item) {
  const std::string xml = xmlOf(plist_dict_item_get_key(item));
  const auto begin = xml.find("<key>"), end = xml.rfind("</key>");
  if (begin == xml.npos || end == xml.npos) return {};
  std::string key = xml.substr(begin + 5, end - begin - 5);
  for (const auto& [entity, character] : {std::pair("&lt;", '<'), {"&gt;", '>'}, {"&amp;", '&'}})
    for (std::size_t at = 0; (at = key.find(entity, at)) != key.npos; ++at)
      key.replace(at, std::string_view(entity).size(), 1, character);
  return key;
}

bool nestsTooDeep(std::string_view xml) {
  int depth = 0;
  for (std::size_t at = xml.find('<'); at != std::string_view::npos; at = xml.find('<', at + 1)) {
    const std::string_view tag = xml.substr(at + 1, 6);
    if (tag.starts_with("array>") || tag.starts_with("dict>")) ++depth;
    if (tag.starts_with("/array") || tag.starts_with("/dict")) --depth;
    if (depth > kMaxDepth) return true;
  }
  return false;
}

// The library keeps negative integers and those above 2^63 in the same 64 bits; only its text tells them apart.
Value integerOf(plist_t node) {
  std::uint64_t bits = 0;
  plist_get_uint_val(node, &bits);
  const bool negative = bits >> 63 != 0 && xmlOf(node).find("<integer>-") != std::string::npos;
  if (bits >> 63 == 0 || negative) return static_cast<std::int64_t>(bits);
  return static_cast<double>(bits);
}

std::string dateText(plist_t node) {
  std::int32_t seconds = 0;
  std::int32_t microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  std::string text = concat(dateSince1970(kReferenceDate + seconds)).substr(0, 19);
  text[10] = 'T';
  return text + "Z";
}

Value valueOf(plist_t node, int depth);

Value arrayOf(plist_t node, int depth) {
  Array array;
  const std::uint32_t size = plist_array_get_size(node);
  plist_array_iter iterator = nullptr;
  plist_array_new_iter(node, &iterator);
  for (std::uint32_t i = 0; i < size; ++i) {
    plist_t item = nullptr;
    plist_array_next_item(node, iterator, &item);
    array.push_back(valueOf(item, depth + 1));
  }
  std::free(iterator);
  return array;
}

Value dictionaryOf(plist_t node, int depth) {
  Dictionary dictionary;
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(node, &iterator);
  for (;;) {
    plist_t item = nullptr;
    plist_dict_next_item(node, iterator, nullptr, &item);
    if (item == nullptr) break;
    dictionary.insert_or_assign(keyOf(item), valueOf(item, depth + 1));
  }
  std::free(iterator);
  return dictionary;
}

Value valueOf(plist_t node, int depth) {
  if (depth > kMaxDepth) return nullptr;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return value != 0;
    }
    case PLIST_UINT:
      return integerOf(node);
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return value;
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return text == nullptr ? std::string_view() : std::string_view(text, length);
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      return base64Encode(bytes == nullptr ? std::string_view() : std::string_view(bytes, length));
    }
    case PLIST_DATE:
      return dateText(node);
    case PLIST_ARRAY:
      return arrayOf(node, depth);
    case PLIST_DICT:
      return dictionaryOf(node, depth);
    default:
      return nullptr;
  }
}

// XML has no form for control characters and malformed UTF-8: one of them would cost the whole file.
std::string xmlSafe(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t start = at;
    UChar32 character = 0;
    U8_NEXT(text, at, text.size(), character);
    const bool allowed = character >= 0x20 || character == '\t' || character == '\n' || character == '\r';
    out.append(allowed ? text.substr(start, at - start) : std::string_view("\uFFFD"));
  }
  return out;
}

plist_t nodeOf(const Value& value, int depth) {
  if (depth > kMaxDepth) return nullptr;
  if (auto boolean = value.asBool()) return plist_new_bool(*boolean);
  if (const std::string* text = value.asString()) return plist_new_string(xmlSafe(*text).c_str());
  if (const Array* array = value.asArray()) {
    plist_t node = plist_new_array();
    for (const Value& item : *array)
      if (plist_t child = nodeOf(item, depth + 1)) plist_array_append_item(node, child);
    return node;
  }
  if (const Dictionary* dictionary = value.asDictionary()) {
    plist_t node = plist_new_dict();
    for (const auto& [key, item] : *dictionary)
      if (plist_t child = nodeOf(item, depth + 1)) plist_dict_set_item(node, xmlSafe(key).c_str(), child);
    return node;
  }
  // A double stays a double, even one without a fraction.
  const auto integer = value.asInteger();
  if (integer && value == Value(*integer)) return plist_new_uint(static_cast<std::uint64_t>(*integer));
  if (auto number = value.asDouble()) return plist_new_real(*number);
  return nullptr;
}

Error unreadable(std::string_view why) {
  return Error{.domain = NSCocoaErrorDomain,
               .code = 3840,
               .localizedDescription = "The data couldn’t be read because it isn’t in the correct format.",
               .userInfo = {{"NSDebugDescription", why}}};
}

}  // namespace

Result<Value> parsePropertyList(std::string_view bytes) {
  const bool binary = bytes.starts_with("bplist00");
  if (bytes.size() > (binary ? kMaxBinaryBytes : kMaxXmlBytes)) return unreadable("too large");
  if (!binary && nestsTooDeep(bytes)) return unreadable("nested too deep");
  const PlainNumbers plainNumbers;
  plist_t parsed = nullptr;
  plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &parsed);
  const Node root = owned(parsed);
  if (!root) return unreadable("not a property list");
  return valueOf(root.get(), 0);
}

std::string serializePropertyList(const Value& value) {
  const PlainNumbers plainNumbers;
  const Node root = owned(nodeOf(value, 0));
  return root ? xmlOf(root.get()) : std::string();
}

}  // namespace tarvo::platform

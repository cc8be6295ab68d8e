#include "platform/foundation/Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "platform/foundation/PropertyList.h"

namespace tarvo::platform {
namespace {

TEST(Json, WritesWhatItHasReadInOneForm) {
  const std::pair<const char*, const char*> cases[] = {
      {R"( {"b": [1, -2, 0.1], "a": {"x": null, "t": true}} )", R"({"a":{"t":true,"x":null},"b":[1,-2,0.1]})"},
      {R"([1.0, 2.50, 1e5, 0.00001, 123456789.125])", "[1,2.5,100000,0.00001,123456789.125]"},
      {R"({"k": 1, "k": {"k": 2}})", R"({"k":{"k":2}})"},
      {R"(["\u00e9\/\"\\\n\u0001 \ud83d\ude00"])", "[\"é/\\\"\\\\\\n\\u0001 😀\"]"},
      {"\xef\xbb\xbf[]", "[]"},
  };
  for (const auto& [text, expected] : cases) {
    auto value = parseJson(text);
    ASSERT_TRUE(value) << text;
    EXPECT_EQ(serializeJson(*value).value(), expected);
  }
  const auto value = parseJson(R"([1, 1.0, true, null, "a\u0000b", 18446744073709551615])").value();
  EXPECT_EQ(value, Value(Array{1, 1.0, true, nullptr, std::string("a\0b", 3), 18446744073709551615.0}));
  EXPECT_EQ(Value::fromJson("null"), Value(nullptr));
}

TEST(Json, RefusesWhatIsBrokenOrHostile) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  std::string manyValues = "[0";
  for (int i = 0; i < 2'100'000; ++i) manyValues += ",0";
  const std::string refused[] = {nested(3'000'000), manyValues + "]", "// c\n[]", "[1] x", "nul"};
  for (const std::string& text : refused) {
    const auto result = parseJson(text);
    ASSERT_FALSE(result) << text.substr(0, 20);
    EXPECT_EQ(result.error().code, 3840);
    EXPECT_EQ(result.error().domain, NSCocoaErrorDomain);
    const auto details = findString(result.error().userInfo, "NSDebugDescription").value_or("");
    EXPECT_FALSE(details.empty() || details.find("exception") != details.npos) << details;
  }
  const std::pair<const char*, const char*> details[] = {{"[1,]", "no valid JSON, at byte 3"},
                                                         {"[1,1e999]", "a number out of range, before byte 8"}};
  for (const auto& [text, expected] : details)
    EXPECT_EQ(findString(parseJson(text).error().userInfo, "NSDebugDescription"), expected);
  EXPECT_TRUE(parseJson(nested(512)));
}

TEST(Json, SaysWhatItCannotWrite) {
  Value deep = Array{};
  for (int i = 0; i < 600; ++i) deep = Array{deep};
  const std::tuple<Value, bool, const char*> cases[] = {
      {1, false, "no array or dictionary at the top"},
      {Array{1, std::numeric_limits<double>::infinity()}, false, "a number that is not finite"},
      {Dictionary{{"a", Array{"\xc3("}}}, false, "a text that is not UTF-8"},
      {deep, false, "nested too deep"},
      {Array{"x", std::string((64U << 20) - 3, 'x')}, true, "too large"}};
  for (const auto& [value, isValid, why] : cases) {
    EXPECT_EQ(isValidJsonObject(value), isValid) << why;
    EXPECT_EQ(value.toJson(), value == Value(1) ? std::optional<std::string>("1") : std::nullopt) << why;
    const auto text = serializeJson(value);
    ASSERT_FALSE(text) << why;
    EXPECT_EQ(findString(text.error().userInfo, "NSDebugDescription"), why);
  }
}

TEST(PropertyList, KeepsTypesAndEveryText) {
  const Dictionary typed = {{"yes", true},
                            {"negative", std::numeric_limits<std::int64_t>::min()},
                            {"whole", 5.0},
                            {"real", 0.1},
                            {"", " <a & b> \"'\r\n\té "},
                            {"k<&>", Array{Array{}, Dictionary{}, ""}}};
  EXPECT_EQ(parsePropertyList(serializePropertyList(typed)).value(), Value(typed));
  // What XML cannot carry must not cost the file.
  const Dictionary unsafe = {{"nul", std::string("a\0\x01z", 4)}, {"bytes", "\xff"}, {"null", nullptr}};
  EXPECT_EQ(parsePropertyList(serializePropertyList(unsafe)).value(),
            Value(Dictionary{{"nul", "a\uFFFD\uFFFDz"}, {"bytes", "\uFFFD"}}));
}

/// A well-formed binary list of arrays in one another.
std::string deepBinaryList(std::size_t depth) {
  const auto bigEndian = [](std::size_t number, int bytes) {
    std::string text;
    while (bytes-- > 0) text.push_back(static_cast<char>(number >> (8 * bytes)));
    return text;
  };
  std::string list = "bplist00", offsets;
  for (std::size_t i = 0; i < depth; ++i) {
    offsets += bigEndian(list.size(), 3);
    list += i + 1 < depth ? "\xa1" + bigEndian(i + 1, 3) : "\xa0";
  }
  const std::string table = bigEndian(list.size(), 8);
  return list + offsets + std::string(6, '\0') + "\3\3" + bigEndian(depth, 8) + bigEndian(0, 8) + table;
}

TEST(PropertyList, ReadsForeignTypesAndRefusesHostileFiles) {
  EXPECT_EQ(parsePropertyList("<plist><array><integer>18446744073709551615</integer><integer>-1</integer>"
                              "<date>2017-03-02T08:15:30Z</date><data>AQID</data></array></plist>")
                .value(),
            Value(Array{18446744073709551615.0, -1, "2017-03-02T08:15:30Z", "AQID"}));
  EXPECT_EQ(parsePropertyList(deepBinaryList(2)).value(), Value(Array{Value(Array{})}));
  std::string deep = "<plist>";
  for (int i = 0; i < 1'000'000; ++i) deep += "<array>";
  for (int i = 0; i < 1'000'000; ++i) deep += "</array>";
  for (const std::string& text :
       {std::string(), std::string("hello"), std::string("<plist/>"), deep + "</plist>", deepBinaryList(150'000)})
    EXPECT_FALSE(parsePropertyList(text)) << text.substr(0, 20);
}

}  // namespace
}  // namespace tarvo::platform

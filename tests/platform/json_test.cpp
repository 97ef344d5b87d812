#include "platform/JSON.h"

#include <limits>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(JSON, ReadsAndWrites) {
  const struct {
    const char* text;
    const char* compact;
  } rows[] = {
      {" [ 1 , -2.5 , true , null ] ", "[1,-2.5,true,null]"},
      {"\xEF\xBB\xBF{}", "{}"},
      {"\"a/b\\/c\"", "\"a/b/c\""},
      {"\"\\u00e4\\ud83d\\ude00\\u0000\"", "\"\xC3\xA4\xF0\x9F\x98\x80\\u0000\""},
      // order and duplicates: first position, last value
      {"{\"b\":1,\"a\":2,\"b\":3}", "{\"b\":3,\"a\":2}"},
      {"{\"\":{\"x\":[]}}", "{\"\":{\"x\":[]}}"},
      // numbers at the edges
      {"18446744073709551615", "18446744073709551615"},
      {"9223372036854775808", "9223372036854775808"},
      {"-9223372036854775808", "-9223372036854775808"},
      {"[0.1,1e2,5.0]", "[0.1,100.0,5.0]"},
      {"18446744073709551616", "1.8446744073709552e+19"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    std::string message;
    const auto value = JSON::parse(row.text, &message);
    ASSERT_TRUE(value) << message;
    EXPECT_EQ(value->dump(), row.compact);
    EXPECT_EQ(JSON::parse(value->dump()), value);
  }
}

TEST(JSON, RefusesWhatIsNotOneValue) {
  const char* const rows[] = {
      "",
      " ",
      "{",
      "[1,]",
      "{\"a\"}",
      "{\"a\":1,}",
      "{a:1}",
      "01",
      "+1",
      "1.",
      ".5",
      "NaN",
      "1e999",
      "-",
      "1 2",
      "[] x",
      "tru",
      "\"a",
      "\"\n\"",
      "\"\\x\"",
      "'a'",
      "// 1",
      "/* */ 1",
      "\"\xFF\"",
      "\"\xC0\x80\"",
      "\"\\ud800\"",
      "\"\xED\xA0\x80\"",
      "\xEF\xBB",
  };
  for (const char* text : rows) {
    SCOPED_TRACE(text);
    std::string message;
    EXPECT_EQ(JSON::parse(text, &message), std::nullopt);
    EXPECT_TRUE(message.starts_with("offset ")) << message;
  }
  // a NUL ends nothing
  std::string message;
  EXPECT_FALSE(JSON::parse(std::string_view("1\0", 2), &message));
  EXPECT_FALSE(JSON::parse(std::string_view("[]\0]", 4), &message));
  EXPECT_EQ(message, "offset 2: NUL character");
}

TEST(JSON, DepthIsBounded) {
  const auto nested = [](size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
  };
  const auto deepest = JSON::parse(nested(512));
  ASSERT_TRUE(deepest);
  EXPECT_EQ(deepest->dump(), nested(512));
  std::string message;
  EXPECT_FALSE(JSON::parse(nested(513), &message));
  EXPECT_EQ(message, "more than 512 levels");
  EXPECT_FALSE(JSON::parse(std::string(1 << 20, '['), &message));
  EXPECT_FALSE(JSON::parse(std::string(1 << 20, '{'), &message));
}

TEST(JSON, NumbersAreGivenOnlyWhenTheyFit) {
  const struct {
    const char* text;
    std::optional<int64_t> integer;
    std::optional<uint64_t> unsignedInteger;
    std::optional<double> number;
  } rows[] = {
      {"0", 0, 0, 0.0},
      {"-1", -1, std::nullopt, -1.0},
      {"5.0", 5, 5, 5.0},
      {"5.5", std::nullopt, std::nullopt, 5.5},
      {"-0.0", 0, 0, -0.0},
      {"9223372036854775807", INT64_MAX, INT64_MAX, 9223372036854775808.0},
      {"9223372036854775808", std::nullopt, 9223372036854775808U, 9223372036854775808.0},
      {"18446744073709551615", std::nullopt, UINT64_MAX, 18446744073709551616.0},
      {"9223372036854775808.0", std::nullopt, 9223372036854775808U, 9223372036854775808.0},
      {"18446744073709551616", std::nullopt, std::nullopt, 18446744073709551616.0},
      {"-1e300", std::nullopt, std::nullopt, -1e300},
      {"true", std::nullopt, std::nullopt, std::nullopt},
      {"\"7\"", std::nullopt, std::nullopt, std::nullopt},
      {"[7]", std::nullopt, std::nullopt, std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const JSON value = *JSON::parse(row.text);
    EXPECT_EQ(value.integer(), row.integer);
    EXPECT_EQ(value.unsignedInteger(), row.unsignedInteger);
    EXPECT_EQ(value.number(), row.number);
  }
  EXPECT_EQ(JSON(uint64_t{7}), JSON(7));
}

TEST(JSON, WrongTypesGiveNothing) {
  const JSON text("x");
  EXPECT_EQ(text.find("a"), nullptr);
  EXPECT_TRUE(text.items().empty() && text.members().empty());
  EXPECT_EQ(text.boolean(), std::nullopt);
  EXPECT_EQ(JSON(1).string(), std::nullopt);
  EXPECT_EQ(JSON(1).boolean(), std::nullopt);
}

TEST(JSON, ObjectsAreEditedInPlace) {
  JSON value("becomes an object");
  value.set("b", 1);
  value.set("a", "x");
  value.set("b", JSON::array());
  value.remove("none");
  EXPECT_EQ(value.dump(), R"({"b":[],"a":"x"})");
  value.remove("b");
  EXPECT_EQ(value.dump(2), "{\n  \"a\": \"x\"\n}");
  value.append(nullptr);
  EXPECT_EQ(value.dump(), "[null]");
  EXPECT_EQ(JSON::fromObject({{"a", 1}, {"b", 2}, {"a", 3}}).dump(), R"({"a":3,"b":2})");
}

TEST(JSON, WritingNeverFails) {
  JSON value;
  value.set("bad \xFF", std::string("\xC3") + "(" + std::string(1, '\0') + "\x1F");
  value.set("nan", std::numeric_limits<double>::quiet_NaN());
  value.set("inf", std::numeric_limits<double>::infinity());
  const std::string text = value.dump();
  EXPECT_EQ(text,
            "{\"bad \xEF\xBF\xBD\":\"\xEF\xBF\xBD(\\u0000\\u001f\",\"nan\":null,\"inf\":null}");
  EXPECT_TRUE(JSON::parse(text));
}

}  // namespace
}  // namespace platform

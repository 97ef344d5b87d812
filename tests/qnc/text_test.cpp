// Strings, bytes, checked arithmetic.

#include <limits>
#include <string>
#include <unordered_set>

#include <gtest/gtest.h>

#include "qnc/qncByteArray.h"
#include "qnc/qncChecked.h"
#include "qnc/qncFastString.h"

namespace {

using qnc::ByteArray;
using qnc::ByteArrayRef;
using qnc::FastString;

template <class T>
std::string parsed(std::string_view text) {
  T value = 99;
  const bool whole = qnc::parseDecimal(text, value);
  EXPECT_TRUE(whole || value == T{99}) << "changed by " << text;
  return whole ? std::to_string(value) : "no";
}

TEST(FastString, ReadsNumbersAsAWhole) {
  const struct {
    const char* text;
    const char *i32, *u32, *i64;
  } rows[] = {
      {"0", "0", "0", "0"},
      {"007", "7", "7", "7"},
      {"+5", "5", "5", "5"},
      {"-5", "-5", "no", "-5"},
      {"2147483647", "2147483647", "2147483647", "2147483647"},
      {"2147483648", "no", "2147483648", "2147483648"},
      {"-2147483648", "-2147483648", "no", "-2147483648"},
      {"4294967296", "no", "no", "4294967296"},
      {"9223372036854775808", "no", "no", "no"},
      {"99999999999999999999999", "no", "no", "no"},
      // not a number as a whole
      {"", "no", "no", "no"},
      {"+", "no", "no", "no"},
      {"-", "no", "no", "no"},
      {"+-5", "no", "no", "no"},
      {"--5", "no", "no", "no"},
      {" 5", "no", "no", "no"},
      {"5 ", "no", "no", "no"},
      {"5x", "no", "no", "no"},
      {"0x5", "no", "no", "no"},
      {"5.0", "no", "no", "no"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(parsed<int32_t>(row.text), row.i32) << row.text;
    EXPECT_EQ(parsed<uint32_t>(row.text), row.u32) << row.text;
    EXPECT_EQ(parsed<int64_t>(row.text), row.i64) << row.text;
  }
  EXPECT_EQ(FastString("18446744073709551615").toUInt64(), UINT64_MAX);
  EXPECT_EQ(FastString("18446744073709551616").toUInt64(7), 7U);
}

TEST(FastString, ConvertsBetweenUTF8AndUTF16) {
  const struct {
    const char* utf8;
    std::u16string utf16;
    int64_t points;
  } rows[] = {
      {"", u"", 0},
      {"a\xC3\xA4\xE2\x82\xAC", u"a\u00E4\u20AC", 3},
      {"\xF0\x9F\x98\x80!", u"\U0001F600!", 2},
      {"\xF4\x8F\xBF\xBF", u"\U0010FFFF", 1},
  };
  for (const auto& row : rows) {
    bool valid = false;
    EXPECT_EQ(FastString::fromUTF16(row.utf16, &valid), row.utf8);
    EXPECT_TRUE(valid) << row.utf8;
    EXPECT_EQ(FastString(row.utf8).toUTF16(), row.utf16);
    EXPECT_EQ(FastString(row.utf8).codePointCount(), row.points);
  }
}

TEST(FastString, ReplacesWhatIsNotUnicode) {
  // overlong, surrogate, beyond U+10FFFF, stray continuation, cut short
  for (const char* text : {"\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80", "\xE2\x82"}) {
    const FastString bad = FastString("a") + text + "b";
    EXPECT_FALSE(bad.isValidUTF8());
    EXPECT_EQ(bad.codePointCount(), -1);
    const FastString good = bad.toValidUTF8();
    EXPECT_TRUE(good.isValidUTF8());
    EXPECT_TRUE(good.startsWith("a\xEF\xBF\xBD") && good.endsWith("b"));
    EXPECT_EQ(bad.toUTF16(), good.toUTF16());
  }
  const std::u16string unpaired[] = {{0xD83D}, {0xDE00, 'x'}, {0xD83D, 'x'}, {0xD83D, 0xD83D}};
  for (const std::u16string& text : unpaired) {
    bool valid = true;
    const FastString converted = FastString::fromUTF16(text, &valid);
    EXPECT_FALSE(valid);
    EXPECT_TRUE(converted.isValidUTF8());
    EXPECT_EQ(converted.toUTF16().size(), text.size());
  }
}

TEST(FastString, ReplacesEveryOccurrenceOnce) {
  const struct {
    const char *text, *from, *to, *expected;
    size_t count;
  } rows[] = {
      {"a{b}c{b}", "{b}", "1", "a1c1", 2},
      {"aaa", "aa", "a", "aa", 1},  // what was put in is not searched
      {"{b}", "{b}", "{b}{b}", "{b}{b}", 1},
      {"abc", "", "x", "abc", 0},
      {"abc", "d", "x", "abc", 0},
      {"abab", "ab", "", "", 2},
  };
  for (const auto& row : rows) {
    FastString text = row.text;
    EXPECT_EQ(text.replaceAll(row.from, row.to), row.count) << row.text;
    EXPECT_EQ(text, row.expected) << row.text;
  }
}

TEST(FastString, ComparesWithTextsOfEveryKind) {
  const FastString b = "b";
  EXPECT_TRUE(b == "b" && "b" == b && b == std::string("b") && std::string_view("b") == b);
  EXPECT_TRUE(b != "c" && b < "c" && "a" < b && b > FastString("a") && b < std::string("b\0", 2));
  EXPECT_LT(FastString("z"), "\xC3\xA4");  // bytes are unsigned
  EXPECT_EQ(std::unordered_set<FastString>({"a", "b", "a"}).size(), 2U);
  EXPECT_EQ(FastString(static_cast<const char*>(nullptr)), "");
}

TEST(FastString, CutsAndJoins) {
  EXPECT_EQ(FastString(" \t\r\n a b \n").trimmed(), "a b");
  EXPECT_EQ(FastString(" \n").trimmed(), "");
  EXPECT_EQ(FastString("abc").substr(1, 1), "b");
  EXPECT_EQ(FastString("abc").substr(4), "");
  EXPECT_EQ(FastString("a--b-").split('-'), (std::vector<FastString>{"a", "", "b", ""}));
  EXPECT_EQ(FastString("").split('-'), std::vector<FastString>{""});
  EXPECT_EQ(FastString::format("%05d|%s", 42, std::string(300, 'x').c_str()),
            "00042|" + std::string(300, 'x'));
  EXPECT_EQ(FastString("aBz[\xC3\x84").toLowerASCII(), "abz[\xC3\x84");
  EXPECT_EQ(FastString("aBz{\xC3\xA4").toUpperASCII(), "ABZ{\xC3\xA4");
}

TEST(ByteArray, Base64BothWays) {
  const struct {
    const char *bytes, *text;
  } rows[] = {
      // RFC 4648 section 10
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {"\xFB\xFF\xFE", "+//+"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ByteArrayRef(std::string_view(row.bytes)).toBase64(), row.text);
    bool wellFormed = false;
    EXPECT_EQ(ByteArray::fromBase64(row.text, &wellFormed).ref().view(), row.bytes);
    EXPECT_TRUE(wellFormed) << row.text;
  }
}

TEST(ByteArray, Base64DecoderTakesWhatPeopleWrite) {
  const struct {
    const char *text, *bytes;
    bool wellFormed;
  } rows[] = {
      {"\n Zm9v\r\n\tYmFy ", "foobar", true},
      {"Zm9vYg", "foob", true},  // no padding
      {"Zm9vYg==\n", "foob", true},
      {"-__-", "\xFB\xFF\xFE", true},
      {"Zm9v!Ym*Fy", "foobar", false},
      {"Zm9vY", "foo", false},  // six bits too many
      {"Zm9vYg=", "foob", false},
      {"Zm9v====", "foo", false},
      {"Zg==Zm9v", "f", false},  // ends at the padding
      {"====", "", false},
      {"\xC3\xA4", "", false},
  };
  for (const auto& row : rows) {
    bool wellFormed = !row.wellFormed;
    EXPECT_EQ(ByteArray::fromBase64(row.text, &wellFormed).ref().view(), row.bytes) << row.text;
    EXPECT_EQ(wellFormed, row.wellFormed) << row.text;
  }
}

TEST(ByteArray, HexadecimalBothWays) {
  const struct {
    const char *text, *hex;
    bool wellFormed;
  } rows[] = {
      {"", "", true},       {"00fFA9", "00ffa9", true}, {" 01 02\n03 ", "010203", true},
      {"012", "01", false}, {"01 2 3", "01", false},    {"01-02", "01", false},
      {"0x01", "", false},  {"01zz02", "01", false},
  };
  for (const auto& row : rows) {
    bool wellFormed = !row.wellFormed;
    const ByteArray bytes = ByteArray::fromHex(row.text, &wellFormed);
    EXPECT_EQ(bytes.toHex(), row.hex) << row.text;
    EXPECT_EQ(bytes.toHEX(), FastString(row.hex).toUpperASCII()) << row.text;
    EXPECT_EQ(wellFormed, row.wellFormed) << row.text;
  }
}

TEST(ByteArray, ViewsAreClampedAndOrderedByUnsignedBytes) {
  const ByteArray bytes("\x01\x02\xFF", 3);
  EXPECT_EQ(bytes.ref().subRef(1).toHex(), "02ff");
  EXPECT_EQ(bytes.ref().subRef(1, 1).toHex(), "02");
  EXPECT_TRUE(bytes.ref().subRef(4, 1).empty());
  EXPECT_LT(bytes.ref().subRef(0, 2), bytes.ref());
  EXPECT_LT(ByteArrayRef("\x7F", 1), ByteArrayRef("\x80", 1));
  EXPECT_LT(ByteArray("\x7F", 1), ByteArray("\x80", 1));
}

TEST(Checked, TellsWhetherTheResultFits) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  int64_t i = 7;
  uint64_t u = 7;
  uint32_t narrow = 7;
  EXPECT_FALSE(qnc::checkedAdd(kMax, int64_t{1}, i) || qnc::checkedSub(kMin, int64_t{1}, i) ||
               qnc::checkedMul(kMax, int64_t{2}, i) || qnc::checkedMul(kMin, int64_t{-1}, i) ||
               qnc::checkedDiv(kMin, int64_t{-1}, i) ||
               qnc::checkedDiv(int64_t{1}, int64_t{0}, i) ||
               qnc::checkedSub(uint64_t{1}, uint64_t{2}, u) || qnc::checkedAdd(int64_t{-1}, 0, u) ||
               qnc::checkedCast(int64_t{-1}, u) || qnc::checkedCast(UINT64_MAX, i) ||
               qnc::checkedCast(int64_t{1} << 32, narrow));
  EXPECT_TRUE(i == 7 && u == 7 && narrow == 7);  // none was touched
  EXPECT_TRUE(qnc::checkedAdd(kMax, int64_t{-1}, i) && i == kMax - 1);
  EXPECT_TRUE(qnc::checkedSub(uint64_t{1}, uint64_t{2}, i) && i == -1);  // the result's type counts
  EXPECT_TRUE(qnc::checkedMul(1U << 31, 4, u) && u == uint64_t{1} << 33);
  EXPECT_EQ(qnc::saturatingAdd(kMin, int64_t{-1}), kMin);
  EXPECT_EQ(qnc::saturatingSub(kMin, int64_t{1}), kMin);
  EXPECT_EQ(qnc::saturatingSub(int64_t{0}, kMin), kMax);
  EXPECT_EQ(qnc::saturatingSub(uint64_t{1}, uint64_t{2}), 0U);
  EXPECT_EQ(qnc::saturatingMul(kMin, int64_t{3}), kMin);
  EXPECT_EQ(qnc::saturatingMul(kMin, int64_t{-3}), kMax);
}

}  // namespace

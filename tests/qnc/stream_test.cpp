#include <string>

#include <gtest/gtest.h>

#include "qnc/streams/memoryStream.h"
#include "qnc/streams/nullStream.h"

namespace {

using qnc::ByteArray;
using qnc::ByteArrayRef;
using qnc::MemoryStream;
using qnc::NullStream;
using qnc::Result;

TEST(Stream, WritesIntegersInBothOrders) {
  MemoryStream stream;
  ASSERT_EQ(stream.writeBE(uint16_t{0x0102}), Result::Success);
  ASSERT_EQ(stream.writeLE(uint16_t{0x0304}), Result::Success);
  ASSERT_EQ(stream.writeBE(uint32_t{0x05060708}), Result::Success);
  ASSERT_EQ(stream.writeLE(int32_t{-2}), Result::Success);
  ASSERT_EQ(stream.writeBE(int64_t{-2}), Result::Success);
  ASSERT_EQ(stream.writeLE(uint8_t{9}), Result::Success);
  EXPECT_EQ(stream.bytes().toHEX(),
            "0102"
            "0403"
            "05060708"
            "FEFFFFFF"
            "FFFFFFFFFFFFFFFE"
            "09");
}

TEST(Stream, ReadsIntegersInBothOrders) {
  const ByteArray bytes = ByteArray::fromHex("0102 0403 FEFFFFFF FFFFFFFFFFFFFFFE 80");
  MemoryStream stream = MemoryStream::overView(bytes);
  uint16_t a = 0, b = 0;
  int32_t c = 0;
  int64_t d = 0;
  int8_t e = 0;
  ASSERT_EQ(stream.readBE(a), Result::Success);
  ASSERT_EQ(stream.readLE(b), Result::Success);
  ASSERT_EQ(stream.readLE(c), Result::Success);
  ASSERT_EQ(stream.readBE(d), Result::Success);
  ASSERT_EQ(stream.readBE(e), Result::Success);
  EXPECT_TRUE(a == 0x0102 && b == 0x0304 && c == -2 && d == -2 && e == -128);
  EXPECT_TRUE(stream.isEOF());
}

TEST(Stream, EndOfFileLeavesValueAndPosition) {
  MemoryStream stream(ByteArray("abc", 3));
  uint32_t value = 42;
  EXPECT_FALSE(stream.isEOF());
  EXPECT_EQ(stream.readBE(value), Result::EndOfFile);
  EXPECT_EQ(value, 42U);
  EXPECT_EQ(stream.position(), 0U);
  EXPECT_EQ(stream.skip(4), Result::EndOfFile);
  EXPECT_EQ(stream.skip(UINT64_MAX), Result::EndOfFile);
  EXPECT_EQ(stream.skip(2), Result::Success);
  char buffer[4] = {};
  EXPECT_EQ(stream.read(buffer, 4), 1U);  // what is left
  EXPECT_TRUE(stream.isEOF());
  EXPECT_EQ(stream.read(buffer, 4), 0U);
  EXPECT_EQ(stream.readAll(buffer, 0), Result::Success);
  EXPECT_EQ(stream.seek(4), Result::OutOfRange);
  EXPECT_EQ(stream.position(), 3U);
}

TEST(Stream, MemoryIsOverwrittenAndGrows) {
  MemoryStream stream(ByteArray("abcd", 4));
  ASSERT_EQ(stream.seek(3), Result::Success);
  ASSERT_EQ(stream.writeAll(ByteArrayRef("XYZ", 3)), Result::Success);
  EXPECT_EQ(stream.bytes().view(), "abcXYZ");
  ASSERT_EQ(stream.seek(0), Result::Success);
  ASSERT_EQ(stream.writeAll("A", 1), Result::Success);
  EXPECT_EQ(stream.bytes().view(), "AbcXYZ");
  EXPECT_EQ(stream.remaining(), 5U);
}

TEST(Stream, ViewsAreReadOnly) {
  MemoryStream stream = MemoryStream::overView(ByteArrayRef("abc", 3));
  EXPECT_EQ(stream.writeBE(uint8_t{1}), Result::IOError);
  EXPECT_EQ(stream.bytes().view(), "abc");
}

TEST(Stream, NullStreamCountsAndKeepsNothing) {
  NullStream stream;
  EXPECT_EQ(stream.writeBE(uint64_t{1}), Result::Success);
  EXPECT_EQ(stream.size(), 8U);
  EXPECT_TRUE(stream.isEOF());
  uint8_t byte = 7;
  EXPECT_EQ(stream.readBE(byte), Result::EndOfFile);
  EXPECT_EQ(byte, 7);
  EXPECT_EQ(stream.seek(0), Result::OutOfRange);
}

}  // namespace

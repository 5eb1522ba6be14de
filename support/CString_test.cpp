// CString's byte rules, grouped by behaviour. Left and Right, which split the instance
// file names, are proven on those names by the process tests (tests/process.sh).
#include "support/CString.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace {
using namespace std::string_literals;  // "a\0b"s keeps its zero byte

// Every byte of s.
std::string Bytes(const CString& s) { return {s.GetString(), s.GetLength()}; }
// The bytes that CALL leaves of TEXT; COUNT puts first what CALL returned.
#define EDIT(text, call) [] { CString s(text); s.call; return Bytes(s); }()
#define COUNT(text, call) \
  [] { CString s(text); int n = s.call; return std::to_string(n) + " " + Bytes(s); }()

TEST(CString, CopiesStopAtAZeroByteAssignmentsKeepEveryByte) {
  const CString zero("a\0b", 3);
  EXPECT_EQ(Bytes(CString(zero)), "a");
  // There is no move constructor: a temporary is copied too.
  EXPECT_EQ(Bytes(CString(std::move(CString() = zero))), "a");
  EXPECT_EQ(Bytes(CString() = zero), "a\0b"s);
  EXPECT_EQ(Bytes(CString("c") += zero), "ca\0b"s);
  EXPECT_EQ(Bytes(zero + "c"), "ac");
  EXPECT_EQ(Bytes(CString("c") + zero), "ca\0b"s);
  EXPECT_FALSE(CString("a") < zero);
}

TEST(CString, BuildsAppendsAndSortsByUnsignedBytes) {
  EXPECT_EQ(Bytes(nullptr), "");
  EXPECT_EQ(Bytes({'x', 3}) + Bytes({'x', 0}) + Bytes({'x', -3}), "xxx");
  EXPECT_EQ(Bytes(((CString("x") = "a") += 'b') += "c"), "abc");
  EXPECT_EQ(Bytes(CString() = 'c'), "c");
  EXPECT_TRUE(CString("ab") < "abc");
  EXPECT_FALSE(CString("abc") < "ab");
  EXPECT_FALSE(CString("ab") < "ab");
  EXPECT_TRUE(CString("z") < "\xE9");
}

TEST(CString, EditsInPlace) {
  EXPECT_EQ(Bytes(CString("abc").Mid(1, 100)), "bc");
  EXPECT_EQ(Bytes(CString("abc").Mid(3, 2)), "");
  EXPECT_THROW(CString("abc").Mid(5, 2), std::out_of_range);
  EXPECT_EQ(EDIT("old", Format("%s:%d", "alpha", 42)), "alpha:42");
  EXPECT_EQ(EDIT("old", Format("%2000d", 7)), std::string(1023, ' '));
  EXPECT_EQ(EDIT("Mix 1\xE9", MakeUpper()), "MIX 1\xE9");
  EXPECT_EQ(EDIT("Mix 1\xC9", MakeLower()), "mix 1\xC9");
  EXPECT_EQ(EDIT("   ", TrimLeft()) + EDIT("   ", TrimRight()), "");
  EXPECT_EQ(EDIT(" a b ", TrimLeft()), "a b ");
  EXPECT_EQ(EDIT(" a\t\n\v\f\r ", TrimRight()), " a");
  EXPECT_EQ(COUNT("banana", Replace('a', 'a')), "3 banana");
  EXPECT_EQ(COUNT("banana", Replace('a', 'o')), "3 bonono");
  // A replacement's own text is not scanned again.
  EXPECT_EQ(COUNT("aaa", Replace("a", "aa")), "3 aaaaaa");
  EXPECT_EQ(COUNT("a.b.c", Replace(".", "")), "2 abc");
  EXPECT_EQ(COUNT("a", Replace("x", "")), "0 a");
  // Remove counts what it keeps, and leaves a text of nothing else whole.
  EXPECT_EQ(COUNT("axb", Remove('x')), "2 ab");
  EXPECT_EQ(COUNT("xxx", Remove('x')), "0 xxx");
}
}  // namespace

// CString's byte rules, a row each. Left and Right, which split the instance file names,
// are proven on those names by the process tests (tests/process.sh).
#include "support/CString.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace {
using namespace std::string_literals;  // "a\0b"s keeps its zero byte

// Every byte of s.
std::string B(const CString& s) { return {s.GetString(), s.GetLength()}; }
// The bytes that CALL leaves of TEXT; COUNT puts first what CALL returned.
#define EDIT(text, call) [] { CString s(text); s.call; return B(s); }()
#define COUNT(text, call) \
  [] { CString s(text); int n = s.call; return std::to_string(n) + " " + B(s); }()

TEST(CString, ByteRules) {
  const CString zero("a\0b", 3);
  const std::pair<std::string, std::string> rows[] = {
      // Copies, also of a temporary (there is no move constructor), stop at a zero byte.
      {B(CString(zero)), "a"},
      {B(CString(std::move(CString() = zero))), "a"},
      {B(zero + "c"), "ac"},
      // Assigning and appending keep every byte.
      {B(CString() = zero), "a\0b"s},
      {B(CString("c") + zero), "ca\0b"s},
      {B(nullptr), ""},
      {B({'x', 3}) + B({'x', -3}), "xxx"},
      {B(((CString("x") = "a") += 'b') += "c"), "abc"},
      {B(CString() = 'c'), "c"},
      {B(CString("abc").Mid(1, 100)) + B(CString("abc").Mid(3, 2)), "bc"},
      {EDIT("old", Format("%s:%d", "alpha", 42)), "alpha:42"},
      {EDIT("old", Format("%2000d", 7)), std::string(1023, ' ')},
      {EDIT("Mix\xE9", MakeUpper()) + EDIT("Mix\xC9", MakeLower()), "MIX\xE9mix\xC9"},
      {EDIT("   ", TrimLeft()) + EDIT("   ", TrimRight()), ""},
      {EDIT(" a b ", TrimLeft()), "a b "},
      {EDIT(" a\t\n\v\f\r ", TrimRight()), " a"},
      {COUNT("banana", Replace('a', 'a')), "3 banana"},
      {COUNT("banana", Replace('a', 'o')), "3 bonono"},
      // A replacement's own text is not scanned again.
      {COUNT("aaa", Replace("a", "aa")), "3 aaaaaa"},
      {COUNT("a.b.c", Replace(".", "")), "2 abc"},
      // Remove counts what it keeps, and leaves a text of nothing else whole.
      {COUNT("axb", Remove('x')), "2 ab"},
      {COUNT("xxx", Remove('x')), "0 xxx"},
  };
  for (const auto& [got, want] : rows) EXPECT_EQ(got, want);
  EXPECT_THROW(CString("abc").Mid(5, 2), std::out_of_range);
  // Unsigned bytes, a prefix first, the right side read as a C string.
  EXPECT_TRUE(CString("ab") < "abc");
  EXPECT_FALSE(CString("abc") < "ab");
  EXPECT_FALSE(CString("ab") < "ab");
  EXPECT_TRUE(CString("z") < "\xE9");
  EXPECT_FALSE(CString("a") < zero);
}
}  // namespace

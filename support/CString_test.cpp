// CString's byte rules, as worked examples: a text edited step by step, with what each
// step returns and leaves. Left and Right, which split the instance file names, are
// proven on those names by the process tests (tests/process.sh).
#include "support/CString.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace {
using namespace std::string_literals;  // "a\0b"s keeps its zero byte

// Every byte of s.
std::string B(const CString& s) { return {s.GetString(), s.GetLength()}; }

TEST(CString, CopiesStopAtAZeroByteWhereAssignmentsKeepEveryByte) {
  const CString zero("a\0b", 3);
  CString s;
  EXPECT_EQ(B(s = zero), "a\0b"s);
  EXPECT_EQ(B(CString(s)), "a");
  // There is no move constructor: a temporary is copied too.
  EXPECT_EQ(B(CString(std::move(s))), "a");
  EXPECT_EQ(B(zero + "c"), "ac");
  EXPECT_EQ(B("c" + zero), "ca\0b"s);
  EXPECT_FALSE(CString("a") < zero);
}

TEST(CString, BuildsAndCompares) {
  EXPECT_EQ(B(nullptr) + B({'x', 3}) + B({'x', -3}), "xxx");
  CString s;
  EXPECT_EQ(B(s = 'c'), "c");
  (s = "a") += 'b';
  EXPECT_EQ(B(s += "c"), "abc");
  // Mid takes no start beyond the end.
  EXPECT_THROW(s.Mid(5, 2), std::out_of_range);
  // A prefix sorts first.
  EXPECT_TRUE(CString("ab") < s);
  EXPECT_FALSE(s < "ab");
  EXPECT_FALSE(s < s);
}

TEST(CString, EditsInPlace) {
  CString s(" a\t\n\v\f\r ");
  s.TrimRight();
  EXPECT_EQ(B(s), " a");
  s += " b ";
  s.TrimLeft();
  // Nothing more to trim.
  s.TrimLeft();
  EXPECT_EQ(B(s), "a b ");
  EXPECT_EQ(s.Replace(" ", ""), 2);
  EXPECT_EQ(s.Replace('b', 'a'), 1);
  EXPECT_EQ(s.Replace('a', 'a'), 2);
  // A replacement's own text is not scanned again.
  EXPECT_EQ(s.Replace("a", "aa"), 2);
  s += "o";
  // Remove counts what it keeps, and leaves a text of nothing else whole.
  EXPECT_EQ(s.Remove('a'), 1);
  EXPECT_EQ(s.Remove('o'), 0);
  EXPECT_EQ(B(s), "o");
  s = "   ";
  s.TrimLeft();
  EXPECT_EQ(B(s), "");
  s = "   ";
  s.TrimRight();
  EXPECT_EQ(B(s), "");
  s = "Mix";
  s.MakeUpper();
  EXPECT_EQ(B(s), "MIX");
  s.MakeLower();
  EXPECT_EQ(B(s), "mix");
  s.Format("%s:%d", "alpha", 42);
  EXPECT_EQ(B(s), "alpha:42");
  s.Format("%2000d", 7);
  EXPECT_EQ(B(s), std::string(1023, ' '));
}
}  // namespace

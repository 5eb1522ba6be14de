// CString's byte rules as worked examples, each row on a text of its own. Left and Right,
// which split the instance file names, are proven on those names by the process tests
// (tests/process.sh).
#include "support/CString.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {
// "a\0b"s keeps its zero byte.
using namespace std::string_literals;

const CString kZero("a\0b", 3);

// Every byte of s.
std::string B(const CString& s) { return {s.GetString(), s.GetLength()}; }

// A row: CALL on a CString made from TEXT leaves WANT.
#define EDIT(text, call, want) \
  {                            \
    CString s(text);           \
    s.call;                    \
    EXPECT_EQ(B(s), want);     \
  }
// A row: CALL on a CString made from TEXT returns N and leaves WANT.
#define COUNT(text, call, n, want) \
  {                                \
    CString s(text);               \
    EXPECT_EQ(s.call, n);          \
    EXPECT_EQ(B(s), want);         \
  }

TEST(CString, CopiesStopAtAZeroByteWhereAssignmentsKeepEveryByte) {
  EXPECT_EQ(B(CString(kZero)), "a");
  EXPECT_EQ(B(kZero + "c"), "ac");
  EXPECT_EQ(B(CString() = kZero), "a\0b"s);
  EXPECT_EQ(B("c" + kZero), "ca\0b"s);
}

TEST(CString, BuildsAssignsAndAppends) {
  EXPECT_EQ(B(nullptr), "");
  EXPECT_EQ(B({'x', 3}), "xxx");
  EXPECT_EQ(B({'x', -3}), "");
  EXPECT_EQ(B((CString("x") = 'a') += "bc"), "abc");
  EXPECT_EQ(B((CString("x") = "a") += 'b'), "ab");
}

TEST(CString, SortsByUnsignedBytesAPrefixFirst) {
  EXPECT_TRUE(CString("ab") < "abc");
  EXPECT_FALSE(CString("abc") < "ab");
  EXPECT_FALSE(CString("ab") < "ab");
  EXPECT_TRUE(CString("z") < "\xE9");
  // The right side is read as a C string.
  EXPECT_FALSE(CString("a") < kZero);
}

TEST(CString, MidTakesWhatThereIsUpToTheEndAndNoStartPastIt) {
  EXPECT_EQ(B(CString("abc").Mid(1, 100)), "bc");
  EXPECT_EQ(B(CString("abc").Mid(3, 2)), "");
  EXPECT_THROW(CString("abc").Mid(4, 2), std::out_of_range);
}

TEST(CString, FormatsLikePrintfAtMost1023Bytes) {
  EDIT("old", Format("%s:%d", "a", 7), "a:7");
  EDIT("old", Format("%2000d", 7), std::string(1023, ' '));
}

TEST(CString, ChangesTheCaseOfAsciiLettersOnly) {
  EDIT("Mix\xE9", MakeUpper(), "MIX\xE9");
  EDIT("Mix\xC9", MakeLower(), "mix\xC9");
}

TEST(CString, TrimsTheCLocalesSpacesOnOneSide) {
  EDIT(" \t\n\v\f\ra b ", TrimLeft(), "a b ");
  EDIT(" a b \t\n\v\f\r", TrimRight(), " a b");
  EDIT("a b", TrimLeft(), "a b");
  EDIT("   ", TrimLeft(), "");
  // Longer than the text kept inside the object: a read before it is one the sanitizer sees.
  EDIT("                ", TrimRight(), "");
}

TEST(CString, ReplacesEveryOccurrenceLeftToRight) {
  COUNT("banana", Replace('a', 'o'), 3, "bonono");
  // A replacement's own text is not scanned again.
  COUNT("aaa", Replace("a", "aa"), 3, "aaaaaa");
  COUNT("abcabc", Replace("bc", ""), 2, "aa");
}

TEST(CString, RemoveCountsWhatItKeepsAndLeavesATextOfNothingElseWhole) {
  COUNT("axb", Remove('x'), 2, "ab");
  COUNT("xxx", Remove('x'), 0, "xxx");
}
}  // namespace

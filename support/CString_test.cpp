// Unit tests for CString, grouped by behaviour.
#include "support/CString.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {
std::string Bytes(const CString& s) {
  return std::string(s.GetString(), s.GetLength());
}

TEST(CStringConstruct, NullAndCounts) {
  EXPECT_EQ(Bytes(CString(static_cast<const char*>(nullptr))), "");
  EXPECT_EQ(Bytes(CString('x', 3)), "xxx");
  EXPECT_EQ(Bytes(CString('x', 0)), "");
  EXPECT_EQ(Bytes(CString('x', -3)), "");
}

TEST(CStringZeroBytes, CopiesStopAtZeroWhileAssignmentKeepsAll) {
  const CString withZero("a\0b", 3);
  ASSERT_EQ(withZero.GetLength(), 3u);
  EXPECT_EQ(Bytes(CString(withZero)), "a");
  EXPECT_EQ(Bytes(withZero + CString("c")), "ac");
  EXPECT_EQ(Bytes(CString("c") + withZero), std::string("ca\0b", 4));
  EXPECT_EQ(Bytes(withZero.Left(3)), "a");
  CString assigned("old");
  assigned = withZero;
  EXPECT_EQ(Bytes(assigned), std::string("a\0b", 3));
  assigned += 'z';
  EXPECT_EQ(Bytes(assigned), std::string("a\0bz", 4));
}

TEST(CStringCompare, BytesUnsignedAndPrefixFirst) {
  EXPECT_TRUE(CString("ab") < CString("abc"));
  EXPECT_FALSE(CString("abc") < CString("ab"));
  EXPECT_FALSE(CString("ab") < CString("ab"));
  EXPECT_TRUE(CString("z") < CString("\xE9t\xE9"));
  EXPECT_FALSE(CString("\xE9t\xE9") < CString("z"));
}

TEST(CStringExtract, LeftAndRightClamp) {
  const CString file("report.INI");
  EXPECT_EQ(Bytes(file.Left(6)), "report");
  EXPECT_EQ(Bytes(file.Right(4)), ".INI");
  const CString ab("ab");
  EXPECT_EQ(Bytes(ab.Right(4)), "ab");
  EXPECT_EQ(Bytes(ab.Left(ab.GetLength() - 4)), "ab");  // wraps to a huge count
  EXPECT_EQ(Bytes(ab.Left(0)), "");
  EXPECT_EQ(Bytes(ab.Right(0)), "");
}

TEST(CStringExtract, MidRangeAndException) {
  const CString abc("abc");
  EXPECT_EQ(Bytes(abc.Mid(1, 100)), "bc");
  EXPECT_EQ(Bytes(abc.Mid(1, 1)), "b");
  EXPECT_EQ(Bytes(abc.Mid(3, 2)), "");
  try {
    abc.Mid(5, 2);
    FAIL() << "Mid beyond the end did not throw";
  } catch (const std::out_of_range& e) {
    EXPECT_EQ(std::string(e.what()).rfind("basic_string::substr", 0), 0u)
        << e.what();
  }
}

TEST(CStringFormat, FormatsAndCutsAt1023Bytes) {
  CString s("old");
  s.Format("%s:%d", "alpha", 42);
  EXPECT_EQ(Bytes(s), "alpha:42");
  s.Format("%2000d", 7);
  EXPECT_EQ(s.GetLength(), 1023u);
  EXPECT_EQ(Bytes(s), std::string(1023, ' '));
  s.Format("%s", "");
  EXPECT_EQ(Bytes(s), "");
}

struct EditCase {
  const char* input;
  void (CString::*edit)();
  const char* expected;
};

TEST(CStringEdit, CaseAndTrims) {
  const EditCase cases[] = {
      {"Mixed 1.ini", &CString::MakeUpper, "MIXED 1.INI"},
      {"Mixed 1.INI", &CString::MakeLower, "mixed 1.ini"},
      {"\xE9t\xE9", &CString::MakeUpper, "\xE9T\xE9"},  // C locale: ASCII only
      {"   ", &CString::TrimLeft, ""},
      {"   ", &CString::TrimRight, ""},
      {" a b ", &CString::TrimLeft, "a b "},
      {" a b ", &CString::TrimRight, " a b"},
      {"\t\n\v\f\rx\r\n", &CString::TrimLeft, "x\r\n"},
      {"x\t\n\v\f\r ", &CString::TrimRight, "x"},
  };
  for (const EditCase& c : cases) {
    CString s(c.input);
    (s.*c.edit)();
    EXPECT_EQ(Bytes(s), c.expected) << "input \"" << c.input << "\"";
  }
}

struct ReplaceCase {
  const char* input;
  const char* from;
  const char* to;
  int count;
  const char* expected;
};

TEST(CStringReplace, StringsNeverRescanTheirOwnOutput) {
  const ReplaceCase cases[] = {
      {"aaa", "a", "aa", 3, "aaaaaa"},     {"a.b.c", ".", "", 2, "abc"},
      {"banana", "xyz", "q", 0, "banana"}, {"banana", "ana", "o", 1, "bona"},
      {"abab", "ab", "ba", 2, "baba"},     {"", "a", "b", 0, ""},
  };
  for (const ReplaceCase& c : cases) {
    CString s(c.input);
    EXPECT_EQ(s.Replace(c.from, c.to), c.count) << c.input;
    EXPECT_EQ(Bytes(s), c.expected) << c.input;
  }
}

TEST(CStringReplace, BytesCountEvenWhenUnchanged) {
  CString s("banana");
  EXPECT_EQ(s.Replace('a', 'a'), 3);
  EXPECT_EQ(Bytes(s), "banana");
  EXPECT_EQ(s.Replace('a', 'o'), 3);
  EXPECT_EQ(Bytes(s), "bonono");
  EXPECT_EQ(s.Replace('x', 'y'), 0);
}

TEST(CStringRemove, CountsKeptBytesAndSparesAllMatchText) {
  const ReplaceCase cases[] = {
      // from[0] is the byte to remove; count is the number kept.
      {"axb", "x", nullptr, 2, "ab"},
      {"xxx", "x", nullptr, 0, "xxx"},
      {"", "x", nullptr, 0, ""},
      {"abc", "x", nullptr, 3, "abc"},
  };
  for (const ReplaceCase& c : cases) {
    CString s(c.input);
    EXPECT_EQ(s.Remove(c.from[0]), c.count) << c.input;
    EXPECT_EQ(Bytes(s), c.expected) << c.input;
  }
  CString withZero("a\0b", 3);
  EXPECT_EQ(withZero.Remove('a'), 2);
  EXPECT_EQ(Bytes(withZero), std::string("\0b", 2));
}
}  // namespace

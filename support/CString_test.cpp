// CString's byte rules, a row each: what the calls give, and what they
// should. "|" joins the results of several calls in a row.
#include "support/CString.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace {
using namespace std::string_literals;  // "a\0b"s keeps its zero byte

std::string B(const CString& s) { return {s.GetString(), s.GetLength()}; }
std::string Lt(const CString& a, const CString& b) { return a < b ? "1" : "0"; }
// A table reads best a row a line.
// clang-format off
// The text that CALL leaves of TEXT; N() puts first what CALL returned.
#define EDIT(text, call) [] { CString s(text); s.call; return B(s); }()
#define N(text, call) [] { CString s(text); auto n = s.call; return std::to_string(n) + " " + B(s); }()

TEST(CString, ByteRules) {
  const CString zero("a\0b", 3), ab("ab"), file("report.INI");
  const std::pair<std::string, std::string> rows[] = {
      {B(nullptr) + "|" + B({'x', 3}) + "|" + B({'x', 0}) + B({'x', -3}), "|xxx|"},
      // Copies, also of a temporary, stop at a zero byte; = and += keep all.
      {B(zero) + "|" + B(CString(zero)) + "|" + B(CString(std::move(CString() = zero))), "a\0b|a|a"s},
      {B(((CString("x") = "a") += 'b') += "c") + "|" + B((CString() = 'c') += zero), "abc|ca\0b"s},
      {B(zero + "c") + "|" + B(CString("c") + zero), "ac|ca\0b"s},
      // Unsigned bytes; a prefix first; the right side read as a C string.
      {Lt(ab, "abc") + Lt("abc", ab) + Lt(ab, ab) + Lt("z", "\xE9") + Lt("a", zero), "10010"},
      {B(file.Left(6)) + "|" + B(file.Right(4)) + "|" + B(ab.Left(2u - 4)) + "|" + B(ab.Right(4)), "report|.INI|ab|ab"},
      {B(CString("abc").Mid(1, 100)) + "|" + B(CString("abc").Mid(3, 2)), "bc|"},
      {EDIT("old", Format("%s:%d", "alpha", 42)) + "|" + EDIT("old", Format("%2000d", 7)), "alpha:42|" + std::string(1023, ' ')},
      {EDIT("Mix 1\xE9", MakeUpper()) + "|" + EDIT("Mix 1\xC9", MakeLower()), "MIX 1\xE9|mix 1\xC9"},
      {EDIT("   ", TrimLeft()) + "|" + EDIT("   ", TrimRight()) + "|" + EDIT("x ", TrimLeft()), "||x "},
      {EDIT(" a b ", TrimLeft()) + "|" + EDIT(" a\t\n\v\f\r ", TrimRight()), "a b | a"},
      {N("banana", Replace('a', 'a')) + "|" + N("banana", Replace('a', 'o')), "3 banana|3 bonono"},
      // A replacement's own text is not scanned again.
      {N("aaa", Replace("a", "aa")) + "|" + N("a.b.c", Replace(".", "")) + "|" + N("a", Replace("x", "")), "3 aaaaaa|2 abc|0 a"},
      // Remove counts what it keeps, and leaves a text of nothing else whole.
      {N("axb", Remove('x')) + "|" + N("xxx", Remove('x')), "2 ab|0 xxx"},
  };
  // clang-format on
  for (const auto& [got, want] : rows) EXPECT_EQ(got, want);
  EXPECT_THROW(CString("abc").Mid(5, 2), std::out_of_range);
}
}  // namespace

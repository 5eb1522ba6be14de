// CString's byte rules, one row per rule: what the calls give, and what they
// should. Rows join several results with "|".
#include "support/CString.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace {
using namespace std::string_literals;  // "a\0b"s keeps its zero byte

std::string Bytes(const CString& s) { return {s.GetString(), s.GetLength()}; }
std::string Less(const CString& a, const CString& b) {
  return std::to_string(a < b);
}
// What CALL on a CString of TEXT returns (if anything), then the text after.
#define AFTER(text, call) After(text, [](CString& s) { return s.call; })
template <typename Call>
std::string After(const char* text, Call call) {
  CString s(text);
  if constexpr (std::is_void_v<decltype(call(s))>) {
    call(s);
    return Bytes(s);
  } else {
    int result = call(s);
    return std::to_string(result) + " " + Bytes(s);
  }
}

TEST(CString, ByteRules) {
  const CString zero("a\0b", 3);
  const std::pair<std::string, std::string> rows[] = {
      {Bytes(CString(nullptr)) + Bytes(CString("x")), "x"},
      {Bytes(CString('x', 3)) + Bytes(CString('x', 0)) +
           Bytes(CString('x', -3)),
       "xxx"},
      // Copies, also of a temporary, stop at a zero byte; = and += keep all.
      {Bytes(zero) + "|" + Bytes(CString(zero)), "a\0b|a"s},
      {Bytes(CString(std::move(CString() = zero))), "a"},
      {Bytes(((CString("x") = "a") += 'b') += "c"), "abc"},
      {Bytes((CString("x") = 'c') += zero), "ca\0b"s},
      {Bytes(zero + "c") + "|" + Bytes(CString("c") + zero), "ac|ca\0b"s},
      // Unsigned bytes, a prefix first, the right side read as a C string.
      {Less("ab", "abc") + Less("abc", "ab") + Less("ab", "ab") +
           Less("z", "\xE9") + Less("a", zero),
       "10010"},
      {Bytes(CString("report.INI").Left(6)) + "|" +
           Bytes(CString("report.INI").Right(4)),
       "report|.INI"},
      // An unsigned count that went below zero is huge: the whole text.
      {Bytes(CString("ab").Left(2u - 4)) + Bytes(CString("ab").Right(4)),
       "abab"},
      {Bytes(CString("abc").Mid(1, 100)) + "|" +
           Bytes(CString("abc").Mid(3, 2)),
       "bc|"},
      {AFTER("old", Format("%s:%d", "alpha", 42)), "alpha:42"},
      {AFTER("old", Format("%2000d", 7)), std::string(1023, ' ')},
      {AFTER("Mixed 1.ini\xE9", MakeUpper()), "MIXED 1.INI\xE9"},
      {AFTER("Mixed 1.INI\xC9", MakeLower()), "mixed 1.ini\xC9"},
      {AFTER("   ", TrimLeft()) + AFTER("   ", TrimRight()), ""},
      {AFTER(" a b ", TrimLeft()) + "|" + AFTER(" a b ", TrimRight()),
       "a b | a b"},
      {AFTER("x\t\n\v\f\r ", TrimRight()) + AFTER("x ", TrimLeft()), "xx "},
      {AFTER("banana", Replace('a', 'a')) + "|" +
           AFTER("banana", Replace('a', 'o')),
       "3 banana|3 bonono"},
      // Text a replacement inserted is never scanned again.
      {AFTER("aaa", Replace("a", "aa")) + "|" +
           AFTER("a.b.c", Replace(".", "")),
       "3 aaaaaa|2 abc"},
      {AFTER("banana", Replace("ana", "o")) + "|" +
           AFTER("banana", Replace("x", "o")),
       "1 bona|0 banana"},
      // Remove counts what it keeps, and leaves a text of nothing else whole.
      {AFTER("axb", Remove('x')) + "|" + AFTER("xxx", Remove('x')),
       "2 ab|0 xxx"},
  };
  for (const auto& [got, want] : rows) EXPECT_EQ(got, want);
  EXPECT_THROW(CString("abc").Mid(5, 2), std::out_of_range);
}
}  // namespace

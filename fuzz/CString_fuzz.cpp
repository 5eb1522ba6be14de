// libFuzzer target for CString: the input is a program of string operations
// on three slots, each replayed on CString and on a plain std::string model of
// the same byte rules; any difference in bytes, counts or errors traps.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "support/CString.h"

namespace {

// Texts are kept small so that every input runs in well under a millisecond;
// the quadratic string Replace is capped harder.
const size_t kMaxText = 2048;
const size_t kMaxReplaceText = 512;
const size_t kMaxFrom = 4;
const size_t kMaxTo = 8;
const size_t kFormatLimit = 1023;
const int kSlots = 3;

// Consumes the fuzzer's bytes; reads past the end yield zeros so that every
// input decodes to some program.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
  bool Done() const { return m_pos >= m_size; }
  uint8_t Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
  uint32_t U32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | Byte();
    return v;
  }
  // A length byte, then that many bytes (fewer at the end of the input).
  std::string Bytes() {
    size_t n = Byte();
    std::string s;
    while (n-- > 0 && !Done()) s += static_cast<char>(Byte());
    return s;
  }
  // Counts near the interesting edges: small, just below or above the length,
  // and counts that went below zero in unsigned arithmetic.
  unsigned Count(size_t len) {
    unsigned v = Byte();
    v = (v << 8) | Byte();
    unsigned k = v >> 2;
    switch (v & 3) {
      case 0:
        return k;
      case 1:
        return static_cast<unsigned>(len) - (k & 15);
      case 2:
        return static_cast<unsigned>(len) + (k & 15);
      default:
        return UINT_MAX - (k & 15);
    }
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_pos = 0;
};

// The model: each rule written directly on bytes, without CString.
namespace model {

// What a reader of the text as a zero-terminated C string sees.
std::string AsCString(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '\0') break;
    out += c;
  }
  return out;
}

bool IsCSpace(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string Bytes(const std::string& s, size_t from, size_t n) {
  std::string out;
  for (size_t i = from; i < from + n && i < s.size(); ++i) out += s[i];
  return out;
}

std::string Left(const std::string& s, unsigned n) {
  return AsCString(Bytes(s, 0, n < s.size() ? n : s.size()));
}

std::string Right(const std::string& s, unsigned n) {
  size_t keep = n < s.size() ? n : s.size();
  return AsCString(Bytes(s, s.size() - keep, keep));
}

std::string Mid(const std::string& s, unsigned start, unsigned count) {
  size_t avail = s.size() - start;
  return AsCString(Bytes(s, start, count < avail ? count : avail));
}

std::string Upper(std::string s) {
  for (char& c : s)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return s;
}

std::string Lower(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

std::string TrimLeft(const std::string& s) {
  size_t i = 0;
  while (i < s.size() && IsCSpace(static_cast<unsigned char>(s[i]))) ++i;
  return Bytes(s, i, s.size() - i);
}

std::string TrimRight(const std::string& s) {
  size_t n = s.size();
  while (n > 0 && IsCSpace(static_cast<unsigned char>(s[n - 1]))) --n;
  return Bytes(s, 0, n);
}

// Resuming the search just after the inserted text is the same as an
// ordinary left-to-right, non-overlapping replacement over the original.
int ReplaceAll(std::string& s, const std::string& from, const std::string& to) {
  std::string out;
  int count = 0;
  size_t i = 0;
  while (i < s.size()) {
    if (s.compare(i, from.size(), from) == 0) {
      out += to;
      i += from.size();
      ++count;
    } else {
      out += s[i++];
    }
  }
  s = out;
  return count;
}

bool Less(const std::string& a, const std::string& b_full) {
  std::string b = AsCString(b_full);
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]);
    unsigned char y = static_cast<unsigned char>(b[i]);
    if (x != y) return x < y;
  }
  return a.size() < b.size();
}

std::string PadLeft(const std::string& s, size_t width) {
  return s.size() >= width ? s : std::string(width - s.size(), ' ') + s;
}

// Format's buffer keeps 1023 bytes and is then read up to its first zero.
std::string Formatted(const std::string& expansion) {
  return AsCString(Bytes(expansion, 0, kFormatLimit));
}

}  // namespace model

[[noreturn]] void Fail(const char* what, const std::string& detail) {
  fprintf(stderr, "CString %s: %s\n", what, detail.c_str());
  __builtin_trap();
}

std::string Visible(const char* p, size_t n) {
  std::string out;
  char hex[8];
  for (size_t i = 0; i < n && i < 64; ++i) {
    unsigned char c = static_cast<unsigned char>(p[i]);
    if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    }
  }
  if (n > 64) out += "...";
  return out;
}

void Expect(const char* what, const CString& got, const std::string& want) {
  const char* p = got.GetString();
  size_t n = got.GetLength();
  if (n != want.size() || memcmp(p, want.data(), n) != 0)
    Fail(what, "got \"" + Visible(p, n) + "\" (" + std::to_string(n) +
                   "), want \"" + Visible(want.data(), want.size()) + "\" (" +
                   std::to_string(want.size()) + ")");
  if (p[n] != '\0') Fail(what, "text not zero-terminated");
}

void ExpectInt(const char* what, long got, long want) {
  if (got != want)
    Fail(what, "got " + std::to_string(got) + ", want " + std::to_string(want));
}

struct Slots {
  CString text[kSlots];
  std::string model[kSlots];
};

enum Op {
  kCtorBytes,
  kCtorCString,
  kCtorNull,
  kCtorFill,
  kCopyCtor,
  kAssignObject,
  kAssignInput,
  kAssignSlotString,
  kAssignChar,
  kAppendObject,
  kAppendInput,
  kAppendSlotString,
  kAppendChar,
  kPlus,
  kLeft,
  kRight,
  kMid,
  kTrimLeft,
  kTrimRight,
  kMakeUpper,
  kMakeLower,
  kReplaceChar,
  kReplaceString,
  kRemove,
  kFormatStringInt,
  kFormatWidth,
  kFormatZeroChar,
  kFormatSelf,
  kLess,
  kOpCount
};

void Run(Reader& in, Slots& s) {
  uint8_t op = in.Byte() % kOpCount;
  uint8_t pick = in.Byte();
  int d = pick % kSlots;  // destination
  int a = (pick / kSlots) % kSlots;
  int b = (pick / (kSlots * kSlots)) % kSlots;
  CString& t = s.text[d];
  std::string& m = s.model[d];

  switch (op) {
    case kCtorBytes: {
      std::string in_bytes = in.Bytes();
      CString x(in_bytes.data(), static_cast<unsigned>(in_bytes.size()));
      Expect("pointer-and-length constructor", x, in_bytes);
      t = x;
      m = in_bytes;
      break;
    }
    case kCtorCString: {
      std::string in_bytes = in.Bytes();
      CString x(in_bytes.c_str());
      m = model::AsCString(in_bytes);
      Expect("C string constructor", x, m);
      t = x;
      break;
    }
    case kCtorNull: {
      CString x(static_cast<const char*>(nullptr));
      m.clear();
      Expect("null constructor", x, m);
      t = x;
      break;
    }
    case kCtorFill: {
      char c = static_cast<char>(in.Byte());
      int count = static_cast<int8_t>(in.Byte()) * 4;
      CString x(c, count);
      m = count > 0 ? std::string(static_cast<size_t>(count), c) : "";
      Expect("fill constructor", x, m);
      t = x;
      break;
    }
    case kCopyCtor: {
      CString x(s.text[a]);
      m = model::AsCString(s.model[a]);
      Expect("copy constructor", x, m);
      t = x;
      break;
    }
    case kAssignObject:
      t = s.text[a];
      m = std::string(s.model[a]);
      break;
    case kAssignInput: {
      std::string in_bytes = in.Bytes();
      t = in_bytes.c_str();
      m = model::AsCString(in_bytes);
      break;
    }
    case kAssignSlotString:
      // The source may be this very object's own buffer.
      t = s.text[a].GetString();
      m = model::AsCString(s.model[a]);
      break;
    case kAssignChar: {
      char c = static_cast<char>(in.Byte());
      t = c;
      m = std::string(1, c);
      break;
    }
    case kAppendObject: {
      std::string add = s.model[a];
      t += s.text[a];
      m += add;
      break;
    }
    case kAppendInput: {
      std::string in_bytes = in.Bytes();
      t += in_bytes.c_str();
      m += model::AsCString(in_bytes);
      break;
    }
    case kAppendSlotString: {
      std::string add = model::AsCString(s.model[a]);
      t += s.text[a].GetString();
      m += add;
      break;
    }
    case kAppendChar: {
      char c = static_cast<char>(in.Byte());
      t += c;
      m += c;
      break;
    }
    case kPlus: {
      CString x = s.text[a] + s.text[b];
      std::string want = model::AsCString(s.model[a]) + s.model[b];
      Expect("operator+", x, want);
      t = x;
      m = want;
      break;
    }
    case kLeft:
    case kRight: {
      unsigned n = in.Count(s.model[a].size());
      CString x = op == kLeft ? s.text[a].Left(n) : s.text[a].Right(n);
      std::string want = op == kLeft ? model::Left(s.model[a], n)
                                     : model::Right(s.model[a], n);
      Expect(op == kLeft ? "Left" : "Right", x, want);
      t = x;
      m = want;
      break;
    }
    case kMid: {
      unsigned start = in.Count(s.model[a].size());
      unsigned count = in.Count(s.model[a].size());
      bool beyond = start > s.model[a].size();
      try {
        CString x = s.text[a].Mid(start, count);
        if (beyond) Fail("Mid", "start beyond the length did not throw");
        std::string want = model::Mid(s.model[a], start, count);
        Expect("Mid", x, want);
        t = x;
        m = want;
      } catch (const std::out_of_range& e) {
        if (!beyond)
          Fail("Mid", std::string("threw within range: ") + e.what());
        if (strncmp(e.what(), "basic_string::substr", 20) != 0)
          Fail("Mid", std::string("unexpected exception text: ") + e.what());
      }
      break;
    }
    case kTrimLeft:
      t.TrimLeft();
      m = model::TrimLeft(m);
      break;
    case kTrimRight:
      t.TrimRight();
      m = model::TrimRight(m);
      break;
    case kMakeUpper:
      t.MakeUpper();
      m = model::Upper(m);
      break;
    case kMakeLower:
      t.MakeLower();
      m = model::Lower(m);
      break;
    case kReplaceChar: {
      char from = static_cast<char>(in.Byte());
      char to = static_cast<char>(in.Byte());
      int want = 0;
      for (char& c : m) {
        if (c == from) {
          c = to;
          ++want;
        }
      }
      ExpectInt("Replace(char) count", t.Replace(from, to), want);
      break;
    }
    case kReplaceString: {
      std::string from = model::AsCString(in.Bytes()).substr(0, kMaxFrom);
      std::string to = model::AsCString(in.Bytes()).substr(0, kMaxTo);
      // An empty pattern never returns; that is the caller's contract.
      if (from.empty()) break;
      if (m.size() > kMaxReplaceText) {
        t = CString(t.GetString(), kMaxReplaceText);
        m.resize(kMaxReplaceText);
      }
      int got = t.Replace(from.c_str(), to.c_str());
      ExpectInt("Replace(string) count", got, model::ReplaceAll(m, from, to));
      break;
    }
    case kRemove: {
      char c = static_cast<char>(in.Byte());
      std::string kept;
      for (char x : m)
        if (x != c) kept += x;
      int want = static_cast<int>(kept.size());
      // A text made only of c is left whole, not emptied.
      if (!kept.empty()) m = kept;
      ExpectInt("Remove count", t.Remove(c), want);
      break;
    }
    case kFormatStringInt: {
      std::string str = model::AsCString(in.Bytes());
      int v = static_cast<int>(in.U32());
      t.Format("%s|%d", str.c_str(), v);
      m = model::Formatted(str + "|" + std::to_string(v));
      break;
    }
    case kFormatWidth: {
      int width = in.Byte() * 8 + in.Byte() % 8;
      int v = static_cast<int>(in.U32());
      t.Format("%*d", width, v);
      m = model::Formatted(
          model::PadLeft(std::to_string(v), static_cast<size_t>(width)));
      break;
    }
    case kFormatZeroChar: {
      // A zero byte from %c ends the text: the buffer is read as a C string.
      std::string x = model::AsCString(in.Bytes());
      char c = static_cast<char>(in.Byte());
      std::string y = model::AsCString(in.Bytes());
      t.Format("%s%c%s", x.c_str(), c, y.c_str());
      m = model::Formatted(x + c + y);
      break;
    }
    case kFormatSelf: {
      std::string src = s.model[a];
      t.Format("%s", s.text[a].GetString());
      m = model::Formatted(model::AsCString(src));
      break;
    }
    case kLess:
      ExpectInt("operator<", s.text[a] < s.text[b],
                model::Less(s.model[a], s.model[b]));
      break;
  }

  for (int i = 0; i < kSlots; ++i) {
    Expect("slot", s.text[i], s.model[i]);
    if (s.model[i].size() > kMaxText) {
      s.text[i] = CString(s.text[i].GetString(), kMaxText / 2);
      s.model[i].resize(kMaxText / 2);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader in(data, size);
  Slots slots;
  while (!in.Done()) Run(in, slots);
  return 0;
}

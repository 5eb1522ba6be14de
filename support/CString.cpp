// CString: byte-string operations used to split instance file names.
#include "support/CString.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {
const size_t kFormatBufferSize = 1024;

// Kept on purpose: the byte goes to the C library as a plain (signed) char,
// as this class has always done; glibc's tables accept the negative values of
// bytes >= 0x80.
bool IsSpace(char c) { return isspace(c) != 0; }
}  // namespace

CString::CString() = default;

CString::CString(const char* s) {
  if (s != nullptr) m_text = s;
}

CString::CString(const char* s, unsigned n) : m_text(s, n) {}

CString::CString(char c, int count) {
  for (int i = 0; i < count; ++i) m_text += c;
}

// Kept on purpose: a copy stops at a zero byte, unlike an assignment.
// NOLINTNEXTLINE(readability-redundant-string-cstr): stops at a zero byte
CString::CString(const CString& other) : m_text(other.m_text.c_str()) {}

CString::~CString() = default;

unsigned CString::GetLength() const {
  return static_cast<unsigned>(m_text.size());
}

const char* CString::GetString() const { return m_text.c_str(); }

// Kept on purpose: every byte, unlike the copy constructor.
CString& CString::operator=(const CString& other) = default;

CString& CString::operator=(const char* s) {
  m_text = s;
  return *this;
}

CString& CString::operator=(char c) {
  m_text = c;
  return *this;
}

CString& CString::operator+=(const CString& other) {
  m_text += other.m_text;
  return *this;
}

CString& CString::operator+=(const char* s) {
  m_text += s;
  return *this;
}

CString& CString::operator+=(char c) {
  m_text += c;
  return *this;
}

bool CString::operator<(const CString& other) const {
  // Kept on purpose: other is read as a C string, up to its first zero byte.
  // NOLINTNEXTLINE(readability-redundant-string-cstr): stops at a zero byte
  return m_text.compare(other.m_text.c_str()) < 0;
}

CString operator+(const CString& a, const CString& b) {
  CString result(a);
  result += b;
  // Returned as a new object from all its bytes: a copy would stop at a zero
  // byte that b brought in.
  return CString(result.GetString(), result.GetLength());
}

// Kept on purpose: Left, Right and Mid stop at a zero byte, as copies do.
CString CString::Left(unsigned n) const {
  return CString(m_text.substr(0, n).c_str());
}

CString CString::Right(unsigned n) const {
  size_t kept = std::min<size_t>(n, m_text.size());
  return CString(m_text.substr(m_text.size() - kept).c_str());
}

CString CString::Mid(unsigned start, unsigned count) const {
  return CString(m_text.substr(start, count).c_str());
}

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style; the compiler checks callers
void CString::Format(const char* format, ...) {
  char buffer[kFormatBufferSize] = {};
  va_list args;
  va_start(args, format);
  // NOLINTNEXTLINE(cert-err33-c): longer output is cut off without notice
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  m_text = buffer;
}

void CString::MakeUpper() {
  for (char& c : m_text) c = static_cast<char>(toupper(c));
}

void CString::MakeLower() {
  for (char& c : m_text) c = static_cast<char>(tolower(c));
}

void CString::TrimLeft() {
  size_t i = 0;
  while (i < m_text.size() && IsSpace(m_text[i])) ++i;
  m_text.erase(0, i);
}

void CString::TrimRight() {
  size_t n = m_text.size();
  while (n > 0 && IsSpace(m_text[n - 1])) --n;
  m_text.erase(n);
}

int CString::Replace(char from, char to) {
  int count = 0;
  for (char& c : m_text) {
    if (c == from) {
      c = to;
      ++count;
    }
  }
  return count;
}

int CString::Replace(const char* from, const char* to) {
  int count = 0;
  // Each search resumes after the inserted text, so a replacement is never
  // rescanned. Kept on purpose: an empty pattern is not rejected, and never
  // ends; callers do not pass one.
  for (size_t pos = m_text.find(from); pos != std::string::npos;
       pos = m_text.find(from, pos + strlen(to))) {
    // Each pass builds a new text from the pieces: simple, and not tuned.
    // cppcheck-suppress uselessCallsSubstr ; a new text on purpose, see above
    m_text = m_text.substr(0, pos) + to + m_text.substr(pos + strlen(from));
    ++count;
  }
  return count;
}

int CString::Remove(char c) {
  std::string kept;
  int count = 0;
  for (char b : m_text) {
    if (b != c) {
      kept += b;
      ++count;
    }
  }
  // Kept on purpose: an all-c text is kept as it was rather than emptied,
  // and the count is of what stayed.
  if (!kept.empty()) m_text = kept;
  return count;
}

// CString: the daemon's own byte string, a thin class over std::string with
// the editing operations of a desktop-style string class. Positions and counts
// are bytes; case and space tests are the C locale's, one byte at a time.
//
// Copies read the source as a C string, so a zero byte inside the text ends
// the copy (copy construction, the left operand of +, Left, Right, Mid), while
// assignment, appending, the trims and Remove carry every byte.
#ifndef SUPPORT_CSTRING_H_
#define SUPPORT_CSTRING_H_

#include <string>

class CString {
 public:
  CString();
  // Implicit on purpose: a C string is used wherever a CString is.
  // cppcheck-suppress noExplicitConstructor ; implicit on purpose, see above
  CString(const char* s);  // NOLINT(google-explicit-constructor)
  CString(const char* s, unsigned n);
  CString(char c, int count);
  // Also serves temporaries (there is no move constructor): every copy stops
  // at a zero byte.
  CString(const CString& other);
  virtual ~CString();

  unsigned GetLength() const;
  // Valid until the object is next changed or destroyed.
  const char* GetString() const;

  CString& operator=(const CString& other);
  // s must not be null (only the constructor accepts a null pointer).
  CString& operator=(const char* s);
  CString& operator=(char c);
  CString& operator+=(const CString& other);
  CString& operator+=(const char* s);
  CString& operator+=(char c);
  bool operator<(const CString& other) const;

  CString Left(unsigned n) const;
  CString Right(unsigned n) const;
  // Throws std::out_of_range when start is beyond the length.
  CString Mid(unsigned start, unsigned count) const;

  // Output beyond 1023 bytes is cut off silently.
  void Format(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void MakeUpper();
  void MakeLower();
  void TrimLeft();
  void TrimRight();
  int Replace(char from, char to);
  // from must not be empty: an empty pattern matches everywhere and the call
  // never returns.
  int Replace(const char* from, const char* to);
  // Returns the number of bytes kept; a text made only of c is left as it is.
  int Remove(char c);

 private:
  std::string m_text;
};

CString operator+(const CString& a, const CString& b);

#endif  // SUPPORT_CSTRING_H_

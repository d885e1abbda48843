// Reads an 8-bit text file as the system's text-mode wide line read does: bytes are taken in the
// ANSI code page, CR LF arrives as LF, and a line longer than the reader's buffer arrives in
// pieces, each as long as the buffer allows, the line end staying with the last piece.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/WString.h"

class TextLineReader {
 public:
  // False when the file cannot be opened or read. The bytes are taken in the ANSI code page, or in
  // the one given.
  bool Open(const WString& path);
  bool Open(const WString& path, uint32_t codePage);
  // The next piece of at most `maxChars` characters; it ends after a line feed when one comes
  // within them. False at the end of the file.
  bool ReadLine(WString& piece, size_t maxChars);

 private:
  WString m_text;
  size_t m_pos = 0;
};

// A text file meant for people and for support (the check's result files): 8-bit text in the
// system's code page with the system's line ends, as a text-mode stream writes it: the ANSI code
// page and CR LF on Windows, UTF-8 and LF elsewhere. Every Write goes to the file at once, so a
// reader or a crash sees every line written so far; the file is held open only during a Write, so
// other readers and writers share it freely.
#pragma once

#include <cstdint>

#include "base/WString.h"

class PeopleTextFile {
 public:
  // The code page of such files on this system.
  static uint32_t CodePage();

  // Creates the file empty, or with `append` keeps what it holds. False when it cannot be made.
  bool Open(const WString& path, bool append);
  bool IsOpen() const { return m_open; }
  // The text with "\n" as line end. False when the file is not open or the write failed.
  bool Write(const WString& text);
  void Close() { m_open = false; }

 private:
  WString m_path;
  bool m_open = false;
};

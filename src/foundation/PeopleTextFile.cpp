#include "foundation/PeopleTextFile.h"

#include <string>

#include "platform/CodePage.h"
#include "platform/FileIo.h"

uint32_t PeopleTextFile::CodePage() {
#ifdef _WIN32
  return platform::kCodePageAnsi;
#else
  return platform::kCodePageUtf8;
#endif
}

bool PeopleTextFile::Open(const WString& path, bool append) {
  m_open = append ? platform::AppendToFile(path, "", 0) : platform::WriteWholeFile(path, "", 0);
  m_path = m_open ? path : WString();
  return m_open;
}

bool PeopleTextFile::Write(const WString& text) {
  if (!m_open) return false;
#ifdef _WIN32
  WString lines = WReplaceAll(text, u"\n", u"\r\n");
#else
  const WString& lines = text;
#endif
  std::string bytes;
  platform::WideToCodePage(CodePage(), lines, bytes);
  return platform::AppendToFile(m_path, bytes.data(), bytes.size());
}

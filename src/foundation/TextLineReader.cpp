#include "foundation/TextLineReader.h"

#include <string>

#include "platform/CodePage.h"
#include "platform/FileIo.h"

bool TextLineReader::Open(const WString& path) {
  return Open(path, platform::kCodePageAnsi);
}

bool TextLineReader::Open(const WString& path, uint32_t codePage) {
  m_text.clear();
  m_pos = 0;
  std::string bytes;
  if (!platform::ReadWholeFile(path, bytes)) return false;
  std::string text;
  text.reserve(bytes.size());
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') continue;
    text.push_back(bytes[i]);
  }
  platform::CodePageToWide(codePage, text.data(), text.size(), m_text);
  return true;
}

bool TextLineReader::ReadLine(WString& piece, size_t maxChars) {
  piece.clear();
  if (m_pos >= m_text.size() || maxChars == 0) return false;
  size_t end = m_pos;
  size_t limit = m_text.size() - m_pos < maxChars ? m_text.size() : m_pos + maxChars;
  while (end < limit) {
    if (m_text[end++] == u'\n') break;
  }
  piece.assign(m_text, m_pos, end - m_pos);
  m_pos = end;
  return true;
}

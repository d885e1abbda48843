#include "module/CLogMsgArguments.h"

#include <string>

CLogMsgArguments::CLogMsgArguments(uint8_t platform, uint32_t msgNumber, uint32_t time, uint8_t severity,
                                   uint32_t value, bool flag)
    : m_bytes(kHeaderSize, 0) {
  Put16(0, static_cast<uint16_t>(kHeaderSize));
  m_bytes[2] = kVersion;
  m_bytes[3] = platform;
  Put32(4, msgNumber);
  Put32(8, flag ? 1u : 0u);
  Put32(12, time);
  Put32(16, value);
  m_bytes[24] = severity;
  m_bytes[25] = 0;
}

void CLogMsgArguments::AddArgument(const WString& text) {
  // The wide text ends at its first terminator; an embedded one would split the argument in two
  // for the host and shift every argument after it.
  const std::string utf8 = WToUtf8(WStringView(text.c_str()));
  m_bytes.insert(m_bytes.end(), utf8.begin(), utf8.end());
  m_bytes.push_back(0);
  Put16(0, static_cast<uint16_t>(m_bytes.size()));
  ++m_bytes[25];
}

void CLogMsgArguments::Put16(size_t offset, uint16_t value) {
  m_bytes[offset] = static_cast<uint8_t>(value);
  m_bytes[offset + 1] = static_cast<uint8_t>(value >> 8);
}

void CLogMsgArguments::Put32(size_t offset, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) m_bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

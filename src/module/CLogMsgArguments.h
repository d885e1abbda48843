// The alert record that the module hands to the host as the data of an alert event; the host
// makes a mail of it. The layout is shared with the host, all numbers little-endian:
//
//   0  u16  total length of the record (26 without arguments), cut to 16 bits
//   2  u8   record version, 1
//   3  u8   platform
//   4  u32  message number
//   8  u32  flags; bit 0 from the last constructor argument
//  12  u32  time (LocalClockSeconds)
//  16  u32  a value the host passes through; the module writes 0
//  20  4 bytes of 0
//  24  u8   severity
//  25  u8   number of arguments
//  26       the arguments in order, each UTF-8 with a terminating 0 byte
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/WString.h"

class CLogMsgArguments {
 public:
  static constexpr size_t kHeaderSize = 26;
  static constexpr uint8_t kVersion = 1;

  CLogMsgArguments(uint8_t platform, uint32_t msgNumber, uint32_t time, uint8_t severity, uint32_t value, bool flag);

  // Appends the text up to its first terminator, then updates the length and the count.
  void AddArgument(const WString& text);

  const std::vector<uint8_t>& Bytes() const { return m_bytes; }

 private:
  void Put16(size_t offset, uint16_t value);
  void Put32(size_t offset, uint32_t value);

  std::vector<uint8_t> m_bytes;
};

// The alert record as the host reads it from the data of an alert event (0x3341): the header the
// module's CLogMsgArguments writes and the arguments behind it, each a UTF-8 text. The decoder
// trusts nothing of the bytes: a short record, a length field that disagrees with the bytes, an
// unknown record version, a missing terminator or an argument count that disagrees with the
// texts makes it refuse the record with a reason.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct AlertRecord {
  uint8_t version = 0;
  uint8_t platform = 0;
  uint32_t number = 0;
  uint32_t flags = 0;
  uint32_t time = 0;  // LocalClockSeconds of the moment the module made the alert
  uint32_t value = 0;
  uint8_t severity = 0;
  std::vector<std::string> arguments;  // UTF-8; bytes that are no UTF-8 become U+FFFD
};

// False, with the reason, for bytes that are no alert record.
bool DecodeAlertRecord(const std::vector<uint8_t>& bytes, AlertRecord& record, std::string& error);

// What an alert number means, in a few words ("new components available"); null for a number
// this module does not send.
const char* AlertMeaning(uint32_t number);

#include "hostlib/AlertRecord.h"

#include "base/WString.h"

namespace {

constexpr size_t kHeaderSize = 26;
constexpr uint8_t kRecordVersion = 1;

uint32_t Read32(const std::vector<uint8_t>& bytes, size_t offset) {
  uint32_t value = 0;
  for (size_t i = 4; i-- > 0;) value = (value << 8) | bytes[offset + i];
  return value;
}

}  // namespace

bool DecodeAlertRecord(const std::vector<uint8_t>& bytes, AlertRecord& record, std::string& error) {
  record = AlertRecord{};
  if (bytes.size() < kHeaderSize) {
    error = "the alert record has " + std::to_string(bytes.size()) + " bytes, fewer than its header's " +
            std::to_string(kHeaderSize);
    return false;
  }
  // The length field holds the record's size cut to 16 bits.
  const uint32_t length = bytes[0] | (static_cast<uint32_t>(bytes[1]) << 8);
  if (length != (bytes.size() & 0xFFFF)) {
    error = "the alert record's length field says " + std::to_string(length) + " bytes, the record has " +
            std::to_string(bytes.size());
    return false;
  }
  record.version = bytes[2];
  if (record.version != kRecordVersion) {
    error = "unknown alert record version " + std::to_string(record.version);
    return false;
  }
  record.platform = bytes[3];
  record.number = Read32(bytes, 4);
  record.flags = Read32(bytes, 8);
  record.time = Read32(bytes, 12);
  record.value = Read32(bytes, 16);
  record.severity = bytes[24];
  const size_t count = bytes[25];
  size_t at = kHeaderSize;
  while (at < bytes.size()) {
    size_t end = at;
    while (end < bytes.size() && bytes[end] != 0) ++end;
    if (end == bytes.size()) {
      error = "argument " + std::to_string(record.arguments.size() + 1) + " of the alert record has no terminator";
      return false;
    }
    const std::string raw(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                          bytes.begin() + static_cast<std::ptrdiff_t>(end));
    // Through the wide form and back: whatever is no UTF-8 comes out as U+FFFD, so that the text
    // can go into JSON and onto a terminal as it is.
    record.arguments.push_back(WToUtf8(WFromUtf8(raw)));
    at = end + 1;
  }
  if (record.arguments.size() != count) {
    error = "the alert record announces " + std::to_string(count) + " arguments and holds " +
            std::to_string(record.arguments.size());
    return false;
  }
  return true;
}

const char* AlertMeaning(uint32_t number) {
  switch (number) {
    case 0x290000:
      return "new components available";
    case 0x290001:
      return "update of the repository from the web server failed";
    case 0x290010:
      return "update job finished";
    case 0x290011:
      return "update job failed while flashing";
    case 0x290012:
      return "download for the update job failed";
    case 0x290013:
      return "update job failed while preparing";
    default:
      return nullptr;
  }
}

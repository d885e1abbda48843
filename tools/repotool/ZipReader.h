// Reads the archives of a server tree back: the stub in front, the entries, their contents.
// Offsets may count from the start of the file or from the start of the zip.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class ZipReader {
 public:
  struct Entry {
    std::string name;
    uint16_t method = 0;
    uint32_t crc = 0;
    uint32_t compressedSize = 0;
    uint32_t size = 0;
    uint64_t dataOffset = 0;  // in the file
    uint32_t unixMode = 0;
  };

  // Throws std::runtime_error when `bytes` hold no readable zip; `what` names it in messages.
  ZipReader(std::string bytes, std::string what);

  const std::vector<Entry>& Entries() const { return m_entries; }
  // nullptr when no entry has that name.
  const Entry* Find(const std::string& name) const;
  // The entry's content, inflated and CRC-checked; throws when it is corrupt.
  std::string Read(const Entry& entry) const;
  // The bytes in front of the first entry: the stub of a self-extracting archive.
  std::string Prefix() const { return m_bytes.substr(0, m_prefixLength); }

 private:
  std::string m_bytes;
  std::string m_what;
  std::vector<Entry> m_entries;
  uint64_t m_prefixLength = 0;
};

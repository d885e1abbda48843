#include "repotool/ZipReader.h"

#include <zlib.h>

#include <algorithm>
#include <stdexcept>

namespace {

uint16_t U16(const std::string& b, uint64_t at) {
  return static_cast<uint16_t>(static_cast<uint8_t>(b[at]) | static_cast<uint8_t>(b[at + 1]) << 8);
}
uint32_t U32(const std::string& b, uint64_t at) {
  return U16(b, at) | static_cast<uint32_t>(U16(b, at + 2)) << 16;
}

}  // namespace

ZipReader::ZipReader(std::string bytes, std::string what) : m_bytes(std::move(bytes)), m_what(std::move(what)) {
  auto corrupt = [&](const std::string& why) { return std::runtime_error(m_what + ": " + why); };
  const std::string& b = m_bytes;
  if (b.size() < 22) throw corrupt("no zip archive");
  uint64_t lowest = b.size() > 22 + 0xFFFF ? b.size() - 22 - 0xFFFF : 0;
  uint64_t eocd = b.size() - 22;
  while (U32(b, eocd) != 0x06054b50 || eocd + 22 + U16(b, eocd + 20) != b.size()) {
    if (eocd == lowest) throw corrupt("no end of central directory (corrupt or truncated)");
    --eocd;
  }
  uint16_t count = U16(b, eocd + 10);
  uint32_t cdSize = U32(b, eocd + 12);
  uint32_t cdOffset = U32(b, eocd + 16);
  if (cdSize > eocd || eocd - cdSize < cdOffset) throw corrupt("central directory out of place");
  uint64_t cdStart = eocd - cdSize;
  uint64_t shift = cdStart - cdOffset;
  m_prefixLength = cdStart;
  uint64_t p = cdStart;
  for (uint16_t i = 0; i < count; ++i) {
    if (p + 46 > eocd || U32(b, p) != 0x02014b50) throw corrupt("bad central directory");
    uint16_t nameLength = U16(b, p + 28);
    uint64_t next = p + 46 + nameLength + U16(b, p + 30) + U16(b, p + 32);
    if (next > eocd) throw corrupt("bad central directory");
    Entry e;
    e.name = b.substr(p + 46, nameLength);
    e.method = U16(b, p + 10);
    e.crc = U32(b, p + 16);
    e.compressedSize = U32(b, p + 20);
    e.size = U32(b, p + 24);
    e.unixMode = U32(b, p + 38) >> 16;
    uint64_t local = U32(b, p + 42) + shift;
    if (local + 30 > cdStart || U32(b, local) != 0x04034b50) throw corrupt("bad local header of " + e.name);
    e.dataOffset = local + 30 + U16(b, local + 26) + U16(b, local + 28);
    if (e.dataOffset + e.compressedSize > cdStart) throw corrupt("data of " + e.name + " out of place");
    m_prefixLength = std::min(m_prefixLength, local);
    m_entries.push_back(std::move(e));
    p = next;
  }
}

const ZipReader::Entry* ZipReader::Find(const std::string& name) const {
  for (const Entry& e : m_entries)
    if (e.name == name) return &e;
  return nullptr;
}

std::string ZipReader::Read(const Entry& e) const {
  const char* data = m_bytes.data() + e.dataOffset;
  std::string out;
  if (e.method == 0) {
    out.assign(data, e.compressedSize);
  } else if (e.method == 8) {
    out.resize(e.size);
    z_stream z{};
    if (inflateInit2(&z, -MAX_WBITS) != Z_OK) throw std::runtime_error("zlib: cannot start inflate");
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
    z.avail_in = e.compressedSize;
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = e.size;
    int status = inflate(&z, Z_FINISH);
    uLong produced = z.total_out;
    inflateEnd(&z);
    if (status != Z_STREAM_END || produced != e.size) throw std::runtime_error(m_what + ": corrupt data of " + e.name);
  } else {
    throw std::runtime_error(m_what + ": unsupported method of " + e.name);
  }
  if (out.size() != e.size ||
      crc32(0, reinterpret_cast<const Bytef*>(out.data()), static_cast<uInt>(out.size())) != e.crc)
    throw std::runtime_error(m_what + ": CRC mismatch of " + e.name);
  return out;
}

#include "repotool/ZipWriter.h"

#include <zlib.h>

#include <stdexcept>

namespace {

// Every entry has the same time stamp, 2024-01-01 00:00, so that the same input gives the same
// archive bytes.
constexpr uint16_t kDosTime = 0;
constexpr uint16_t kDosDate = (2024 - 1980) << 9 | 1 << 5 | 1;
constexpr uint16_t kFlagUtf8 = 0x0800;
constexpr uint16_t kMadeByUnix = 3 << 8 | 20;
constexpr uint16_t kNeeded = 20;
constexpr uint32_t kRegularFile = 0100644;
constexpr uint32_t kSymlink = 0120777;

void Put16(std::string& out, uint32_t v) {
  out += static_cast<char>(v & 0xFF);
  out += static_cast<char>(v >> 8 & 0xFF);
}
void Put32(std::string& out, uint32_t v) {
  Put16(out, v & 0xFFFF);
  Put16(out, v >> 16);
}

std::string Deflate(const std::string& data) {
  z_stream z{};
  if (deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("zlib: cannot start deflate");
  std::string out(deflateBound(&z, static_cast<uLong>(data.size())), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  int status = deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  if (status != Z_STREAM_END) throw std::runtime_error("zlib: deflate failed");
  return out;
}

}  // namespace

ZipWriter::ZipWriter(std::string stub) : m_out(std::move(stub)) {}

void ZipWriter::AddFile(const std::string& name, const std::string& data) {
  Add(name, data, kRegularFile, true);
}

void ZipWriter::AddSymlink(const std::string& name, const std::string& target) {
  Add(name, target, kSymlink, false);
}

void ZipWriter::Add(const std::string& name, const std::string& data, uint32_t unixMode, bool compress) {
  if (name.empty() || name.size() > 0xFFFF) throw std::runtime_error("zip: bad entry name length");
  if (data.size() >= 0xFFFFFFFFu || m_out.size() >= 0xFFFFFFFFu || m_count >= 0xFFFF)
    throw std::runtime_error("zip: archive too large (no zip64): " + name);
  uint32_t crc = crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size()));
  uint16_t method = 0;
  std::string deflated;
  if (compress && !data.empty()) {
    deflated = Deflate(data);
    if (deflated.size() < data.size()) method = 8;
  }
  const std::string& stored = method == 8 ? deflated : data;
  uint32_t offset = static_cast<uint32_t>(m_out.size());

  std::string& l = m_out;
  Put32(l, 0x04034b50);
  Put16(l, kNeeded);
  Put16(l, kFlagUtf8);
  Put16(l, method);
  Put16(l, kDosTime);
  Put16(l, kDosDate);
  Put32(l, crc);
  Put32(l, static_cast<uint32_t>(stored.size()));
  Put32(l, static_cast<uint32_t>(data.size()));
  Put16(l, static_cast<uint32_t>(name.size()));
  Put16(l, 0);
  l += name;
  l += stored;

  std::string& c = m_central;
  Put32(c, 0x02014b50);
  Put16(c, kMadeByUnix);
  Put16(c, kNeeded);
  Put16(c, kFlagUtf8);
  Put16(c, method);
  Put16(c, kDosTime);
  Put16(c, kDosDate);
  Put32(c, crc);
  Put32(c, static_cast<uint32_t>(stored.size()));
  Put32(c, static_cast<uint32_t>(data.size()));
  Put16(c, static_cast<uint32_t>(name.size()));
  Put16(c, 0);  // extra field
  Put16(c, 0);  // comment
  Put16(c, 0);  // disk
  Put16(c, 0);  // internal attributes
  Put32(c, unixMode << 16);
  Put32(c, offset);
  c += name;
  ++m_count;
}

std::string ZipWriter::Finish() {
  if (m_out.size() + m_central.size() >= 0xFFFFFFFFu) throw std::runtime_error("zip: archive too large (no zip64)");
  uint32_t centralOffset = static_cast<uint32_t>(m_out.size());
  m_out += m_central;
  Put32(m_out, 0x06054b50);
  Put16(m_out, 0);
  Put16(m_out, 0);
  Put16(m_out, m_count);
  Put16(m_out, m_count);
  Put32(m_out, static_cast<uint32_t>(m_central.size()));
  Put32(m_out, centralOffset);
  Put16(m_out, 0);
  m_central.clear();
  m_count = 0;
  return std::move(m_out);
}

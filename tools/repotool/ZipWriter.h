// Writes a self-extracting archive: the stub's bytes, then a zip whose offsets count from the
// start of the whole file, as the stub and every zip reader expect of such an archive.
#pragma once

#include <cstdint>
#include <string>

class ZipWriter {
 public:
  explicit ZipWriter(std::string stub);

  // A file entry; `name` is UTF-8 with "/" separators. Deflated unless that does not make it
  // smaller, then stored.
  void AddFile(const std::string& name, const std::string& data);
  // An entry with the Unix mode of a symbolic link, `target` as its content (hostile test archives).
  void AddSymlink(const std::string& name, const std::string& target);
  // The central directory and its end record; the archive's bytes.
  std::string Finish();

 private:
  void Add(const std::string& name, const std::string& data, uint32_t unixMode, bool compress);

  std::string m_out;
  std::string m_central;
  uint32_t m_count = 0;
};

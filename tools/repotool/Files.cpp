#include "repotool/Files.h"

#include <fstream>
#include <stdexcept>
#include <system_error>

namespace files {

std::filesystem::path FromUtf8(const std::string& name) {
  return std::filesystem::path(std::u8string(name.begin(), name.end()));
}

std::string ToUtf8(const std::filesystem::path& path) {
  std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

std::string ToGenericUtf8(const std::filesystem::path& path) {
  std::u8string text = path.generic_u8string();
  return std::string(text.begin(), text.end());
}

std::string Read(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + ToUtf8(path));
  std::string data;
  in.seekg(0, std::ios::end);
  std::streamoff size = in.tellg();
  in.seekg(0, std::ios::beg);
  data.resize(size > 0 ? static_cast<size_t>(size) : 0);
  if (!data.empty() && !in.read(data.data(), static_cast<std::streamsize>(data.size())))
    throw std::runtime_error("cannot read " + ToUtf8(path));
  return data;
}

void WriteAtomic(const std::filesystem::path& path, const std::string& data) {
  std::error_code ec;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ec);
  if (ec) throw std::runtime_error("cannot create the directory of " + ToUtf8(path) + ": " + ec.message());
  std::filesystem::path temporary = path;
  temporary += ".repotool-tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out || !out.write(data.data(), static_cast<std::streamsize>(data.size())) || !out.flush()) {
      out.close();
      std::filesystem::remove(temporary, ec);
      throw std::runtime_error("cannot write " + ToUtf8(path));
    }
  }
  std::filesystem::rename(temporary, path, ec);
  if (ec) {
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    throw std::runtime_error("cannot write " + ToUtf8(path) + ": " + ec.message());
  }
}

}  // namespace files

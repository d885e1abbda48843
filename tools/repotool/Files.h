// File access of the tree builder: UTF-8 names on every platform, and writes that never leave a
// half file under the final name.
#pragma once

#include <filesystem>
#include <string>

namespace files {

std::filesystem::path FromUtf8(const std::string& name);
std::string ToUtf8(const std::filesystem::path& path);
// With "/" separators on every platform.
std::string ToGenericUtf8(const std::filesystem::path& path);

// The whole file; throws std::runtime_error when it cannot be read.
std::string Read(const std::filesystem::path& path);

// Creates the parent directories, writes `<path>.repotool-tmp` and renames it to `path`, so that a
// reader of the tree sees the old file or the new one, never a part.
void WriteAtomic(const std::filesystem::path& path, const std::string& data);

}  // namespace files

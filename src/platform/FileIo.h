// Small file operations with the sharing the system's writers need (readers and writers of the
// same file from several threads and processes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/WString.h"

namespace platform {

bool FileExists(const WString& path);
bool DirectoryExists(const WString& path);
bool FileLength(const WString& path, uint64_t& length);
// Reads up to `count` bytes from the start of the file.
bool ReadFilePrefix(const WString& path, void* buffer, size_t count, size_t& got);
bool ReadWholeFile(const WString& path, std::string& bytes);
bool WriteWholeFile(const WString& path, const void* data, size_t count);
// Opens (creating if needed) with read and write sharing, appends, closes.
bool AppendToFile(const WString& path, const void* data, size_t count);
bool RemoveFilePath(const WString& path);
// Replaces an existing target.
bool RenamePath(const WString& from, const WString& to);
bool CreateDirectoryPath(const WString& path);
// Creates one directory; 0 on success, else the system's error in Windows terms: 5 access
// denied, 183 already exists, 3 path not found, anything else another failure.
uint32_t CreateDirectoryError(const WString& path);
WString TempDirectory();
bool RemoveDirectoryPath(const WString& path);  // an empty directory

struct DirEntry {
  WString name;
  bool isDirectory = false;
};
// The entries of a directory without "." and "..". False when it cannot be read.
bool ListDirectory(const WString& path, std::vector<DirEntry>& entries);
// The process's current directory as the system gives it (empty on failure).
WString CurrentDirectory();
constexpr char16_t kPathSeparator =
#ifdef _WIN32
    u'\\';
#else
    u'/';
#endif

}  // namespace platform

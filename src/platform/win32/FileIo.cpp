#include "platform/FileIo.h"

#include "platform/win32/Win32Util.h"

namespace platform {

bool FileExists(const WString& path) {
  DWORD a = GetFileAttributesW(W32(path));
  return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

bool DirectoryExists(const WString& path) {
  DWORD a = GetFileAttributesW(W32(path));
  return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

bool FileLength(const WString& path, uint64_t& length) {
  WIN32_FILE_ATTRIBUTE_DATA d;
  if (!GetFileAttributesExW(W32(path), GetFileExInfoStandard, &d) || (d.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
    return false;
  length = (static_cast<uint64_t>(d.nFileSizeHigh) << 32) | d.nFileSizeLow;
  return true;
}

bool ReadFilePrefix(const WString& path, void* buffer, size_t count, size_t& got) {
  got = 0;
  HANDLE h = CreateFileW(W32(path), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  while (got < count) {
    DWORD n = 0;
    if (!ReadFile(h, static_cast<char*>(buffer) + got, static_cast<DWORD>(count - got), &n, nullptr) || n == 0) break;
    got += n;
  }
  CloseHandle(h);
  return true;
}

bool ReadWholeFile(const WString& path, std::string& bytes) {
  bytes.clear();
  HANDLE h = CreateFileW(W32(path), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  char buf[65536];
  for (;;) {
    DWORD n = 0;
    if (!ReadFile(h, buf, sizeof buf, &n, nullptr)) {
      CloseHandle(h);
      return false;
    }
    if (n == 0) break;
    bytes.append(buf, n);
  }
  CloseHandle(h);
  return true;
}

namespace {
bool WriteTo(const WString& path, DWORD disposition, bool append, const void* data, size_t count) {
  HANDLE h = CreateFileW(W32(path), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  if (append) SetFilePointer(h, 0, nullptr, FILE_END);
  const char* p = static_cast<const char*>(data);
  bool ok = true;
  while (count) {
    DWORD n = 0;
    if (!WriteFile(h, p, static_cast<DWORD>(count > 0x40000000 ? 0x40000000 : count), &n, nullptr) || n == 0) {
      ok = false;
      break;
    }
    p += n;
    count -= n;
  }
  CloseHandle(h);
  return ok;
}
}  // namespace

bool WriteWholeFile(const WString& path, const void* data, size_t count) {
  return WriteTo(path, CREATE_ALWAYS, false, data, count);
}

bool AppendToFile(const WString& path, const void* data, size_t count) {
  return WriteTo(path, OPEN_ALWAYS, true, data, count);
}

bool RemoveFilePath(const WString& path) {
  return DeleteFileW(W32(path)) != 0;
}

bool RenamePath(const WString& from, const WString& to) {
  return MoveFileExW(W32(from), W32(to), MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED) != 0;
}

uint32_t CreateDirectoryError(const WString& path) {
  if (CreateDirectoryW(W32(path), nullptr)) return 0;
  return GetLastError();
}

bool CreateDirectoryPath(const WString& path) {
  // Something that exists under the name counts only when it is a directory: a plain file there
  // must make the caller take its fall-back.
  return CreateDirectoryW(W32(path), nullptr) != 0 || (GetLastError() == ERROR_ALREADY_EXISTS && DirectoryExists(path));
}

bool RemoveDirectoryPath(const WString& path) {
  return RemoveDirectoryW(W32(path)) != 0;
}

bool ListDirectory(const WString& path, std::vector<DirEntry>& entries) {
  entries.clear();
  WString pattern = path + u"\\*";
  WIN32_FIND_DATAW fd;
  HANDLE h = FindFirstFileW(W32(pattern), &fd);
  if (h == INVALID_HANDLE_VALUE) return false;
  do {
    WString name = U16(fd.cFileName);
    if (name == u"." || name == u"..") continue;
    entries.push_back(DirEntry{name, (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0});
  } while (FindNextFileW(h, &fd));
  FindClose(h);
  return true;
}

WString CurrentDirectory() {
  wchar_t buf[MAX_PATH + 1];
  DWORD n = GetCurrentDirectoryW(MAX_PATH + 1, buf);
  if (n == 0 || n > MAX_PATH) return WString();
  return WString(U16(buf), n);
}

WString TempDirectory() {
  wchar_t buf[MAX_PATH + 1];
  DWORD n = GetTempPathW(MAX_PATH + 1, buf);
  WString s(U16(buf), n);
  while (!s.empty() && (s.back() == u'\\' || s.back() == u'/')) s.pop_back();
  return s;
}

}  // namespace platform

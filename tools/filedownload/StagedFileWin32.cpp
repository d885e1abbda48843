#include <windows.h>

#include "filedownload/StagedFile.h"
#include "filedownload/WinText.h"

namespace filedownload {

namespace {

std::wstring WidePath(const std::string& utf8) {
  return WideFromUtf8(utf8);
}

}  // namespace

StagedFile::StagedFile(std::string finalPath)
    : m_finalPath(std::move(finalPath)),
      m_temporaryPath(m_finalPath + ".part" + std::to_string(GetCurrentProcessId())) {}

StagedFile::~StagedFile() {
  Discard();
}

bool StagedFile::Open() {
  const HANDLE h = CreateFileW(WidePath(m_temporaryPath).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                               CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    m_error = "cannot create " + m_temporaryPath + ": " + SystemErrorText(GetLastError());
    return false;
  }
  m_handle = reinterpret_cast<intptr_t>(h);
  m_open = true;
  m_created = true;
  return true;
}

bool StagedFile::Write(const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const DWORD chunk = size > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size);
    DWORD written = 0;
    if (!WriteFile(reinterpret_cast<HANDLE>(m_handle), p, chunk, &written, nullptr) || written == 0) {
      m_error = "cannot write " + m_temporaryPath + ": " + SystemErrorText(GetLastError());
      return false;
    }
    p += written;
    size -= written;
  }
  return true;
}

void StagedFile::Close() {
  if (m_open) CloseHandle(reinterpret_cast<HANDLE>(m_handle));
  m_open = false;
}

bool StagedFile::Commit() {
  if (m_open) {
    m_open = false;
    if (!CloseHandle(reinterpret_cast<HANDLE>(m_handle))) {
      m_error = "cannot write " + m_temporaryPath + ": " + SystemErrorText(GetLastError());
      Discard();
      return false;
    }
  }
  // MOVEFILE_REPLACE_EXISTING: an existing local file is replaced in one step, as rename() does on
  // POSIX; a read-only or open local file makes this fail, and the old file stays as it was.
  if (!MoveFileExW(WidePath(m_temporaryPath).c_str(), WidePath(m_finalPath).c_str(), MOVEFILE_REPLACE_EXISTING)) {
    m_error = "cannot rename " + m_temporaryPath + " to " + m_finalPath + ": " + SystemErrorText(GetLastError());
    Discard();
    return false;
  }
  m_created = false;
  return true;
}

void StagedFile::Discard() {
  Close();
  if (m_created) DeleteFileW(WidePath(m_temporaryPath).c_str());
  m_created = false;
}

}  // namespace filedownload

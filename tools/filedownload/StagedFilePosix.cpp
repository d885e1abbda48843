#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "filedownload/StagedFile.h"

namespace filedownload {

StagedFile::StagedFile(std::string finalPath)
    : m_finalPath(std::move(finalPath)), m_temporaryPath(m_finalPath + ".part" + std::to_string(getpid())) {}

StagedFile::~StagedFile() {
  Discard();
}

bool StagedFile::Open() {
  const int fd = open(m_temporaryPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) {
    m_error = "cannot create " + m_temporaryPath + ": " + strerror(errno);
    return false;
  }
  m_handle = fd;
  m_open = true;
  m_created = true;
  return true;
}

bool StagedFile::Write(const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = write(static_cast<int>(m_handle), p, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      m_error = "cannot write " + m_temporaryPath + ": " + strerror(errno);
      return false;
    }
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

void StagedFile::Close() {
  if (m_open) close(static_cast<int>(m_handle));
  m_open = false;
}

bool StagedFile::Commit() {
  if (m_open) {
    m_open = false;
    // close() reports the write errors that a network file system defers until then.
    if (close(static_cast<int>(m_handle)) != 0) {
      m_error = "cannot write " + m_temporaryPath + ": " + strerror(errno);
      Discard();
      return false;
    }
  }
  if (rename(m_temporaryPath.c_str(), m_finalPath.c_str()) != 0) {
    m_error = "cannot rename " + m_temporaryPath + " to " + m_finalPath + ": " + strerror(errno);
    Discard();
    return false;
  }
  m_created = false;
  return true;
}

void StagedFile::Discard() {
  Close();
  if (m_created) unlink(m_temporaryPath.c_str());
  m_created = false;
}

}  // namespace filedownload

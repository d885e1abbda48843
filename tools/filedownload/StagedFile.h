// The local file of a transfer, written under a temporary name beside it (<localFile>.part<pid>,
// same directory, so that the final rename stays on one volume) and given its own name only when
// the transfer is complete. A transfer that fails, or a tool that is killed, never leaves a
// partial file under the final name, and an existing file keeps its content until the new one is
// whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace filedownload {

class StagedFile {
 public:
  explicit StagedFile(std::string finalPath);
  ~StagedFile();  // removes the temporary file unless Commit succeeded
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  // Creates (or truncates) the temporary file. False, with Error() set, when it cannot.
  bool Open();
  // Appends bytes. False, with Error() set, when the system refuses them (disk full, ...).
  bool Write(const void* data, size_t size);
  // Closes the temporary file and renames it over the final name. False, with Error() set, when
  // either fails; the temporary file is then removed.
  bool Commit();
  // Closes and removes the temporary file.
  void Discard();

  const std::string& FinalPath() const { return m_finalPath; }
  const std::string& TemporaryPath() const { return m_temporaryPath; }
  const std::string& Error() const { return m_error; }

 private:
  void Close();

  std::string m_finalPath;
  std::string m_temporaryPath;
  std::string m_error;
  intptr_t m_handle = -1;  // a file descriptor, or a HANDLE on Windows, while open
  bool m_open = false;
  bool m_created = false;  // the temporary file exists and is ours to remove
};

}  // namespace filedownload

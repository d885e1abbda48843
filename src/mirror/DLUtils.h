// The one class through which the mirror touches the network and the file system in bulk: it runs
// and supervises the transfer tool, verifies a fetched file by its size, unpacks self-extracting
// archives, copies and removes whole directories, creates directories with open rights, and feeds
// the output of a failed step into the check log (UM_Checknew.log, heading "UpdateDownload").
#pragma once

#include <cstdint>
#include <memory>

#include "base/WString.h"

class DLParameters;
class IUpdateModule;
class UM_Util;

class DLUtils {
 public:
  static constexpr int kTextMode = 16384;
  static constexpr int kBinaryMode = 32768;
  // Every transfer is cut off after this many seconds, big or small.
  static constexpr uint32_t kTransferLimitSecs = 180;

  DLUtils();
  explicit DLUtils(IUpdateModule* module);
  DLUtils(IUpdateModule* module, DLParameters* params);
  DLUtils(IUpdateModule* module, DLParameters* params, const WString& tempDir);
  virtual ~DLUtils();
  DLUtils(const DLUtils&) = delete;
  DLUtils& operator=(const DLUtils&) = delete;

  // Runs a command line and waits for it in polls of one second. The exit code, or -1 when the
  // process could not be created; after `timeoutSecs` the process is ended and the result is the
  // "still active" code 259, which callers take for a finished command.
  int CallCmdAsync(const WString& cmd, const WString& currDir, const WString& outFile, const WString& errFile,
                   uint32_t timeoutSecs);
  // Fetches remoteFile from remoteServer into localFile with the transfer tool. logMode 2 is
  // silent; any other value reports to the check log. The tool's exit code, or -1.
  int Download(const WString& remoteServer, const WString& remoteFile, const WString& localFile, int logMode = 1);
  // Download, then verify: checkType 1 compares the file's length with *fileSize, 2 reads the
  // number `item` from the file into *fileSize. repeatMode 1 allows one repetition after 30 s.
  int DownloadPlusVerify(const WString& remoteServer, const WString& remoteFile, const WString& localFile,
                         const WString& item, int32_t* fileSize, int checkType, int repeatMode);
  int DownloadPlusVerifySize(const WString& remoteServer, const WString& remoteFile, const WString& localFile,
                             int32_t size);
  void DownloadRepeatWait(const WString& remoteFile);
  // Waits on the module's spare event, which nobody sets; without a module it returns at once.
  void DoWait(uint32_t secs);

  // Unpacks the self-extracting archive <dir>/<exeName> into dir. 0 or -1.
  int Uncompress(const WString& dir, const WString& exeName);
  // mode kTextMode or kBinaryMode. The copy is written under a temporary name and renamed.
  int CopyFilePriv(const WString& sourceFile, const WString& destFile, int mode);
  int CopyCompleteDirectory(const WString& from, const WString& to, int contentOnly = 0);
  int RemoveCompleteDirectory(const WString& absPath);
  // Adds the file's lines to the open check log under the caption. 0, or 1 if it can't be read.
  int CopyFileToServerLog(const WString& file, const WString& caption);
  // 0 or -1; status 777 when a directory was created but its rights could not be opened, else
  // the system's error of a failed creation.
  int CreateDirectoryPriv(const WString& path, int& status);
  int CreateDirectoryTree(const WString& path, int& status);

  // "\" becomes "/" and a run of "\" one "/"; a leading "\\" stays as it is.
  static void ToForwardSlashes(WString& path);
  // "/" becomes "\" and a run of "/" one "\".
  static void ToBackSlashes(WString& path);
  static int64_t GetFileLength(const WString& path);
  // The number behind "key=" of the first line that has one. 0, or -1 when none was found, the
  // number is malformed, or it reads -1.
  static int GetIntFromFile(const WString& file, const WString& key, int32_t& value);
  // The text behind "key=" of the last line that has one, up to its first blank. `length` is the
  // room in characters on entry and the value's length on return (0 when no line had the key).
  static int GetStringFromFile(const WString& file, const WString& key, WString& value, size_t& length);
  // "%ld" as the C library reads it from text[pos]: leading white space, a sign, at least one
  // digit; the value saturates at the 32-bit range of a long on Windows.
  static bool ScanLong(const WString& text, size_t pos, int32_t& value);
  // Free KB for the caller on the path's file system, or -1.
  static int32_t GetFreeSpaceKB(const WString& path);
  // The 32-bit answer of GetFreeSpaceKB for a number of free bytes.
  static int32_t FreeSpaceKbFromBytes(uint64_t bytes);
  static uint32_t LocalClockSeconds();
  static int32_t GetLocalTimeOffset();

  // The transfer tool's file name, found in the working location.
  static const char16_t* TransferToolName();
  const WString& TempDir() const { return m_tempDir; }

 private:
  int RunCommand(const WString& application, const WString& cmd, const WString& traceCmd, const WString& currDir,
                 const WString& outFile, const WString& errFile, uint32_t timeoutSecs);
  struct OutputFiles {
    WString out, err;
  };
  static void RemoveCutOffTransfers(const WString& localFile);
  WString ServerTag() const;
  OutputFiles MakeOutputFiles(const char16_t* step) const;
  static void RemoveOutputFiles(const OutputFiles& files);
  void StartLog();
  void EndLog();
  void WriteTextFile(const WString& path, const WString& text);

  uint32_t m_uniqueId;
  WString m_tempDir;
  WString m_message;
  IUpdateModule* m_module = nullptr;
  std::unique_ptr<UM_Util> m_log;
  DLParameters* m_params = nullptr;
};

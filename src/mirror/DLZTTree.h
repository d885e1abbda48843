// The local repository's tree: the state of each leaf, its version line, its backup, its removal,
// its information files from the unpacked information tree, and the fetch and unpack of its
// package.
#pragma once

#include <cstdint>
#include <memory>

#include "base/WString.h"

class DLParameters;
class DLUtils;
class DownloadLocation;
class IUpdateModule;
class UM_Util;
struct VersionLineInfo;

class DLZTTree {
 public:
  // LeafStatus results.
  static constexpr int kDownloadFailed = -3;
  static constexpr int kNonexistent = -2;
  static constexpr int kEmpty = -1;
  static constexpr int kInfoFilesOnly = 0;
  static constexpr int kDownloading = 1;
  static constexpr int kComplete = 2;
  static constexpr int kLink = 4;
  // LeafGetDownloadStatus results besides 1 and -3.
  static constexpr int kLockFileGone = 3;
  static constexpr int kDownloadDone = 5;

  // UpdateTree results besides 0 and -1.
  static constexpr int kNotNecessary = 99;  // UM_DNL_ACTION_NOTNECESSARY
  static constexpr int kRemoteVersionUnknown = -10;

  // Serves RemoveBinary alone.
  explicit DLZTTree(IUpdateModule* module);
  DLZTTree(IUpdateModule* module, DLParameters* params, DownloadLocation* location);
  virtual ~DLZTTree();
  DLZTTree(const DLZTTree&) = delete;
  DLZTTree& operator=(const DLZTTree&) = delete;

  static const char16_t* LeafStatusText(int status);

  int LeafStatus(const WString& relPath);
  // The lock protocol of the file "1": 1 another downloader holds its byte lock, 3 the file has
  // gone, 5 it says "done" (and is removed), -3 anything else.
  int LeafGetDownloadStatus(const WString& relPath);
  // 0 full or four-field line, -3 short line (exeFileSize -1), -1 no usable line.
  int LeafGetInfoFromVersionFile(const WString& relPath, int32_t& version, int64_t& exeFileSize);
  // The version, or -1; with fullOnly only a full line counts.
  int32_t LeafGetVersionFromVersionFile(const WString& relPath, int fullOnly);
  // 0 with exeFile, 1 no file, 2 no line, 3 neither a full nor a four-field line.
  int LeafGetExeFileNameFromVersionFile(const WString& relPath, WString& exeFile);
  int LeafMakeBackup(const WString& relPath);
  int LeafRestoreBackup(const WString& relPath);
  int RemoveLeaf(const WString& relPath, int backup);
  // Removes the files of a leaf that are no information files. 0, minus the failed deletes, or 1
  // when the directory cannot be listed.
  int RemoveBinary(const WString& root, const WString& relPath);
  // Copies the leaf's information files from the unpacked information tree. 0 or -1.
  int CopyParLeaf(const WString& relPath);
  // Clears what a run that ended in the middle of this leaf left: a removal's leftover, and a
  // backup that takes the place of the half-made leaf again.
  void RecoverInterruptedLeaf(const WString& relPath);
  int DownloadUncompressLeaf(const WString& relPath, int64_t exeFileSize, WString& exeFile);

  // Brings the repository from its version to the server's: the information files of every leaf,
  // the packages of leaves that hold one and are out of date, versionTree.txt last. 0, 99 when
  // the repository is up to date, -1 when a step failed, -10 when the server's version is unknown.
  int UpdateTree();
  // Fetches the server's versionTree.txt (two tries) and compares it with the repository's.
  // secondLook 1 fetches it under another name and removes it afterwards. 0 or -1.
  int IsTreeOutOfDate(int& treeOutOfDate, int secondLook);
  // Fetches and unpacks the information files of all leaves into the temp area. 0 or -1.
  int GetParTree();
  // The commit of a run: versionTree.txt into the root. 0 or -1.
  int CopyVersionTreeFile();
  // The commit of a run that keeps the archives too: the sum of the four copy results.
  int CopyAllAdminTreeFiles();
  // Removes the leaves that the server's backtrack.txt names. 0, -1 without a readable file, -2
  // when the removal of the last named leaf failed.
  int RemoveInvalidLeaves();
  // The connection test: fetches versionTree.txt once. The transfer tool's exit code, or -1.
  int DownloadCheck(DLParameters& params);
  // True when a file can be created in the repository's root.
  bool checkFileAccess();

  const WString& Root() const { return m_root; }
  int32_t RemoteVersion() const { return m_remoteVersion; }
  void ClearForceReload() { m_forceReload = 0; }
  void SetParTreeDir(const WString& dir) { m_parTreeDir = dir; }

 private:
  WString LeafDir(const WString& relPath) const;
  bool Refused(const WString& relPath, const char16_t* operation) const;
  int DnlFlags() const;
  bool KeepFailedDownload() const;
  void LogError(const WString& text);
  void LogText(const WString& text);
  // The leaf loop's work for a line the server has not withdrawn, by the leaf's state; a fatal
  // failure sets retAll to -1, which ends the loop.
  void UpdateLeaf(const VersionLineInfo& line, int status, int& retAll);
  void ReplaceCompleteLeaf(const VersionLineInfo& line, int& retAll);
  // 0, or -1 when a leaf of information files alone could not be removed.
  int WithdrawLeaf(const VersionLineInfo& line, int status);

  WString m_root;
  WString m_parTreeDir;
  WString m_remoteServer;
  WString m_remoteLocation;
  WString m_tempDir;
  int32_t versionAllExeFileSize = -1;
  int32_t m_parFileSize = -1;
  int32_t m_remoteVersion = -1;
  IUpdateModule* m_module = nullptr;
  std::unique_ptr<DLUtils> m_utils;
  DLParameters* m_params = nullptr;
  DownloadLocation* m_location = nullptr;
  uint8_t m_forceReload = 0;
  std::unique_ptr<UM_Util> m_log;
};

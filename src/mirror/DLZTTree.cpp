#include "mirror/DLZTTree.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "foundation/TextLineReader.h"
#include "foundation/UM_Util.h"
#include "foundation/VersionLine.h"
#include "mirror/DLParameters.h"
#include "mirror/DLUtils.h"
#include "mirror/DownloadLocation.h"
#include "mirror/LeafPath.h"
#include "platform/FileIo.h"
#include "platform/FileLock.h"
#include "platform/Thread.h"

namespace {

const char16_t kCheckLog[] = u"UM_Checknew.log";
const char16_t kLogHeading[] = u"UpdateDownload";

// The name a leaf's directory has while it is being removed.
const char16_t kTrashSuffix[] = u"~del";

bool Exists(const WString& path) {
  return platform::FileExists(path) || platform::DirectoryExists(path);
}

// The first line of a leaf's versionLeaf.txt; false when the file cannot be read or is empty.
enum class LineRead { kOk, kNoFile, kNoLine };
LineRead ReadFirstLine(const WString& file, WString& line) {
  TextLineReader reader;
  if (!reader.Open(file)) return LineRead::kNoFile;
  return reader.ReadLine(line, versionline::kVersionLineChars) ? LineRead::kOk : LineRead::kNoLine;
}

}  // namespace

DLZTTree::DLZTTree(IUpdateModule* module) : m_module(module), m_log(std::make_unique<UM_Util>(module)) {}

DLZTTree::DLZTTree(IUpdateModule* module, DLParameters* params, DownloadLocation* location)
    : m_root(location->GetTreeDir()),
      m_remoteServer(params->GetRemoteServer()),
      m_remoteLocation(params->GetRemoteLocation()),
      m_tempDir(location->GetTempDir()),
      m_module(module),
      m_utils(std::make_unique<DLUtils>(module, params, location->GetTempDir())),
      m_params(params),
      m_location(location),
      m_log(std::make_unique<UM_Util>(module)) {}

DLZTTree::~DLZTTree() = default;

const char16_t* DLZTTree::LeafStatusText(int status) {
  switch (status) {
    case kDownloadFailed:
      return u"download failed";
    case kNonexistent:
      return u"nonexistent";
    case kEmpty:
      return u"empty";
    case kInfoFilesOnly:
      return u"information files only";
    case kDownloading:
      return u"is downloading";
    case kComplete:
      return u"complete";
    case kLink:
      return u"link";
    default:
      return u"unknown";
  }
}

WString DLZTTree::LeafDir(const WString& relPath) const {
  return WFormat(u"%s/%s", m_root.c_str(), relPath.c_str());
}

// A path that would lead outside the repository is refused before anything is touched.
bool DLZTTree::Refused(const WString& relPath, const char16_t* operation) const {
  if (leafpath::IsSafe(relPath)) return false;
  TRACE(1, u"DLZTTree::%s()\t: >>>ERROR: refusing leaf path '%s' (it leaves the repository)\n", operation,
        relPath.c_str());
  return true;
}

int DLZTTree::DnlFlags() const {
  return m_params ? m_params->GetDnlFlags() : 0;
}

bool DLZTTree::KeepFailedDownload() const {
  return m_params && m_params->GetKeepFailedDownload();
}

void DLZTTree::LogError(const WString& text) {
  m_log->umStartLogging(kCheckLog, kLogHeading);
  m_log->umLogError(text);
  m_log->umEndLogging();
}

int DLZTTree::LeafStatus(const WString& relPath) {
  if (Refused(relPath, u"LeafStatus")) return kNonexistent;
  const WString dir = LeafDir(relPath);
  if (!platform::DirectoryExists(dir)) return kNonexistent;
  if (DnlFlags() == 1) return kComplete;
  if (platform::FileExists(dir + u"/1")) {
    int lock = LeafGetDownloadStatus(relPath);
    if (lock == kDownloadDone) {
      platform::RemoveFilePath(dir + u"/1");
    } else if (lock != kLockFileGone) {
      return lock;
    }
  }
  if (platform::FileExists(dir + u"/0")) return kInfoFilesOnly;
  if (platform::FileExists(dir + u"/ztlink.par")) return kLink;
  if (platform::FileExists(dir + u"/zt.par")) return kComplete;
  return kEmpty;
}

int DLZTTree::LeafGetDownloadStatus(const WString& relPath) {
  if (Refused(relPath, u"LeafGetDownloadStatus")) return kDownloadFailed;
  const WString lockPath = LeafDir(relPath) + u"/1";
  platform::ByteLockFile file;
  switch (file.Open(lockPath)) {
    case platform::ByteLockFile::OpenResult::kMissing:
      return kLockFileGone;
    case platform::ByteLockFile::OpenResult::kFailed:
      TRACE(1, u"Open of lock file failed for leaf: %s. Unexpected errno: %d\n", relPath.c_str(),
            static_cast<int>(file.LastError()));
      return kDownloadFailed;
    case platform::ByteLockFile::OpenResult::kOpened:
      break;
  }
  switch (file.TryLock()) {
    case platform::ByteLockFile::LockResult::kRefused:
      return kDownloading;
    case platform::ByteLockFile::LockResult::kFailed:
      TRACE(1, u"Lock of lock file failed for leaf: %s. Unexpected errno: %d\n", relPath.c_str(),
            static_cast<int>(file.LastError()));
      return kDownloadFailed;
    case platform::ByteLockFile::LockResult::kLocked:
      break;
  }
  // A finished downloader leaves the four wide characters "done" (UTF-16LE, no mark).
  static const char kDone[8] = {'d', 0, 'o', 0, 'n', 0, 'e', 0};
  char head[8];
  size_t got = 0;
  bool done = file.ReadFromStart(head, sizeof head, got) && got == sizeof head && std::memcmp(head, kDone, 8) == 0;
  file.Close();
  if (!done) return kDownloadFailed;
  platform::RemoveFilePath(lockPath);
  return kDownloadDone;
}

int DLZTTree::LeafGetInfoFromVersionFile(const WString& relPath, int32_t& version, int64_t& exeFileSize) {
  if (Refused(relPath, u"LeafGetInfoFromVersionFile")) return -1;
  WString line;
  if (ReadFirstLine(LeafDir(relPath) + u"/versionLeaf.txt", line) != LineRead::kOk) return -1;
  VersionLineInfo info;
  int rc = versionline::Parse(line, info);
  if (rc != versionline::kFull && rc != versionline::kShort && rc != versionline::kFourFields) return -1;
  version = info.leafVersion;
  exeFileSize = rc == versionline::kShort ? -1 : info.leafExeFileSize;
  return rc == versionline::kShort ? -3 : 0;
}

int32_t DLZTTree::LeafGetVersionFromVersionFile(const WString& relPath, int fullOnly) {
  if (Refused(relPath, u"LeafGetVersionFromVersionFile")) return -1;
  WString line;
  if (ReadFirstLine(LeafDir(relPath) + u"/versionLeaf.txt", line) != LineRead::kOk) return -1;
  VersionLineInfo info;
  int rc = versionline::Parse(line, info);
  if (rc == versionline::kFull) return info.leafVersion;
  if (rc == versionline::kShort && fullOnly == 0) return info.leafVersion;
  return -1;
}

int DLZTTree::LeafGetExeFileNameFromVersionFile(const WString& relPath, WString& exeFile) {
  if (Refused(relPath, u"LeafGetExeFileNameFromVersionFile")) return 1;
  WString line;
  switch (ReadFirstLine(LeafDir(relPath) + u"/versionLeaf.txt", line)) {
    case LineRead::kNoFile:
      return 1;
    case LineRead::kNoLine:
      return 2;
    case LineRead::kOk:
      break;
  }
  VersionLineInfo info;
  int rc = versionline::Parse(line, info);
  if (rc != versionline::kFull && rc != versionline::kFourFields) return 3;
  exeFile = info.leafExeFile;
  return 0;
}

int DLZTTree::LeafMakeBackup(const WString& relPath) {
  if (Refused(relPath, u"LeafMakeBackup")) return -1;
  const WString backup = WFormat(u"%s/%s%s", m_root.c_str(), relPath.c_str(), u"_bk");
  if (Exists(backup) && RemoveLeaf(relPath, 1) != 0) return -1;
  if (!platform::RenamePath(LeafDir(relPath), backup)) {
    TRACE(1, u"Backup of leaf %s failed: %s (errno=%d)\n", relPath.c_str(), backup.c_str(),
          static_cast<int>(platform::GetLastErrorCode()));
    return -1;
  }
  return 0;
}

int DLZTTree::LeafRestoreBackup(const WString& relPath) {
  if (Refused(relPath, u"LeafRestoreBackup")) return -1;
  const WString backup = WFormat(u"%s/%s%s", m_root.c_str(), relPath.c_str(), u"_bk");
  if (!platform::RenamePath(backup, LeafDir(relPath))) {
    TRACE(1, u"Restoring backup of leaf %s failed: %s (errno=%d)\n", relPath.c_str(), backup.c_str(),
          static_cast<int>(platform::GetLastErrorCode()));
    return -1;
  }
  return 0;
}

int DLZTTree::RemoveLeaf(const WString& relPath, int backup) {
  if (Refused(relPath, u"RemoveLeaf")) return -1;
  const WString path = backup ? WFormat(u"%s/%s%s", m_root.c_str(), relPath.c_str(), u"_bk") : LeafDir(relPath);
  DLUtils fallback(m_module, m_params);
  DLUtils& utils = m_utils ? *m_utils : fallback;
  // The directory leaves its place in one step before it is emptied: a removal cut off by a crash
  // leaves a leftover under the trash name, never half a leaf that would read as another state.
  const WString trash = LeafDir(relPath) + kTrashSuffix;
  WString target = path;
  if (platform::DirectoryExists(path) && utils.RemoveCompleteDirectory(trash) == 0 && platform::RenamePath(path, trash))
    target = trash;
  if (utils.RemoveCompleteDirectory(target) != 0) {
    TRACE(1, u"Removal of leaf '%s' %s failed.\n", relPath.c_str(), backup ? u"(backup)" : u"");
    return -1;
  }
  return 0;
}

void DLZTTree::RecoverInterruptedLeaf(const WString& relPath) {
  if (Refused(relPath, u"RecoverInterruptedLeaf")) return;
  const WString trash = LeafDir(relPath) + kTrashSuffix;
  if (Exists(trash)) m_utils->RemoveCompleteDirectory(trash);
  // Within a run every backup is resolved before the next leaf; one that is still there was left
  // by a run that ended in the middle of this leaf, so the leaf beside it may be half-made.
  const WString backup = WFormat(u"%s/%s%s", m_root.c_str(), relPath.c_str(), u"_bk");
  if (!platform::DirectoryExists(backup)) return;
  TRACE(1, u"DLZTTree::RecoverInterruptedLeaf()\t: leaf '%s' restored from the backup of an interrupted run\n",
        relPath.c_str());
  if (RemoveLeaf(relPath, 0) == 0) LeafRestoreBackup(relPath);
}

int DLZTTree::RemoveBinary(const WString& root, const WString& relPath) {
  if (Refused(relPath, u"RemoveBinary")) return 1;
  const WString dir = WFormat(u"%s/%s", root.c_str(), relPath.c_str());
  std::vector<platform::DirEntry> entries;
  if (!platform::ListDirectory(dir, entries)) return 1;
  int result = 0;
  for (const auto& entry : entries) {
    if (entry.isDirectory) continue;
    if (entry.name == u"versionLeaf.txt" || entry.name == u"zt.par" || entry.name == u"0" ||
        entry.name == u"rel_note.txt")
      continue;
    if (!platform::RemoveFilePath(dir + u"/" + entry.name)) --result;
  }
  return result;
}

// The marker "0" comes first and versionLeaf.txt last, each file whole under its name: a copy cut
// off by a crash leaves a leaf without its version, which the next run copies again, and never
// one that reads as complete or as up to date.
int DLZTTree::CopyParLeaf(const WString& relPath) {
  if (Refused(relPath, u"CopyParLeaf")) return -1;
  const WString from = WFormat(u"%s/%s", m_parTreeDir.c_str(), relPath.c_str());
  const WString to = LeafDir(relPath);
  std::vector<platform::DirEntry> entries;
  int status = 0;
  if (!platform::ListDirectory(from, entries) || m_utils->CreateDirectoryTree(to, status) != 0) {
    LogError(WFormat(u"Copying directory '%s' failed. ERROR!", from.c_str()));
    return -1;
  }
  auto rank = [](const platform::DirEntry& e) { return e.name == u"0" ? 0 : e.name == u"versionLeaf.txt" ? 2 : 1; };
  std::stable_sort(entries.begin(), entries.end(),
                   [&](const platform::DirEntry& a, const platform::DirEntry& b) { return rank(a) < rank(b); });
  for (const auto& entry : entries) {
    const WString source = from + u"/" + entry.name;
    const WString target = to + u"/" + entry.name;
    int rc = entry.isDirectory ? m_utils->CopyCompleteDirectory(source, target)
                               : m_utils->CopyFilePriv(source, target, DLUtils::kBinaryMode);
    if (rc != 0) return -1;
  }
  return 0;
}

int DLZTTree::DownloadUncompressLeaf(const WString& relPathIn, int64_t exeFileSize, WString& exeFile) {
  WString relPath = relPathIn;
  DLUtils::ToForwardSlashes(relPath);
  if (Refused(relPath, u"DownloadUncompressLeaf")) return -1;
  if (exeFile.empty()) {
    if (LeafGetExeFileNameFromVersionFile(relPath, exeFile) != 0 || exeFile.empty()) {
      LogError(WFormat(u"Cannot retrieve exe file name from versionLeaf.txt in '%s'!", relPath.c_str()));
      exeFile.clear();
      return -1;
    }
  }
  // The package's name comes from a server file as well: it must be a plain file name.
  if (!leafpath::IsSafe(exeFile) || exeFile.find_first_of(u"/\\") != WString::npos) {
    TRACE(1, u"DLZTTree::DownloadUncompressLeaf()\t: >>>ERROR: refusing package name '%s'\n", exeFile.c_str());
    return -1;
  }
  const WString remote = WFormat(u"%s/%s/%s", m_remoteLocation.c_str(), relPath.c_str(), exeFile.c_str());
  const WString local = DnlFlags() != 0 ? WFormat(u"%s/%s/%s", m_root.c_str(), relPath.c_str(), exeFile.c_str())
                                        : WFormat(u"%s/%s", m_root.c_str(), exeFile.c_str());
  if (exeFileSize == -1) {
    int32_t version = 0;
    if (LeafGetInfoFromVersionFile(relPath, version, exeFileSize) == -1) {
      LogError(WFormat(u"Cannot retrieve contents from file '%s/%s'!", LeafDir(relPath).c_str(), u"versionLeaf.txt"));
      return -1;
    }
    if (exeFileSize == -1) {
      LogError(
          WFormat(u"Leaf '%s' is requested to be downloaded.\nBut the format of versionLeaf.txt indicates that the "
                  u"leaf has been already downloaded.!",
                  relPath.c_str()));
    }
  }
  // A size beyond 32 bits cannot be the size of a package: it fails the size test as -1 does.
  int32_t size = exeFileSize < 0 || exeFileSize > INT32_MAX ? -1 : static_cast<int32_t>(exeFileSize);
  if (m_utils->DownloadPlusVerifySize(m_remoteServer, remote, local, size) != 0) {
    if (!KeepFailedDownload()) platform::RemoveFilePath(local);
    LogError(WFormat(u"Verifying download size of '%s' failed!", remote.c_str()));
    return -1;
  }
  if (DnlFlags() == 0) {
    if (m_utils->Uncompress(m_root, exeFile) != 0) {
      if (!KeepFailedDownload()) platform::RemoveFilePath(local);
      LogError(WFormat(u"Uncompressing file '%s' failed!", exeFile.c_str()));
      return -1;
    }
    platform::RemoveFilePath(local);
  }
  return 0;
}

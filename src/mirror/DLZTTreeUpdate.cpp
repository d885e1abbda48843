// The run that brings the repository from its version to the server's. Only information files
// travel for most leaves; packages come over for leaves that hold one and are out of date. The
// copy of versionTree.txt into the root is the run's commit and comes last, so a run that fails
// anywhere leaves the old version behind and the next run goes over every line again.
#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "foundation/TextLineReader.h"
#include "foundation/UM_Util.h"
#include "foundation/VersionLine.h"
#include "mirror/DLParameters.h"
#include "mirror/DLUtils.h"
#include "mirror/DLZTTree.h"
#include "mirror/LeafPath.h"
#include "mirror/TreeFiles.h"
#include "platform/FileIo.h"
#include "platform/SystemInfo.h"
#include "platform/Thread.h"

namespace {

const char16_t kCheckLog[] = u"UM_Checknew.log";
const char16_t kLogHeading[] = u"UpdateDownload";

}  // namespace

void DLZTTree::LogText(const WString& text) {
  m_log->umStartLogging(kCheckLog, kLogHeading);
  m_log->umLogWrite(text, true);
  m_log->umEndLogging();
}

int DLZTTree::IsTreeOutOfDate(int& treeOutOfDate, int secondLook) {
  treeOutOfDate = 0;
  const WString remote = m_remoteLocation + u"/versionTree.txt";
  const WString local =
      secondLook ? WFormat(u"%s/%s_%s", m_tempDir.c_str(), m_params->GetServerTag().c_str(), u"versionTree.txt")
                 : m_tempDir + u"/versionTree.txt";
  bool read = false;
  for (int attempt = 0; attempt < 2 && !read; ++attempt) {
    const bool last = attempt == 1;
    if (last) m_utils->DownloadRepeatWait(remote);
    // A copy left by an earlier run must not stand in for the server's answer: a fetch that fails
    // has to read as a failure, not as the version of last time.
    platform::RemoveFilePath(local);
    int rc = m_utils->Download(m_remoteServer, remote, local, last ? 1 : 2);
    if (rc == -1) {
      if (last) return -1;
      continue;
    }
    m_remoteVersion = treefiles::GetTreeVersion(local);
    treefiles::SpecialFileSizes sizes;
    if (m_remoteVersion < 0 || treefiles::GetSpecialFileSizes(local, m_remoteVersion, sizes) == -1) {
      if (!last) continue;
      TRACE(1,
            u"DLZTTree::IsTreeOutOfDate()\t: Version of remote zen trove tree could not be determined.\n"
            u"\tCheck the name of the download server in the tab Location, a wrong proxy setting, or "
            u"temporary network problems.\n");
      if (secondLook) platform::RemoveFilePath(local);
      return -1;
    }
    versionAllExeFileSize = sizes.versionAllExe;
    m_parFileSize = sizes.ztParTree;
    read = true;
  }
  if (secondLook) platform::RemoveFilePath(local);

  const WString rootFile = m_root + u"/versionTree.txt";
  if (!platform::FileExists(rootFile)) {
    treeOutOfDate = 1;
    return 0;
  }
  int32_t localVersion = treefiles::GetTreeVersion(rootFile);
  if (localVersion < 0) platform::RemoveFilePath(rootFile);
  // A repository newer than the server (a server restored from an old backup) stays as it is.
  treeOutOfDate = localVersion < m_remoteVersion ? 1 : 0;
  TRACE(3, u"DLZTTree::IsTreeOutOfDate()\t: local %d remote %d -> %d\n", localVersion, m_remoteVersion, treeOutOfDate);
  return 0;
}

int DLZTTree::GetParTree() {
  const WString remote = m_remoteLocation + u"/ZT_par_tree.exe";
  if (m_parTreeDir.empty()) m_parTreeDir = m_tempDir + u"/temp_par_tree";
  m_utils->RemoveCompleteDirectory(m_parTreeDir);
  int status = 0;
  if (m_utils->CreateDirectoryPriv(m_parTreeDir, status) != 0) return -1;
  if (m_utils->DownloadPlusVerifySize(m_remoteServer, remote, m_parTreeDir + u"/ZT_par_tree.exe", m_parFileSize) != 0)
    return -1;
  if (m_utils->Uncompress(m_parTreeDir, u"ZT_par_tree.exe") != 0) return -1;
  return 0;
}

int DLZTTree::CopyVersionTreeFile() {
  return m_utils->CopyFilePriv(m_tempDir + u"/versionTree.txt", m_root + u"/versionTree.txt", DLUtils::kTextMode);
}

int DLZTTree::CopyAllAdminTreeFiles() {
  int sum = CopyVersionTreeFile();
  sum += m_utils->CopyFilePriv(m_tempDir + u"/versionAll.txt", m_root + u"/versionAll.txt", DLUtils::kTextMode);
  sum += m_utils->CopyFilePriv(m_tempDir + u"/versionAll.exe", m_root + u"/versionAll.exe", DLUtils::kTextMode);
  sum += m_utils->CopyFilePriv(m_tempDir + u"/temp_par_tree/ZT_par_tree.exe", m_root + u"/ZT_par_tree.exe",
                               DLUtils::kTextMode);
  return sum;
}

int DLZTTree::RemoveInvalidLeaves() {
  const WString local = m_tempDir + u"/backtrack.txt";
  // A file of an earlier run must not be read again when the server has none now.
  platform::RemoveFilePath(local);
  if (m_utils->Download(m_remoteServer, m_remoteLocation + u"/backtrack.txt", local, 2) != 0) return -1;
  TextLineReader reader;
  if (!reader.Open(local)) return -1;
  int result = 0;
  WString line;
  while (reader.ReadLine(line, versionline::kVersionLineChars)) {
    if (!line.empty() && line[0] == u'#') continue;
    WString rel, os;
    if (!treefiles::ParseBacktrackLine(line, rel, os)) {
      TRACE(1, u"DLZTTree::RemoveInvalidLeaves()\t: incomplete line skipped: %s\n", line.c_str());
      continue;
    }
    DLUtils::ToForwardSlashes(rel);
    TRACE(2, u"DLZTTree::RemoveInvalidLeaves()\t: removing leaf %s (%s)\n", rel.c_str(), os.c_str());
    result = RemoveLeaf(rel, 0) == 0 ? 0 : -2;
  }
  return result;
}

int DLZTTree::DownloadCheck(DLParameters& params) {
  const WString remote = params.GetRemoteLocation() + u"/versionTree.txt";
  const WString local = m_tempDir + u"/versionTree.txt";
  platform::RemoveFilePath(local);
  int rc = m_utils->Download(params.GetRemoteServer(), remote, local, 1);
  if (rc != -1) platform::RemoveFilePath(local);
  return rc;
}

bool DLZTTree::checkFileAccess() {
  const WString probe =
      WFormat(u"%s/checkFileAccess.%d", m_root.c_str(), static_cast<int>(platform::CurrentProcessId()));
  if (!platform::WriteWholeFile(probe, "", 0)) {
    TRACE(1, u"DLZTTree::checkFileAccess()\t: cannot create '%s' (errno=%d)\n", probe.c_str(),
          static_cast<int>(platform::GetLastErrorCode()));
    return false;
  }
  platform::RemoveFilePath(probe);
  return true;
}

// The leaf loop's work for a line the server has not withdrawn.
void DLZTTree::UpdateLeaf(const VersionLineInfo& line, int status, int& retAll) {
  const WString& rel = line.leafRelPath;
  switch (status) {
    case kDownloadFailed:
      RemoveLeaf(rel, 0);
      CopyParLeaf(rel);
      return;
    case kNonexistent:
    case kEmpty:
      // A failure shows as a leaf in the same state in the next run.
      CopyParLeaf(rel);
      return;
    case kInfoFilesOnly:
    case kLink: {
      int32_t local = LeafGetVersionFromVersionFile(rel, 1);
      if (local >= line.leafVersion) return;
      if (LeafMakeBackup(rel) != 0) {
        retAll = -1;
        return;
      }
      if (CopyParLeaf(rel) == 0) {
        RemoveLeaf(rel, 1);
      } else {
        LeafRestoreBackup(rel);
        retAll = -1;
      }
      return;
    }
    case kComplete:
      if (LeafGetVersionFromVersionFile(rel, 0) >= line.leafVersion) return;
      ReplaceCompleteLeaf(line, retAll);
      return;
    default:
      // Another process is fetching the leaf's package: it is neither compared nor replaced.
      return;
  }
}

// A leaf that holds its package is brought to the new version with its package, so that what was
// downloaded stays downloaded; the backup takes its place again when that fails.
void DLZTTree::ReplaceCompleteLeaf(const VersionLineInfo& line, int& retAll) {
  const WString& rel = line.leafRelPath;
  if (LeafMakeBackup(rel) != 0) {
    retAll = -1;
    return;
  }
  int rc = -1;
  if (line.leafType == u'F' || line.leafType == u'C') {
    const WString dir = LeafDir(rel);
    int status = 0;
    if (m_utils->CreateDirectoryTree(dir, status) == 0) {
      const WString lockFile = dir + u"/1";
      if (!platform::WriteWholeFile(lockFile, "", 0))
        TRACE(1, u"Shared open of lock file failed for leaf: %s. Errno: %d\n", rel.c_str(),
              static_cast<int>(platform::GetLastErrorCode()));
      WString exeFile = line.leafExeFile;
      rc = DownloadUncompressLeaf(rel, line.leafExeFileSize, exeFile);
      if (rc == 0) platform::RemoveFilePath(lockFile);
    }
  } else if (line.leafType == u'L') {
    RemoveLeaf(rel, 0);
    rc = CopyParLeaf(rel);
  }
  if (rc != 0) {
    RemoveLeaf(rel, 0);
    LeafRestoreBackup(rel);
    retAll = -1;
    return;
  }
  RemoveLeaf(rel, 1);
  TRACE(2, u"DLZTTree::UpdateTree()\t: repository '%s' on computer '%s': leaf '%s' replaced\n", m_root.c_str(),
        platform::ComputerName().c_str(), rel.c_str());
  if (rel == u"UpdateContentFiles")
    TRACE(2,
          u"DLZTTree::UpdateTree()\t: loading information of leaf UpdateContentFiles is not added to the "
          u"table UpdateRepository\n");
}

// A withdrawn leaf goes only when it holds information files alone; a leaf with downloaded
// binaries is never thrown away by a withdrawal (backtrack.txt is the means for that).
int DLZTTree::WithdrawLeaf(const VersionLineInfo& line, int status) {
  if (DnlFlags() == 1 || status == kNonexistent) return 0;
  if (status == kInfoFilesOnly) return RemoveLeaf(line.leafRelPath, 0) == 0 ? 0 : -1;
  TRACE(2,
        u"DLZTTree::UpdateTree()\t: %s: do not remove old leaf from repository (due to existing donwloaded "
        u"binaries)\n",
        line.leafRelPath.c_str());
  return 0;
}

int DLZTTree::UpdateTree() {
  int outOfDate = 0;
  if (IsTreeOutOfDate(outOfDate, 0) == -1) {
    const WString text = u"Tree version on Download server could not be determined!";
    LogError(text);
    m_log->umEventLogWrite(1, text);
    return kRemoteVersionUnknown;
  }
  if (!outOfDate) {
    m_log->umStartLogging(kCheckLog, kLogHeading);
    m_log->umLogWrite(u"Updating is not necessary!", true);
    m_log->umEndLogging();
    return kNotNecessary;
  }
  const WString allExe = m_tempDir + u"/versionAll.exe";
  const WString allTxt = m_tempDir + u"/versionAll.txt";
  platform::RemoveFilePath(allExe);
  platform::RemoveFilePath(allTxt);
  if (m_utils->DownloadPlusVerifySize(m_remoteServer, m_remoteLocation + u"/versionAll.exe", allExe,
                                      versionAllExeFileSize) != 0)
    return -1;
  if (m_utils->Uncompress(m_tempDir, u"versionAll.exe") != 0) return -1;
  if (GetParTree() != 0) return -1;

  TextLineReader reader;
  if (!reader.Open(allTxt)) {
    LogError(WFormat(u"Open of file '%s' failed!", allTxt.c_str()));
    m_utils->RemoveCompleteDirectory(m_parTreeDir);
    return -1;
  }
  int retAll = 0;
  WString text;
  while (retAll != -1 && reader.ReadLine(text, versionline::kVersionLineChars)) {
    VersionLineInfo line;
    int rc = versionline::ParseStrict(text, line);
    if (rc == versionline::kComment) continue;
    if (rc != versionline::kFull) {
      TRACE(1, u"File '%s' is corrupt! Errornous line: %s\n", allTxt.c_str(), text.c_str());
      retAll = -1;
      break;
    }
    DLUtils::ToForwardSlashes(line.leafRelPath);
    // A path from the server that would leave the repository is refused here, once, and the
    // run goes on with the next line; every leaf operation refuses it again on its own.
    if (!leafpath::IsSafe(line.leafRelPath)) {
      TRACE(1, u"DLZTTree::UpdateTree()\t: >>>ERROR: line for leaf '%s' refused (the path leaves the repository)\n",
            line.leafRelPath.c_str());
      continue;
    }
    RecoverInterruptedLeaf(line.leafRelPath);
    int status = LeafStatus(line.leafRelPath);
    TRACE(3, u"DLZTTree::UpdateTree()\t: %s version %d: %s\n", line.leafRelPath.c_str(), line.leafVersion,
          LeafStatusText(status));
    if (line.leafVersion == -1) {
      if (WithdrawLeaf(line, status) != 0) retAll = -1;
      continue;
    }
    UpdateLeaf(line, status, retAll);
  }
  if (retAll < 0) {
    m_utils->RemoveCompleteDirectory(m_parTreeDir);
    return retAll;
  }
  RemoveInvalidLeaves();
  if (DnlFlags() != 0)
    CopyAllAdminTreeFiles();
  else
    CopyVersionTreeFile();
  m_utils->RemoveCompleteDirectory(m_parTreeDir);
  return 0;
}

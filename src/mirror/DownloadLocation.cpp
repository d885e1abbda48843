#include "mirror/DownloadLocation.h"

#include "foundation/CDebug.h"
#include "mirror/DLParameters.h"
#include "mirror/DLUtils.h"

namespace {

// The repository always lies on a local directory here; a share would be mapped by the system.
bool IsRemoteLocation(const WString&) {
  return false;
}

}  // namespace

DownloadLocation::DownloadLocation() = default;

DownloadLocation::~DownloadLocation() = default;

int DownloadLocation::BuildStructure(DLParameters& params) {
  DLUtils utils(nullptr, &params);
  m_workDir = params.GetScriptLocation();
  if (IsRemoteLocation(params.GetDownloadLocation())) {
    TRACE(1, u"DownloadLocation::BuildStructure()\t: remote location for the repository not supported\n");
    return -3;
  }
  DLUtils::ToForwardSlashes(m_workDir);
  m_tempDir = m_workDir + u"/temp";
  m_treeDir = params.GetDownloadLocation();
  for (const WString* dir : {&m_workDir, &m_tempDir, &m_treeDir}) {
    int status = 0;
    if (utils.CreateDirectoryTree(*dir, status) == -1) {
      TRACE(1, u"DownloadLocation::BuildStructure()\t: cannot create '%s' (status %d)\n", dir->c_str(), status);
      return -1;
    }
    if (status == 777) {
      TRACE(1, u"DownloadLocation::BuildStructure()\t: rights of '%s' could not be opened\n", dir->c_str());
      return -2;
    }
  }
  TRACE(3, u"DownloadLocation::BuildStructure()\t: work=%s temp=%s tree=%s\n", m_workDir.c_str(), m_tempDir.c_str(),
        m_treeDir.c_str());
  return 0;
}

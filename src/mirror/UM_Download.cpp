#include "mirror/UM_Download.h"

#include "base/WFormat.h"
#include "config/UM_Config.h"
#include "foundation/CDebug.h"
#include "foundation/UM_Util.h"
#include "mirror/DLParameters.h"
#include "mirror/DLWebServer.h"
#include "mirror/DLZTTree.h"
#include "mirror/DownloadLocation.h"

namespace {

const char16_t kCheckLog[] = u"UM_Checknew.log";
const char16_t kLogHeading[] = u"UpdateDownload";

}  // namespace

UM_Download::UM_Download() : m_params(std::make_unique<DLParameters>()) {}

UM_Download::UM_Download(IUpdateModule* module, const WString& workdir)
    : m_params(std::make_unique<DLParameters>()), m_module(module) {
  m_params->SetScriptLocation(workdir);
  m_params->SetDownloadLocation(workdir);
}

UM_Download::UM_Download(IUpdateModule* module, const WString& workdir, const webParam* params)
    : UM_Download(module, workdir) {
  FillDLParams(params);
}

UM_Download::~UM_Download() = default;

void UM_Download::CheckLog(const WString& text, bool error) {
  UM_Util log(m_module);
  log.umStartLogging(kCheckLog, kLogHeading);
  if (error)
    log.umLogError(text);
  else
    log.umLogWrite(text, true);
  log.umEndLogging();
}

void UM_Download::FillDLParams(const webParam* params) {
  if (!params) return;
  m_params->SetRemoteServer(params->server);
  m_params->SetRemoteLocation(params->path);
  m_params->SetProtocol(params->protocol);
  m_params->SetProxyMode(params->proxyMode);
  switch (params->proxyMode) {
    case 0:  // No PROXY is used
    case 1:  // Take PROXY SETTINGS from OS
      m_params->SetProxyServer(WString());
      m_params->SetProxyUser(WString());
      m_params->SetProxyPassword(WString());
      m_params->SetProxyPort(0);
      break;
    case 2:
      m_params->SetProxyServer(params->proxyServer);
      m_params->SetProxyPort(static_cast<int32_t>(params->port));
      m_params->SetProxyUser(params->proxyUser);
      m_params->SetProxyPassword(params->proxyPasswd);
      break;
    default:
      TRACE(1, u"UM_Download::FillDLParams()\t: Wrong webParam->proxyMode %d\n", static_cast<int>(params->proxyMode));
      break;
  }
}

void UM_Download::Prepare(const webParam* params, const WString& localRepository, const WString& logFile,
                          int dnlFlags) {
  FillDLParams(params);
  m_params->SetDownloadLocation(localRepository);
  m_params->SetLogFile(logFile);
  m_params->SetDnlFlags(dnlFlags);
}

bool UM_Download::MakeLocation() {
  m_location = std::make_unique<DownloadLocation>();
  int rc = m_location->BuildStructure(*m_params);
  if (rc == 0) return true;
  TRACE(1, u"UM_Download\t: building the download location failed (%d)\n", rc);
  m_location.reset();
  return false;
}

int UM_Download::updateTree(const webParam* params, const WString& localRepository, const WString& logFile,
                            int dnlFlags) {
  Prepare(params, localRepository, logFile, dnlFlags);
  return updateTree();
}

int UM_Download::updateTree() {
  if (!MakeLocation()) return 1;
  m_webServer = std::make_unique<DLWebServer>(m_module, m_params.get(), m_location.get());
  DLZTTree tree(m_module, m_params.get(), m_location.get());
  CheckLog(u"Update of information files and check on updatability is started.", false);
  if (!tree.checkFileAccess()) {
    CheckLog(WFormat(u"ERROR: No permissions for accessing local repository '%s'!", tree.Root().c_str()), true);
    m_webServer.reset();
    m_location.reset();
    return 1;
  }
  int ret = 0;
  for (int pass = 1; pass <= 2; ++pass) {
    ret = DoInfoFilesUpdate(tree);
    if (ret < 0) {
      CheckLog(WFormat(u"ERROR: Update of repository info files failed (ret=%d)!", ret), true);
      if (ret == DLZTTree::kRemoteVersionUnknown) break;
    }
    if (ret == DLZTTree::kNotNecessary) {
      ret = 0;
      break;
    }
    if (pass == 2) break;
    // The second look: a tree that changed on the server while this run went on, or the server's
    // announcement that its tree is being rewritten, is worth exactly one more pass. This look
    // reads ZenTrove/Stop.txt, the announcement of the whole tree; the pass itself waits on the
    // Stop.txt beside versionTree.txt.
    int outOfDate = 0, active = 0;
    if (tree.IsTreeOutOfDate(outOfDate, 1) != 0 || m_webServer->IsUpdateActive(u"ZenTrove", active) != 0) break;
    if (!outOfDate && !active) break;
    tree.ClearForceReload();
    UM_Util log(m_module);
    log.umStartLogging(kCheckLog, kLogHeading);
    log.umLogWrite(u"The whole update of information files and check on updatability is restarted.", false);
    log.umEndLogging();
  }
  CheckLog(WFormat(u"Update of information files and check on updatability is finished (return code=%d).", ret), false);
  m_webServer.reset();
  m_location.reset();
  return ret;
}

int UM_Download::DoInfoFilesUpdate(DLZTTree& tree) {
  int active = 0;
  if (m_webServer->IsUpdateActive(WString(), active) == -1) return -1;
  // After two hours the update goes ahead whatever the server says.
  if (active) m_webServer->WaitOnUpdateFinished(WString());
  int ret = tree.UpdateTree();
  if (ret < 0 && ret != DLZTTree::kRemoteVersionUnknown) {
    UM_Util(m_module).umEventLogWrite(1,
                                      WFormat(u"ERROR: Updating info files of local repository failed (ret=%d)!", ret));
    return -1;
  }
  return ret;
}

int UM_Download::download(const webParam* params, const WString& localRepository, const WString& compPath,
                          const WString& logFile, int dnlFlags) {
  Prepare(params, localRepository, logFile, dnlFlags);
  return download(compPath);
}

int UM_Download::download(const WString& compPath) {
  // The temp area must exist for the transfer's output files: the location is built first.
  if (!m_location && !MakeLocation()) return 1;
  int rc;
  {
    DLZTTree tree(m_module, m_params.get(), m_location.get());
    WString exeFile;
    rc = tree.DownloadUncompressLeaf(compPath, -1, exeFile);
  }
  if (rc != 0)
    UM_Util(m_module).umEventLogWrite(
        1, WFormat(u"ERROR: Downloading component '%s' failed (ret=%d)!", compPath.c_str(), rc));
  m_location.reset();
  return rc;
}

int UM_Download::deleteBinary(const WString& localRepository, const WString& compPath) {
  DLZTTree tree(m_module);
  return tree.RemoveBinary(localRepository, compPath);
}

int UM_Download::checkWebConnection(const webParam* params) {
  FillDLParams(params);
  if (m_params->CheckRemoteParameters() != 0) return kParametersMissing;
  DownloadLocation location;
  switch (location.BuildStructure(*m_params)) {
    case -1:
      return kLocationFailed;
    case -2:
      return kRightsFailed;
    case -3:
      return kRemoteRepository;
    default:
      break;
  }
  DLZTTree tree(m_module, m_params.get(), &location);
  int rc = tree.DownloadCheck(*m_params);
  if (rc == -1) return kCheckFailed;
  return rc > 0 ? kTransferFailed : kConnectionOk;
}

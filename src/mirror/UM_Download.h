// The single door to the repository mirror. The check calls updateTree and checkWebConnection, the
// jobs call download and deleteBinary, and the exported functions of the module file reach the
// same four for outside programs. Each call turns the web settings into transfer parameters,
// builds the three directories and runs the tree's operation.
#pragma once

#include <cstdint>
#include <memory>

#include "base/WString.h"

class DLParameters;
class DLWebServer;
class DLZTTree;
class DownloadLocation;
class IUpdateModule;
struct webParam;

class UM_Download {
 public:
  // checkWebConnection results.
  static constexpr int kConnectionOk = 0;
  static constexpr int kParametersMissing = 1;
  static constexpr int kRightsFailed = 2;
  static constexpr int kRemoteRepository = 3;
  static constexpr int kLocationFailed = 4;
  static constexpr int kCheckFailed = 5;
  static constexpr int kTransferFailed = 6;

  // No module: the directories stay at the current directory.
  UM_Download();
  // The working and the download location become `workdir`.
  UM_Download(IUpdateModule* module, const WString& workdir);
  UM_Download(IUpdateModule* module, const WString& workdir, const webParam* params);
  virtual ~UM_Download();
  UM_Download(const UM_Download&) = delete;
  UM_Download& operator=(const UM_Download&) = delete;

  int updateTree(const webParam* params, const WString& localRepository, const WString& logFile, int dnlFlags);
  // 0, 1 when the directories or the rights failed, -1 or -10 as the tree update.
  int updateTree();
  int download(const webParam* params, const WString& localRepository, const WString& compPath, const WString& logFile,
               int dnlFlags);
  // Fetches and unpacks one leaf's package, named by its versionLeaf.txt. 0, 1 or -1.
  int download(const WString& compPath);
  int deleteBinary(const WString& localRepository, const WString& compPath);
  // 0 to 6, see the constants above.
  int checkWebConnection(const webParam* params);
  void FillDLParams(const webParam* params);
  // One pass: waits while the server's tree is being updated, then updates. 0, 99, -1 or -10.
  int DoInfoFilesUpdate(DLZTTree& tree);

  // For hosts and tests that keep the transfer tool outside the current directory.
  DLParameters& Params() { return *m_params; }

 private:
  void Prepare(const webParam* params, const WString& localRepository, const WString& logFile, int dnlFlags);
  // Makes m_location and builds its directories; false (and no location) when that fails.
  bool MakeLocation();
  void CheckLog(const WString& text, bool error);

  std::unique_ptr<DownloadLocation> m_location;
  std::unique_ptr<DLParameters> m_params;
  std::unique_ptr<DLWebServer> m_webServer;
  IUpdateModule* m_module = nullptr;
};

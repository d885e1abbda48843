// The three local directories of the mirror: the working directory, its temp directory and the
// repository tree, made to exist with open rights.
#pragma once

#include "base/WString.h"

class DLParameters;

class DownloadLocation {
 public:
  DownloadLocation();
  virtual ~DownloadLocation();

  // 0 all three are there, -1 one could not be created, -2 one was created but its rights could
  // not be opened, -3 a repository on a remote location (never, in this system).
  int BuildStructure(DLParameters& params);

  const WString& GetTempDir() const { return m_tempDir; }
  const WString& GetWorkDir() const { return m_workDir; }
  const WString& GetTreeDir() const { return m_treeDir; }

 private:
  WString m_tempDir;
  WString m_workDir;
  WString m_treeDir;
};

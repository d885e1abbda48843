// Another process that holds the byte lock of a leaf's lock file: the test child, started with
// "lock PATH hang", reports "locked" once the lock is taken and keeps it until it is ended.
#pragma once

#include <string>

#include "base/WString.h"
#include "platform/FileIo.h"
#include "platform/Process.h"
#include "platform/Thread.h"

// Starts the holder and waits (5 s at most) for its report; true once it holds the lock.
inline bool StartLockHolder(const WString& child, const WString& lockFile, const WString& reportFile,
                            platform::ChildProcess& holder) {
  platform::ProcessOptions options;
  options.commandLine = u"\"" + child + u"\" lock \"" + lockFile + u"\" hang";
  options.stdoutFile = reportFile;
  if (!holder.Start(options)) return false;
  std::string said;
  for (int i = 0; i < 200 && said.empty(); ++i) {
    platform::SleepRealMicros(25000);
    platform::ReadWholeFile(reportFile, said);
  }
  return said == "locked\n";
}

// Ends the holder; its lock goes with it.
inline void StopLockHolder(platform::ChildProcess& holder) {
  holder.Terminate(0);
  holder.WaitRealMicros(platform::kInfiniteMicros);
}

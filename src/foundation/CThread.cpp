#include "foundation/CThread.h"

#include "foundation/CDebug.h"
#include "platform/Clock.h"

CThread::~CThread() {
  TRACE(5, u"\n~CThread - name=\"%s\" (bTerminateThread=%d)", Name(), static_cast<int>(m_bTerminateThread));
  platform::SleepMs(10);
  if (m_bTerminateThread && !WaitForThread(5000)) KillThread(0);
  // A thread that may not be killed is waited for: it runs in the object that owns this wrapper.
  Join();
}

void CThread::Join() {
  if (!m_thread.HasHandle()) return;
  if (m_thread.IsActive() && !m_thread.WaitRealMicros(0))
    TRACE(1, u"\n\n## WARNING! WAITING FOR THREAD %d (\"%s\") TO END  ###\n", static_cast<int>(m_thread.Id()), Name());
  m_thread.Join();
}

int CThread::CreateThreadObject(platform::ThreadEntry entry, void* argument, int priority, bool createSuspended,
                                size_t stackSize) {
  if (!m_thread.Start(entry, argument, priority, createSuspended, stackSize)) {
    m_lastError = m_thread.LastError();
    return 0;
  }
  platform::YieldThread();
  return 1;
}

bool CThread::WaitForThread(uint32_t ms) {
  if (!m_thread.HasHandle()) return true;
  bool queryFailed = false;
  bool active = m_thread.IsActive(&queryFailed);
  if (queryFailed) {
    m_lastError = m_thread.LastError();
    return true;
  }
  if (!active) return true;
  return platform::WaitFor(m_thread, ms);
}

int CThread::KillThread(uint32_t exitCode) {
  if (!m_thread.HasHandle()) return 1;
  int result = 1;
  if (m_thread.IsActive() && !m_thread.WaitRealMicros(0)) {
    if (!m_thread.Terminate(exitCode)) {
      m_lastError = m_thread.LastError();
      result = 0;
    } else {
      TRACE(1, u"\n\n## WARNING! RUNNING THREAD %d (\"%s\") TERMINATED!  ###\n", static_cast<int>(m_thread.Id()),
            Name());
    }
  }
  // The kill only starts the end of the thread (on POSIX it leaves at its next wait); whatever
  // it gave, the thread is seen to its end before its handle goes.
  Join();
  return result;
}

int CThread::SetThreadName(const char16_t* name, const char16_t* suffix) {
  if (!name || !*name) return 0;
  WString n(name);
  if (n.size() > 62) n.resize(62);
  WString s(suffix ? suffix : u"");
  if (n.size() + s.size() < 64) n += s;
  m_name = n;
  return 1;
}

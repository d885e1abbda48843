#include "module/CTaskSerializer.h"

#include "foundation/CDebug.h"
#include "platform/Clock.h"

namespace {
constexpr uint32_t kRecordBytes = 8;  // one record pointer in the ring
constexpr int kWorkerPriority = 2;    // the highest below time-critical
}  // namespace

CTaskSerializer::CTaskSerializer(uint32_t levels, uint32_t recordsPerLevel) : m_levelCount(levels) {
  m_worker.m_bTerminateThread = 1;
  m_levels.resize(levels);
  for (auto& level : m_levels) {
    level.queue = new TaskQueue;
    level.queue->buffer.assign(static_cast<size_t>(recordsPerLevel) * kRecordBytes, 0);
    level.active = 1;
    level.enabled = 0;
  }
  TRACE(4, u"\nCTaskSerializer     : Enable all Tasks");
  for (auto& level : m_levels) level.enabled = 1;
}

CTaskSerializer::~CTaskSerializer() noexcept(false) {
  TerminateSerialization();
  try {
    CCriticalSectionLock lock(m_lock);
    for (uint32_t i = 0; i < m_levels.size(); ++i) {
      TaskQueue* q = m_levels[i].queue;
      while (q && q->bytesHeld >= kRecordBytes) {
        uint64_t raw = 0;
        for (uint32_t b = 0; b < kRecordBytes; ++b) {
          raw |= static_cast<uint64_t>(q->buffer[q->readPos]) << (8 * b);
          q->readPos = (q->readPos + 1) % q->buffer.size();
        }
        q->bytesHeld -= kRecordBytes;
        DestroyRecord(reinterpret_cast<TaskRecord*>(static_cast<uintptr_t>(raw)));
      }
      delete q;
      m_levels[i].queue = nullptr;
    }
    m_levels.clear();
  } catch (...) {
  }
  TRACE(4, u"\n\nCTaskSerializer     : Class destroyed!");
}

int CTaskSerializer::StartSerialization() {
  TRACE(4, u"\nCTaskSerializer     : StartSerialization!");
  if (m_worker.HasHandle() && m_worker.IsActive()) return 1;
  m_wake.Reset();
  m_terminate = 0;
  int rc = m_worker.CreateThreadObject(&CTaskSerializer::WorkerEntry, this, kWorkerPriority, false, m_stackSize);
  platform::SleepMs(100);
  m_worker.SetThreadName(g_Debug.ApplicationName(), u"_TaskHndlr");
  return rc;
}

int CTaskSerializer::TerminateSerialization() {
  TRACE(4, u"\nCTaskSerializer     : TerminateSerialization!");
  int result = 1;
  if (m_worker.HasHandle() && m_worker.IsActive()) {
    TRACE(4, u"\nCTaskSerializer     : Disable all Tasks");
    for (auto& level : m_levels) level.enabled = 0;
    RemoveAllTasks();
    m_terminate = 1;
    m_wake.Set();
    platform::SleepMs(100);
    result = m_worker.WaitForThread(2000) ? 1 : 0;
    // The worker has been told to end. When the module's clock runs fast the 2000 ms are gone at
    // once, so it gets up to 2 s of real time more before it is ended by force: a forced end can
    // leave a lock of the process held (on Windows the heap's). Either way it is joined before
    // this returns, since the module object it runs in may be freed next.
    if (result || m_worker.WaitRealMs(2000))
      m_worker.Join();
    else
      m_worker.KillThread(0);
  }
  TRACE(5, u"\nCTaskSerializer     :   terminated");
  return result;
}

void CTaskSerializer::RemoveAllTasks() {
  CCriticalSectionLock lock(m_lock);
  for (auto& level : m_levels) {
    if (!level.queue) continue;
    level.queue->bytesHeld = level.queue->readPos = level.queue->writePos = 0;
  }
  TRACE(4, u"\nCTaskSerializer     : All pending tasks removed from queues!");
}

bool CTaskSerializer::PostTask(TaskRecord* record, uint32_t level) {
  CCriticalSectionLock lock(m_lock);
  if (level >= m_levels.size() || !m_levels[level].queue || !m_levels[level].enabled) return false;
  TaskQueue* q = m_levels[level].queue;
  if (q->bytesHeld + kRecordBytes > q->buffer.size()) return false;
  uint64_t raw = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(record));
  for (uint32_t b = 0; b < kRecordBytes; ++b) {
    q->buffer[q->writePos] = static_cast<uint8_t>(raw >> (8 * b));
    q->writePos = (q->writePos + 1) % q->buffer.size();
  }
  q->bytesHeld += kRecordBytes;
  m_wake.Set();
  return true;
}

unsigned CTaskSerializer::WorkerEntry(void* self) {
  static_cast<CTaskSerializer*>(self)->WorkerLoop();
  return 0;
}

TaskRecord* CTaskSerializer::TakeRecord(uint32_t& takenLevel) {
  CCriticalSectionLock lock(m_lock);
  for (uint32_t i = static_cast<uint32_t>(m_levels.size()); i-- > 0;) {
    TaskQueue* q = m_levels[i].queue;
    if (!m_levels[i].active || !q || q->bytesHeld < kRecordBytes) continue;
    uint64_t raw = 0;
    for (uint32_t b = 0; b < kRecordBytes; ++b) {
      raw |= static_cast<uint64_t>(q->buffer[q->readPos]) << (8 * b);
      q->readPos = (q->readPos + 1) % q->buffer.size();
    }
    q->bytesHeld -= kRecordBytes;
    takenLevel = i;
    return reinterpret_cast<TaskRecord*>(static_cast<uintptr_t>(raw));
  }
  m_wake.Reset();
  return nullptr;
}

void CTaskSerializer::DestroyRecord(TaskRecord* record) {
  delete record;
}

void CTaskSerializer::WorkerLoop() {
  TRACE(4, u"\nCTaskSerializer     : START THREAD TaskHandler()!");
  OnWorkerStart();
  for (;;) {
    TRACE(4, u"\nCTaskSerializer     : Waiting on task queue for next task ...");
    m_wake.Wait(platform::kInfinite);
    TRACE(4, u"\nCTaskSerializer     : Task queue signalled");
    if (m_terminate) break;
    uint32_t level = 0;
    TaskRecord* record = TakeRecord(level);
    if (record) {
      TRACE(5, u"\nCTaskSerializer     : Process Task (Record 0x%X) at level %d",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(record)), static_cast<int>(level));
      try {
        OnTaskExecution(&record->message, level);
        TRACE(5, u"\nCTaskSerializer     : Task (Record 0x%X) at level %d completed",
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(record)), static_cast<int>(level));
      }
      EM_CATCH_THREAD_CANCEL catch (...) {
        TRACE(1, u"\n\nCTaskSerializer     : ## EXCEPTION in OnTaskExecution()! ##");
      }
      try {
        if (record->externalEvent && record->externalEvent->IsValid()) {
          if (record->externalEvent->Set())
            TRACE(5, u"\nCTaskSerializer     : External event object 0x%X set!",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(record->externalEvent)));
          else
            TRACE(1, u"\nCTaskSerializer     : ERROR setting external event object 0x%X!",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(record->externalEvent)));
        }
      }
      EM_CATCH_THREAD_CANCEL catch (...) {
        TRACE(1, u"\n\nCTaskSerializer     : ## EXCEPTION setting external event object 0x%X!",
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(record->externalEvent)));
      }
      try {
        DestroyRecord(record);
      }
      EM_CATCH_THREAD_CANCEL catch (...) {
        TRACE(1, u"\n\nCTaskSerializer     : ## EXCEPTION deleting task data record!");
      }
      CCriticalSectionLock lock(m_lock);
      if (level < m_levels.size() && m_levels[level].queue && m_levels[level].queue->bytesHeld == 0)
        OnQueueEmpty(level);
      // The wake event stays signalled while records wait, so the next wait ends at once.
    }
    if (m_terminate) break;
  }
  OnWorkerExit();
  TRACE(4, u"\nCTaskSerializer     : EXIT THREAD TaskHandler()!");
}

// One worker thread per object that takes task records from prioritised queues and runs them one
// at a time. Each level has a ring of record pointers (8 bytes each); the highest level is served
// first.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "foundation/CCriticalSection.h"
#include "foundation/CEvent.h"
#include "foundation/CThread.h"
#include "foundation/RequestMessage.h"

// A task: an optional event to set when it is done, and the message to execute.
struct TaskRecord {
  CEvent* externalEvent = nullptr;
  RequestMessage message;
};

class CTaskSerializer {
 public:
  explicit CTaskSerializer(uint32_t levels = 1, uint32_t recordsPerLevel = 20);
  virtual ~CTaskSerializer() noexcept(false);
  CTaskSerializer(const CTaskSerializer&) = delete;
  CTaskSerializer& operator=(const CTaskSerializer&) = delete;

  virtual void OnTaskExecution(RequestMessage* message, uint32_t level) = 0;
  virtual void OnQueueEmpty(uint32_t /*level*/) {}
  virtual void OnReservedTask() {}
  virtual void OnWorkerStart() {}
  virtual void OnWorkerExit() {}

  int StartSerialization();
  int TerminateSerialization();
  void RemoveAllTasks();
  // Puts a record (taken over) at the end of a level's ring and wakes the worker. False when the
  // level does not exist, is disabled, or its ring is full; the record then stays the caller's.
  bool PostTask(TaskRecord* record, uint32_t level);

  bool WorkerRunning() { return m_worker.HasHandle() && m_worker.IsActive(); }

 private:
  struct TaskQueue {
    uint32_t bytesHeld = 0;
    uint32_t readPos = 0;
    uint32_t writePos = 0;
    std::vector<uint8_t> buffer;
  };
  struct LevelEntry {
    TaskQueue* queue = nullptr;
    uint32_t enabled = 0;
    uint32_t active = 1;
  };

  static unsigned WorkerEntry(void* self);
  void WorkerLoop();
  TaskRecord* TakeRecord(uint32_t& level);
  static void DestroyRecord(TaskRecord* record);

  std::vector<LevelEntry> m_levels;
  CCriticalSection m_lock;
  CEvent m_wake;
  CThread m_worker;
  size_t m_stackSize = 0;
  uint32_t m_levelCount;
  std::atomic<uint32_t> m_terminate{0};  // set before the wake event, read by the worker
};

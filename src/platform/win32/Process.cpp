#include "platform/Process.h"

#include <vector>

#include "platform/win32/Win32Util.h"

namespace platform {

// --- child processes -----------------------------------------------------------------------------

struct ChildProcess::Impl {
  HANDLE process = nullptr;
  ~Impl() {
    if (process) CloseHandle(process);
  }
};

namespace {

// Appending and nothing else: every write of the child lands at the file's end, whoever else
// writes there. Inheritable, as the child's standard handles must be.
HANDLE OpenForAppend(const WString& path) {
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  // Shared for deletion too: the caller removes the files once the child has ended, and the
  // system may close the child's copies a moment after its end is signalled.
  return CreateFileW(W32(path), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &sa,
                     OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// The handles a child inherits, restricted to its two output files; without the attribute list
// (a system that refuses it) every inheritable handle of the host would go along.
class InheritList {
 public:
  InheritList(HANDLE* handles, DWORD count) {
    if (count == 0) return;
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    m_buffer.resize(size);
    auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_buffer.data());
    if (!InitializeProcThreadAttributeList(list, 1, 0, &size)) return;
    if (!UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles, count * sizeof(HANDLE), nullptr,
                                   nullptr)) {
      DeleteProcThreadAttributeList(list);
      return;
    }
    m_list = list;
  }
  ~InheritList() {
    if (m_list) DeleteProcThreadAttributeList(m_list);
  }
  InheritList(const InheritList&) = delete;
  InheritList& operator=(const InheritList&) = delete;
  LPPROC_THREAD_ATTRIBUTE_LIST Get() const { return m_list; }

 private:
  std::vector<char> m_buffer;
  LPPROC_THREAD_ATTRIBUTE_LIST m_list = nullptr;
};

}  // namespace

ChildProcess::ChildProcess() = default;
ChildProcess::~ChildProcess() = default;  // closes the handle; a running child runs on

bool ChildProcess::Start(const ProcessOptions& options) {
  m_impl.reset();
  m_startError = 0;
  HANDLE out = nullptr;
  HANDLE err = nullptr;
  auto closeFiles = [&] {
    if (out) CloseHandle(out);
    if (err) CloseHandle(err);
  };
  if (!options.stdoutFile.empty() && (out = OpenForAppend(options.stdoutFile)) == INVALID_HANDLE_VALUE) {
    m_startError = GetLastError();
    out = nullptr;
    return false;
  }
  if (!options.stderrFile.empty() && (err = OpenForAppend(options.stderrFile)) == INVALID_HANDLE_VALUE) {
    m_startError = GetLastError();
    err = nullptr;
    closeFiles();
    return false;
  }
  HANDLE inherit[2];
  DWORD count = 0;
  if (out) inherit[count++] = out;
  if (err) inherit[count++] = err;
  InheritList list(inherit, count);

  STARTUPINFOEXW si{};
  si.StartupInfo.cb = list.Get() ? sizeof si : sizeof si.StartupInfo;
  si.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  si.StartupInfo.hStdInput = nullptr;
  si.StartupInfo.hStdOutput = out;
  si.StartupInfo.hStdError = err;
  si.lpAttributeList = list.Get();
  DWORD flags = CREATE_NO_WINDOW | (list.Get() ? EXTENDED_STARTUPINFO_PRESENT : 0);

  std::vector<wchar_t> commandLine(options.commandLine.begin(), options.commandLine.end());
  commandLine.push_back(0);
  const WString directory = Backslashes(options.currentDirectory);
  PROCESS_INFORMATION pi{};
  BOOL ok = CreateProcessW(options.application.empty() ? nullptr : W32(options.application), commandLine.data(),
                           nullptr, nullptr, count > 0, flags, nullptr, directory.empty() ? nullptr : W32(directory),
                           &si.StartupInfo, &pi);
  DWORD error = GetLastError();
  closeFiles();
  if (!ok) {
    m_startError = error ? error : ERROR_GEN_FAILURE;
    return false;
  }
  CloseHandle(pi.hThread);
  m_impl = std::make_unique<Impl>();
  m_impl->process = pi.hProcess;
  return true;
}

bool ChildProcess::WaitRealMicros(uint64_t micros) {
  if (!m_impl) return true;
  if (micros == kInfiniteMicros) return WaitForSingleObject(m_impl->process, INFINITE) == WAIT_OBJECT_0;
  uint64_t ms = (micros + 999) / 1000;
  for (;;) {
    const DWORD step = ms >= INFINITE ? INFINITE - 1 : static_cast<DWORD>(ms);
    if (WaitForSingleObject(m_impl->process, step) == WAIT_OBJECT_0) return true;
    ms -= step;
    if (ms == 0) return false;
  }
}

bool ChildProcess::ExitCode(uint32_t& code) {
  if (!m_impl) return false;
  DWORD c = 0;
  if (!GetExitCodeProcess(m_impl->process, &c)) return false;
  code = c;
  return true;
}

bool ChildProcess::Terminate(uint32_t exitCode) {
  // A child that has ended keeps its own exit code (some systems let TerminateProcess succeed on
  // it all the same).
  if (!m_impl || WaitForSingleObject(m_impl->process, 0) == WAIT_OBJECT_0) return false;
  if (!TerminateProcess(m_impl->process, exitCode)) return false;
  // The end is asynchronous; the bound only guards against a process stuck in a driver.
  WaitForSingleObject(m_impl->process, 5000);
  return true;
}

}  // namespace platform

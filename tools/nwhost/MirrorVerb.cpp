// nwhost mirror: one call of the module file's repository functions as an outside program makes
// it. No module object is made: the exports build their own mirror, whose working location is the
// process's current directory and whose check log lies in the module's work directory below
// TempRoot. The settings travel in the flat WebParamRecord. While the call runs, the check log is
// followed and its new lines are echoed, so that a long update shows its progress.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "hostlib/ModuleHost.h"
#include "module/ModuleExports.h"
#include "nwhost/HostOptions.h"
#include "nwhost/Verbs.h"
#include "platform/CodePage.h"
#include "platform/DynamicLibrary.h"
#include "platform/FileIo.h"

namespace fs = std::filesystem;

namespace {

constexpr char16_t kCheckLogName[] = u"UM_Checknew.log";
// How often the check log is looked at while the call runs.
constexpr auto kFollowInterval = std::chrono::milliseconds(200);

int Usage() {
  std::fprintf(stderr,
               "usage: nwhost mirror [--module PATH] [--registry FILE] [options] update\n"
               "       nwhost mirror [--module PATH] [--registry FILE] [options] download LEAF\n"
               "       nwhost mirror [--module PATH] [--registry FILE] [options] delete-binary LEAF\n"
               "       nwhost mirror [--module PATH] [--registry FILE] [options] check-connection\n"
               "options:\n"
               "  --server HOST[:PORT]  --path PATH  --https\n"
               "  --proxy-mode 0|1|2  --proxy HOST:PORT  --proxy-user U  --proxy-password P\n"
               "  --repository DIR  --workdir DIR  --tool PATH  --dnl-flags N  --quiet\n");
  return 2;
}

// nwhost's own failures before the call: one line, exit status 2, no result line.
int Refuse(const std::string& message) {
  std::fprintf(stderr, "nwhost mirror: %s\n", message.c_str());
  return 2;
}

// A whole decimal number within [least, most]; an optional leading '-'.
bool ParseNumber(const std::string& text, long long least, long long most, long long& value) {
  size_t i = text.size() > 0 && text[0] == '-' ? 1 : 0;
  if (i == text.size() || text.size() - i > 10) return false;
  long long number = 0;
  for (; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    number = number * 10 + (text[i] - '0');
  }
  if (text[0] == '-') number = -number;
  if (number < least || number > most) return false;
  value = number;
  return true;
}

struct MirrorOptions {
  WString module;
  std::string registry;
  std::string server;
  std::string path;
  bool https = false;
  int proxyMode = 0;
  std::string proxyServer;
  int proxyPort = 0;
  std::string proxyUser;
  std::string proxyPassword;
  std::string repository;
  bool hasRepository = false;
  std::string workdir;
  std::string tool;
  int dnlFlags = 0;
  bool quiet = false;
  std::string action;
  std::string leaf;
};

// False for a usage error.
bool ParseArguments(int argc, char** argv, MirrorOptions& o) {
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) break;
    if (arg == "--https") {
      o.https = true;
      continue;
    }
    if (arg == "--quiet") {
      o.quiet = true;
      continue;
    }
    if (i + 1 >= argc) return false;
    const std::string value = argv[++i];
    long long number = 0;
    if (arg == "--module") {
      o.module = WFromUtf8(value);
    } else if (arg == "--registry") {
      o.registry = value;
    } else if (arg == "--server") {
      o.server = value;
    } else if (arg == "--path") {
      o.path = value;
    } else if (arg == "--proxy-mode") {
      if (!ParseNumber(value, 0, 2, number)) return false;
      o.proxyMode = static_cast<int>(number);
    } else if (arg == "--proxy") {
      // The port follows the last colon, so that a bracketed IPv6 address keeps its own colons.
      const size_t colon = value.rfind(':');
      if (colon == std::string::npos || colon == 0) return false;
      if (!ParseNumber(value.substr(colon + 1), 1, 65535, number)) return false;
      o.proxyServer = value.substr(0, colon);
      o.proxyPort = static_cast<int>(number);
    } else if (arg == "--proxy-user") {
      o.proxyUser = value;
    } else if (arg == "--proxy-password") {
      o.proxyPassword = value;
    } else if (arg == "--repository") {
      o.repository = value;
      o.hasRepository = true;
    } else if (arg == "--workdir") {
      if (value.empty()) return false;
      o.workdir = value;
    } else if (arg == "--tool") {
      if (value.empty()) return false;
      o.tool = value;
    } else if (arg == "--dnl-flags") {
      if (!ParseNumber(value, INT32_MIN, INT32_MAX, number)) return false;
      o.dnlFlags = static_cast<int>(number);
    } else {
      return false;
    }
  }
  if (i >= argc) return false;
  o.action = argv[i++];
  const bool takesLeaf = o.action == "download" || o.action == "delete-binary";
  if (!takesLeaf && o.action != "update" && o.action != "check-connection") return false;
  if (takesLeaf) {
    if (i >= argc) return false;
    o.leaf = argv[i++];
  }
  if (i != argc) return false;
  return o.action == "check-connection" || o.hasRepository;
}

// Copies a text into a record field: cut to 259 units so that the terminator stays in the field.
template <size_t N>
void CopyField(char16_t (&field)[N], const std::string& utf8) {
  const WString text = WFromUtf8(utf8);
  const size_t length = text.size() < N - 1 ? text.size() : N - 1;
  text.copy(field, length);
  field[length] = u'\0';
}

WebParamRecord MakeRecord(const MirrorOptions& o) {
  WebParamRecord record{};
  record.proxyMode = static_cast<uint8_t>(o.proxyMode);
  CopyField(record.server, o.server);
  CopyField(record.path, o.path);
  record.protocol = o.https ? 1 : 0;
  record.proxyPort = o.proxyPort;
  CopyField(record.proxyServer, o.proxyServer);
  CopyField(record.proxyUser, o.proxyUser);
  CopyField(record.proxyPassword, o.proxyPassword);
  return record;
}

// A path named on the command line, made absolute against the directory nwhost started in, for
// the paths that must keep their meaning once nwhost has changed into the working location.
std::string Anchored(const std::string& utf8) {
  if (utf8.empty()) return utf8;
  std::error_code ec;
  const fs::path absolute = fs::absolute(fs::path(WFromUtf8(utf8)), ec);
  return ec ? utf8 : WToUtf8(absolute.u16string());
}

// Follows the check log from the size it had before the call and prints every complete line as
// it arrives; what remains of a last unterminated line is printed when the call has returned.
class CheckLogFollower {
 public:
  CheckLogFollower(WString path, bool echo) : m_path(std::move(path)), m_echo(echo) {
    uint64_t length = 0;
    if (platform::FileLength(m_path, length)) m_offset = length;
  }
  ~CheckLogFollower() { Finish(); }
  CheckLogFollower(const CheckLogFollower&) = delete;
  CheckLogFollower& operator=(const CheckLogFollower&) = delete;

  void Start() {
    if (m_echo) m_thread = std::thread([this] { Run(); });
  }

  void Finish() {
    if (!m_thread.joinable()) return;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
    ReadNew();
    if (!m_pending.empty()) PrintLine(m_pending);
    m_pending.clear();
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
      lock.unlock();
      ReadNew();
      lock.lock();
      m_wake.wait_for(lock, kFollowInterval, [this] { return m_stop; });
    }
  }

  // Reads what was appended since the last look and prints the complete lines of it.
  void ReadNew() {
    uint64_t length = 0;
    if (!platform::FileLength(m_path, length)) return;
    if (length < m_offset) {
      // The log was begun anew during the call: all of it is new.
      m_offset = 0;
      m_pending.clear();
    }
    if (length == m_offset) return;
    std::ifstream in(fs::path(m_path), std::ios::binary);
    if (!in) return;
    in.seekg(static_cast<std::streamoff>(m_offset));
    std::string bytes(static_cast<size_t>(length - m_offset), '\0');
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<size_t>(in.gcount()));
    m_offset += bytes.size();
    m_pending += bytes;
    size_t start = 0;
    for (size_t end; (end = m_pending.find('\n', start)) != std::string::npos; start = end + 1)
      PrintLine(m_pending.substr(start, end - start));
    m_pending.erase(0, start);
  }

  // The log is written in the ANSI code page with CR LF; the echo is UTF-8 with plain line feeds.
  static void PrintLine(std::string line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    WString wide;
    platform::CodePageToWide(platform::kCodePageAnsi, line.data(), line.size(), wide);
    std::fputs((WToUtf8(wide) + "\n").c_str(), stdout);
    std::fflush(stdout);
  }

  const WString m_path;
  const bool m_echo;
  uint64_t m_offset = 0;
  std::string m_pending;
  std::thread m_thread;
  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_stop = false;
};

}  // namespace

int NwhostMirrorVerb(int argc, char** argv) {
  MirrorOptions o;
  o.module = DefaultModulePath();
  if (!ParseArguments(argc, argv, o)) return Usage();

  // Relative paths name places seen from where nwhost started, also after the change of directory.
  if (!o.workdir.empty()) {
    o.module = WFromUtf8(Anchored(WToUtf8(o.module)));
    o.registry = Anchored(o.registry);
    o.tool = Anchored(o.tool);
    if (o.hasRepository) o.repository = Anchored(o.repository);
  }

  std::string error;
  if (!o.registry.empty() && !PrepareRegistry(o.registry, error)) return Refuse(error);

  WString loadError;
  void* library = platform::LoadModuleFile(o.module, loadError);
  if (!library) return Refuse("cannot load " + WToUtf8(o.module) + ": " + WToUtf8(loadError));
  const char* exportName = o.action == "update"          ? "updateTree"
                           : o.action == "download"      ? "download"
                           : o.action == "delete-binary" ? "deleteBinary"
                                                         : "checkWebConnection";
  void* entry = platform::FindModuleSymbol(library, exportName);
  if (!entry) return Refuse(WToUtf8(o.module) + " has no export " + exportName);

  if (!o.workdir.empty()) {
    std::error_code ec;
    const fs::path dir(WFromUtf8(o.workdir));
    fs::create_directories(dir, ec);
    if (!ec) fs::current_path(dir, ec);
    if (ec) return Refuse("cannot use " + o.workdir + " as the working location: " + ec.message());
  }
  // Removing a leaf's files runs no transfer.
  if (o.action != "delete-binary" &&
      !ProvideTransferTool(CurrentDirectoryText(), "the working location", o.tool, error))
    return Refuse(error);

  // The same directory the module's mirror finds without a module object: <TempRoot>/EM_MENDER.
  const WString checkLog = UM_Util(nullptr).umGetLogDir() + kSep + kCheckLogName;
  const WebParamRecord record = MakeRecord(o);
  const WString repository = WFromUtf8(o.repository);
  const WString leaf = WFromUtf8(o.leaf);
  const WString logFile;

  CheckLogFollower follower(checkLog, !o.quiet);
  follower.Start();
  int result = -1;
  if (o.action == "update") {
    result = reinterpret_cast<EM_UpdateTreeFn>(entry)(&record, repository.c_str(), logFile.c_str(), o.dnlFlags);
  } else if (o.action == "download") {
    result =
        reinterpret_cast<EM_DownloadFn>(entry)(&record, repository.c_str(), leaf.c_str(), logFile.c_str(), o.dnlFlags);
  } else if (o.action == "delete-binary") {
    result = reinterpret_cast<EM_DeleteBinaryFn>(entry)(repository.c_str(), leaf.c_str());
  } else {
    result = reinterpret_cast<EM_CheckWebConnectionFn>(entry)(&record);
  }
  follower.Finish();
  std::printf("result: %d\n", result);
  std::fflush(stdout);
  // The module file stays loaded: the process ends here, and a thread the call may have left
  // behind must not find its code gone. The shell sees the low 8 bits of a negative result.
  return result & 0xFF;
}

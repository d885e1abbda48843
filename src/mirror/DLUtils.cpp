#include "mirror/DLUtils.h"

#include <string>
#include <vector>

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "foundation/CEvent.h"
#include "foundation/IUpdateModule.h"
#include "foundation/TextLineReader.h"
#include "foundation/UM_Util.h"
#include "mirror/DLParameters.h"
#include "platform/Archive.h"
#include "platform/Clock.h"
#include "platform/CodePage.h"
#include "platform/FileIo.h"
#include "platform/FileTree.h"
#include "platform/Process.h"

namespace {

const char16_t kCheckLog[] = u"UM_Checknew.log";
const char16_t kLogHeading[] = u"UpdateDownload";
constexpr size_t kKeyLineChars = 255;

WString DefaultTempDir() {
#ifdef _WIN32
  return u"C:\\tmp";
#else
  return u"/tmp";
#endif
}

bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\v' || c == u'\f';
}

// A line counts for `key` when it begins with it, is longer than the key plus one character, and
// has "=" right behind it.
bool LineHasKey(const WString& line, const WString& key) {
  return line.size() > key.size() + 1 && line.compare(0, key.size(), key) == 0 && line[key.size()] == u'=';
}

bool IsFileSystemRoot(const WString& path) {
  WString p = path;
  while (p.size() > 1 && (p.back() == u'/' || p.back() == u'\\')) p.pop_back();
  if (p.empty() || p == u"/" || p == u"\\") return true;
  return p.size() == 2 && p[1] == u':';
}

}  // namespace

DLUtils::DLUtils() : DLUtils(nullptr, nullptr, DefaultTempDir()) {}

DLUtils::DLUtils(IUpdateModule* module) : DLUtils(module, nullptr, DefaultTempDir()) {}

DLUtils::DLUtils(IUpdateModule* module, DLParameters* params) : DLUtils(module, params, DefaultTempDir()) {}

DLUtils::DLUtils(IUpdateModule* module, DLParameters* params, const WString& tempDir)
    : m_uniqueId(platform::LocalClockSeconds()),
      m_tempDir(tempDir),
      m_module(module),
      m_log(std::make_unique<UM_Util>(module)),
      m_params(params) {
  TRACE(3, u"DLUtils::DLUtils()\t: tempDir=%s id=%lu\n", m_tempDir.c_str(), static_cast<unsigned long>(m_uniqueId));
}

DLUtils::~DLUtils() = default;

const char16_t* DLUtils::TransferToolName() {
#ifdef _WIN32
  return u"FileDownLoad.exe";
#else
  return u"FileDownLoad";
#endif
}

WString DLUtils::ServerTag() const {
  return m_params ? m_params->GetServerTag() : WString();
}

void DLUtils::StartLog() {
  m_log->umStartLogging(kCheckLog, kLogHeading);
}

void DLUtils::EndLog() {
  m_log->umEndLogging();
}

// "<temp>/<step>_<tag>_<id>.txt" and "<temp>/<step>err_<tag>_<id>.txt", removed before the step.
DLUtils::OutputFiles DLUtils::MakeOutputFiles(const char16_t* step) const {
  WString tag = ServerTag();
  OutputFiles files;
  files.out = WFormat(u"%s/%s_%s_%ld.txt", m_tempDir.c_str(), step, tag.c_str(), static_cast<long>(m_uniqueId));
  files.err = WFormat(u"%s/%serr_%s_%ld.txt", m_tempDir.c_str(), step, tag.c_str(), static_cast<long>(m_uniqueId));
  RemoveOutputFiles(files);
  return files;
}

void DLUtils::RemoveOutputFiles(const OutputFiles& files) {
  platform::RemoveFilePath(files.out);
  platform::RemoveFilePath(files.err);
}

void DLUtils::WriteTextFile(const WString& path, const WString& text) {
  std::string bytes;
  platform::WideToCodePage(platform::kCodePageAnsi, text, bytes);
  platform::WriteWholeFile(path, bytes.data(), bytes.size());
}

// --- commands --------------------------------------------------------------------------------

int DLUtils::CallCmdAsync(const WString& cmd, const WString& currDir, const WString& outFile, const WString& errFile,
                          uint32_t timeoutSecs) {
  return RunCommand(WString(), cmd, cmd, currDir, outFile, errFile, timeoutSecs);
}

int DLUtils::RunCommand(const WString& application, const WString& cmd, const WString& traceCmd, const WString& currDir,
                        const WString& outFile, const WString& errFile, uint32_t timeoutSecs) {
  TRACE(3, u"DLUtils::CallCmdAsync()\t: cmd=%s dir=%s\n", traceCmd.c_str(), currDir.c_str());
  platform::ProcessOptions options;
  options.application = application;
  options.commandLine = cmd;
  options.currentDirectory = currDir;
  options.stdoutFile = outFile;
  options.stderrFile = errFile;
  platform::ChildProcess child;
  if (!child.Start(options)) {
    TRACE(1, u"DLUtils::CallCmdAsync()\t: >>>ERROR: cannot start '%s' (error %lu)\n", traceCmd.c_str(),
          static_cast<unsigned long>(child.StartError()));
    return -1;
  }
  uint64_t elapsedMs = 0;
  uint32_t exitCode = 0;
  bool finished = false;
  for (;;) {
    bool ended = platform::WaitFor(child, 1000);
    exitCode = 0;
    if (!child.ExitCode(exitCode)) break;
    if (ended) break;
    if (elapsedMs > static_cast<uint64_t>(timeoutSecs) * 1000) {
      TRACE(1, u"DLUtils::CallCmdAsync()\t: Timeout occurred\n");
      child.Terminate(0);
      finished = true;
    }
    elapsedMs += 1000;
    if (finished) break;
  }
  // A shutdown is looked at once, after the command has ended: it never cuts a running transfer
  // short; the time limit is what bounds a tool that hangs.
  if (m_module && m_module->GetSwitchShutDownFlag() == 1) {
    TRACE(1, u"DLUtils::CallCmdAsync()\t: QV Agent is shutting down - terminate running command...\n");
    child.Terminate(0);
  }
  TRACE(3, u"DLUtils::CallCmdAsync()\t: exit code %lu\n", static_cast<unsigned long>(exitCode));
  return static_cast<int>(exitCode);
}

// A transfer tool that was killed (a crash of the agent, the end of the 180 s) leaves its
// "<local>.part<pid>" beside the target. The next transfer of the same file clears them, so a
// package fetched into the repository's root leaves nothing behind after a crash.
void DLUtils::RemoveCutOffTransfers(const WString& localFile) {
  WString path = localFile;
  ToForwardSlashes(path);
  const size_t slash = path.rfind(u'/');
  const WString dir = slash == WString::npos ? WString(u".") : path.substr(0, slash);
  const WString prefix = (slash == WString::npos ? path : path.substr(slash + 1)) + u".part";
  std::vector<platform::DirEntry> entries;
  if (!platform::ListDirectory(dir, entries)) return;
  for (const auto& entry : entries) {
    if (entry.isDirectory || entry.name.size() <= prefix.size() || entry.name.compare(0, prefix.size(), prefix) != 0)
      continue;
    const WString digits = entry.name.substr(prefix.size());
    if (digits.find_first_not_of(u"0123456789") != WString::npos) continue;
    TRACE(2, u"DLUtils::Download()\t: removing '%s' of a cut-off transfer\n", entry.name.c_str());
    platform::RemoveFilePath(dir + u"/" + entry.name);
  }
}

int DLUtils::Download(const WString& remoteServer, const WString& remoteFile, const WString& localFile, int logMode) {
  // The tool runs with the working location as its own directory; the process's current
  // directory is never changed, since other threads work beside this one.
  WString workDir = m_params ? m_params->GetWorkingLocation() : platform::CurrentDirectory();
  if (workDir.empty() || !platform::DirectoryExists(workDir)) {
    TRACE(1, u"DLUtils::Download()\t: >>>ERROR: working location '%s' not accessible\n", workDir.c_str());
    return -1;
  }
  RemoveCutOffTransfers(localFile);
  WString outFile = WFormat(u"%s/download_%lu.txt", m_tempDir.c_str(), static_cast<unsigned long>(m_uniqueId));
  WString errFile = WFormat(u"%s/downloaderr_%lu.txt", m_tempDir.c_str(), static_cast<unsigned long>(m_uniqueId));
  platform::RemoveFilePath(outFile);
  platform::RemoveFilePath(errFile);

  WString verbosity = g_Debug.IsActive() ? u"-v -d" : u"";
  WString secure = (m_params && m_params->GetWebProtocol() == u"https") ? u"-e" : u"";
  WString proxyUser, proxyPassword, proxyServer, portText, proxyMode;
  if (m_params) {
    proxyUser = m_params->GetProxyUser();
    proxyPassword = m_params->GetProxyPassword();
    proxyServer = m_params->GetProxyServer();
    if (!proxyServer.empty() && m_params->GetProxyPort() > 0) portText = WFormat(u":%d", m_params->GetProxyPort());
    proxyMode = m_params->GetProxyMode();
  }
  if (proxyMode.empty()) proxyMode = u"NO_PROXY";

  if (logMode != 2) {
    StartLog();
    m_log->umLogWrite(WFormat(u"Downloading '%s' ...", remoteFile.c_str()), true);
    EndLog();
  }

  const char16_t* format = u"%s -m \"%s\" -i \"%s\" -x \"%s%s\" -c \"%s\" -s \"%s\" -r \"%s\" -l \"%s\" %s %s";
  WString cmd = WFormat(format, TransferToolName(), proxyUser.c_str(), proxyPassword.c_str(), proxyServer.c_str(),
                        portText.c_str(), proxyMode.c_str(), remoteServer.c_str(), remoteFile.c_str(),
                        localFile.c_str(), verbosity.c_str(), secure.c_str());
  WString traceCmd = WFormat(format, TransferToolName(), proxyUser.c_str(), proxyPassword.empty() ? u"" : u"****",
                             proxyServer.c_str(), portText.c_str(), proxyMode.c_str(), remoteServer.c_str(),
                             remoteFile.c_str(), localFile.c_str(), verbosity.c_str(), secure.c_str());
  WString tool = workDir + u"/" + TransferToolName();
  int rc = RunCommand(tool, cmd, traceCmd, workDir, outFile, errFile, kTransferLimitSecs);

  if (rc != 0 && logMode != 2) {
    StartLog();
    m_log->umLogError(WFormat(u"Downloading file '%s' failed. (returncode=%d)", remoteFile.c_str(), rc));
    CopyFileToServerLog(errFile, u"Download error information:");
    EndLog();
  }
  platform::RemoveFilePath(outFile);
  platform::RemoveFilePath(errFile);
  TRACE(3, u"DLUtils::Download()\t: '%s' -> '%s' rc=%d\n", remoteFile.c_str(), localFile.c_str(), rc);
  return rc;
}

int DLUtils::DownloadPlusVerify(const WString& remoteServer, const WString& remoteFile, const WString& localFile,
                                const WString& item, int32_t* fileSize, int checkType, int repeatMode) {
  if (fileSize) {
    // Five times the file's size, computed in 32 bits as the space test always has been.
    int32_t neededKb = static_cast<int32_t>(static_cast<uint32_t>(*fileSize) * 5u) / 1024;
    int32_t freeKb = GetFreeSpaceKB(localFile);
    if (freeKb < neededKb && freeKb > 0) {
      TRACE(1, u"DLUtils::DownloadPlusVerify()\t: Not enough space for '%s': %d KB needed, %d KB free\n",
            localFile.c_str(), neededKb, freeKb);
      return -1;
    }
  }
  for (int attempt = 0;; ++attempt) {
    bool last = repeatMode == 0 || attempt > 0;
    if (attempt > 0) DownloadRepeatWait(remoteFile);
    int rc = Download(remoteServer, remoteFile, localFile, last ? 1 : 2);
    if (rc != -1) {
      // A non-zero exit code is no verdict: the file decides.
      if (checkType == 1) {
        int64_t length = GetFileLength(localFile);
        if (length != -1 && fileSize && length == *fileSize) return 0;
        TRACE(1, u"DLUtils::DownloadPlusVerify()\t: '%s' has length %ld, expected %ld\n", localFile.c_str(),
              static_cast<long>(length), static_cast<long>(fileSize ? *fileSize : -1));
      } else if (checkType == 2) {
        int32_t value = 0;
        if (GetIntFromFile(localFile, item, value) == 0) {
          if (fileSize) *fileSize = value;
          return 0;
        }
      } else {
        return -1;
      }
    }
    if (last) return -1;
    if (repeatMode != 1) return 0;
  }
}

int DLUtils::DownloadPlusVerifySize(const WString& remoteServer, const WString& remoteFile, const WString& localFile,
                                    int32_t size) {
  int32_t fileSize = size;
  return DownloadPlusVerify(remoteServer, remoteFile, localFile, WString(), &fileSize, 1, 1);
}

void DLUtils::DownloadRepeatWait(const WString& remoteFile) {
  TRACE(2, u"DLUtils::DownloadRepeatWait()\t: waiting before fetching '%s' once more\n", remoteFile.c_str());
  DoWait(30);
}

void DLUtils::DoWait(uint32_t secs) {
  if (!m_module) return;  // the exported functions run without a module: no event, no wait
  CEvent& event = m_module->SpareEvent();
  if (!event.IsValid()) return;
  event.Wait(secs * 1000);
  event.Reset();
}

// --- archives, files, directories --------------------------------------------------------------

int DLUtils::Uncompress(const WString& dir, const WString& exeName) {
  if (!platform::DirectoryExists(dir)) {
    TRACE(1, u"DLUtils::Uncompress()\t: >>>ERROR: directory '%s' not accessible\n", dir.c_str());
    return -1;
  }
  OutputFiles files = MakeOutputFiles(u"unzip");
  int rc = platform::UnpackSelfExtractingArchive(dir, exeName, files.out, files.err);
  if (rc == 0) {
    RemoveOutputFiles(files);
    return 0;
  }
  StartLog();
  m_log->umLogError(WFormat(u"Uncompressing of '%s' failed! (returncode=%d)", exeName.c_str(), rc));
  CopyFileToServerLog(files.err, u"Error information - uncompressing failed:");
  EndLog();
  RemoveOutputFiles(files);
  return -1;
}

int DLUtils::CopyFilePriv(const WString& sourceFile, const WString& destFile, int mode) {
  if (mode != kTextMode && mode != kBinaryMode) {
    TRACE(1, u"CopyFile: Invalid argument for type.\n");
    return -1;
  }
  // Byte for byte in both modes (a text-mode copy would alter the archives that go through here),
  // and under a temporary name first: versionTree.txt, copied last, marks a finished update, and
  // a crash must leave the old file or the new one.
  std::string bytes;
  if (!platform::ReadWholeFile(sourceFile, bytes)) {
    TRACE(1, u"DLUtils::CopyFilePriv()\t: >>>ERROR: cannot read '%s'\n", sourceFile.c_str());
    return -1;
  }
  WString temp = destFile + u".new";
  if (!platform::WriteWholeFile(temp, bytes.data(), bytes.size()) || !platform::RenamePath(temp, destFile)) {
    platform::RemoveFilePath(temp);
    TRACE(1, u"DLUtils::CopyFilePriv()\t: >>>ERROR: cannot write '%s'\n", destFile.c_str());
    return -1;
  }
  return 0;
}

int DLUtils::RemoveCompleteDirectory(const WString& absPath) {
  WString path = absPath;
  ToForwardSlashes(path);
  if (!platform::DirectoryExists(path) && !platform::FileExists(path)) return 0;
  if (IsFileSystemRoot(path)) {
    TRACE(1, u"DLUtils::RemoveCompleteDirectory()\t: >>>ERROR: refusing to remove '%s'\n", path.c_str());
    return -1;
  }
  OutputFiles files = MakeOutputFiles(u"rmdir");
  WString error;
  if (!platform::RemoveTree(path, error)) WriteTextFile(files.err, error);
  if (!platform::DirectoryExists(path) && !platform::FileExists(path)) {
    RemoveOutputFiles(files);
    return 0;
  }
  StartLog();
  m_log->umLogError(WFormat(u"Removal of directory '%s' failed !", absPath.c_str()));
  CopyFileToServerLog(files.out, u"Error information - removing directory (stdout):");
  CopyFileToServerLog(files.err, u"Error information - removing directory (stderr):");
  EndLog();
  RemoveOutputFiles(files);
  return -1;
}

int DLUtils::CopyCompleteDirectory(const WString& from, const WString& to, int contentOnly) {
  TRACE(3, u"DLUtils::CopyCompleteDirectory()\t: '%s' -> '%s' contentOnly=%d\n", from.c_str(), to.c_str(), contentOnly);
  WString source = from, target = to;
  ToForwardSlashes(source);
  ToForwardSlashes(target);
  OutputFiles files = MakeOutputFiles(u"xcopy");
  WString error;
  bool ok = platform::DirectoryExists(source) && platform::CopyTree(source, target, error);
  if (!ok) {
    if (error.empty()) error = WFormat(u"cannot copy '%s': no such directory", source.c_str());
    WriteTextFile(files.err, error);
    StartLog();
    m_log->umLogError(WFormat(u"Copying directory '%s' failed. ERROR!", from.c_str()));
    CopyFileToServerLog(files.out, u"Error Information: stdout of copy command:");
    CopyFileToServerLog(files.err, u"Error Information: stderr of copy command:");
    EndLog();
  }
  RemoveOutputFiles(files);
  return ok ? 0 : -1;
}

int DLUtils::CopyFileToServerLog(const WString& file, const WString& caption) {
  TextLineReader reader;
  if (!reader.Open(file)) return 1;
  if (!caption.empty()) m_log->umLogWrite(caption, true);
  WString line;
  while (reader.ReadLine(line, kKeyLineChars)) {
    while (!line.empty() && IsBlank(line.back())) line.pop_back();
    m_log->umLogWrite(line, false);
  }
  m_log->umLogWrite(WString(), true);
  return 0;
}

int DLUtils::CreateDirectoryPriv(const WString& path, int& status) {
  if (platform::DirectoryExists(path) || platform::FileExists(path)) return 0;
  uint32_t error = platform::CreateDirectoryError(path);
  if (error == 0) {
    // Rights are opened only on a directory made here; the group's name differs on a German
    // system, hence the second try.
    if (!platform::GrantFullAccess(path, u"Everyone") && !platform::GrantFullAccess(path, u"Jeder")) {
      TRACE(1, u"DLUtils::CreateDirectoryPriv()\t: cannot open the rights of '%s'\n", path.c_str());
      status = 777;
    }
    return 0;
  }
  if (error == 183) return 0;  // made by someone else meanwhile
  TRACE(1, u"DLUtils::CreateDirectoryPriv()\t: >>>ERROR: cannot create '%s' (error %lu)\n", path.c_str(),
        static_cast<unsigned long>(error));
  status = static_cast<int>(error);
  return -1;
}

int DLUtils::CreateDirectoryTree(const WString& path, int& status) {
  status = 0;
  if (path.size() == 2 && path[1] == u':') return 0;
  std::vector<WString> tokens;
  for (size_t pos = 0; pos < path.size();) {
    size_t next = path.find(u'/', pos);
    if (next == WString::npos) next = path.size();
    if (next > pos) tokens.push_back(path.substr(pos, next - pos));
    pos = next + 1;
  }
  if (tokens.empty()) {
    status = 701;
    return -1;
  }
  WString prefix;
#ifndef _WIN32
  // Every absolute path here begins with "/", which must stay.
  if (path[0] == u'/') prefix = u"/";
#endif
  bool rightsMissing = false;
  for (size_t i = 0; i < tokens.size(); ++i) {
    if (i > 0) prefix += u'/';
    prefix += tokens[i];
    if (prefix.size() == 2 && prefix[1] == u':') continue;  // a bare drive
    int levelStatus = 0;
    if (CreateDirectoryPriv(prefix, levelStatus) != 0) {
      status = levelStatus;
      return -1;
    }
    if (levelStatus == 777) rightsMissing = true;
  }
  if (rightsMissing) status = 777;
  return 0;
}

// --- small helpers -----------------------------------------------------------------------------

bool DLUtils::ScanLong(const WString& text, size_t pos, int32_t& value) {
  while (pos < text.size() && IsBlank(text[pos])) ++pos;
  bool negative = false;
  if (pos < text.size() && (text[pos] == u'-' || text[pos] == u'+')) negative = text[pos++] == u'-';
  if (pos >= text.size() || text[pos] < u'0' || text[pos] > u'9') return false;
  int64_t v = 0;
  for (; pos < text.size() && text[pos] >= u'0' && text[pos] <= u'9'; ++pos) {
    if (v <= INT32_MAX) v = v * 10 + (text[pos] - u'0');
  }
  if (negative) v = -v;
  value = v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v);
  return true;
}

void DLUtils::ToForwardSlashes(WString& path) {
  WString out;
  out.reserve(path.size());
  size_t i = 0;
  bool inRun = false;
  if (path.size() >= 2 && path[0] == u'\\' && path[1] == u'\\') {
    out = u"\\\\";
    i = 2;
    inRun = true;
  }
  for (; i < path.size(); ++i) {
    if (path[i] == u'\\') {
      if (!inRun) out += u'/';
      inRun = true;
    } else {
      out += path[i];
      inRun = false;
    }
  }
  path.swap(out);
}

void DLUtils::ToBackSlashes(WString& path) {
  WString out;
  out.reserve(path.size());
  bool inRun = false;
  for (char16_t c : path) {
    if (c == u'/') {
      if (!inRun) out += u'\\';
      inRun = true;
    } else {
      out += c;
      inRun = false;
    }
  }
  path.swap(out);
}

int64_t DLUtils::GetFileLength(const WString& path) {
  uint64_t length = 0;
  if (!platform::FileLength(path, length)) return -1;
  return static_cast<int64_t>(length);
}

int DLUtils::GetIntFromFile(const WString& file, const WString& key, int32_t& value) {
  TextLineReader reader;
  if (!reader.Open(file)) return -1;
  WString line;
  bool found = false;
  int32_t number = -1;
  while (reader.ReadLine(line, kKeyLineChars)) {
    if (!LineHasKey(line, key)) continue;
    if (!ScanLong(line, key.size() + 1, number)) {
      TRACE(1, u"DLUtils::GetIntFromFile()\t: malformed value of '%s' in '%s'\n", key.c_str(), file.c_str());
      return -1;
    }
    found = true;
    break;
  }
  if (!found || number == -1) return -1;
  value = number;
  return 0;
}

int DLUtils::GetStringFromFile(const WString& file, const WString& key, WString& value, size_t& length) {
  TextLineReader reader;
  if (!reader.Open(file)) return -1;
  size_t room = length;
  WString line, found;
  bool any = false;
  while (reader.ReadLine(line, kKeyLineChars)) {
    if (!LineHasKey(line, key)) continue;
    found = line.substr(key.size() + 1);
    any = true;
  }
  if (!any) {
    length = 0;
    return 0;
  }
  if (room == 0 || found.size() > room - 1) return -1;
  // The value ends at its first blank or at the line's end.
  size_t end = 0;
  while (end < found.size() && found[end] != u' ' && found[end] != u'\n') ++end;
  value = found.substr(0, end);
  length = value.size();
  return 0;
}

int32_t DLUtils::FreeSpaceKbFromBytes(uint64_t bytes) {
  int32_t kb = static_cast<int32_t>(static_cast<uint32_t>(bytes / 1024));
  if (kb < 0) return 0x7ffffffe;
  if (kb == 0) return 1;
  return kb;
}

int32_t DLUtils::GetFreeSpaceKB(const WString& path) {
  WString normal = path;
  ToForwardSlashes(normal);
  uint64_t bytes = 0;
  if (!platform::FreeBytesForCaller(normal, bytes)) {
    TRACE(1, u"DLUtils::GetFreeSpaceKB()\t: cannot read the free space for '%s'\n", path.c_str());
    return -1;
  }
  return FreeSpaceKbFromBytes(bytes);
}

uint32_t DLUtils::LocalClockSeconds() {
  return platform::LocalClockSeconds();
}

int32_t DLUtils::GetLocalTimeOffset() {
  int32_t seconds = platform::LocalOffsetSeconds();
  int32_t minutes = seconds >= 0 ? (seconds + 30) / 60 : -((-seconds + 30) / 60);
  return minutes * 60;
}

// nwhost check, updates, installed: a check started as a requester starts it, and the tables the
// module publishes afterwards, read row by row through their opcodes. The module keeps the tables
// of the last check in memory only, so a fresh process has none: updates and installed run a
// check first unless told not to.
//
// While the check runs (on the module's scheduler thread), nwhost waits for the data-changed
// event in slices of half a second; between two slices it asks for the check status and reads
// what the check log gained, for the progress display. Alerts the module posts meanwhile are
// printed as they come, from the module's thread; one mutex keeps every output line whole.
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

#include "foundation/Opcodes.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "hostlib/AlertRecord.h"
#include "hostlib/ModuleHost.h"
#include "nwhost/HostOptions.h"
#include "nwhost/Verbs.h"
#include "platform/CodePage.h"
#include "platform/FileIo.h"

namespace {

constexpr uint32_t kSeverityOpcode = CM_UmServerSeverity;
constexpr uint32_t kCheckDateOpcode = CM_UmServerCheckDate;
constexpr uint32_t kCheckStatusOpcode = CM_UmServerCheckStatus;
constexpr uint32_t kCheckErrorOpcode = CM_UmServerCheckError;
constexpr uint32_t kUpdateCountOpcode = CM_UmDiffNumberEntries;
constexpr uint32_t kInstalledCountOpcode = CM_UmInstalledNumberEntries;
constexpr char16_t kCheckLogName[] = u"UM_Checknew.log";
// The slice of the wait for the end of the check, and so the pace of the progress display.
constexpr uint32_t kPollMs = 500;
constexpr uint64_t kDefaultTimeoutSeconds = 30 * 60;
// A week: beyond it a time-out is surely a typing error.
constexpr uint64_t kLongestTimeoutSeconds = 7 * 24 * 3600;

enum class Verb { Check, Updates, Installed };

enum class Kind { Text, Number, Signed };

// One column of a published table: its opcode, its name in the JSON document, its kind.
struct Column {
  uint32_t opcode;
  const char* name;
  Kind kind;
};

constexpr Column kUpdateColumns[] = {
    {CM_UmDiffComponentPath, "path", Kind::Text},
    {CM_UmDiffComponentType, "type", Kind::Text},
    {CM_UmDiffComponentSubType, "subType", Kind::Text},
    {CM_UmDiffRepositoryVersion, "repositoryVersion", Kind::Text},
    {CM_UmDiffInstalledVersion, "installedVersion", Kind::Text},
    {CM_UmDiffObjectName, "objectName", Kind::Text},
    {CM_UmDiffRanking, "rankingCode", Kind::Number},
    {CM_UmDiffMandatory, "mandatory", Kind::Number},
    {CM_UmDiffPrerequire, "prerequire", Kind::Text},
    {CM_UmDiffSeverity, "severityCode", Kind::Number},
    {CM_UmDiffEngineError, "engineError", Kind::Signed},
    {CM_UmDiffEngineErrorText, "engineErrorText", Kind::Text},
    {CM_UmDiffMinStepVersion, "minStepVersion", Kind::Text},
    {CM_UmDiffReboot, "rebootCode", Kind::Number},
    {CM_UmDiffInstallTime, "installTime", Kind::Number},
    {CM_UmDiffDownloadSize, "downloadSize", Kind::Signed},
    {CM_UmDiffKPKVersion, "kpkPackageVersion", Kind::Text},
    {CM_UmDiffReleaseNote, "releaseNote", Kind::Text},
    {CM_UmDiffVendor, "vendor", Kind::Text},
    {CM_UmDiffComponentId, "componentId", Kind::Text},
    {CM_UmDiffBinaryLoaded, "binaryLoaded", Kind::Number},
};

constexpr Column kInstalledColumns[] = {
    {CM_UmInstalledType, "type", Kind::Text},
    {CM_UmInstalledSubType, "subType", Kind::Text},
    {CM_UmInstalledVersion, "version", Kind::Text},
    {CM_UmInstalledPciId, "pciId", Kind::Text},
    {CM_UmInstalledKPKVersion, "kpkVersion", Kind::Text},
};

int Usage() {
  std::fprintf(
      stderr,
      "usage: nwhost check     [host options] [--json] [--timeout SECONDS] [--tool PATH] [--progress | --quiet]\n"
      "       nwhost updates   [host options] [--json] [--timeout SECONDS] [--tool PATH] [--progress | --quiet]\n"
      "                        [--no-check]\n"
      "       nwhost installed [the options of updates]\n"
      "host options: --module PATH  --cabinet N | --no-cabinet  --registry FILE\n"
      "updates and installed run a check first, as the module publishes its tables only after one;\n"
      "--no-check shows what the freshly started module publishes.\n");
  return 2;
}

// ---- the module's answers ---------------------------------------------------------------------

struct Answer {
  uint32_t st = ST_ABSENT;
  bool hasNumber = false;
  uint32_t number = 0;
  bool hasText = false;
  std::string text;
};

Answer Ask(ModuleHost& host, uint32_t cabinet, uint32_t opcode, uint32_t oi) {
  RequestMessage m;
  ConstructRequest(m, opcode, 0, oi, cabinet, ST_NONE);
  Answer a;
  host.Request(m);
  a.st = GetCommandValue(m, 0, kKeyST, ST_ABSENT);
  WString text;
  if (GetDataType(m, 0) == kMessageTypeString || GetDataType(m, 0) == kMessageTypeObject) {
    // A text comes as a wide string or as a UTF-8 byte stream.
    if (GetDataString(m, 0, text, 0)) {
      a.hasText = true;
      a.text = WToUtf8(text);
    }
  }
  if (GetDataValue(m, 0, a.number)) a.hasNumber = true;
  return a;
}

// One cell: absent (the module answered another status than 0) or a text or a number.
struct Cell {
  bool present = false;
  std::string text;
  int64_t number = 0;
};

using Row = std::vector<Cell>;

struct Table {
  bool published = false;
  uint32_t countStatus = ST_ABSENT;  // the status of the count request
  std::vector<Row> rows;
};

Cell ReadCell(ModuleHost& host, uint32_t cabinet, const Column& column, uint32_t oi) {
  const Answer a = Ask(host, cabinet, column.opcode, oi);
  Cell cell;
  if (a.st != ST_OK) return cell;
  if (column.kind == Kind::Text) {
    cell.present = true;
    cell.text = a.hasText ? a.text : std::string();
  } else if (a.hasNumber) {
    cell.present = true;
    cell.number = column.kind == Kind::Signed ? static_cast<int64_t>(static_cast<int32_t>(a.number))
                                              : static_cast<int64_t>(a.number);
  }
  return cell;
}

// The table, walked by object id from 0 to its count less one.
template <size_t N>
Table ReadTable(ModuleHost& host, uint32_t cabinet, uint32_t countOpcode, const Column (&columns)[N]) {
  Table table;
  const Answer count = Ask(host, cabinet, countOpcode, 0);
  table.countStatus = count.st;
  if (count.st != ST_OK || !count.hasNumber) return table;
  table.published = true;
  for (uint32_t oi = 0; oi < count.number; ++oi) {
    Row row;
    for (const Column& column : columns) row.push_back(ReadCell(host, cabinet, column, oi));
    // A row the module answers in no field is past the table's end, whatever the count said:
    // a wrong count must not keep nwhost asking for billions of rows.
    if (std::none_of(row.begin(), row.end(), [](const Cell& cell) { return cell.present; })) break;
    table.rows.push_back(std::move(row));
  }
  return table;
}

struct Summary {
  std::optional<uint32_t> status, error, severity, date;
};

std::optional<uint32_t> AskNumber(ModuleHost& host, uint32_t cabinet, uint32_t opcode) {
  const Answer a = Ask(host, cabinet, opcode, 0);
  if (a.st != ST_OK || !a.hasNumber) return std::nullopt;
  return a.number;
}

Summary ReadSummary(ModuleHost& host, uint32_t cabinet) {
  Summary s;
  s.status = AskNumber(host, cabinet, kCheckStatusOpcode);
  s.error = AskNumber(host, cabinet, kCheckErrorOpcode);
  s.severity = AskNumber(host, cabinet, kSeverityOpcode);
  s.date = AskNumber(host, cabinet, kCheckDateOpcode);
  return s;
}

// ---- words for the codes ----------------------------------------------------------------------

const char* CheckStatusName(uint32_t code) {
  static const char* const names[] = {"done", "done with an error", "updating the repository from the web server",
                                      "checking"};
  return code < 4 ? names[code] : "unknown";
}

const char* CheckErrorName(uint32_t code) {
  static const char* const names[] = {"none",
                                      "the inventory could not be created",
                                      "the repository is missing",
                                      "the comparison failed",
                                      "connecting the remote repository failed",
                                      "updating the repository from the web server failed"};
  return code < 6 ? names[code] : "unknown";
}

const char* ServerSeverityName(uint32_t code) {
  static const char* const names[] = {"ok", "warning", "critical", "unknown"};
  return code < 4 ? names[code] : "unknown";
}

// The codes the check derives from the engine's words and rankings (check/DiffCodes), read back.
const char* RankingName(int64_t code) {
  static const char* const names[] = {"no installed version", "highest upgrade",   "upgrade",
                                      "same version",         "highest downgrade", "downgrade"};
  return code >= 0 && code < 6 ? names[code] : "unknown";
}

const char* UpdateSeverityName(int64_t code) {
  static const char* const names[] = {"optional", "recommended", "mandatory"};
  return code >= 0 && code < 3 ? names[code] : "unknown";
}

const char* RebootName(int64_t code) {
  static const char* const names[] = {"no", "immediately", "yes", "unknown"};
  return code >= 0 && code < 4 ? names[code] : "unknown";
}

// A LocalClockSeconds value as "%d.%m.%Y %H:%M:%S": the local time is already in it, so the
// calendar is that of UTC.
std::string DateText(uint32_t seconds) {
  const int64_t days = seconds / 86400;
  const int64_t rest = seconds % 86400;
  const int64_t z = days + 719468, era = z / 146097, doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100), mp = (5 * doy + 2) / 153;
  const int day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  const int month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  const int year = static_cast<int>(yoe + era * 400 + (month <= 2 ? 1 : 0));
  char text[32];
  std::snprintf(text, sizeof text, "%02d.%02d.%04d %02d:%02d:%02d", day, month, year, static_cast<int>(rest / 3600),
                static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60));
  return text;
}

// ---- output ---------------------------------------------------------------------------------

// Every line goes out whole: the module's thread prints alerts while the main thread prints
// progress.
class Output {
 public:
  void Line(FILE* stream, const std::string& line) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::fputs((line + "\n").c_str(), stream);
    std::fflush(stream);
  }

 private:
  std::mutex m_mutex;
};

// An alert as the document and the text line show it.
struct SeenAlert {
  bool decoded = false;
  std::string error;
  AlertRecord record;
};

std::string AlertLine(const SeenAlert& alert) {
  if (!alert.decoded) return "alert (unreadable): " + alert.error;
  char number[16];
  std::snprintf(number, sizeof number, "0x%06X", alert.record.number);
  const char* meaning = AlertMeaning(alert.record.number);
  std::string line = std::string("alert ") + number + (meaning ? std::string(" ") + meaning : std::string());
  std::string joined;
  for (const std::string& argument : alert.record.arguments) {
    // The list of new components comes one a line; here it is one line.
    size_t start = 0;
    while (start <= argument.size()) {
      size_t end = argument.find('\n', start);
      if (end == std::string::npos) end = argument.size();
      std::string part = argument.substr(start, end - start);
      while (!part.empty() && (part.back() == '\r' || part.back() == ' ' || part.back() == '\t')) part.pop_back();
      if (!part.empty()) joined += (joined.empty() ? "" : ", ") + part;
      start = end + 1;
    }
  }
  if (!joined.empty()) line += ": " + joined;
  return line;
}

// Reads what the check log gains and hands out its complete lines. A log that became shorter
// was begun anew: all of it is new. At its end the check renames the log to the name of the last
// check's log; what the last look missed is read there.
class LogTail {
 public:
  LogTail(WString path, WString finishedPath) : m_path(std::move(path)), m_finishedPath(std::move(finishedPath)) {
    uint64_t length = 0;
    if (platform::FileLength(m_path, length)) m_offset = length;
  }

  std::vector<std::string> NewLines(bool atEnd) {
    std::vector<std::string> lines;
    uint64_t length = 0;
    const WString* path = &m_path;
    bool found = platform::FileLength(m_path, length);
    if (!found && atEnd) {
      path = &m_finishedPath;
      found = platform::FileLength(m_finishedPath, length);
    }
    if (found) {
      if (length < m_offset) {
        m_offset = 0;
        m_pending.clear();
      }
      if (length > m_offset) Read(*path, length);
    }
    size_t start = 0;
    for (size_t end; (end = m_pending.find('\n', start)) != std::string::npos; start = end + 1)
      lines.push_back(Shown(m_pending.substr(start, end - start)));
    m_pending.erase(0, start);
    if (atEnd && !m_pending.empty()) {
      lines.push_back(Shown(m_pending));
      m_pending.clear();
    }
    return lines;
  }

 private:
  void Read(const WString& path, uint64_t length) {
    std::ifstream in(std::filesystem::path(path), std::ios::binary);
    if (!in) return;
    in.seekg(static_cast<std::streamoff>(m_offset));
    std::string bytes(static_cast<size_t>(length - m_offset), '\0');
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<size_t>(in.gcount()));
    m_offset += bytes.size();
    m_pending += bytes;
  }

  // The log is written in the ANSI code page with CR LF; it is shown as UTF-8.
  static std::string Shown(std::string line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    WString wide;
    platform::CodePageToWide(platform::kCodePageAnsi, line.data(), line.size(), wide);
    return WToUtf8(wide);
  }

  const WString m_path;
  const WString m_finishedPath;
  uint64_t m_offset = 0;
  std::string m_pending;
};

bool StandardErrorIsTerminal() {
#ifdef _WIN32
  return _isatty(_fileno(stderr)) != 0;
#else
  return isatty(fileno(stderr)) != 0;
#endif
}

// ---- the run --------------------------------------------------------------------------------

struct CheckOptions {
  Verb verb = Verb::Check;
  ModuleHost::Options host;
  std::string registry;
  bool json = false;
  bool runCheck = true;
  int progress = -1;  // -1: when standard error is a terminal
  uint64_t timeoutSeconds = kDefaultTimeoutSeconds;
  std::string tool;
};

// A path as an absolute one, seen from the directory nwhost started in.
std::string Anchored(const std::string& utf8) {
  if (utf8.empty()) return utf8;
  std::error_code ec;
  const std::filesystem::path absolute = std::filesystem::absolute(std::filesystem::path(WFromUtf8(utf8)), ec);
  return ec ? utf8 : WToUtf8(absolute.u16string());
}

bool ParseSeconds(const std::string& text, uint64_t& seconds) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  seconds = std::stoull(text);
  return seconds >= 1 && seconds <= kLongestTimeoutSeconds;
}

bool ParseArguments(int argc, char** argv, CheckOptions& o) {
  for (int i = 1; i < argc; ++i) {
    const int taken = ParseHostOption(argc, argv, i, o.host, o.registry);
    if (taken < 0) return false;
    if (taken == 1) continue;
    const std::string arg = argv[i];
    if (arg == "--json") {
      o.json = true;
    } else if (arg == "--progress") {
      o.progress = 1;
    } else if (arg == "--quiet") {
      o.progress = 0;
    } else if (arg == "--no-check" && o.verb != Verb::Check) {
      o.runCheck = false;
    } else if (arg == "--timeout" && i + 1 < argc) {
      if (!ParseSeconds(argv[++i], o.timeoutSeconds)) return false;
    } else if (arg == "--tool" && i + 1 < argc) {
      o.tool = argv[++i];
      if (o.tool.empty()) return false;
    } else {
      return false;
    }
  }
  return true;
}

struct Report {
  bool checkRan = false;
  bool ended = false;
  bool dataChanged = false;
  Summary summary;
  Table updates;
  Table installed;
  std::vector<SeenAlert> alerts;
};

class CheckRun {
 public:
  CheckRun(const CheckOptions& options, Output& out) : m_o(options), m_out(out) {}

  // Collects the alerts from the module's thread: printed at once in the text form, kept for the
  // document.
  void OnEvent(const RequestMessage& message) {
    if (GetCommandValue(message, message.commandIndex, kKeyOC, 0) != CM_UmAlert) return;
    SeenAlert alert;
    std::vector<uint8_t> bytes;
    GetDataStream(message, message.commandIndex, bytes);
    alert.decoded = DecodeAlertRecord(bytes, alert.record, alert.error);
    {
      std::lock_guard<std::mutex> lock(m_alertMutex);
      m_alerts.push_back(alert);
    }
    if (!m_o.json) m_out.Line(stdout, AlertLine(alert));
  }

  std::vector<SeenAlert> Alerts() {
    std::lock_guard<std::mutex> lock(m_alertMutex);
    return m_alerts;
  }

  // Starts the check and waits for its end. False, with the reason on standard error, when the
  // module refuses to start one; `ended` says whether the end came in time.
  bool Run(ModuleHost& host, uint32_t cabinet, LogTail& tail, Report& report) {
    const bool progress = m_o.progress == 1 || (m_o.progress < 0 && StandardErrorIsTerminal());
    const Answer start = Ask(host, cabinet, CM_UmServerStartCheck, 0);
    if (start.st != ST_OK) {
      m_out.Line(stderr, "nwhost: the module did not start a check (ST " + std::to_string(start.st) + ")");
      return false;
    }
    report.checkRan = true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(m_o.timeoutSeconds);
    std::optional<uint32_t> shownStatus;
    HostMessage changed;
    for (;;) {
      const auto now = std::chrono::steady_clock::now();
      if (now >= deadline) break;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
      const uint32_t slice = left < kPollMs ? static_cast<uint32_t>(left) + 1 : kPollMs;
      if (host.WaitForEvent(CM_UmDataChanged, slice, &changed)) {
        report.ended = true;
        break;
      }
      if (!progress) continue;
      const std::optional<uint32_t> status = AskNumber(host, cabinet, kCheckStatusOpcode);
      if (status && status != shownStatus) {
        m_out.Line(stderr, std::string("-- ") + CheckStatusName(*status));
        shownStatus = status;
      }
      for (const std::string& line : tail.NewLines(false)) m_out.Line(stderr, line);
    }
    if (progress)
      for (const std::string& line : tail.NewLines(true)) m_out.Line(stderr, line);
    if (report.ended) {
      uint32_t flag = 0;
      report.dataChanged = GetDataValue(*changed.message, 0, flag) && (flag & 0xFF) != 0;
    }
    return true;
  }

 private:
  const CheckOptions& m_o;
  Output& m_out;
  std::mutex m_alertMutex;
  std::vector<SeenAlert> m_alerts;
};

// ---- the text form --------------------------------------------------------------------------

std::string CellText(const Cell& cell) {
  return cell.present ? cell.text : std::string("?");
}

// Columns of text, each as wide as its widest cell, two blanks apart; the last one unpadded.
void PrintColumns(const std::vector<std::vector<std::string>>& lines) {
  if (lines.empty()) return;
  std::vector<size_t> widths(lines[0].size(), 0);
  for (const auto& line : lines)
    for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  for (const auto& line : lines) {
    std::string text;
    for (size_t i = 0; i < line.size(); ++i) {
      text += line[i];
      if (i + 1 < line.size()) text += std::string(widths[i] - line[i].size() + 2, ' ');
    }
    std::printf("%s\n", text.c_str());
  }
}

size_t ColumnIndex(const Column* columns, size_t count, const char* name) {
  for (size_t i = 0; i < count; ++i)
    if (std::string(columns[i].name) == name) return i;
  return 0;
}

std::string NotPublished(const Table& table, const char* what) {
  return std::string("no ") + what + ": the module answered ST " + std::to_string(table.countStatus);
}

void PrintUpdates(const Table& table) {
  if (!table.published) {
    std::printf("%s\n", NotPublished(table, "table of updates").c_str());
    return;
  }
  std::printf("Updates: %zu\n", table.rows.size());
  if (table.rows.empty()) return;
  const size_t n = std::size(kUpdateColumns);
  const auto at = [&](const Row& row, const char* name) -> const Cell& {
    return row[ColumnIndex(kUpdateColumns, n, name)];
  };
  std::vector<std::vector<std::string>> lines;
  lines.push_back({"PATH", "TYPE", "INSTALLED -> REPOSITORY", "RANKING", "SEVERITY", "REBOOT", "BINARY", "DOWNLOAD"});
  for (const Row& row : table.rows) {
    const Cell& installed = at(row, "installedVersion");
    const Cell& size = at(row, "downloadSize");
    const Cell& binary = at(row, "binaryLoaded");
    std::string download = !size.present      ? "?"
                           : size.number < 0  ? "unknown"
                           : size.number == 0 ? "-"
                                              : std::to_string(size.number) + " MB";
    lines.push_back({CellText(at(row, "path")), CellText(at(row, "type")),
                     (installed.present && installed.text.empty() ? std::string("(unknown)") : CellText(installed)) +
                         " -> " + CellText(at(row, "repositoryVersion")),
                     RankingName(at(row, "rankingCode").number), UpdateSeverityName(at(row, "severityCode").number),
                     RebootName(at(row, "rebootCode").number),
                     !binary.present ? "?"
                     : binary.number ? "loaded"
                                     : "not loaded",
                     download});
  }
  PrintColumns(lines);
}

void PrintInstalled(const Table& table) {
  if (!table.published) {
    std::printf("%s\n", NotPublished(table, "table of installed components").c_str());
    return;
  }
  std::printf("Installed components: %zu\n", table.rows.size());
  if (table.rows.empty()) return;
  std::vector<std::vector<std::string>> lines;
  lines.push_back({"TYPE", "SUBTYPE", "VERSION", "PCI ID", "SUPPORT PACK"});
  for (const Row& row : table.rows) {
    std::vector<std::string> line;
    for (const Cell& cell : row) line.push_back(CellText(cell));
    lines.push_back(line);
  }
  PrintColumns(lines);
}

void PrintSummary(const Summary& s) {
  const auto coded = [](const std::optional<uint32_t>& v, const char* (*name)(uint32_t)) {
    return v ? std::string(name(*v)) + " (" + std::to_string(*v) + ")" : std::string("(not answered)");
  };
  std::printf("Server severity:  %s\n", coded(s.severity, ServerSeverityName).c_str());
  std::printf("Check status:     %s\n", coded(s.status, CheckStatusName).c_str());
  std::printf("Check error:      %s\n", coded(s.error, CheckErrorName).c_str());
  std::printf("Check date:       %s\n", !s.date        ? "(not answered)"
                                        : *s.date == 0 ? "never"
                                                       : DateText(*s.date).c_str());
}

// ---- the JSON form --------------------------------------------------------------------------

using PrettyJson = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

void WriteText(PrettyJson& w, const std::string& text) {
  w.String(text.c_str(), static_cast<rapidjson::SizeType>(text.size()));
}

void WriteCoded(PrettyJson& w, const char* key, const std::optional<uint32_t>& value, const char* (*name)(uint32_t)) {
  w.Key(key);
  if (value)
    w.Uint(*value);
  else
    w.Null();
  w.Key((std::string(key) + "Text").c_str());
  if (value)
    w.String(name(*value));
  else
    w.Null();
}

template <size_t N>
void WriteTable(PrettyJson& w, const char* key, const Table& table, const Column (&columns)[N]) {
  w.Key(key);
  if (!table.published) {
    w.Null();
    return;
  }
  w.StartArray();
  for (const Row& row : table.rows) {
    w.StartObject();
    for (size_t i = 0; i < N; ++i) {
      w.Key(columns[i].name);
      if (!row[i].present)
        w.Null();
      else if (columns[i].kind == Kind::Text)
        WriteText(w, row[i].text);
      else
        w.Int64(row[i].number);
    }
    w.EndObject();
  }
  w.EndArray();
}

std::string DateOrEmpty(const std::optional<uint32_t>& date) {
  return date && *date ? DateText(*date) : std::string();
}

void PrintDocument(const Report& r) {
  rapidjson::StringBuffer buffer;
  PrettyJson w(buffer);
  w.SetIndent(' ', 2);
  w.StartObject();
  w.Key("checkRan");
  w.Bool(r.checkRan);
  w.Key("ended");
  w.Bool(r.ended);
  w.Key("dataChanged");
  w.Bool(r.dataChanged);
  WriteCoded(w, "status", r.summary.status, CheckStatusName);
  WriteCoded(w, "error", r.summary.error, CheckErrorName);
  WriteCoded(w, "severity", r.summary.severity, ServerSeverityName);
  w.Key("date");
  if (r.summary.date)
    w.Uint(*r.summary.date);
  else
    w.Null();
  w.Key("dateText");
  WriteText(w, DateOrEmpty(r.summary.date));
  WriteTable(w, "updates", r.updates, kUpdateColumns);
  WriteTable(w, "installed", r.installed, kInstalledColumns);
  w.Key("alerts");
  w.StartArray();
  for (const SeenAlert& a : r.alerts) {
    w.StartObject();
    if (!a.decoded) {
      w.Key("error");
      WriteText(w, a.error);
    } else {
      w.Key("number");
      w.Uint(a.record.number);
      w.Key("meaning");
      const char* meaning = AlertMeaning(a.record.number);
      if (meaning)
        w.String(meaning);
      else
        w.Null();
      w.Key("severity");
      w.Uint(a.record.severity);
      w.Key("platform");
      w.Uint(a.record.platform);
      w.Key("time");
      w.Uint(a.record.time);
      w.Key("args");
      w.StartArray();
      for (const std::string& arg : a.record.arguments) WriteText(w, arg);
      w.EndArray();
    }
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  std::printf("%s\n", buffer.GetString());
}

int RunVerb(Verb verb, int argc, char** argv) {
  CheckOptions o;
  o.verb = verb;
  o.host.modulePath = DefaultModulePath();
  if (!ParseArguments(argc, argv, o)) return Usage();

  // Paths named on the command line keep their meaning after the change of directory below.
  o.host.modulePath = WFromUtf8(Anchored(WToUtf8(o.host.modulePath)));
  o.registry = Anchored(o.registry);
  o.tool = Anchored(o.tool);
  std::string error;
  if (!o.registry.empty() && !PrepareRegistry(o.registry, error)) {
    std::fprintf(stderr, "nwhost: %s\n", error.c_str());
    return 1;
  }
  // The module's work directory, found with the module's own code after the registry is in
  // place: the check log is written there, and the transfer tool (copied in below) and the web
  // server's UpdateIndicatorFile.txt belong there. The module's mirror looks for both in its working
  // location, the process's current directory: nwhost runs the module with the work directory as
  // its current one, so that a check finds them wherever nwhost was started.
  UM_Util paths(nullptr);
  const WString workDir = paths.umGetWorkDir();
  LogTail tail(paths.umGetLogDir() + kSep + kCheckLogName, paths.umGetCheckLogDir());
  if (o.runCheck) {
    if (!ProvideTransferTool(workDir, "the module's work directory", o.tool, error))
      std::fprintf(stderr, "nwhost: %s; a check cannot update the repository from the web server\n", error.c_str());
    std::error_code ec;
    std::filesystem::current_path(std::filesystem::path(workDir), ec);
    if (ec)
      std::fprintf(stderr, "nwhost: cannot change into the module's work directory %s: %s\n", WToUtf8(workDir).c_str(),
                   ec.message().c_str());
  }

  Output out;
  CheckRun run(o, out);
  Report report;
  int status = 0;
  {
    ModuleHost host(o.host);
    host.SetEventCallback([&run](const RequestMessage& message) { run.OnEvent(message); });
    if (!PrepareAndStart(std::string(), host)) return 1;
    const uint32_t cabinet = o.host.setCabinet ? o.host.cabinet : 0;
    if (o.runCheck) {
      if (!run.Run(host, cabinet, tail, report)) {
        host.Stop();
        return 1;
      }
      if (!report.ended) {
        std::fprintf(stderr, "nwhost: the check did not end within %llu seconds (--timeout)\n",
                     static_cast<unsigned long long>(o.timeoutSeconds));
        status = 3;
      }
    }
    report.summary = ReadSummary(host, cabinet);
    if (o.json || verb != Verb::Installed)
      report.updates = ReadTable(host, cabinet, kUpdateCountOpcode, kUpdateColumns);
    if (o.json || verb == Verb::Installed)
      report.installed = ReadTable(host, cabinet, kInstalledCountOpcode, kInstalledColumns);
    host.Stop();
    host.SetEventCallback(nullptr);
  }
  report.alerts = run.Alerts();

  if (o.json) {
    PrintDocument(report);
  } else if (!report.checkRan && report.summary.date && *report.summary.date == 0) {
    // The tables are empty, and not because a check found nothing.
    std::printf("No check has run in this process: the module publishes its tables only after one.\n");
  } else if (verb == Verb::Installed) {
    PrintInstalled(report.installed);
  } else {
    PrintUpdates(report.updates);
    if (verb == Verb::Check || report.checkRan) PrintSummary(report.summary);
  }
  std::fflush(stdout);
  if (status == 0 && report.checkRan) {
    // The check ended; whether it ended well is in the status and the error printed above.
    const bool known = report.summary.status && *report.summary.status <= 1;
    if (!known) {
      std::fprintf(stderr, "nwhost: the check ended, but its status reads %s\n",
                   report.summary.status ? std::to_string(*report.summary.status).c_str() : "nothing");
      status = 1;
    }
  }
  return status;
}

}  // namespace

int NwhostCheckVerb(int argc, char** argv) {
  return RunVerb(Verb::Check, argc, argv);
}

int NwhostUpdatesVerb(int argc, char** argv) {
  return RunVerb(Verb::Updates, argc, argv);
}

int NwhostInstalledVerb(int argc, char** argv) {
  return RunVerb(Verb::Installed, argc, argv);
}

#include "platform/posix/MountTable.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace platform::mounts {

namespace {

std::string Source(const char* variable, const char* fallback) {
  const char* value = std::getenv(variable);
  return value && *value ? value : fallback;
}

// The table writes space, tab, line feed and backslash in paths as "\ooo".
std::string UnescapeOctal(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() &&
        std::all_of(text.begin() + static_cast<long>(i) + 1, text.begin() + static_cast<long>(i) + 4,
                    [](char c) { return c >= '0' && c <= '7'; })) {
      out.push_back(static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

// udev names a link by the label with "\xHH" for the characters a file name can't carry well.
std::string UnescapeHex(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' &&
        std::isxdigit(static_cast<unsigned char>(text[i + 2])) &&
        std::isxdigit(static_cast<unsigned char>(text[i + 3]))) {
      out.push_back(static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16)));
      i += 3;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

bool ParseLine(const std::string& line, MountEntry& entry) {
  std::istringstream in(line);
  std::vector<std::string> fields;
  for (std::string field; in >> field;) fields.push_back(field);
  // id parent major:minor root mount-point options [optional fields...] - type source super-options
  auto dash = std::find(fields.begin() + std::min<long>(6, static_cast<long>(fields.size())), fields.end(), "-");
  if (fields.size() < 7 || dash == fields.end() || fields.end() - dash < 3) return false;
  unsigned major = 0, minor = 0;
  char colon = 0;
  std::istringstream device(fields[2]);
  if (!(device >> major >> colon >> minor) || colon != ':') return false;
  entry.major = major;
  entry.minor = minor;
  entry.root = UnescapeOctal(fields[3]);
  entry.mountPoint = UnescapeOctal(fields[4]);
  while (entry.mountPoint.size() > 1 && entry.mountPoint.back() == '/') entry.mountPoint.pop_back();
  entry.fsType = dash[1];
  entry.source = UnescapeOctal(dash[2]);
  entry.superOptions = dash + 3 < fields.end() ? dash[3] : std::string();
  return true;
}

// Where a link leads: a relative target is taken from the link's directory, and a target that
// exists is followed to its end (a by-label link may lead to another link, as /dev/mapper ones do).
std::string LinkTarget(const std::string& directory, const std::string& name) {
  std::string link = directory + "/" + name;
  char buffer[4096];
  ssize_t n = ::readlink(link.c_str(), buffer, sizeof buffer - 1);
  if (n <= 0) return std::string();
  std::filesystem::path target(std::string(buffer, static_cast<size_t>(n)));
  if (target.is_relative()) target = std::filesystem::path(directory) / target;
  std::string normal = target.lexically_normal().string();
  if (char* real = ::realpath(normal.c_str(), nullptr)) {
    normal = real;
    std::free(real);
  }
  return normal;
}

}  // namespace

bool ReadMountTable(std::vector<MountEntry>& entries) {
  entries.clear();
  std::ifstream in(Source("EM_MENDER_MOUNTINFO", "/proc/self/mountinfo"));
  if (!in) {
    if (errno == 0) errno = ENOENT;
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  entries = ParseMountTable(text.str());
  return true;
}

std::vector<MountEntry> ParseMountTable(std::string_view text) {
  std::vector<MountEntry> entries;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    MountEntry entry;
    if (ParseLine(std::string(text.substr(0, end)), entry)) entries.push_back(std::move(entry));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return entries;
}

std::string LabelOf(const MountEntry& entry) {
  const std::string directory = Source("EM_MENDER_DISK_BY_LABEL", "/dev/disk/by-label");
  DIR* dir = ::opendir(directory.c_str());
  if (!dir) return std::string();
  std::vector<std::string> names;
  while (dirent* e = ::readdir(dir)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());

  std::string source = entry.source;
  if (char* real = ::realpath(source.c_str(), nullptr)) {
    source = real;
    std::free(real);
  }
  for (const std::string& name : names) {
    const std::string target = LinkTarget(directory, name);
    if (target.empty()) continue;
    struct stat st {};
    // A real device is known by its numbers; a device that isn't there (a test's) by its name.
    if (::stat(target.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) {
      if (::major(st.st_rdev) == entry.major && ::minor(st.st_rdev) == entry.minor) return UnescapeHex(name);
    } else if (target == source) {
      return UnescapeHex(name);
    }
  }
  return std::string();
}

}  // namespace platform::mounts

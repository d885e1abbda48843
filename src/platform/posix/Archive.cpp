// The repository's self-extracting archives on POSIX: the program stub in front is never run; the
// zip behind it is read with libarchive (its seekable zip reader finds the central directory from
// the end, whether the offsets in it count from the start of the file or from the start of the
// zip) and unpacked in-process.
//
// Two passes over the archive: the first reads every header and refuses the archive as a whole
// when one entry could land outside the directory; only then does the second write anything. The
// second pass checks that it meets the same entries the first one judged.
//
// Exit codes: 0 unpacked, 1 the archive is missing, unreadable or damaged, or a file could not be
// written (what was written before stays), 2 refused. The reason goes to `errFile` as one line;
// `outFile` stays empty (the stub runs quietly on Windows as well). Both files are made fresh, as
// the command interpreter's redirections make them there.
#include "platform/Archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <limits.h>
#include <locale.h>
#include <stdlib.h>

#include <set>
#include <string>
#include <vector>

#include "platform/FileIo.h"

namespace platform {

namespace {

constexpr int kUnreadable = 1;
constexpr int kRefused = 2;

// Entry names reach the file system as UTF-8: names flagged as UTF-8 in the zip are taken as they
// are, the others are CP437. libarchive converts to the locale's character set, so the calling
// thread (and only it: the host's process-wide locale stays) works in a UTF-8 locale meanwhile.
class Utf8Locale {
 public:
  Utf8Locale() : m_utf8(::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0))) {
    if (m_utf8) m_previous = ::uselocale(m_utf8);
  }
  ~Utf8Locale() {
    if (!m_utf8) return;
    ::uselocale(m_previous);
    ::freelocale(m_utf8);
  }
  Utf8Locale(const Utf8Locale&) = delete;
  Utf8Locale& operator=(const Utf8Locale&) = delete;

 private:
  locale_t m_utf8;
  locale_t m_previous = static_cast<locale_t>(0);
};

class Reader {
 public:
  Reader() : a(::archive_read_new()) {}
  ~Reader() { ::archive_read_free(a); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  bool Open(const std::string& file) {
    ::archive_read_support_format_zip_seekable(a);
    ::archive_read_set_options(a, "zip:hdrcharset=CP437");
    return ::archive_read_open_filename(a, file.c_str(), 1 << 16) == ARCHIVE_OK;
  }
  std::string Error() const {
    const char* e = ::archive_error_string(a);
    return e ? e : "unknown error";
  }

  archive* a;
};

struct Entry {
  std::string raw;   // as stored
  std::string name;  // its elements joined by '/', without empty and "." elements
  unsigned type = 0;
  std::string link;  // a symbolic link's target
  bool hardlink = false;
};

// '/' and '\' both separate, as they do for the stub on Windows.
std::vector<std::string> Elements(const std::string& path) {
  std::vector<std::string> out;
  std::string element;
  for (size_t i = 0; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/' || path[i] == '\\') {
      if (!element.empty() && element != ".") out.push_back(element);
      element.clear();
    } else {
      element += path[i];
    }
  }
  return out;
}

std::string Join(const std::vector<std::string>& elements, size_t count) {
  std::string out;
  for (size_t i = 0; i < count; ++i) out += (i ? "/" : "") + elements[i];
  return out;
}

bool Rooted(const std::string& path) {
  const bool drive =
      path.size() >= 2 && path[1] == ':' && ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z'));
  return drive || (!path.empty() && (path[0] == '/' || path[0] == '\\'));
}

// Why the entry may not be unpacked; empty when it may. `links` holds the names of the archive's
// symbolic links: nothing may be written through one, and no link may lead through another (the
// lexical resolution below would not see where that one points).
std::string Refusal(const Entry& e, const std::set<std::string>& links) {
  if (e.raw.empty()) return "has no name";
  if (e.raw[0] == '/' || e.raw[0] == '\\') return "is an absolute path";
  if (Rooted(e.raw)) return "names a drive";
  const std::vector<std::string> elements = Elements(e.raw);
  for (const std::string& element : elements) {
    if (element == "..") return "contains a '..' element";
  }
  if (e.hardlink) return "is a hard link";
  if (e.type != AE_IFREG && e.type != AE_IFDIR && e.type != AE_IFLNK)
    return "is neither a file, a directory nor a link";
  for (size_t i = 1; i < elements.size(); ++i) {
    if (links.count(Join(elements, i))) return "lies below the link '" + Join(elements, i) + "'";
  }
  if (e.type != AE_IFLNK) return std::string();
  if (e.link.empty()) return "is a link without a target";
  if (Rooted(e.link)) return "is a link to an absolute path";
  // The target resolved against the link's own directory, element by element.
  std::vector<std::string> at(elements.begin(), elements.empty() ? elements.end() : elements.end() - 1);
  const std::vector<std::string> target = Elements(e.link);
  for (size_t i = 0; i < target.size(); ++i) {
    if (target[i] == "..") {
      if (at.empty()) return "is a link leading out of the directory";
      at.pop_back();
    } else {
      at.push_back(target[i]);
      if (i + 1 < target.size() && links.count(Join(at, at.size()))) return "is a link through another link";
    }
  }
  return std::string();
}

bool ReadEntry(archive_entry* ae, Entry& e) {
  const char* name = ::archive_entry_pathname(ae);
  if (!name) return false;
  e.raw = name;
  e.name = Join(Elements(e.raw), Elements(e.raw).size());
  e.type = ::archive_entry_filetype(ae);
  e.hardlink = ::archive_entry_hardlink(ae) != nullptr;
  const char* link = ::archive_entry_symlink(ae);
  e.link = link ? link : "";
  return true;
}

// The first pass: every header, nothing written.
int ReadHeaders(const std::string& file, std::vector<Entry>& entries, std::string& why) {
  Reader reader;
  if (!reader.Open(file)) {
    why = "cannot read the archive: " + reader.Error();
    return kUnreadable;
  }
  archive_entry* ae = nullptr;
  for (;;) {
    int r = ::archive_read_next_header(reader.a, &ae);
    if (r == ARCHIVE_EOF) return 0;
    if (r < ARCHIVE_WARN) {
      why = "the archive is damaged: " + reader.Error();
      return kUnreadable;
    }
    Entry e;
    if (!ReadEntry(ae, e)) {
      why = "an entry's name cannot be read: " + reader.Error();
      return kUnreadable;
    }
    entries.push_back(e);
  }
}

std::string Quote(const std::string& name) {
  return "'" + name + "'";
}

// The second pass: the entries judged in the first, each written below `base`.
int Extract(const std::string& file, const std::string& base, const std::vector<Entry>& judged, std::string& why) {
  Reader reader;
  if (!reader.Open(file)) {
    why = "cannot read the archive: " + reader.Error();
    return kUnreadable;
  }
  archive* disk = ::archive_write_disk_new();
  ::archive_write_disk_set_options(
      disk, ARCHIVE_EXTRACT_SECURE_SYMLINKS | ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_TIME);
  int rc = 0;
  size_t index = 0;
  archive_entry* ae = nullptr;
  for (;;) {
    int r = ::archive_read_next_header(reader.a, &ae);
    if (r == ARCHIVE_EOF) break;
    Entry e;
    if (r < ARCHIVE_WARN || !ReadEntry(ae, e)) {
      why = "the archive is damaged: " + reader.Error();
      rc = kUnreadable;
      break;
    }
    if (index >= judged.size() || e.raw != judged[index].raw || e.type != judged[index].type ||
        e.link != judged[index].link || e.hardlink != judged[index].hardlink) {
      why = "the archive changed while it was unpacked";
      rc = kUnreadable;
      break;
    }
    ++index;
    if (e.name.empty()) continue;  // the directory itself
    const std::string path = base + "/" + e.name;
    ::archive_entry_set_pathname(ae, path.c_str());
    if (e.type == AE_IFLNK) {
      std::string target = e.link;
      for (char& c : target)
        if (c == '\\') c = '/';
      ::archive_entry_set_symlink(ae, target.c_str());
    }
    // The mode's permission bits only (no set-id bits); the umask applies.
    ::archive_entry_set_perm(ae, ::archive_entry_perm(ae) & 0777);
    if (::archive_write_header(disk, ae) < ARCHIVE_WARN) {
      why = "cannot write " + Quote(e.raw) + ": " + ::archive_error_string(disk);
      rc = kUnreadable;
      break;
    }
    if (e.type == AE_IFREG) {
      const void* block = nullptr;
      size_t size = 0;
      la_int64_t offset = 0;
      // A warning here is a checksum that does not match: the contents are damaged.
      while ((r = ::archive_read_data_block(reader.a, &block, &size, &offset)) == ARCHIVE_OK) {
        if (::archive_write_data_block(disk, block, size, offset) < ARCHIVE_WARN) {
          why = "cannot write " + Quote(e.raw) + ": " + ::archive_error_string(disk);
          rc = kUnreadable;
          break;
        }
      }
      if (rc == 0 && r != ARCHIVE_EOF) {
        why = "the archive is damaged at " + Quote(e.raw) + ": " + reader.Error();
        rc = kUnreadable;
      }
      if (rc != 0) break;
    }
    if (::archive_write_finish_entry(disk) < ARCHIVE_WARN) {
      why = "cannot write " + Quote(e.raw) + ": " + ::archive_error_string(disk);
      rc = kUnreadable;
      break;
    }
  }
  if (rc == 0 && index != judged.size()) {
    why = "the archive changed while it was unpacked";
    rc = kUnreadable;
  }
  if (::archive_write_close(disk) < ARCHIVE_WARN && rc == 0) {
    why = std::string("cannot finish unpacking: ") + ::archive_error_string(disk);
    rc = kUnreadable;
  }
  ::archive_write_free(disk);
  return rc;
}

int Fail(const WString& errFile, const std::string& exe, const std::string& why, int rc) {
  std::string line = exe + ": " + why + "\n";
  if (!errFile.empty()) WriteWholeFile(errFile, line.data(), line.size());
  return rc;
}

}  // namespace

int UnpackSelfExtractingArchive(const WString& dir, const WString& exeName, const WString& outFile,
                                const WString& errFile) {
  if (!outFile.empty()) WriteWholeFile(outFile, "", 0);
  if (!errFile.empty()) WriteWholeFile(errFile, "", 0);
  const std::string exe = WToUtf8(exeName);
  // The directory without links or ".." in its path: the secure-extraction checks look at every
  // element of the paths they are given, ours as well as the entries'.
  char real[PATH_MAX];
  if (!::realpath(WToUtf8(dir).c_str(), real))
    return Fail(errFile, exe, "the target directory is missing", kUnreadable);
  const std::string base = real;
  const std::string file = base + "/" + exe;

  Utf8Locale utf8;
  std::vector<Entry> entries;
  std::string why;
  if (int rc = ReadHeaders(file, entries, why)) return Fail(errFile, exe, why, rc);
  std::set<std::string> links;
  for (const Entry& e : entries) {
    if (e.type == AE_IFLNK) links.insert(e.name);
  }
  for (const Entry& e : entries) {
    std::string refusal = Refusal(e, links);
    if (!refusal.empty()) {
      return Fail(errFile, exe, "refused, nothing unpacked: the entry " + Quote(e.raw) + " " + refusal, kRefused);
    }
  }
  if (int rc = Extract(file, base, entries, why)) return Fail(errFile, exe, why, rc);
  return 0;
}

}  // namespace platform

// Self-extracting archives. POSIX: zips built here with libarchive's writer, a stub of arbitrary
// bytes in front, unpacked in-process; hostile entries refuse the whole archive. Windows: the
// archive runs through the command interpreter (the test child stands in for the stub).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/Archive.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "platform/FileTree.h"
#include "tests/unit/LinkTarget.h"

#ifndef _WIN32
#include <archive.h>
#include <archive_entry.h>
#include <locale.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

using namespace platform;

namespace {

class ArchiveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_root = TempDirectory() + kPathSeparator + u"em_archive_test";
    m_dir = m_root + u"/unpack";
    WString error;
    RemoveTree(m_root, error);
    ASSERT_TRUE(CreateDirectoryPath(m_root));
    ASSERT_TRUE(CreateDirectoryPath(m_dir));
  }
  void TearDown() override {
    WString error;
    RemoveTree(m_root, error);
  }
  WString In(const WString& relative) const { return m_dir + u"/" + relative; }
  WString Log(const char16_t* name) const { return m_root + u"/" + name; }
  std::string Read(const WString& path) const {
    std::string bytes;
    return ReadWholeFile(path, bytes) ? bytes : std::string("<missing>");
  }
  std::vector<std::string> Listing() const {
    std::vector<DirEntry> entries;
    ListDirectory(m_dir, entries);
    std::vector<std::string> names;
    for (const DirEntry& e : entries) names.push_back(WToUtf8(e.name));
    return names;
  }
  int Unpack(const WString& exe) { return UnpackSelfExtractingArchive(m_dir, exe, Log(u"out.txt"), Log(u"err.txt")); }

  WString m_root;
  WString m_dir;
};

#ifndef _WIN32

struct Item {
  std::string name;
  char type;         // 'f' file, 'd' directory, 'l' link
  std::string data;  // contents, or a link's target
};

// A zip of the items as libarchive writes it; `cp437` writes names in CP437 without the UTF-8
// flag (the names are given in UTF-8 either way).
std::string MakeZip(const std::vector<Item>& items, bool cp437 = false) {
  locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
  locale_t previous = uselocale(utf8);
  std::vector<char> buffer(1 << 20);
  size_t used = 0;
  archive* a = archive_write_new();
  archive_write_set_format_zip(a);
  if (cp437) archive_write_set_options(a, "hdrcharset=CP437");
  archive_write_open_memory(a, buffer.data(), buffer.size(), &used);
  for (const Item& item : items) {
    archive_entry* e = archive_entry_new();
    archive_entry_set_pathname(e, item.name.c_str());
    archive_entry_set_mtime(e, 1500000000, 0);
    if (item.type == 'd') {
      archive_entry_set_filetype(e, AE_IFDIR);
      archive_entry_set_perm(e, 0755);
    } else if (item.type == 'l') {
      archive_entry_set_filetype(e, AE_IFLNK);
      archive_entry_set_perm(e, 0777);
      archive_entry_set_symlink(e, item.data.c_str());
    } else {
      archive_entry_set_filetype(e, AE_IFREG);
      archive_entry_set_perm(e, 0644);
      archive_entry_set_size(e, static_cast<la_int64_t>(item.data.size()));
    }
    EXPECT_EQ(archive_write_header(a, e), ARCHIVE_OK) << item.name;
    if (item.type == 'f') archive_write_data(a, item.data.data(), item.data.size());
    archive_entry_free(e);
  }
  archive_write_close(a);
  archive_write_free(a);
  uselocale(previous);
  freelocale(utf8);
  return std::string(buffer.data(), used);
}

// A few KB of arbitrary bytes, as a program stub stands in front of the zip.
std::string Stub() {
  std::string stub("MZ");
  uint32_t x = 12345;
  while (stub.size() < 5000) {
    x = x * 1103515245u + 12345u;
    stub.push_back(static_cast<char>(x >> 24));
  }
  return stub;
}

uint32_t Get32(const std::string& s, size_t at) {
  return static_cast<uint32_t>(static_cast<unsigned char>(s[at])) |
         static_cast<uint32_t>(static_cast<unsigned char>(s[at + 1])) << 8 |
         static_cast<uint32_t>(static_cast<unsigned char>(s[at + 2])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(s[at + 3])) << 24;
}
uint16_t Get16(const std::string& s, size_t at) {
  return static_cast<uint16_t>(static_cast<unsigned char>(s[at]) | static_cast<unsigned char>(s[at + 1]) << 8);
}
void Put32(std::string& s, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) s[at + static_cast<size_t>(i)] = static_cast<char>(v >> (8 * i));
}

// The stub in front and the zip's offsets made to count from the start of the whole file, as a
// self-extracting archive's builder writes them (a plain concatenation keeps them counting from
// the start of the zip).
std::string WithStub(const std::string& zip, bool offsetsFromFileStart) {
  const std::string stub = Stub();
  std::string out = stub + zip;
  if (!offsetsFromFileStart) return out;
  const size_t eocd = out.rfind(std::string("PK\x05\x06", 4));
  EXPECT_NE(eocd, std::string::npos);
  const uint32_t cd = Get32(out, eocd + 16);
  const uint16_t count = Get16(out, eocd + 10);
  Put32(out, eocd + 16, cd + static_cast<uint32_t>(stub.size()));
  size_t at = stub.size() + cd;
  for (uint16_t i = 0; i < count; ++i) {
    EXPECT_EQ(Get32(out, at), 0x02014b50u);
    Put32(out, at + 42, Get32(out, at + 42) + static_cast<uint32_t>(stub.size()));
    at += 46u + Get16(out, at + 28) + Get16(out, at + 30) + Get16(out, at + 32);
  }
  return out;
}

#endif

}  // namespace

#ifndef _WIN32

TEST_F(ArchiveTest, UnpacksBehindAStubWithEitherOffsetBase) {
  const std::vector<Item> items = {
      {"top.txt", 'f', "top"},
      {"sub/", 'd', ""},
      {"sub/inner.txt", 'f', "inner"},
      {"empty/", 'd', ""},
      {"deep/er/x.bin", 'f', std::string("\0\1\2", 3)},
      {"sub/l", 'l', "inner.txt"},
      {"up", 'l', "sub/../top.txt"},
      {"win\\path.txt", 'f', "w"},
      {"\xC3\xBC.txt", 'f', "u"},
  };
  const std::string zip = MakeZip(items);
  for (bool fromFileStart : {false, true}) {
    SCOPED_TRACE(fromFileStart ? "offsets from the file's start" : "offsets from the zip's start");
    std::string exe = WithStub(zip, fromFileStart);
    ASSERT_TRUE(WriteWholeFile(In(u"pack.exe"), exe.data(), exe.size()));
    // An old file is overwritten; a link standing where a file comes is replaced, not followed.
    ASSERT_TRUE(WriteWholeFile(In(u"top.txt"), "old and longer", 14));
    ASSERT_TRUE(WriteWholeFile(Log(u"victim.txt"), "keep", 4));
    ::unlink(WToUtf8(In(u"\u00fc.txt")).c_str());
    ASSERT_EQ(::symlink(WToUtf8(Log(u"victim.txt")).c_str(), WToUtf8(In(u"\u00fc.txt")).c_str()), 0);

    EXPECT_EQ(Unpack(u"pack.exe"), 0) << Read(Log(u"err.txt"));
    EXPECT_EQ(Read(Log(u"err.txt")), "");
    EXPECT_EQ(Read(Log(u"out.txt")), "");
    EXPECT_EQ(Read(In(u"top.txt")), "top");
    EXPECT_EQ(Read(In(u"sub/inner.txt")), "inner");
    EXPECT_EQ(Read(In(u"deep/er/x.bin")), std::string("\0\1\2", 3));
    EXPECT_TRUE(DirectoryExists(In(u"empty")));
    EXPECT_EQ(Read(In(u"win/path.txt")), "w");
    std::string target;
    ASSERT_TRUE(IsLink(In(u"sub/l"), target));
    EXPECT_EQ(target, "inner.txt");
    EXPECT_EQ(Read(In(u"up")), "top");
    EXPECT_FALSE(IsLink(In(u"\u00fc.txt"), target));
    EXPECT_EQ(Read(In(u"\u00fc.txt")), "u");
    EXPECT_EQ(Read(Log(u"victim.txt")), "keep");
  }
}

TEST_F(ArchiveTest, NamesInCp437BecomeUtf8) {
  const std::string zip = MakeZip({{"\xC3\xBC"
                                    "ber.txt",
                                    'f', "x"}},
                                  true);
  ASSERT_EQ(Get16(zip, 6) & 0x0800, 0) << "the name must be stored without the UTF-8 flag";
  ASSERT_NE(zip.find("\x81"
                     "ber.txt"),
            std::string::npos)
      << "the name must be stored in CP437";
  ASSERT_TRUE(WriteWholeFile(In(u"pack.exe"), zip.data(), zip.size()));
  EXPECT_EQ(Unpack(u"pack.exe"), 0) << Read(Log(u"err.txt"));
  EXPECT_EQ(Read(In(u"\u00fcber.txt")), "x");
}

TEST_F(ArchiveTest, HostileEntriesRefuseTheWholeArchive) {
  const std::vector<std::vector<Item>> hostile = {
      {{"../x", 'f', "1"}},
      {{"/abs", 'f', "1"}},
      {{"a/../../x", 'f', "1"}},
      {{"a\\..\\..\\x", 'f', "1"}},
      {{"C:\\x", 'f', "1"}},
      {{"c:x", 'f', "1"}},
      {{"l", 'l', "/etc"}},
      {{"l", 'l', "../.."}},
      {{"sub/l", 'l', "../../x"}},
      {{"l", 'l', "C:\\Windows"}},
      // Through a link of the archive: written below it, or a link resolved through it.
      {{"l", 'l', "sub"}, {"l/x", 'f', "1"}},
      {{"sub/", 'd', ""}, {"sub/l", 'l', ".."}, {"m", 'l', "sub/l/../.."}},
  };
  for (const std::vector<Item>& bad : hostile) {
    SCOPED_TRACE(bad.back().name + " -> " + bad.back().data);
    std::vector<Item> items = {{"good.txt", 'f', "good"}, {"gooddir/", 'd', ""}};
    items.insert(items.end(), bad.begin(), bad.end());
    items.push_back({"after.txt", 'f', "after"});
    std::string exe = WithStub(MakeZip(items), true);
    ASSERT_TRUE(WriteWholeFile(In(u"pack.exe"), exe.data(), exe.size()));
    EXPECT_EQ(Unpack(u"pack.exe"), 2);
    std::string err = Read(Log(u"err.txt"));
    EXPECT_NE(err.find("refused"), std::string::npos) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_EQ(Listing(), std::vector<std::string>{"pack.exe"});
  }
  EXPECT_FALSE(FileExists(m_root + u"/x"));
}

TEST_F(ArchiveTest, MissingOrDamagedArchivesFail) {
  EXPECT_EQ(Unpack(u"missing.exe"), 1);
  EXPECT_NE(Read(Log(u"err.txt")), "");

  const std::string stub = Stub();
  ASSERT_TRUE(WriteWholeFile(In(u"nozip.exe"), stub.data(), stub.size()));
  EXPECT_EQ(Unpack(u"nozip.exe"), 1);
  EXPECT_NE(Read(Log(u"err.txt")), "");

  // The central directory cut off.
  std::string zip = WithStub(MakeZip({{"a.txt", 'f', "aaaa"}}), true);
  std::string cut = zip.substr(0, zip.size() - 30);
  ASSERT_TRUE(WriteWholeFile(In(u"cut.exe"), cut.data(), cut.size()));
  EXPECT_EQ(Unpack(u"cut.exe"), 1);
  EXPECT_NE(Read(Log(u"err.txt")), "");

  // Contents that fail their checksum: found while unpacking.
  std::string data = Stub().substr(100, 4000);  // does not compress: the flip lands in its data
  std::string good = WithStub(MakeZip({{"first.txt", 'f', "first"}, {"b.txt", 'f', data}}), true);
  std::string bad = good;
  size_t at = bad.find("b.txt") + 2000;
  bad[at] = static_cast<char>(bad[at] ^ 0x55);
  ASSERT_TRUE(WriteWholeFile(In(u"bad.exe"), bad.data(), bad.size()));
  EXPECT_EQ(Unpack(u"bad.exe"), 1);
  EXPECT_NE(Read(Log(u"err.txt")), "");
}

#else

TEST_F(ArchiveTest, RunsTheArchiveThroughTheCommandInterpreterInItsDirectory) {
  // The test child stands in for the stub: it does not know -oq, says so on standard error and
  // ends with 64. Blanks in every name test the interpreter's quoting.
  WString child;
  if (!GetEnv(u"EM_TEST_CHILD", child) || child.empty()) GTEST_SKIP() << "EM_TEST_CHILD is not set";
  if (child[0] == u'/') child = u"Z:" + child;
  std::string program;
  ASSERT_TRUE(ReadWholeFile(child, program));
  ASSERT_TRUE(WriteWholeFile(In(u"the pack.exe"), program.data(), program.size()));
  const WString out = Log(u"out file.txt");
  const WString err = Log(u"err file.txt");
  EXPECT_EQ(UnpackSelfExtractingArchive(m_dir, u"the pack.exe", out, err), 64);
  EXPECT_NE(Read(err).find("unknown command: -oq"), std::string::npos) << Read(err);
  EXPECT_EQ(Read(out), "");

  EXPECT_NE(UnpackSelfExtractingArchive(m_dir, u"missing.exe", out, err), 0);
}

#endif

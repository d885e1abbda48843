// The rows of a check: derived codes, the release note, the copy for the job side, and the
// memory of announced components as a file that may come damaged or overlong.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "base/WFormat.h"
#include "check/DiffAlert.h"
#include "check/DiffCodes.h"
#include "check/DiffComponentInfo.h"
#include "check/DiffData.h"
#include "config/MakeDirectoryPath.h"
#include "foundation/CFile.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/FileIo.h"
#include "tests/unit/EngineDouble.h"
#include "tests/unit/TestRegistry.h"

namespace {

std::string Read(const WString& path) {
  std::string bytes;
  platform::ReadWholeFile(path, bytes);
  return bytes;
}

}  // namespace

TEST(DiffCodes, RankingRebootAndSeverity) {
  EXPECT_EQ(diffcodes::RankingCode(0, 1, 1), 0);
  EXPECT_EQ(diffcodes::RankingCode(1, 1, 0), 1);
  EXPECT_EQ(diffcodes::RankingCode(1, 0, 1), 2);
  EXPECT_EQ(diffcodes::RankingCode(2, 1, 1), 3);
  EXPECT_EQ(diffcodes::RankingCode(3, 0, 1), 4);
  EXPECT_EQ(diffcodes::RankingCode(3, 1, 0), 5);
  EXPECT_EQ(diffcodes::RankingCode(4, 1, 1), 0);
  EXPECT_EQ(diffcodes::RankingCode(0xFFFFFFFFu, 0, 0), 0);
  EXPECT_EQ(diffcodes::RebootCode(u"no"), 0);
  EXPECT_EQ(diffcodes::RebootCode(u"immediately"), 1);
  EXPECT_EQ(diffcodes::RebootCode(u"yes"), 2);
  EXPECT_EQ(diffcodes::RebootCode(u"Yes"), 3);
  EXPECT_EQ(diffcodes::RebootCode(u"yes "), 3);
  EXPECT_EQ(diffcodes::RebootCode(u""), 3);
  EXPECT_EQ(diffcodes::SeverityCode(u"mandatory"), 2);
  EXPECT_EQ(diffcodes::SeverityCode(u"recommended"), 1);
  EXPECT_EQ(diffcodes::SeverityCode(u"Mandatory"), 0);
  EXPECT_EQ(diffcodes::SeverityCode(u"critical"), 0);
}

TEST(DiffData, RowsReleaseNotesAndTheCopyForJobs) {
  TestRegistry reg{u"difftables"};
  const WString root = TestDirectory(u"difftables");
  CFile::RemoveDirectoryTree(root, false);
  reg.String(u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden\\Setup", u"TempRoot", root);
  {
    UM_Util util(nullptr);
    util.umGetLogDir();
    ASSERT_TRUE(util.umStartLogging(u"UM_Checknew.log", u"UpdateCheck"));
    const WString repo = root + kSep + u"repo";
    MakeDirectoryPath(repo + u"/FW/Noted");
    platform::WriteWholeFile(repo + u"/FW/Noted/rel_note.txt", "notes", 5);

    DiffData table(&util, repo);
    PackageRow noted;
    noted.path = u"FW/Noted";
    noted.ranking = 3;
    noted.downgrade = 1;
    noted.reboot = u"immediately";
    noted.severity = u"mandatory";
    UpdateElement e = noted.Element();
    e.ZBPFileName = nullptr;  // engines may leave texts null
    ASSERT_TRUE(table.add_um_component(&e, false, true, u"why not", 7));
    PackageRow bare;
    bare.path = u"FW/Bare";
    UpdateElement b = bare.Element();
    ASSERT_TRUE(table.add_um_component(&b, true, false, nullptr, -1));
    EXPECT_FALSE(table.add_um_component(nullptr, true, false, nullptr, 0));
    ASSERT_EQ(table.getNumberEntries(), 2);
    EXPECT_EQ(table.getComponent(-1), nullptr);
    EXPECT_EQ(table.getComponent(2), nullptr);

    const um_component* row = table.getComponent(0);
    EXPECT_EQ(row->releaseNote, repo + kSep + u"FW/Noted" + kSep + u"rel_note.txt");
    EXPECT_EQ(row->rankingCode, 4);
    EXPECT_EQ(row->rebootCode, 1);
    EXPECT_EQ(row->severityCode, 2);
    EXPECT_EQ(row->zbpFileName, u"");
    EXPECT_EQ(row->engineErrorText, u"why not");
    EXPECT_EQ(row->installable, 0);
    EXPECT_EQ(row->binaryLoaded, 1);
    EXPECT_EQ(row->downloadSize, 7);
    EXPECT_EQ(WString(row->vendor), u"Corvane Works");
    EXPECT_EQ(table.getComponent(1)->releaseNote, u"");
    EXPECT_EQ(table.getComponent(1)->engineErrorText, u"");
    util.umEndLogging();
    const std::string log = Read(util.umGetLogDir() + kSep + u"UM_Checknew.log");
    EXPECT_NE(log.find("DiffData::add_umComponent\t missing release note file '" +
                       WToUtf8(repo + kSep + u"FW/Bare" + kSep + u"rel_note.txt") + "'"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("FW/Noted"), std::string::npos);

    DiffComponentInfo info;
    EXPECT_EQ(info.errNumber, DiffComponentInfo::kNothingFilled);
    EXPECT_EQ(info.downloadSize, 0);
    info.CopyFrom(*row);
    EXPECT_EQ(info.errNumber, DiffComponentInfo::kFilled);
    EXPECT_EQ(info.path, u"FW/Noted");
    EXPECT_EQ(info.releaseNote, row->releaseNote);
    EXPECT_EQ(info.vendor, u"Corvane Works");
    EXPECT_EQ(info.rankingCode, 4);
    EXPECT_EQ(info.downloadSize, 7);
  }
  CFile::RemoveDirectoryTree(root, true);
}

// The old list as it may come: more than 200 lines, lines without a delimiter, a path longer than
// the reader's line buffer, paths in other case.
TEST(DiffAlert, OldListReadAsTheFixedBuffersReadIt) {
  const WString dir = TestDirectory(u"diffalert");
  CFile::RemoveDirectoryTree(dir, false);
  const WString oldFile = dir + kSep + u"ztNew.txt";
  const WString newFile = dir + kSep + u"new_ztNew.txt";
  const std::string longPath(1200, 'L');
  std::string text = "FW/Keep|X|1|2|recommended\nno delimiter here\n" + longPath + "|X|1|2|optional\n";
  for (int i = 0; i < 210; ++i) text += "FW/N" + std::to_string(i) + "|X|1|2|optional\r\n";
  ASSERT_TRUE(platform::WriteWholeFile(oldFile, text.data(), text.size()));

  DiffAlert alert(&oldFile, newFile);
  EXPECT_FALSE(alert.isNewComponent(u"FW/Keep"));
  EXPECT_TRUE(alert.isNewComponent(u"fw/keep"));
  EXPECT_TRUE(alert.isNewComponent(u"no delimiter here"));
  // The long line came in pieces: neither piece holds the whole path.
  EXPECT_TRUE(alert.isNewComponent(WFromUtf8(longPath)));
  EXPECT_FALSE(alert.isNewComponent(WFromUtf8(longPath.substr(999))));
  // Entries: Keep; Keep again for the line without a delimiter and again for the long line's
  // first piece, which has none either; the rest of the long path; then the list until 200 are
  // held: FW/N0 .. FW/N195.
  EXPECT_FALSE(alert.isNewComponent(u"FW/N195"));
  EXPECT_TRUE(alert.isNewComponent(u"FW/N196"));

  PackageRow up;
  up.path = u"FW/N196";
  PackageRow old = up;
  old.path = u"FW/N0";
  PackageRow same = up;
  same.path = u"FW/Same";
  same.ranking = 2;
  same.upgrade = 0;
  PackageRow notHighest = up;
  notHighest.path = u"FW/Lower";
  notHighest.upgrade = 0;
  UpdateElement e1 = up.Element(), e2 = old.Element(), e3 = same.Element(), e4 = notHighest.Element();
  EXPECT_EQ(alert.addNewComp2File(&e1), 1);
  EXPECT_EQ(alert.addNewComp2File(&e2), 1);
  EXPECT_EQ(alert.addNewComp2File(&e3), 1);
  EXPECT_EQ(alert.addNewComp2File(&e4), 1);
  EXPECT_EQ(alert.addNewComp2File(nullptr), -1);
  EXPECT_EQ(alert.getMailList(), u"FW/N196");
  EXPECT_EQ(alert.getNumberNewComponents(), 1);
  std::string written = Read(newFile);
  written.erase(std::remove(written.begin(), written.end(), '\r'), written.end());
  EXPECT_EQ(written, "FW/N196|X1|1.0|2.0|recommended\nFW/N0|X1|1.0|2.0|recommended\n");

  // Without an old list every upgrade is new.
  DiffAlert fresh(nullptr, newFile);
  EXPECT_EQ(fresh.addNewComp2File(&e2), 1);
  EXPECT_EQ(fresh.getMailList(), u"FW/N0");
  CFile::RemoveDirectoryTree(dir, true);
}

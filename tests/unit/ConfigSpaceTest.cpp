// The configuration space and its ini files, on a private data and binary directory named in a
// private registry.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "base/WFormat.h"
#include "config/CConfigSpace.h"
#include "config/CIniFile.h"
#include "platform/FileIo.h"
#include "platform/PrivateProfile.h"
#include "tests/unit/TestRegistry.h"

using platform::kPathSeparator;

namespace {

const WString kBaseKey = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";
const char16_t kUuidKey[] = u"SYSTEM\\CurrentControlSet\\Control\\UUID\\7D41E2A0-5B3C-4F18-9E66-2C0A91D7B34F";
const char16_t kAgentKey[] = u"SOFTWARE\\Hadley Brandt\\SNMP Agents\\HBR Node Warden\\Parameters";
constexpr uint32_t kOwnCabinet = 3;

void Address(RequestMessage& message, uint32_t oe, uint32_t ca, uint32_t oi = 0) {
  ConstructRequest(message, 0xE002, oe, oi, ca, ST_NONE);
}
void Number(RequestMessage& message, uint32_t oe, uint32_t ca, uint32_t value) {
  Address(message, oe, ca);
  SetDataNumber(message, GetCurrentCommand(message), value, 4);
}
void Text(RequestMessage& message, uint32_t oe, uint32_t ca, const WString& text) {
  Address(message, oe, ca);
  SetDataString(message, GetCurrentCommand(message), text);
}
uint32_t Status(const RequestMessage& message) {
  return GetCommandValue(message, 0, kKeyST, ST_ABSENT);
}
WString DataText(const RequestMessage& message) {
  WString text;
  return GetDataString(message, 0, text, 0) ? text : WString(u"<no text>");
}
uint32_t DataNumber(const RequestMessage& message) {
  uint32_t value = 0xDEADBEEF;
  GetDataValue(message, 0, value);
  return value;
}

class ConfigSpace : public ::testing::Test {
 protected:
  ConfigSpace() : m_registry(u"configspace") {}
  void SetUp() override {
    m_dir = TestDirectory(u"configspace");
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(m_dir), ec))
      std::filesystem::remove_all(entry.path(), ec);
    m_bin = m_dir + kPathSeparator + u"bin";
    platform::CreateDirectoryPath(m_bin);
    m_registry.String(kBaseKey + u"\\DATA", u"DataRoot", m_dir);
    m_registry.String(kBaseKey + u"\\Setup", u"BinRoot", m_bin);
    m_space.SetOwnCabinet(kOwnCabinet);
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(std::filesystem::path(m_dir), ec);
  }
  WString Common() const { return m_dir + kPathSeparator + u"CommonConfig.ccs"; }
  void PutDefaults(const WString& dir, const std::u16string& text) {
    const std::string bytes = Utf16LeWithMark(text);
    ASSERT_TRUE(platform::WriteWholeFile(dir + kPathSeparator + u"DefaultConfig.ccs", bytes.data(), bytes.size()));
  }
  // The stored text of a key of the common file, or "<absent>".
  WString Stored(const char16_t* key, const char16_t* section = u"CurrentConfig") {
    char16_t buffer[512];
    uint32_t n = platform::ProfileReadText(Common(), section, key, u"<absent>", buffer, 512);
    return WString(buffer, n);
  }
  void Store(const char16_t* key, const char16_t* value) {
    ASSERT_TRUE(platform::ProfileWrite(Common(), u"CurrentConfig", key, value));
  }

  TestRegistry m_registry;
  WString m_dir, m_bin;
  CConfigSpace m_space;
};

}  // namespace

TEST_F(ConfigSpace, OpenCreatesTheCommonFileAndFindsTheDefaults) {
  EXPECT_EQ(m_space.Open(), 0);  // no default file anywhere
  std::string bytes;
  ASSERT_TRUE(platform::ReadWholeFile(Common(), bytes));
  EXPECT_EQ(bytes, "\xFF\xFE");
  EXPECT_TRUE(m_space.CommonFile().IsOpen());
  EXPECT_FALSE(m_space.DefaultFile().IsOpen());

  // The data directory holds the defaults when the binary directory does not; the binary one wins.
  Store(u"1A40.Size", u"4");
  PutDefaults(m_dir, u"[DefaultConfig]\r\n1A44.Size=1\r\n1A44=1\r\n");
  EXPECT_EQ(m_space.Open(), 1);
  EXPECT_EQ(m_space.DefaultFile().GetFileName(), m_dir + kPathSeparator + u"DefaultConfig.ccs");
  PutDefaults(m_bin, u"[DefaultConfig]\r\n1A44.Size=1\r\n1A44=2\r\n");
  EXPECT_EQ(m_space.Open(), 1);
  EXPECT_EQ(m_space.DefaultFile().GetFileName(), m_bin + kPathSeparator + u"DefaultConfig.ccs");
  EXPECT_EQ(Stored(u"1A40.Size"), u"4");  // an existing common file is left as it is

  RequestMessage message;
  Address(message, 0x1A44, kOwnCabinet);
  EXPECT_EQ(m_space.ReadValue(message, 1, nullptr), 1);
  EXPECT_EQ(DataNumber(message), 2u);
}

TEST_F(ConfigSpace, NumbersTakeTheirLengthFromTheirMagnitude) {
  m_space.Open();
  RequestMessage message;
  const std::pair<uint32_t, const char16_t*> writes[] = {{200, u"1"}, {300, u"2"}, {70000, u"4"}, {7, u"1"}};
  for (const auto& [value, size] : writes) {
    Number(message, 0x1A41, kOwnCabinet, value);
    EXPECT_EQ(m_space.WriteNumber(message, nullptr), 1);
    EXPECT_EQ(Status(message), ST_OK);
    EXPECT_EQ(Stored(u"1A41.FFFF.0000"), WFormat(u"%u", value));
    EXPECT_EQ(Stored(u"1A41.FFFF.0000.Size"), size);
    Address(message, 0x1A41, kOwnCabinet);
    EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 1);
    EXPECT_EQ(DataNumber(message), value);
  }

  // Another cabinet has keys of its own.
  Number(message, 0x1A92, 0x12, 8080);
  EXPECT_EQ(m_space.WriteNumber(message, nullptr), 1);
  EXPECT_EQ(Stored(u"1A92.0012.0000"), u"8080");

  // A text is refused and nothing is written; no data deletes the value and leaves length 0.
  Text(message, 0x1A4A, kOwnCabinet, u"hello");
  EXPECT_EQ(m_space.WriteNumber(message, nullptr), 0);
  EXPECT_EQ(Status(message), ST_FAILED);
  EXPECT_EQ(Stored(u"1A4A.FFFF.0000.Size"), u"<absent>");
  Address(message, 0x1A41, kOwnCabinet);
  EXPECT_EQ(m_space.WriteNumber(message, nullptr), 1);
  EXPECT_EQ(Stored(u"1A41.FFFF.0000"), u"<absent>");
  EXPECT_EQ(Stored(u"1A41.FFFF.0000.Size"), u"0");
  EXPECT_EQ(m_space.ReadValue(message, 1, nullptr), 1);
  EXPECT_EQ(GetDataLength(message, 0), 0);
  EXPECT_EQ(Status(message), ST_OK);
}

TEST_F(ConfigSpace, TextLengthsDecideHowTextsReadBack) {
  PutDefaults(m_bin, u"[DefaultConfig]\r\n1A47.Size=7\r\n1A47=default\r\n");
  m_space.Open();
  RequestMessage message;

  Text(message, 0x041B, kOwnCabinet, u"line1\nline2");
  EXPECT_EQ(m_space.WriteText(message, nullptr), 1);
  EXPECT_EQ(Stored(u"041B.FFFF.0000"), u"line1||line2");
  EXPECT_EQ(Stored(u"041B.FFFF.0000.Size"), u"12");  // the stored length
  Address(message, 0x041B, kOwnCabinet);
  EXPECT_EQ(m_space.ReadTextValue(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), u"line1\nline2");
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), u"line1||line2");

  // Texts of 1, 2 or 4 characters have a number's length: ReadValue takes their leading digits.
  Text(message, 0x1A40, kOwnCabinet, u"42ab");
  EXPECT_EQ(m_space.WriteText(message, nullptr), 1);
  Address(message, 0x1A40, kOwnCabinet);
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), u"<no text>");
  EXPECT_EQ(DataNumber(message), 42u);
  EXPECT_EQ(m_space.ReadTextValue(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), u"42ab");

  // An empty text is present and empty: the default file is not asked.
  Text(message, 0x1A47, kOwnCabinet, u"server");
  m_space.WriteText(message, nullptr);
  Text(message, 0x1A47, kOwnCabinet, u"");
  EXPECT_EQ(m_space.WriteText(message, nullptr), 1);
  EXPECT_EQ(Stored(u"1A47.FFFF.0000"), u"<absent>");
  EXPECT_EQ(Stored(u"1A47.FFFF.0000.Size"), u"0");
  Address(message, 0x1A47, kOwnCabinet);
  EXPECT_EQ(m_space.ReadValue(message, 1, nullptr), 1);
  EXPECT_EQ(GetDataLength(message, 0), 0);
  EXPECT_EQ(Status(message), ST_OK);
}

TEST_F(ConfigSpace, SizeKeysDecideWhatIsThere) {
  m_space.Open();
  RequestMessage message;
  std::vector<uint8_t> bytes;

  Store(u"020A.FFFF.0000", u"0A00fF7g");
  Store(u"020A.FFFF.0000.Size[]", u"4");
  Address(message, 0x020A, kOwnCabinet);
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 1);
  ASSERT_TRUE(HasRawData(message));
  ASSERT_TRUE(GetDataStream(message, 0, bytes));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0x0A, 0x00, 0xFF, 0x07}));  // a pair reads its leading hex digits

  Store(u"020A.FFFF.0000.Size", u"8");  // ".Size" wins over ".Size[]"
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), u"0A00fF7g");

  Store(u"020A.FFFF.0000.Size", nullptr);
  Store(u"020A.FFFF.0000.Size[]", u"0");
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 1);
  EXPECT_EQ(GetDataLength(message, 0), 0);
  EXPECT_EQ(Status(message), ST_OK);

  // A value key without a size key is not there, and the message keeps its data.
  Store(u"1A48.FFFF.0000", u"orphan");
  Number(message, 0x1A48, kOwnCabinet, 77);
  EXPECT_EQ(m_space.ReadValue(message, 1, nullptr), 0);
  EXPECT_EQ(Status(message), ST_NOT_AVAILABLE);
  EXPECT_EQ(DataNumber(message), 77u);

  // The own cabinet reads the cabinet form when the local form is missing; the local one wins.
  const WString cabinetKey = WFormat(u"1A47.%04X.0000", kOwnCabinet);
  Store((cabinetKey + u".Size").c_str(), u"5");
  Store(cabinetKey.c_str(), u"cabin");
  Address(message, 0x1A47, kOwnCabinet);
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), u"cabin");
  Store(u"1A47.FFFF.0000.Size", u"5");
  Store(u"1A47.FFFF.0000", u"local");
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), u"local");
  Address(message, 0x1A47, kOwnCabinet + 1);  // other cabinets never see the local form
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 0);
}

TEST_F(ConfigSpace, TextsStayInsideTheirOwnKey) {
  m_space.Open();
  RequestMessage message;
  // A carriage return is a line break like any other: it cannot end the entry and plant the next.
  Text(message, 0x1A42, kOwnCabinet, u"alice\r1A47.FFFF.0000=evil.example.com\r1A47.FFFF.0000.Size=16");
  EXPECT_EQ(m_space.WriteText(message, nullptr), 1);
  Address(message, 0x1A47, kOwnCabinet);
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 0);
  EXPECT_EQ(Status(message), ST_NOT_AVAILABLE);
  EXPECT_EQ(Stored(u"1A42.FFFF.0000"), u"alice||1A47.FFFF.0000=evil.example.com||1A47.FFFF.0000.Size=16");

  // A mail body with CR LF keeps its line breaks, as line feeds.
  Text(message, 0x041B, kOwnCabinet, u"Dear admin,\r\n\r\nnew updates.\r\nbye\rnow\n");
  EXPECT_EQ(m_space.WriteText(message, nullptr), 1);
  Address(message, 0x041B, kOwnCabinet);
  EXPECT_EQ(m_space.ReadTextValue(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), u"Dear admin,\n\nnew updates.\nbye\nnow\n");

  // A password with line breaks is stored in base64, which has none; it reads back whole.
  Text(message, 0x1A43, kOwnCabinet, u"pass\r\nword");
  EXPECT_EQ(m_space.WritePassword(message, nullptr), 1);
  Address(message, 0x1A43, kOwnCabinet);
  EXPECT_EQ(m_space.ReadPassword(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), u"pass\r\nword");
}

TEST_F(ConfigSpace, BlanksAndQuotationMarksAtTheEdgesReadBackWhole) {
  m_space.Open();
  RequestMessage message;
  const WString texts[] = {
      u"  leading blanks", u"trailing blank ", u"\"quoted\"", u"'single'", u"\tC:\\tab",
      u"\u00A0no-break",   u"\"half",          u"\" \"",      u"  ",       WString(64508, u'x') + u" "};
  for (const WString& text : texts) {
    Text(message, 0x041A, kOwnCabinet, text);
    EXPECT_EQ(m_space.WriteText(message, nullptr), 1);
    Address(message, 0x041A, kOwnCabinet);
    EXPECT_EQ(m_space.ReadTextValue(message, 0, nullptr), 1);
    EXPECT_EQ(DataText(message), text) << WToUtf8(text.substr(0, 40));
    EXPECT_EQ(Stored(u"041A.FFFF.0000.Size"), WFormat(u"%u", static_cast<unsigned>(text.size())));
  }
}

TEST_F(ConfigSpace, TextsThatCannotReadBackWholeAreRefused) {
  m_space.Open();
  RequestMessage message;
  Text(message, 0x1A42, kOwnCabinet, u"before");
  ASSERT_EQ(m_space.WriteText(message, nullptr), 1);
  Text(message, 0x1A94, kOwnCabinet, u"secret");
  ASSERT_EQ(m_space.WritePassword(message, nullptr), 1);
  const WString password = Stored(u"1A94.FFFF.0000");

  // Refused: "ST" 6, nothing stored, the old value and its size stay.
  const WString nul(u"ab\0cd", 5);
  // The largest read buffer holds 63 x 1,024 characters; a value that leaves it three places reads whole.
  constexpr size_t kLongest = 64509;
  const WString longest(kLongest, u'x');
  const std::pair<WString, const char16_t*> texts[] = {
      {nul, u"a terminator inside"},
      {longest + u"x", u"one character too long"},
      {WString(kLongest / 2 + 1, u'\n'), u"too long once its line breaks are stored"},
      {WString(10u << 20, u'y'), u"10 MB"}};
  for (const auto& [text, what] : texts) {
    Text(message, 0x1A42, kOwnCabinet, text);
    EXPECT_EQ(m_space.WriteText(message, nullptr), 0) << WToUtf8(what);
    EXPECT_EQ(Status(message), ST_FAILED) << WToUtf8(what);
    EXPECT_EQ(Stored(u"1A42.FFFF.0000"), u"before") << WToUtf8(what);
    EXPECT_EQ(Stored(u"1A42.FFFF.0000.Size"), u"6") << WToUtf8(what);
  }
  for (const WString& text : {nul, WString(kLongest, u'p')}) {
    Text(message, 0x1A94, kOwnCabinet, text);
    EXPECT_EQ(m_space.WritePassword(message, nullptr), 0);
    EXPECT_EQ(Status(message), ST_FAILED);
    EXPECT_EQ(Stored(u"1A94.FFFF.0000"), password);
  }

  // The longest text that is taken reads back whole.
  Text(message, 0x1A42, kOwnCabinet, longest);
  EXPECT_EQ(m_space.WriteText(message, nullptr), 1);
  Address(message, 0x1A42, kOwnCabinet);
  EXPECT_EQ(m_space.ReadTextValue(message, 0, nullptr), 1);
  EXPECT_EQ(DataText(message), longest);
}

TEST_F(ConfigSpace, DefaultsAndOtherSections) {
  PutDefaults(m_bin, u"[DefaultConfig]\r\n1A44.Size=1\r\n1A44=258\r\n1A40.Size=5\r\n1A40=C:\\R\r\n");
  m_space.Open();
  RequestMessage message;
  Address(message, 0x1A44, 9);
  EXPECT_EQ(m_space.ReadValue(message, 0, nullptr), 0);
  EXPECT_EQ(Status(message), ST_NOT_AVAILABLE);
  EXPECT_EQ(m_space.ReadValue(message, 1, nullptr), 1);
  EXPECT_EQ(DataNumber(message), 2u);  // one byte of 258
  EXPECT_EQ(Status(message), ST_OK);
  Address(message, 0x1A40, kOwnCabinet);
  EXPECT_EQ(m_space.ReadTextValue(message, 1, nullptr), 1);
  EXPECT_EQ(DataText(message), u"C:\\R");

  // A named section is a store of its own.
  Text(message, 0x1A40, kOwnCabinet, u"elsewhere");
  EXPECT_EQ(m_space.WriteText(message, u"OtherConfig"), 1);
  EXPECT_EQ(Stored(u"1A40.FFFF.0000", u"OtherConfig"), u"elsewhere");
  Address(message, 0x1A40, kOwnCabinet);
  EXPECT_EQ(m_space.ReadTextValue(message, 1, nullptr), 1);
  EXPECT_EQ(DataText(message), u"C:\\R");
  EXPECT_EQ(m_space.ReadTextValue(message, 0, u"OtherConfig"), 1);
  EXPECT_EQ(DataText(message), u"elsewhere");
}

TEST_F(ConfigSpace, PasswordsAreStoredEnciphered) {
  m_space.Open();
  RequestMessage message;
  Text(message, 0x1A94, kOwnCabinet, u"s3cret!");
  EXPECT_EQ(m_space.WritePassword(message, nullptr), 1);
  const WString stored = Stored(u"1A94.FFFF.0000");
  EXPECT_EQ(stored.find(u"s3cret"), WString::npos);
  EXPECT_EQ(Stored(u"1A94.FFFF.0000.Size"), WFormat(u"%u", static_cast<unsigned>(stored.size())));
  Address(message, 0x1A94, kOwnCabinet);
  EXPECT_EQ(m_space.ReadPassword(message, 1, nullptr), 1);
  EXPECT_EQ(DataText(message), u"s3cret!");
  EXPECT_EQ(Status(message), ST_OK);

  Address(message, 0x1A94, kOwnCabinet);
  EXPECT_EQ(m_space.WritePassword(message, nullptr), 1);
  EXPECT_EQ(Stored(u"1A94.FFFF.0000"), u"<absent>");
  EXPECT_EQ(Stored(u"1A94.FFFF.0000.Size"), u"0");
  Address(message, 0x1A43, kOwnCabinet);
  EXPECT_EQ(m_space.ReadPassword(message, 1, nullptr), 0);
  EXPECT_EQ(Status(message), ST_NOT_AVAILABLE);
}

TEST_F(ConfigSpace, ClosedFilesFindNothingAndTakeNothing) {
  m_space.Open();
  RequestMessage message;
  Number(message, 0x1A41, kOwnCabinet, 1);
  ASSERT_EQ(m_space.WriteNumber(message, nullptr), 1);
  m_space.Close();
  Address(message, 0x1A41, kOwnCabinet);
  EXPECT_EQ(m_space.ReadValue(message, 1, nullptr), 0);
  EXPECT_EQ(Status(message), ST_NOT_AVAILABLE);
  Number(message, 0x1A41, kOwnCabinet, 2);
  EXPECT_EQ(m_space.WriteNumber(message, nullptr), 0);
  EXPECT_EQ(Status(message), ST_FAILED);
  Text(message, 0x1A40, kOwnCabinet, u"x");
  EXPECT_EQ(m_space.WriteText(message, nullptr), 0);
  EXPECT_EQ(Status(message), ST_FAILED);
  EXPECT_EQ(Stored(u"1A41.FFFF.0000"), u"1");
}

TEST_F(ConfigSpace, ActiveSectionFollowsTheRegistry) {
  EXPECT_EQ(CConfigSpace().ReadActiveSection(), u"CurrentConfig");
  m_registry.String(kAgentKey, u"Active Config", u"AgentConfig");
  EXPECT_EQ(CConfigSpace().ReadActiveSection(), u"AgentConfig");
  // With the host's own key named, its CONFIG key decides and the agent's key is not asked.
  m_registry.String(kUuidKey, u"Node Warden", u"SOFTWARE\\EM Test Host");
  EXPECT_EQ(CConfigSpace().ReadActiveSection(), u"CurrentConfig");
  m_registry.String(u"SOFTWARE\\EM Test Host\\CONFIG", u"Active Config", u"HostConfig");
  CConfigSpace space;
  EXPECT_EQ(space.ReadActiveSection(), u"HostConfig");
}

TEST_F(ConfigSpace, ConfigFilesLiveInTheDataDirectory) {
  EXPECT_EQ(CConfigSpace::MakeConfigFileName(u"CommonConfig"), Common());
}

TEST(IniFile, NamesAndOpenStates) {
  CIniFile file;
  file.SetFileName(u"plain.ini");
  EXPECT_EQ(file.GetFileName(), WString(u".") + kPathSeparator + u"plain.ini");
  file.SetFileName(u"");
  file.SetFileName(nullptr);
  EXPECT_EQ(file.GetFileName(), WString(u".") + kPathSeparator + u"plain.ini");

  const WString missingDir = TestDirectory(u"inifile") + kPathSeparator + u"none" + kPathSeparator + u"x.ccs";
  file.SetFileName(missingDir.c_str());
  EXPECT_EQ(file.OpenExisting(0), 0);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(file.OpenUnicode(1), 0);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(file.WriteUnsigned(u"S", u"k", 1), 0);
  EXPECT_EQ(file.OpenUnicode(0), 1);  // open all the same; the writes then fail
  EXPECT_EQ(file.WriteUnsigned(u"S", u"k", 1), 0);
  EXPECT_EQ(WString(file.GetIniText(u"S", u"k", u"dflt")), u"dflt");
}

TEST(IniFile, LongValuesGrowTheBufferUpToItsLimit) {
  const WString path = TestDirectory(u"inifile") + kPathSeparator + u"long.ccs";
  platform::RemoveFilePath(path);
  CIniFile file;
  file.SetFileName(path.c_str());
  ASSERT_EQ(file.OpenUnicode(1), 1);
  // 64,512 characters is the largest buffer; a value that leaves it fewer than three places free
  // cannot be told from a cut one and reads as absent.
  for (size_t length : {1022u, 5000u, 64509u, 64510u, 3u}) {
    const WString value(length, u'v');
    ASSERT_EQ(file.WriteString(u"S", u"k", value.c_str()), 1);
    const WString read = file.GetIniText(u"S", u"k", u"absent");
    if (length < 64510)
      EXPECT_EQ(read, value) << length;
    else
      EXPECT_EQ(read, u"absent") << length;
  }
  platform::RemoveFilePath(path);
}

// ---- The cross-platform check of tests/scripts/ini_cross_platform.sh ------------------------
// One build writes a common file, both builds read it back and print what they see; the script
// compares the prints. Without the variables these do nothing.

namespace {

bool EnvPath(const char* name, WString& out) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == 0) return false;
  out = WFromUtf8(value);
  return true;
}

}  // namespace

TEST(IniCrossPlatform, Write) {
  WString path;
  if (!EnvPath("EM_INI_CROSS_WRITE", path)) GTEST_SKIP() << "EM_INI_CROSS_WRITE not set";
  platform::RemoveFilePath(path);
  CConfigSpace space;
  space.SetOwnCabinet(1);
  space.CommonFile().SetFileName(path.c_str());
  ASSERT_EQ(space.CommonFile().OpenUnicode(1), 1);

  RequestMessage m;
  const std::pair<uint32_t, uint32_t> numbers[] = {{0x1A41, 2}, {0x1A4B, 70000}, {0x1A41, 300}};
  for (const auto& [oe, value] : numbers) {
    Number(m, oe, 1, value);
    ASSERT_EQ(space.WriteNumber(m, nullptr), 1);
  }
  Number(m, 0x1A92, 7, 8080);
  ASSERT_EQ(space.WriteNumber(m, nullptr), 1);
  const std::pair<uint32_t, const char16_t*> texts[] = {{0x041B, u"Dear admin,\nnew updates.\n"},
                                                        {0x1A40, u"C:\\Repo\\Path with spaces"},
                                                        {0x1A47, u"\u00E4\u4E2D server"},
                                                        {0x041A, u"  leading blanks"},
                                                        {0x1A48, u"\"quoted\""},
                                                        {0x1A42, u""}};
  for (const auto& [oe, text] : texts) {
    Text(m, oe, 1, text);
    ASSERT_EQ(space.WriteText(m, nullptr), 1);
  }
  Text(m, 0x1A40, 1, u"other section");
  ASSERT_EQ(space.WriteText(m, u"OtherConfig"), 1);
  Text(m, 0x1A43, 1, u"s3cret!");
  ASSERT_EQ(space.WritePassword(m, nullptr), 1);
  ASSERT_TRUE(platform::ProfileWrite(path, u"CurrentConfig", u"020A.FFFF.0000.Size[]", u"4"));
  ASSERT_TRUE(platform::ProfileWrite(path, u"CurrentConfig", u"020A.FFFF.0000", u"C0A8010A"));
  ASSERT_TRUE(platform::ProfileWrite(path, u"currentCONFIG", u"Mixed.Case", u"first"));
  ASSERT_TRUE(platform::ProfileWrite(path, u"CURRENTCONFIG", u"mixed.CASE", u"second"));
  ASSERT_TRUE(platform::ProfileWrite(path, u"OtherConfig", u"Gone", u"x"));
  ASSERT_TRUE(platform::ProfileWrite(path, u"otherconfig", u"gone", nullptr));
}

TEST(IniCrossPlatform, Read) {
  WString path, printPath;
  if (!EnvPath("EM_INI_CROSS_READ", path) || !EnvPath("EM_INI_CROSS_PRINT", printPath))
    GTEST_SKIP() << "EM_INI_CROSS_READ / EM_INI_CROSS_PRINT not set";
  CConfigSpace space;
  space.SetOwnCabinet(1);
  space.CommonFile().SetFileName(path.c_str());
  ASSERT_EQ(space.CommonFile().OpenExisting(1), 1);

  WString out;
  auto describe = [&](const char16_t* how, RequestMessage& m, int found) {
    out += WFormat(u"%s OE %04X CA %u: found %d ST %u length %d", how, GetCommandValue(m, 0, kKeyOE, 0),
                   GetCommandValue(m, 0, kKeyCA, 0), found, Status(m), static_cast<int>(GetDataLength(m, 0)));
    std::vector<uint8_t> bytes;
    if (HasRawData(m) && GetDataStream(m, 0, bytes)) {
      out += u" bytes";
      for (uint8_t b : bytes) out += WFormat(u" %02X", b);
    } else if (GetDataType(m, 0) == kMessageTypeNumber) {
      out += WFormat(u" number %u", DataNumber(m));
    } else if (GetDataLength(m, 0) > 0) {
      out += u" text [" + WReplaceAll(DataText(m), u"\n", u"\\n") + u"]";
    }
    out += u"\n";
  };
  RequestMessage m;
  for (uint32_t oe : {0x1A41u, 0x1A4Bu, 0x041Bu, 0x1A40u, 0x1A47u, 0x041Au, 0x1A48u, 0x1A42u, 0x020Au, 0x1A4Cu}) {
    Address(m, oe, 1);
    describe(u"value", m, space.ReadValue(m, 0, nullptr));
    Address(m, oe, 1);
    describe(u"text", m, space.ReadTextValue(m, 0, nullptr));
  }
  Address(m, 0x1A92, 7);
  describe(u"value", m, space.ReadValue(m, 0, nullptr));
  Address(m, 0x1A40, 1);
  describe(u"other", m, space.ReadTextValue(m, 0, u"OtherConfig"));
  Address(m, 0x1A43, 1);
  describe(u"password", m, space.ReadPassword(m, 0, nullptr));

  // The raw calls, with buffers that cut and numbers read from texts.
  const std::pair<const char16_t*, const char16_t*> keys[] = {
      {u"CurrentConfig", u"041B.FFFF.0000"}, {u"currentconfig", u"MIXED.case"},
      {u"CurrentConfig", u"1A48.FFFF.0000"}, {u"OtherConfig", u"gone"},
      {u"CurrentConfig", u"1A41.FFFF.0000"}, {u"CurrentConfig", u"1A40.FFFF.0000"}};
  for (const auto& [section, key] : keys) {
    for (uint32_t capacity : {4u, 7u, 8u, 9u, 10u, 64u}) {
      char16_t buffer[64];
      const uint32_t n = platform::ProfileReadText(path, section, key, u"dflt", buffer, capacity);
      out += WFormat(u"raw [%s] %s cap %u: %u [%s]\n", section, key, capacity, n, WString(buffer, n).c_str());
    }
    out +=
        WFormat(u"int [%s] %s: %d\n", section, key, static_cast<int>(platform::ProfileReadInt(path, section, key, -7)));
  }
  const std::string utf8 = WToUtf8(out);
  ASSERT_TRUE(platform::WriteWholeFile(printPath, utf8.data(), utf8.size()));
}

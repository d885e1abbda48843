#include "repotool/SampleLeaves.h"

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "repotool/Files.h"

namespace fs = std::filesystem;

namespace sampleleaves {

namespace {

// A fixed pseudo-random sequence, so that a sample is the same on every run and platform.
class Bytes {
 public:
  explicit Bytes(uint64_t seed) : m_state(seed * 2862933555777941757ull + 3037000493ull) {}
  std::string Next(size_t count) {
    std::string out(count, '\0');
    for (char& c : out) {
      m_state = m_state * 6364136223846793005ull + 1442695040888963407ull;
      c = static_cast<char>(m_state >> 56);
    }
    return out;
  }

 private:
  uint64_t m_state;
};

std::string Hex4(int value) {
  char text[8];
  std::snprintf(text, sizeof text, "%04x", value & 0xFFFF);
  return text;
}

void WriteLeaf(const fs::path& dir, int i, int count) {
  int kind = i % 10;
  int version = 1 + (i * 7) % 5;
  std::string n = std::to_string(i);
  std::string rel, type = "F", ctype, subtype, object, pciId, os = "any", prerequisite, common;
  if (kind <= 2) {
    object = "D" + std::to_string(3300 + i);
    rel = "BIOS/" + object + "/A" + std::to_string(1 + i % 3);
    ctype = "BIOS";
    subtype = "SystemBoard";
  } else if (kind <= 4) {
    object = "X" + std::to_string(700 + i);
    rel = "FIRMWARE/NIC/" + object;
    ctype = "FIRMWARE";
    subtype = "NIC";
    pciId = "8086:" + Hex4(0x1572 + i);
  } else if (kind <= 6) {
    object = "MR" + n;
    rel = "DRIVER/Storage/" + object + (kind == 5 ? "/Win" : "/Linux");
    ctype = "DRIVER";
    subtype = "Storage";
    os = kind == 5 ? "windows" : "linux";
  } else if (kind == 7) {
    object = "iRMC" + n;
    rel = "FIRMWARE/BMC/" + object + "/S5/Rel";
    ctype = "FIRMWARE";
    subtype = "BMC";
    prerequisite = "BMC>=2.1";
  } else if (kind == 8) {
    object = "Lib" + n;
    rel = "COMMON/" + object;
    type = "C";
    ctype = "DRIVER";
    subtype = "Common";
  } else {
    object = "Tool" + n;
    rel = "LINK/" + object;
    type = "L";
    ctype = "TOOL";
    subtype = "Link";
  }
  int commonIndex = i / 10 * 10 + 8;
  if ((kind == 1 || kind == 5) && commonIndex < count) common = "COMMON/Lib" + std::to_string(commonIndex);

  static const char* const severities[] = {"optional", "recommended", "mandatory"};
  static const char* const reboots[] = {"no", "immediately", "yes"};
  std::string ini = "# sample leaf " + n + "\n[leaf]\nversion=" + std::to_string(version) + "\ntype=" + type + "\n";
  if (type != "L") ini += "package=" + object + "_" + std::to_string(version) + ".exe\n";
  if (!common.empty()) ini += "common=" + common + "\n";
  ini += "oldVersion=" + std::to_string(version - 1) + "\n";
  ini += "\n[component]\ntype=" + ctype + "\nsubtype=" + subtype + "\nobjectName=" + object + "\npciId=" + pciId +
         "\nversion=" + std::to_string(1 + i % 3) + "." + std::to_string(version) + "." + std::to_string(i % 20) +
         "\nseverity=" + severities[i % 3] + "\nreboot=" + reboots[i % 3] +
         "\ninstallTime=" + std::to_string(30 * (1 + i % 5)) + "\nprerequisite=" + prerequisite + "\nos=" + os +
         "\nmandatory=" + (i % 4 == 0 ? "1" : "0") +
         "\nformatVersion=1\nminStepVersion=" + (i % 4 == 0 ? "1.0.0" : "") + "\n";
  fs::path leafDir = dir / files::FromUtf8(rel);
  files::WriteAtomic(leafDir / "leaf.ini", ini);
  if (type == "L") return;

  Bytes random(static_cast<uint64_t>(i) + 1);
  fs::path payload = leafDir / "files";
  std::string readme = "Sample payload of " + rel + ", version " + std::to_string(version) + "\r\n";
  for (int line = 0; readme.size() < 1200; ++line)
    readme += "line " + std::to_string(line) + " of the payload of " + object + "\r\n";
  files::WriteAtomic(payload / "readme.txt", readme);
  files::WriteAtomic(payload / "bin" / "image.bin", random.Next(2048 + static_cast<size_t>(i % 3) * 1024));
  if (i % 4 == 1) {
    files::WriteAtomic(payload / "config" / files::FromUtf8(object) / "settings.cfg",
                       "[settings]\r\nobject=" + object + "\r\nlevel=" + std::to_string(i % 7) + "\r\n");
    files::WriteAtomic(payload / "bin" / "empty.dat", "");
  }
  if (i == 0)
    files::WriteAtomic(payload / files::FromUtf8("Gr\xc3\xb6\xc3\x9f"
                                                 "e.txt"),
                       "a name outside ASCII\r\n");
  if (i % 3 == 0)
    files::WriteAtomic(leafDir / "rel_note.txt",
                       "Release note of " + rel + "\r\nVersion " + std::to_string(version) + ": sample changes.\r\n");
}

}  // namespace

void Write(const fs::path& dir, int count) {
  if (fs::exists(dir) && !fs::is_empty(dir))
    throw std::runtime_error("the sample folder must be missing or empty: " + files::ToUtf8(dir));
  fs::create_directories(dir);
  for (int i = 0; i < count; ++i) WriteLeaf(dir, i, count);
}

}  // namespace sampleleaves

// Driver of the XML conformance comparison (run_xmllint_compare.sh).
//
//   xmlconf_driver verdict < paths      one line per path: path TAB wellFormed(0|1) TAB dtd(0|1)
//                                       TAB elements TAB error text
//   xmlconf_driver damage DIR SEED N < paths
//                                       writes N damaged copies of the listed files into DIR, named
//                                       <n>_<kind>.<ext>, and prints one line per copy: path TAB kind
//
// "dtd" marks a document whose verdict can depend on its document type: it has a DOCTYPE with an
// internal subset, or it has a DOCTYPE and refers to an entity other than the five predefined ones.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "foundation/XmlDocument.h"

namespace {

bool DtdDependent(const WString& text) {
  size_t doctype = text.find(u"<!DOCTYPE");
  if (doctype == WString::npos) return false;
  size_t close = text.find(u'>', doctype);
  size_t bracket = text.find(u'[', doctype);
  if (bracket != WString::npos && (close == WString::npos || bracket < close)) return true;
  for (size_t amp = text.find(u'&'); amp != WString::npos; amp = text.find(u'&', amp + 1)) {
    size_t end = text.find(u';', amp);
    if (end == WString::npos || end - amp > 40) continue;
    WString name = text.substr(amp + 1, end - amp - 1);
    if (name.empty() || name[0] == u'#') continue;
    if (name != u"lt" && name != u"gt" && name != u"amp" && name != u"quot" && name != u"apos") return true;
  }
  return false;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

int Verdicts() {
  std::string path;
  while (std::getline(std::cin, path)) {
    if (path.empty()) continue;
    XmlDocument doc;
    doc.load(std::filesystem::u8path(path).u16string());
    std::string error = WToUtf8(doc.getErrorText());
    for (char& c : error) {
      if (c == '\t' || c == '\n' || c == '\r') c = ' ';
    }
    std::printf("%s\t%d\t%d\t%d\t%s\n", path.c_str(), doc.isWellFormed() ? 1 : 0,
                DtdDependent(doc.getDocument()) ? 1 : 0, doc.elementCount(), error.c_str());
  }
  return 0;
}

// Positions of every occurrence of a byte.
std::vector<size_t> Find(const std::string& text, const char* bytes) {
  std::vector<size_t> at;
  for (size_t i = 0; i < text.size(); ++i) {
    if (std::strchr(bytes, text[i]) != nullptr && text[i] != '\0') at.push_back(i);
  }
  return at;
}

// Start and length of every end tag.
std::vector<std::pair<size_t, size_t>> EndTags(const std::string& text) {
  std::vector<std::pair<size_t, size_t>> tags;
  for (size_t i = text.find("</"); i != std::string::npos; i = text.find("</", i + 2)) {
    size_t end = text.find('>', i);
    if (end == std::string::npos) break;
    tags.emplace_back(i, end + 1 - i);
  }
  return tags;
}

int Damage(const std::string& dir, unsigned seed, int count) {
  std::vector<std::string> paths;
  std::string path;
  while (std::getline(std::cin, path)) {
    if (!path.empty()) paths.push_back(path);
  }
  if (paths.empty()) return 1;
  std::mt19937 random(seed);
  auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
  const char* kinds[] = {"truncate", "delete_lt",    "delete_gt", "drop_end_tag",  "rename_end_tag", "extra_root",
                         "stray_lt", "delete_quote", "stray_amp", "swap_end_tags", "random_char",    "delete_span"};
  const int kindCount = static_cast<int>(sizeof kinds / sizeof kinds[0]);
  int made = 0;
  int attempts = 0;
  while (made < count && attempts < count * 20) {
    ++attempts;
    const std::string& source = paths[pick(paths.size())];
    std::string text = ReadFile(source);
    if (text.size() < 8) continue;
    const int kind = made % kindCount;
    bool changed = true;
    switch (kind) {
      case 0:
        text.resize(pick(text.size()));
        break;
      case 1:
      case 2: {
        auto at = Find(text, kind == 1 ? "<" : ">");
        if (at.empty()) {
          changed = false;
          break;
        }
        text.erase(at[pick(at.size())], 1);
        break;
      }
      case 3:
      case 4: {
        auto tags = EndTags(text);
        if (tags.empty()) {
          changed = false;
          break;
        }
        auto tag = tags[pick(tags.size())];
        if (kind == 3) {
          text.erase(tag.first, tag.second);
        } else if (tag.second > 3) {
          size_t at = tag.first + 2 + pick(tag.second - 3);
          text[at] = text[at] == 'x' ? 'y' : 'x';
        } else {
          changed = false;
        }
        break;
      }
      case 5:
        text += "\n<extra/>\n";
        break;
      case 6:
        text.insert(pick(text.size()), "<");
        break;
      case 7: {
        auto at = Find(text, "\"'");
        if (at.empty()) {
          changed = false;
          break;
        }
        text.erase(at[pick(at.size())], 1);
        break;
      }
      case 8:
        text.insert(pick(text.size()), "&");
        break;
      case 9: {
        auto tags = EndTags(text);
        if (tags.size() < 2) {
          changed = false;
          break;
        }
        size_t first = pick(tags.size() - 1);
        auto a = tags[first];
        auto b = tags[first + 1];
        std::string ta = text.substr(a.first, a.second);
        std::string tb = text.substr(b.first, b.second);
        if (ta == tb) {
          changed = false;
          break;
        }
        text.replace(b.first, b.second, ta);
        text.replace(a.first, a.second, tb);
        break;
      }
      case 10: {
        const char* alphabet = "<>/&\"'=!?-[] ax";
        text[pick(text.size())] = alphabet[pick(std::strlen(alphabet))];
        break;
      }
      default:
        text.erase(pick(text.size()), 1 + pick(20));
    }
    if (!changed) continue;
    std::string ext = std::filesystem::path(source).extension().string();
    std::string out = dir + "/" + std::to_string(made) + "_" + kinds[kind] + ext;
    std::ofstream(out, std::ios::binary) << text;
    std::printf("%s\t%s\n", out.c_str(), kinds[kind]);
    ++made;
  }
  return made == count ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "verdict") == 0) return Verdicts();
  if (argc >= 5 && std::strcmp(argv[1], "damage") == 0) {
    return Damage(argv[2], static_cast<unsigned>(std::stoul(argv[3])), std::stoi(argv[4]));
  }
  std::fprintf(stderr, "usage: xmlconf_driver verdict < paths | damage DIR SEED N < paths\n");
  return 2;
}

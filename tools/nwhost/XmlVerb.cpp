// nwhost xml FILE: reads a file with the system's XML class and prints one JSON line with the
// verdict, the error text, the number of elements and whether a save and reload gives the same
// document text. Needs no module file.
#include <cstdio>
#include <random>
#include <string>

#include "Verbs.h"
#include "foundation/XmlDocument.h"
#include "platform/FileIo.h"

namespace {

std::string JsonString(const std::string& utf8) {
  std::string out = "\"";
  for (unsigned char c : utf8) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

}  // namespace

int NwhostXmlVerb(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: nwhost xml FILE\n");
    return 1;
  }
  const WString path = WFromUtf8(argv[1]);
  size_t got = 0;
  char probe[1];
  if (!platform::ReadFilePrefix(path, probe, sizeof probe, got)) {
    std::fprintf(stderr, "nwhost xml: cannot read %s\n", argv[1]);
    return 1;
  }
  XmlDocument doc;
  doc.load(path);
  const bool wellFormed = doc.isWellFormed();
  const std::string errorText = WToUtf8(doc.getErrorText());
  const int elements = doc.elementCount();

  // Save beside the temp files of this machine and read it back.
  WString copy = platform::TempDirectory();
  if (!copy.empty() && copy.back() != u'/' && copy.back() != u'\\') copy += u'/';
  copy += WFromUtf8("nwhost_xml_" + std::to_string(std::random_device{}()) + ".xml");
  bool roundTrip = false;
  if (doc.save(copy)) {
    XmlDocument again;
    again.load(copy);
    roundTrip = again.getDocument() == doc.getDocument() && again.getDocFlags() == doc.getDocFlags();
  }
  platform::RemoveFilePath(copy);

  std::printf("{\"wellFormed\":%s,\"errorText\":%s,\"elements\":%d,\"roundTrip\":%s}\n", wellFormed ? "true" : "false",
              JsonString(errorText).c_str(), elements, roundTrip ? "true" : "false");
  return 0;
}

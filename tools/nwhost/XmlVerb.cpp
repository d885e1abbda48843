// nwhost xml FILE: reads a file with the system's XML class and prints one JSON line with the
// verdict, the error text, the number of elements and whether a save and reload gives the same
// document text. Needs no module file.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <system_error>

#include "Verbs.h"
#include "foundation/XmlDocument.h"

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
  const std::filesystem::path path = std::filesystem::u8path(argv[1]);
  {
    std::ifstream probe(path, std::ios::binary);
    if (!probe) {
      std::fprintf(stderr, "nwhost xml: cannot read %s\n", argv[1]);
      return 1;
    }
  }
  XmlDocument doc;
  doc.load(path.u16string());
  const bool wellFormed = doc.isWellFormed();
  const std::string errorText = WToUtf8(doc.getErrorText());
  const int elements = doc.elementCount();

  // Save beside the temp files of this machine and read it back.
  std::error_code ec;
  std::filesystem::path copy =
      std::filesystem::temp_directory_path(ec) / ("nwhost_xml_" + std::to_string(std::random_device{}()) + ".xml");
  bool roundTrip = false;
  if (doc.save(copy.u16string())) {
    XmlDocument again;
    again.load(copy.u16string());
    roundTrip = again.getDocument() == doc.getDocument() && again.getDocFlags() == doc.getDocFlags();
  }
  std::filesystem::remove(copy, ec);

  std::printf("{\"wellFormed\":%s,\"errorText\":%s,\"elements\":%d,\"roundTrip\":%s}\n", wellFormed ? "true" : "false",
              JsonString(errorText).c_str(), elements, roundTrip ? "true" : "false");
  return 0;
}

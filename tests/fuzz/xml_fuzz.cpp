// Fuzz target of the XML class. The input is read twice: as the bytes of a file (load, with the
// encoding found as for any file) and as the text of a document in memory (setDocument).
// Each document is walked, saved and read back, and when it is well formed, edited. The checks:
// - the walk reaches every element of the array, and a parse of the same text agrees with it;
// - a document saved without loss reads back as the same text, the same verdict and the same walk;
// - a well-formed document stays well formed when children are added to its elements, and the
//   array kept up to date by the edits walks exactly as a fresh parse of the edited text.
// A broken check aborts; anything else must neither crash nor leak.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <system_error>

#include "foundation/XmlDocument.h"

namespace {

constexpr size_t kMaxInput = 32768;  // larger inputs only slow the search down
constexpr int kEdits = 6;

void Fail(const char* what) {
  std::fprintf(stderr, "xml_fuzz: broken invariant: %s\n", what);
  std::abort();
}

void Require(bool condition, const char* what) {
  if (!condition) Fail(what);
}

// The walk of the whole document as text (depth, name, data, one attribute per element) and the
// number of elements seen. Iterative, so that deep nesting needs no deep stack.
struct Walk {
  WString shape;
  int elements = 0;
  bool operator==(const Walk& other) const { return elements == other.elements && shape == other.shape; }
};

Walk WalkAll(XmlDocument& doc) {
  Walk walk;
  doc.resetPosition();
  int depth = 0;
  while (true) {
    if (doc.findElement()) {
      ++walk.elements;
      walk.shape += static_cast<char16_t>(u'0' + depth % 64);
      walk.shape += doc.getTagName();
      walk.shape += u'=';
      walk.shape += doc.getData();
      walk.shape += u'|';
      walk.shape += doc.getAttrib(u"a");
      walk.shape += u'\n';
      Require(doc.intoElement(), "intoElement on a found element");
      ++depth;
      continue;
    }
    if (depth == 0) break;
    Require(doc.outOfElement(), "outOfElement below the top");
    --depth;
  }
  doc.resetPosition();
  return walk;
}

// Puts the main position on the element number `target` in document order; false if there are
// fewer elements.
bool GoTo(XmlDocument& doc, int target) {
  doc.resetPosition();
  int seen = 0;
  int depth = 0;
  while (true) {
    if (doc.findElement()) {
      if (seen++ == target) return true;
      doc.intoElement();
      ++depth;
      continue;
    }
    if (depth == 0) return false;
    doc.outOfElement();
    --depth;
  }
}

// Checks that hold for any text: the walk covers the array, and a parse of the same text agrees.
Walk CheckParsed(XmlDocument& doc) {
  const Walk walk = WalkAll(doc);
  Require(walk.elements == doc.elementCount(), "the walk reaches every element");
  doc.getErrorText();
  XmlDocument again;
  Require(again.setDocument(doc.getDocument()) == doc.isWellFormed(), "same verdict for the same text");
  Require(WalkAll(again) == walk, "same walk for the same text");
  return walk;
}

// Adds children to some of the elements of a well-formed document, in the ways the writers of the
// job files do, and checks the result after each edit.
void CheckEdits(XmlDocument& doc, const uint8_t* data, size_t size) {
  const int elements = doc.elementCount();
  for (int k = 0; k < kEdits && k < elements; ++k) {
    const uint8_t pick = size > static_cast<size_t>(k) ? data[k] : 0;
    if (!GoTo(doc, (pick * 7 + k * 13) % elements)) Fail("an element of the array is reachable");
    static const char16_t* const kData[] = {nullptr, u"", u"t<&>\"'", u"]]>x", u"&amp; &#65;"};
    const char16_t* value = kData[pick % 5];
    static const int kFlags[] = {0, XML_EL_CDATA, XML_EL_NO_LINE_END, XML_EL_EMPTY_BLANK, XML_EL_KEEP_REFS};
    const int flags = kFlags[(pick / 5) % 5];
    bool added;
    switch ((pick / 25) % 3) {
      case 0:  // as the last child of the main element
        added = doc.addElement(u"fz", value, flags | XML_EL_CHILD);
        break;
      case 1:  // inside the element, behind its last child
        Require(doc.intoElement(), "intoElement on a found element");
        added = doc.addElement(u"fz", value, flags);
        break;
      default:  // inside the element, a text node and then an element behind it
        Require(doc.intoElement(), "intoElement on a found element");
        added = doc.addNode(XML_NODE_TEXT, u"n<") && doc.addElement(u"fz", value, flags);
        break;
    }
    Require(added, "a child can be added to any element");
    XmlDocument fresh;
    Require(fresh.setDocument(doc.getDocument()), "a well-formed document stays well formed when edited");
    Require(WalkAll(fresh) == WalkAll(doc), "the edited array walks as the edited text parsed afresh");
    Require(fresh.elementCount() == doc.elementCount(), "the edited array holds every element");
  }
}

// Saves and reads back; without loss the document must come back as it was.
void CheckSaved(XmlDocument& doc, const Walk& walk, const std::filesystem::path& file) {
  if (!doc.save(file.u16string())) return;
  const bool lossy = doc.getResult().find(u"<conversion_loss") != WString::npos;
  doc.getErrorText();
  XmlDocument back;
  const bool wellFormed = back.load(file.u16string());
  Require(wellFormed == back.isWellFormed(), "load returns the verdict");
  // A NUL character does not survive a file: UTF-16 reading drops it, and NUL bytes around
  // a "<" in front make a UTF-8 file read as UTF-16.
  if (lossy || doc.getDocument().find(u'\0') != WString::npos) return;
  // A text that begins with U+FEFF begins its file with a byte-order mark, which load takes as one.
  const bool leadingMark = !doc.getDocument().empty() && doc.getDocument()[0] == 0xFEFF;
  if (!leadingMark) {
    Require(back.getDocument() == doc.getDocument(), "a document saved without loss reads back as the same text");
  }
  Require(wellFormed == doc.isWellFormed(), "a document saved without loss keeps its verdict");
  Require(WalkAll(back) == walk, "a document saved without loss keeps its walk");
}

// Two scratch files of this process in the temporary directory. They are removed after each input:
// libFuzzer ends a run without static destructors.
struct Scratch {
  Scratch() {
    const std::string tag = std::to_string(std::random_device{}());
    const std::filesystem::path dir = std::filesystem::temp_directory_path();
    input = dir / ("xml_fuzz_" + tag + "_in.xml");
    output = dir / ("xml_fuzz_" + tag + "_out.xml");
  }
  void Remove() const {
    std::error_code ec;
    std::filesystem::remove(input, ec);
    std::filesystem::remove(output, ec);
  }
  std::filesystem::path input;
  std::filesystem::path output;
};

void CheckDocument(XmlDocument& doc, const uint8_t* data, size_t size, const Scratch& scratch) {
  const Walk walk = CheckParsed(doc);
  CheckSaved(doc, walk, scratch.output);
  if (doc.isWellFormed()) CheckEdits(doc, data, size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  static const Scratch scratch;

  // The bytes as a file.
  {
    std::ofstream out(scratch.input, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) Fail("the scratch file can be written");
  }
  XmlDocument loaded;
  const bool wellFormed = loaded.load(scratch.input.u16string());
  Require(wellFormed == loaded.isWellFormed(), "load returns the verdict");
  CheckDocument(loaded, data, size, scratch);

  // The bytes as a document in memory, one character per byte, with the top bytes standing for
  // the units that a file rarely brings: lone surrogates, NUL, U+FFFD.
  WString text(size, u'\0');
  for (size_t k = 0; k < size; ++k) {
    static const char16_t kTop[] = {0xD800, 0xDC00, 0x0000, 0xFFFD, 0x20AC, 0xD83D, 0xDE00, 0xFEFF};
    text[k] = data[k] >= 0xF8 ? kTop[data[k] - 0xF8] : static_cast<char16_t>(data[k]);
  }
  XmlDocument memory;
  Require(memory.setDocument(text) == memory.isWellFormed(), "setDocument returns the verdict");
  CheckDocument(memory, data, size, scratch);
  scratch.Remove();
  return 0;
}

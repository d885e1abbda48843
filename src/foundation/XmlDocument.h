// The system's XML class. A document is kept as one wide string, exactly as it is written (with
// "\r\n" line ends), and beside it an array of element positions. Edits insert text into the
// string and bring the positions up to date; there is no tree of node objects. Parsing is one
// tolerant pass: flawed text still yields a usable element array, and isWellFormed() tells whether
// the text was flawed. There is no schema, namespace handling or validation.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/WString.h"

// Mode bits of a document (setDocFlags).
constexpr int XML_DF_UTF16LE_BOM = 1;  // write FF FE
constexpr int XML_DF_UTF8_BOM = 4;     // write EF BB BF
constexpr int XML_DF_READ_FILE = 16;   // streaming modes: never set here, load and save refuse them
constexpr int XML_DF_WRITE_FILE = 32;
constexpr int XML_DF_APPEND_FILE = 64;
constexpr int XML_DF_UTF16BE_BOM = 128;  // write FE FF

// addElement flags.
constexpr int XML_EL_CDATA = 1;            // data as a CDATA section
constexpr int XML_EL_NO_LINE_END = 2;      // no "\r\n" behind the element
constexpr int XML_EL_EMPTY_BLANK = 4;      // empty element as <name />
constexpr int XML_EL_KEEP_REFS = 8;        // references in the data stay as they are
constexpr int XML_EL_START_TAG_ONLY = 16;  // <name> alone; refuses data
constexpr int XML_EL_ESCAPE_QUOTES = 0x100;
constexpr int XML_EL_CHILD = 0x4000;  // as last child of the main element

// addNode types.
constexpr int XML_NODE_ELEMENT = 1;
constexpr int XML_NODE_TEXT = 2;
constexpr int XML_NODE_WHITESPACE = 4;
constexpr int XML_NODE_CDATA = 8;
constexpr int XML_NODE_PI = 16;
constexpr int XML_NODE_COMMENT = 32;
constexpr int XML_NODE_RAW = 64;
constexpr int XML_NODE_END_TAG = 128;

class XmlDocument {
 public:
  XmlDocument();
  ~XmlDocument();
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;

  // Replaces the document and parses it; null clears it. Returns isWellFormed().
  bool setDocument(const char16_t* text);
  bool setDocument(const WString& text);
  // Reads and parses a file. False when the file could not be read or is not well formed.
  bool load(const WString& path);
  // Writes the document in its encoding, with the byte-order mark that the mode bits ask for.
  bool save(const WString& path);

  bool isWellFormed() const { return m_bWellFormed; }
  const WString& getDocument() const { return m_strDoc; }

  // Walking. findElement(nullptr) takes the next sibling whatever its name.
  bool findElement(const char16_t* name = nullptr);
  void resetPosition();  // before the first top-level element
  bool intoElement();
  bool outOfElement();
  WString getData() const;
  WString getTagName() const;                     // name of the main element, empty without one
  WString getAttrib(const char16_t* name) const;  // decoded attribute value of the main element

  // Building.
  bool addElement(const char16_t* name, const char16_t* data = nullptr, int flags = 0);
  bool addNode(int type, const char16_t* text, int flags = 0);

  WString getErrorText() const;
  const WString& getResult() const { return m_strResult; }

  void setDocFlags(int flags) { m_nDocFlags = flags & ~(XML_DF_READ_FILE | XML_DF_WRITE_FILE | XML_DF_APPEND_FILE); }
  int getDocFlags() const { return m_nDocFlags; }

  // Number of elements that the element array holds.
  int elementCount() const { return m_nElemCount - 1; }
  // Open elements that the last parse compared with end-tag names. It stays within a small
  // multiple of the number of tags, however the end tags are mismatched.
  long long endTagMatchWork() const { return m_nEndTagMatchWork; }

  // Text helpers of the class, also used by its users.
  static WString escapeText(WStringView text, int flags);
  static WString decodeText(WStringView text);
  // Code page of a charset name: 0 for the empty name (ANSI), 65005 for "UTF-32...", -1 unknown.
  static int charsetCodePage(WStringView name);

 private:
  struct ElemPos {
    int32_t start;        // offset of "<"
    int32_t length;       // whole element, end tag included
    int32_t startTagLen;  // "<name ...>" or "<name/>"
    int32_t endTagLen;    // "</name>", 0 for an empty element or one without end tag
    int32_t parent;
    int32_t child;      // first child
    int32_t lastChild;  // last child
    int32_t next;       // next sibling
  };
  static constexpr int kSegmentBits = 16;
  static constexpr int kSegmentSize = 1 << kSegmentBits;
  // The first segment starts small and doubles up to its full size: most documents (the result
  // record of getErrorText among them) hold a few elements, and a full segment is 2 MB.
  static constexpr int kFirstSegmentStart = 64;

  ElemPos& el(int i) { return m_segments[static_cast<size_t>(i) >> kSegmentBits][i & (kSegmentSize - 1)]; }
  const ElemPos& el(int i) const { return m_segments[static_cast<size_t>(i) >> kSegmentBits][i & (kSegmentSize - 1)]; }
  int newElement();
  void resetElements();
  void resetPositions();

  void parse();
  void closeUnended(std::vector<int>& stack, size_t keep, int parent, int endOffset);
  int scanTagEnd(int from, bool& hitLessThan) const;
  void noteItem(const char16_t* item, std::initializer_list<std::pair<const char16_t*, WString>> attrs);
  void noteSyntax(const char16_t* item, int offset);
  void noteFileError(int error);

  bool nameMatches(int i, const char16_t* name) const;
  WStringView tagName(int i) const;

  bool insertMarkup(const WString& markup, bool lineEnd, bool asChild, bool isElement, int startTagLen, int endTagLen);
  void registerInserted(bool isElement, bool asChild, int parent, int previous, int start, int length, int startTagLen,
                        int endTagLen, int end);
  void shiftSubtree(int i, int delta);
  void adjustAfter(int parent, int nextSibling, int offset, int delta);

  WString m_strDoc;
  WString m_strResult;
  int m_iPos = 0;
  int m_iPosParent = 0;
  int m_iPosChild = 0;
  int m_nNodeEnd = -1;  // end of the last node inserted behind the main element, -1 for none
  int m_nDocFlags = 0;
  bool m_bWellFormed = false;
  // Encoding that the last load settled: code page and the name as declared (empty for ANSI).
  bool m_bLoadedEncoding = false;
  int m_nLoadedCodePage = 0;
  WString m_strLoadedEncoding;

  std::vector<std::unique_ptr<ElemPos[]>> m_segments;
  int m_nFirstCapacity = 0;  // entries of the first segment; later segments are full
  int m_nElemCount = 0;
  long long m_nEndTagMatchWork = 0;
};

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <vector>

#include "foundation/XmlDocument.h"
#include "foundation/XmlEncoding.h"
#include "platform/CodePage.h"

namespace {

// The tree as text: one line per element, "depth name=data", for comparing walks.
void DumpLevel(XmlDocument& doc, int depth, std::string& out) {
  while (doc.findElement()) {
    out += std::to_string(depth) + " " + WToUtf8(doc.getTagName()) + "=" + WToUtf8(doc.getData()) + "\n";
    doc.intoElement();
    DumpLevel(doc, depth + 1, out);
    doc.outOfElement();
  }
}

std::string Dump(XmlDocument& doc) {
  std::string out;
  DumpLevel(doc, 0, out);
  return out;
}

// A document built by edits must walk exactly as the same text parsed afresh: this checks that
// every edit brought the element positions up to date.
void ExpectSameAsReparsed(XmlDocument& built) {
  XmlDocument fresh;
  fresh.setDocument(built.getDocument());
  built.resetPosition();
  EXPECT_EQ(Dump(built), Dump(fresh));
  EXPECT_EQ(built.elementCount(), fresh.elementCount());
}

std::string Utf8(const WString& text) {
  return WToUtf8(text);
}

}  // namespace

// ----------------------------------------------------------------------------------------------
// parsing and the result record

TEST(XmlParse, EmptyAndHeaderOnlyDocumentsAreNotWellFormed) {
  XmlDocument doc;
  EXPECT_FALSE(doc.setDocument(nullptr));
  EXPECT_TRUE(doc.getDocument().empty());
  EXPECT_FALSE(doc.isWellFormed());
  EXPECT_FALSE(doc.findElement());
  EXPECT_FALSE(doc.setDocument(u"<?xml version=\"1.0\"?>\r\n"));
  EXPECT_EQ(Utf8(doc.getErrorText()), "no root element");
  EXPECT_TRUE(doc.setDocument(u"<?xml version=\"1.0\"?>\r\n<a/>\r\n"));
  EXPECT_EQ(Utf8(doc.getErrorText()), "");
}

TEST(XmlParse, SyntaxFlawsGiveTheirTexts) {
  struct Case {
    const char16_t* text;
    const char* error;
  };
  const Case cases[] = {
      {u"<a/><b/>", "root element has sibling"},
      {u"<a></x></a>", "lone end tag 'x' at offset 3"},
      {u"<a><b><c></b></a>", "start tag 'c' at offset 6 expecting end tag at offset 13"},
      {u"<a>< b</a>", "tag syntax error at offset 3 expecting tag name / ! or ?"},
      {u"<a><!x></a>", "tag syntax error at offset 3 expecting 'DOCTYPE' [ or -"},
      {u"<a><!-x></a>", "tag syntax error at offset 3 expecting - to begin comment"},
      {u"<a><![CDAT[x]]></a>", "tag syntax error at offset 3 expecting 'CDATA'"},
      {u"<!DOCTYPE a [ junk ]><a/>", "tag syntax error at offset 14 expecting markup declaration"},
      {u"<a><b x='1'", "unterminated tag at offset 3"},
      {u"<a><!-- open", "unterminated tag at offset 3"},
      {u"<a><![CDATA[ open</a>", "unterminated tag at offset 3"},
      {u"<a><?pi open</a>", "unterminated tag at offset 3"},
      {u"<!DOCTYPE a [ <!ENTITY x 'y'> <a/>", "tag syntax error at offset 30 expecting markup declaration"},
      {u"<!DOCTYPE a [ <!ENTITY x 'y'>", "unterminated tag at offset 0"},
      {u"<a><b <c/></b></a>", "unterminated tag at offset 3"},
      // Only the first flaw of the syntax is told.
      {u"</x><a></y></a>", "lone end tag 'x' at offset 0"},
  };
  for (const Case& c : cases) {
    XmlDocument doc;
    EXPECT_FALSE(doc.setDocument(c.text)) << Utf8(c.text);
    EXPECT_EQ(Utf8(doc.getErrorText()), c.error) << Utf8(c.text);
  }
}

TEST(XmlParse, TolerantCasesStayWellFormed) {
  const char16_t* good[] = {
      u"<a title=\"x>y\"><b/></a>",
      u"junk before <a>text</a> junk after",
      u"<!DOCTYPE a SYSTEM \"a.dtd\" [ <!ENTITY e \"x>y\"> <!-- c ] > --> %pe; <?p ]?> ]>\r\n<a>&e;</a>",
      u"<?xml version=\"1.0\"?><!-- c --><a><![CDATA[<x>]]><?pi?></a><!-- after -->",
      u"<a:b xmlns:a=\"u\"><a:c/></a:b>",
  };
  for (const char16_t* text : good) {
    XmlDocument doc;
    EXPECT_TRUE(doc.setDocument(text)) << Utf8(text) << " -> " << Utf8(doc.getErrorText());
  }
  XmlDocument doc;
  doc.setDocument(u"<a title=\"x>y\"><b/></a>");
  ASSERT_TRUE(doc.findElement(u"a"));
  ASSERT_TRUE(doc.intoElement());
  EXPECT_TRUE(doc.findElement(u"b"));
}

TEST(XmlParse, FlawedTextStillGivesAUsableArray) {
  // c is closed by </b> without an end tag of its own; d, its child, passes to b.
  XmlDocument doc;
  EXPECT_FALSE(doc.setDocument(u"<a><b><c><d>x</d></b><e>y</e></a>"));
  EXPECT_EQ(Dump(doc), "0 a=\n1 b=\n2 c=\n2 d=x\n1 e=y\n");
  // Unclosed at the end of the text: every open element passes its children up, to the top.
  EXPECT_FALSE(doc.setDocument(u"<r><a><b/><c>t</c>"));
  EXPECT_EQ(Dump(doc), "0 r=\n0 a=\n0 b=\n0 c=t\n");
  EXPECT_EQ(Utf8(doc.getErrorText()), "start tag 'r' at offset 0 expecting end tag at offset 18");
  // A lone end tag is passed over and the walk goes on behind it.
  EXPECT_FALSE(doc.setDocument(u"<a><b></x>1</b><c>2</c></a>"));
  EXPECT_EQ(Dump(doc), "0 a=\n1 b=1\n1 c=2\n");
}

TEST(XmlParse, MismatchedEndTagsCostLinearWork) {
  // Deep open elements followed by end tags that match none of them (or only the outermost): an
  // end tag must not look at every open element again.
  for (int n : {1000, 8000}) {
    std::u16string lone;
    std::u16string deep = u"<r>";
    for (int k = 0; k < n; ++k) {
      lone += u"<a>";
      deep += k % 2 == 0 ? u"<a>" : u"<b>";
    }
    for (int k = 0; k < n; ++k) {
      lone += u"</b>";
      deep += u"</x></r>";
    }
    for (const std::u16string& text : {lone, deep}) {
      XmlDocument doc;
      EXPECT_FALSE(doc.setDocument(text));
      const long long tags = 2LL * n + 2;
      EXPECT_LE(doc.endTagMatchWork(), 3 * tags) << n;
    }
    XmlDocument doc;
    doc.setDocument(lone);
    EXPECT_EQ(doc.elementCount(), n);
    EXPECT_EQ(Utf8(doc.getErrorText()), "lone end tag 'b' at offset " + std::to_string(3 * n));
  }
}

TEST(XmlParse, EndTagsCloseTheInnermostOpenElementOfTheirName) {
  // Each text starts with a lone end tag, so that the end tags behind it are matched the way a
  // flawed document is matched: by name among all open elements, the innermost first.
  struct Case {
    const char16_t* text;
    const char* tree;
  };
  const Case cases[] = {
      {u"<r></z><a><b><a><c></a>1</b></a></r>", "0 r=\n1 a=\n2 b=\n3 a=\n4 c=\n"},
      {u"<r></z><a><a><b></a></a></r>", "0 r=\n1 a=\n2 a=\n3 b=\n"},
      // Names compare whole: neither "a" nor "ab" stands for the other.
      {u"<r></z><ab><a></ab><a></a></r>", "0 r=\n1 ab=\n2 a=\n1 a=\n"},
      {u"<r></z><a><ab></a></r>", "0 r=\n1 a=\n2 ab=\n"},
      {u"<r></z><a x='1'><a>t</a></a ></r>", "0 r=\n1 a=\n2 a=t\n"},
  };
  for (const Case& c : cases) {
    XmlDocument doc;
    EXPECT_FALSE(doc.setDocument(c.text));
    EXPECT_EQ(Dump(doc), c.tree) << Utf8(c.text);
    EXPECT_EQ(Utf8(doc.getErrorText()), "lone end tag 'z' at offset 3") << Utf8(c.text);
  }
  // b and c, left open by </a>, pass their children to a.
  XmlDocument doc;
  doc.setDocument(u"<r></z><a><b><c><d/></a></b></r>");
  EXPECT_EQ(Dump(doc), "0 r=\n1 a=\n2 b=\n2 c=\n2 d=\n");
}

TEST(XmlParse, DamagedDocumentsKeepAConsistentArray) {
  // Random damage must never give positions outside the text or outside the parent.
  const std::string base =
      "<?xml version=\"1.0\"?>\r\n<!DOCTYPE j [<!ENTITY x \"1\">]>\r\n<Jobs a=\"1\">\r\n<Job id='2'><Name>n &amp; "
      "m</Name><![CDATA[x]]><!-- c --><Path/></Job>\r\n<Job><Name>k</Name><?p q?></Job>\r\n</Jobs>\r\n";
  std::mt19937 random(12345);
  const std::string alphabet = "<>/!?-[]\"'&; abc";
  for (int round = 0; round < 2000; ++round) {
    std::string text = base;
    int edits = 1 + static_cast<int>(random() % 4);
    for (int k = 0; k < edits; ++k) {
      size_t at = random() % text.size();
      switch (random() % 3) {
        case 0:
          text.erase(at, 1 + random() % 3);
          break;
        case 1:
          text.insert(at, 1, alphabet[random() % alphabet.size()]);
          break;
        default:
          text.resize(at + 1);
      }
      if (text.empty()) text = "<";
    }
    XmlDocument doc;
    doc.setDocument(WFromUtf8(text));
    const WString& d = doc.getDocument();
    // Every element found by the walk starts with "<" and its name, and its data reads.
    std::vector<int> depthStack;
    std::function<void()> walk = [&]() {
      while (doc.findElement()) {
        WString name = doc.getTagName();
        ASSERT_FALSE(name.empty()) << text;
        ASSERT_NE(d.find(u"<" + name), WString::npos) << text;
        doc.getData();
        ASSERT_TRUE(doc.intoElement());
        walk();
        ASSERT_TRUE(doc.outOfElement());
      }
    };
    walk();
    // The number of elements the walk sees is the number in the array.
    XmlDocument again;
    again.setDocument(d);
    int seen = 0;
    std::function<void()> count = [&]() {
      while (again.findElement()) {
        ++seen;
        again.intoElement();
        count();
        again.outOfElement();
      }
    };
    count();
    ASSERT_EQ(seen, again.elementCount()) << text;
  }
}

// ----------------------------------------------------------------------------------------------
// walking and data

TEST(XmlWalk, FindIntoOutOf) {
  XmlDocument doc;
  doc.setDocument(u"<r><a>1</a><b>2</b><a>3</a><c><d>4</d></c></r>");
  EXPECT_FALSE(doc.intoElement());  // no main element yet
  EXPECT_FALSE(doc.outOfElement());
  EXPECT_TRUE(doc.findElement(u"r"));  // no parent: the top level is searched
  EXPECT_TRUE(doc.intoElement());
  EXPECT_TRUE(doc.findElement(u"a"));
  EXPECT_EQ(Utf8(doc.getData()), "1");
  EXPECT_TRUE(doc.findElement(u"a"));  // passes over b
  EXPECT_EQ(Utf8(doc.getData()), "3");
  EXPECT_FALSE(doc.findElement(u"a"));  // not found: the position stays
  EXPECT_EQ(Utf8(doc.getData()), "3");
  EXPECT_FALSE(doc.findElement(u"A"));  // names compare exactly
  EXPECT_TRUE(doc.findElement());
  EXPECT_EQ(Utf8(doc.getTagName()), "c");
  EXPECT_TRUE(doc.intoElement());
  EXPECT_TRUE(doc.findElement(u"d"));
  EXPECT_TRUE(doc.outOfElement());
  EXPECT_EQ(Utf8(doc.getTagName()), "c");
  EXPECT_TRUE(doc.intoElement());  // straight back to the former main element
  EXPECT_EQ(Utf8(doc.getTagName()), "d");
  EXPECT_TRUE(doc.outOfElement());
  EXPECT_TRUE(doc.findElement(nullptr) == false);  // c is the last child
  EXPECT_TRUE(doc.intoElement());                  // findElement forgot d: before the first child
  EXPECT_TRUE(doc.findElement());
  EXPECT_EQ(Utf8(doc.getTagName()), "d");
  EXPECT_TRUE(doc.outOfElement());
  EXPECT_TRUE(doc.outOfElement());
  EXPECT_EQ(Utf8(doc.getTagName()), "r");
  EXPECT_FALSE(doc.outOfElement());
}

TEST(XmlWalk, DataDecodingAndPieces) {
  XmlDocument doc;
  doc.setDocument(
      u"<r><a>&#65;&#x41;&amp;&nosuch;&amp &#xZZ; x</a><b>&Oslash;&oslash;&apos;&#x1F600;&thetasym;&euro;</b>"
      u"<c>t1<![CDATA[<raw>&amp;]]><!-- skip -->t2<?pi?></c><d>text<e/>more</d><f/><g></g>"
      u"<h x=\"1 &lt; 2\" y='q'>&abcdefghij;</h></r>");
  doc.findElement();
  doc.intoElement();
  doc.findElement(u"a");
  EXPECT_EQ(Utf8(doc.getData()), "AA&&nosuch;&amp &#xZZ; x");
  doc.findElement(u"b");
  // Names are lowered before the lookup and the first of a bucket wins: both give U+00D8.
  EXPECT_EQ(doc.getData(), WString(u"\u00D8\u00D8'\U0001F600\u03D1\u20AC"));
  doc.findElement(u"c");
  EXPECT_EQ(Utf8(doc.getData()), "t1<raw>&amp;t2");
  doc.findElement(u"d");
  EXPECT_EQ(Utf8(doc.getData()), "");  // has a child: no data of its own
  doc.findElement(u"f");
  EXPECT_EQ(Utf8(doc.getData()), "");
  doc.findElement(u"g");
  EXPECT_EQ(Utf8(doc.getData()), "");
  doc.findElement(u"h");
  EXPECT_EQ(Utf8(doc.getData()), "&abcdefghij;");  // longer than a reference can be
  EXPECT_EQ(Utf8(doc.getAttrib(u"x")), "1 < 2");
  EXPECT_EQ(Utf8(doc.getAttrib(u"y")), "q");
  EXPECT_EQ(Utf8(doc.getAttrib(u"z")), "");
}

TEST(XmlWalk, CharsetNames) {
  EXPECT_EQ(XmlDocument::charsetCodePage(u""), 0);
  EXPECT_EQ(XmlDocument::charsetCodePage(u"UTF-32BE"), 65005);
  EXPECT_EQ(XmlDocument::charsetCodePage(u"UTF-8"), 65001);
  EXPECT_EQ(XmlDocument::charsetCodePage(u"Latin1"), 28591);
  EXPECT_EQ(XmlDocument::charsetCodePage(u"ISO-8859-15"), 28605);
  EXPECT_EQ(XmlDocument::charsetCodePage(u"Shift_JIS"), 932);
  EXPECT_EQ(XmlDocument::charsetCodePage(u"windows-1251"), 1251);
  EXPECT_EQ(XmlDocument::charsetCodePage(u"no-such-set"), -1);
  EXPECT_EQ(XmlDocument::charsetCodePage(WString(100, u'a')), -1);
}

// ----------------------------------------------------------------------------------------------
// building

TEST(XmlBuild, ElementsOneOnEachLine) {
  XmlDocument doc;
  doc.setDocument(nullptr);
  EXPECT_FALSE(doc.setDocument(u"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"));
  EXPECT_FALSE(doc.addElement(u"x", nullptr, XML_EL_CHILD));  // needs a main element
  EXPECT_TRUE(doc.addElement(u"Jobs"));
  EXPECT_TRUE(doc.intoElement());
  EXPECT_TRUE(doc.addElement(u"Job", u"a<b>&c \"q\""));
  EXPECT_TRUE(doc.addElement(u"Empty"));
  EXPECT_TRUE(doc.addElement(u"Blank", nullptr, XML_EL_EMPTY_BLANK));
  EXPECT_TRUE(doc.addElement(u"Quoted", u"\"'", XML_EL_ESCAPE_QUOTES));
  EXPECT_TRUE(doc.addElement(u"Refs", u"&amp; & &#65; &x", XML_EL_KEEP_REFS));
  EXPECT_TRUE(doc.addElement(u"Tight", u"t", XML_EL_NO_LINE_END));
  EXPECT_TRUE(doc.outOfElement());
  EXPECT_EQ(Utf8(doc.getDocument()),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<Jobs>\r\n<Job>a&lt;b&gt;&amp;c \"q\"</Job>\r\n<Empty/>\r\n"
            "<Blank />\r\n<Quoted>&quot;&apos;</Quoted>\r\n<Refs>&amp; &amp; &#65; &amp;x</Refs>\r\n"
            "<Tight>t</Tight></Jobs>\r\n");
  ExpectSameAsReparsed(doc);
  XmlDocument check;
  EXPECT_TRUE(check.setDocument(doc.getDocument()));
}

TEST(XmlBuild, InsertionBehindTheMainElementAndAsChild) {
  XmlDocument doc;
  doc.setDocument(u"<r>\r\n<a/>\r\n<c></c>\r\n<d>x</d>\r\n</r>\r\n<!-- end -->");
  doc.findElement(u"r");
  doc.intoElement();
  doc.findElement(u"a");
  EXPECT_TRUE(doc.addElement(u"b", u"2"));  // behind a, before c
  EXPECT_EQ(Utf8(doc.getTagName()), "b");
  doc.findElement(u"c");
  EXPECT_TRUE(doc.addElement(u"c1", nullptr, XML_EL_CHILD));  // first child of <c></c>
  EXPECT_EQ(Utf8(doc.getTagName()), "c");                     // the main element stays
  EXPECT_TRUE(doc.addElement(u"c2", u"v", XML_EL_CHILD));
  EXPECT_TRUE(doc.intoElement());  // the last child added
  EXPECT_EQ(Utf8(doc.getTagName()), "c2");
  doc.outOfElement();
  doc.findElement(u"d");
  EXPECT_TRUE(doc.addElement(u"d1", nullptr, XML_EL_CHILD));  // content without children
  doc.outOfElement();
  // <a/> gets its first child: it is rewritten into a start and an end tag.
  doc.findElement(u"r");
  doc.intoElement();
  doc.findElement(u"a");
  doc.intoElement();
  EXPECT_TRUE(doc.addElement(u"a1", u"1"));
  EXPECT_TRUE(doc.addElement(u"a2"));
  EXPECT_EQ(Utf8(doc.getDocument()),
            "<r>\r\n<a>\r\n<a1>1</a1>\r\n<a2/>\r\n</a>\r\n<b>2</b>\r\n<c>\r\n<c1/>\r\n<c2>v</c2>\r\n</c>\r\n"
            "<d>x<d1/>\r\n</d>\r\n</r>\r\n<!-- end -->");
  ExpectSameAsReparsed(doc);
}

TEST(XmlBuild, FirstChildOfAnEmptyElementWrittenWithExtraSlashes) {
  // Tags are not checked inside, so these all count as empty elements; their first child must
  // turn them into a start tag that no longer reads as empty.
  struct Case {
    const char16_t* text;
    const char* startTag;
  };
  const Case cases[] = {
      {u"<r//>", "<r>"},
      {u"<r / />", "<r>"},
      {u"<r\r\n/\t/>", "<r>"},
      {u"<r a=\"/\" / //>", "<r a=\"/\">"},
      {u"<r/>", "<r>"},
      // A quote ends the name, so that the end tag written for it reads as one.
      {u"<r\"x y=\"/>", "<r\"x y=\">"},
  };
  for (const Case& c : cases) {
    for (bool asChild : {true, false}) {
      XmlDocument doc;
      ASSERT_TRUE(doc.setDocument(c.text)) << Utf8(c.text);
      ASSERT_TRUE(doc.findElement(u"r"));
      if (asChild) {
        ASSERT_TRUE(doc.addElement(u"c", u"1", XML_EL_CHILD));
      } else {
        ASSERT_TRUE(doc.intoElement());
        ASSERT_TRUE(doc.addElement(u"c", u"1"));
      }
      EXPECT_EQ(Utf8(doc.getDocument()), std::string(c.startTag) + "\r\n<c>1</c>\r\n</r>") << Utf8(c.text);
      EXPECT_TRUE(XmlDocument().setDocument(doc.getDocument())) << Utf8(doc.getDocument());
      ExpectSameAsReparsed(doc);
    }
  }
}

TEST(XmlBuild, CdataAndNodes) {
  XmlDocument doc;
  doc.setDocument(nullptr);
  EXPECT_TRUE(doc.addNode(XML_NODE_PI, u"xml version=\"1.0\""));
  EXPECT_TRUE(doc.addNode(XML_NODE_COMMENT, u" made here "));
  EXPECT_TRUE(doc.addElement(u"r"));
  EXPECT_TRUE(doc.intoElement());
  EXPECT_TRUE(doc.addElement(u"c", u"x]]>y]]>", XML_EL_CDATA));
  EXPECT_TRUE(doc.addNode(XML_NODE_TEXT, u"a<b"));
  EXPECT_TRUE(doc.addNode(XML_NODE_CDATA, u"<keep>"));
  const WString before = doc.getDocument();
  EXPECT_FALSE(doc.addNode(XML_NODE_CDATA, u"a]]>b"));
  EXPECT_EQ(doc.getDocument(), before);
  EXPECT_TRUE(doc.addNode(3, u"ignored"));
  EXPECT_EQ(doc.getDocument(), before);
  EXPECT_TRUE(doc.addNode(XML_NODE_RAW, u"<raw/>"));
  EXPECT_TRUE(doc.addElement(u"after"));  // behind the nodes, in call order
  EXPECT_TRUE(doc.addElement(u"open", nullptr, XML_EL_START_TAG_ONLY));
  EXPECT_FALSE(doc.addElement(u"open", u"data", XML_EL_START_TAG_ONLY));
  EXPECT_TRUE(doc.addNode(XML_NODE_END_TAG, u"open"));
  EXPECT_EQ(Utf8(doc.getDocument()),
            "<?xml version=\"1.0\"?>\r\n<!-- made here -->\r\n<r>\r\n<c><![CDATA[x]]]]><![CDATA[>y]]]]><![CDATA[>]]>"
            "</c>\r\na&lt;b<![CDATA[<keep>]]><raw/>\r\n<after/>\r\n<open>\r\n</open></r>\r\n");
  XmlDocument back;
  EXPECT_TRUE(back.setDocument(doc.getDocument()));
  back.findElement(u"r");
  back.intoElement();
  back.findElement(u"c");
  EXPECT_EQ(Utf8(back.getData()), "x]]>y]]>");
}

// ----------------------------------------------------------------------------------------------
// files

class XmlFile : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("em_xml_test_" + std::to_string(std::random_device{}()) + "_" +
                                                     ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  WString Path(const char* name) const { return (dir_ / name).u16string(); }
  void Write(const char* name, const std::string& bytes) const {
    std::ofstream out(dir_ / name, std::ios::binary);
    out << bytes;
  }
  std::string Read(const char* name) const {
    std::ifstream in(dir_ / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  std::filesystem::path dir_;
};

TEST_F(XmlFile, BuiltDocumentRoundTripsInEveryForm) {
  struct Form {
    int flags;
    std::string mark;
  };
  const Form forms[] = {
      {0, ""}, {XML_DF_UTF8_BOM, "\xEF\xBB\xBF"}, {XML_DF_UTF16LE_BOM, "\xFF\xFE"}, {XML_DF_UTF16BE_BOM, "\xFE\xFF"}};
  for (const Form& form : forms) {
    XmlDocument doc;
    doc.setDocument(u"<?xml version=\"1.0\"?>\r\n");
    doc.setDocFlags(form.flags);
    doc.addElement(u"Jobs");
    doc.intoElement();
    for (int k = 0; k < 50; ++k) {
      doc.addElement(u"Job");
      doc.intoElement();
      doc.addElement(u"Name", u"caf\u00E9 \u65E5\u672C \U0001F600 <&>");
      doc.addElement(u"Key", WFromAscii(std::to_string(k)).c_str());
      doc.outOfElement();
    }
    ASSERT_TRUE(doc.save(Path("t.xml")));
    const std::string bytes = Read("t.xml");
    EXPECT_EQ(bytes.substr(0, form.mark.size()), form.mark) << form.flags;
    XmlDocument back;
    ASSERT_TRUE(back.load(Path("t.xml"))) << Utf8(back.getErrorText());
    EXPECT_EQ(back.getDocument(), doc.getDocument()) << form.flags;
    EXPECT_EQ(back.getDocFlags(), form.flags);
    // Walk back to the data.
    ASSERT_TRUE(back.findElement(u"Jobs"));
    back.intoElement();
    int k = 0;
    while (back.findElement(u"Job")) {
      back.intoElement();
      ASSERT_TRUE(back.findElement(u"Name"));
      EXPECT_EQ(back.getData(), WString(u"caf\u00E9 \u65E5\u672C \U0001F600 <&>"));
      ASSERT_TRUE(back.findElement(u"Key"));
      EXPECT_EQ(Utf8(back.getData()), std::to_string(k++));
      back.outOfElement();
    }
    EXPECT_EQ(k, 50);
  }
}

TEST_F(XmlFile, Utf8MarkWithoutDeclarationIsKept) {
  Write("m.xml", "\xEF\xBB\xBF<a>caf\xC3\xA9</a>");
  XmlDocument doc;
  ASSERT_TRUE(doc.load(Path("m.xml")));
  EXPECT_EQ(Utf8(doc.getErrorText()), "BOM + to UTF-8 length 12");
  doc.findElement();
  EXPECT_EQ(doc.getData(), WString(u"caf\u00E9"));
  ASSERT_TRUE(doc.save(Path("out.xml")));
  EXPECT_EQ(Read("out.xml"), "\xEF\xBB\xBF<a>caf\xC3\xA9</a>");
  EXPECT_EQ(Utf8(doc.getErrorText()), "UTF-8 length 12 to");
}

TEST_F(XmlFile, EncodingIsTakenFromDeclarationMetaOrDetection) {
  XmlDocument doc;
  // Not valid UTF-8, no mark, no declaration and no "<" at the start: the ANSI code page.
  Write("ansi.xml", " <a>caf\xE9 \x80</a>");
  EXPECT_TRUE(doc.load(Path("ansi.xml")));
  EXPECT_EQ(Utf8(doc.getErrorText()), "(used UTF-8 detection) to length 14");
  doc.findElement();
  EXPECT_EQ(doc.getData(), WString(u"caf\u00E9 \u20AC"));
  ASSERT_TRUE(doc.save(Path("ansi2.xml")));
  EXPECT_EQ(Read("ansi2.xml"), " <a>caf\xE9 \x80</a>");
  // Valid UTF-8 without anything declared is UTF-8 even without "<" in front.
  Write("u8.xml", " <a>\xE2\x82\xAC</a>");
  EXPECT_TRUE(doc.load(Path("u8.xml")));
  doc.findElement();
  EXPECT_EQ(doc.getData(), WString(u"\u20AC"));
  // A declared encoding.
  Write("latin.xml", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n<a>\xE9\x80</a>");
  EXPECT_TRUE(doc.load(Path("latin.xml")));
  EXPECT_EQ(Utf8(doc.getErrorText()), "to ISO-8859-1 length 54");
  doc.findElement();
  EXPECT_EQ(doc.getData(), WString(u"\u00E9\u0080"));
  // The charset of an html document's Content-Type meta element.
  Write("page.html",
        "<html><head><title>t</title><META HTTP-EQUIV=\"Content-Type\" CONTENT=\"text/html; charset=windows-1251\"/>"
        "</head><body>\xCF\xF0\xE8</body></html>");
  EXPECT_TRUE(doc.load(Path("page.html")));
  doc.findElement(u"html");
  doc.intoElement();
  doc.findElement(u"body");
  EXPECT_EQ(doc.getData(), WString(u"\u041F\u0440\u0438"));
  // "<" in front and nothing declared: UTF-8, bad bytes become replacement characters.
  Write("bad.xml", "<a>\xE9</a>");
  EXPECT_TRUE(doc.load(Path("bad.xml")));
  doc.findElement();
  EXPECT_EQ(doc.getData(), WString(u"\uFFFD"));
}

TEST_F(XmlFile, Utf7DocumentSurvivesSaveAndReload) {
  // The markup in plain characters, as UTF-7 files are written; "é" and "+" in their UTF-7 forms.
  Write("u7.xml", "<?xml version=\"1.0\" encoding=\"utf-7\"?>\n<r a=\"1\">caf+AOk- 1+-1=2 x</r>\n");
  XmlDocument doc;
  ASSERT_TRUE(doc.load(Path("u7.xml"))) << Utf8(doc.getErrorText());
  ASSERT_TRUE(doc.findElement(u"r"));
  EXPECT_EQ(doc.getData(), WString(u"caf\u00E9 1+1=2 x"));
  ASSERT_TRUE(doc.save(Path("u7b.xml")));
  // The markup and the declaration stay readable, so that the file is read back in UTF-7.
  EXPECT_EQ(Read("u7b.xml"), "<?xml version=\"1.0\" encoding=\"utf-7\"?>\n<r a=\"1\">caf+AOk- 1+-1=2 x</r>\n");
  XmlDocument back;
  ASSERT_TRUE(back.load(Path("u7b.xml"))) << Utf8(back.getErrorText());
  EXPECT_EQ(back.getDocument(), doc.getDocument());
  // A document built in memory that declares UTF-7, with characters of every kind.
  const WString data = u"<&>\"' +-+ ~\\ \u00E9-\u00E9A\u00E9.\u65E5\U0001F600\t";
  XmlDocument built;
  built.setDocument(u"<?xml version=\"1.0\" encoding=\"UTF-7\"?>\r\n");
  built.addElement(u"Jobs");
  built.intoElement();
  built.addElement(u"Job", data.c_str());
  built.addElement(u"Job", data.c_str(), XML_EL_CDATA);
  ASSERT_TRUE(built.save(Path("u7c.xml")));
  EXPECT_EQ(Read("u7c.xml").substr(0, 45), "<?xml version=\"1.0\" encoding=\"UTF-7\"?>\r\n<Jobs");
  ASSERT_TRUE(back.load(Path("u7c.xml"))) << Utf8(back.getErrorText());
  EXPECT_EQ(back.getDocument(), built.getDocument());
  back.findElement(u"Jobs");
  back.intoElement();
  int jobs = 0;
  while (back.findElement(u"Job")) {
    EXPECT_EQ(back.getData(), data);
    ++jobs;
  }
  EXPECT_EQ(jobs, 2);
}

TEST_F(XmlFile, DeclaredEncodingIsTakenOnlyWhereTheDeclarationReadsAsItself) {
  // An EBCDIC page declared in ASCII: the bytes contradict the declaration, which is ignored.
  const std::string ebcdic = "<?xml version=\"1.0\" encoding=\"cp037\"?>\r\n<a>x</a>";
  Write("e.xml", ebcdic);
  XmlDocument doc;
  EXPECT_TRUE(doc.load(Path("e.xml")));
  EXPECT_EQ(Utf8(doc.getErrorText()), "to UTF-8 length " + std::to_string(ebcdic.size()));
  ASSERT_TRUE(doc.findElement(u"a"));
  EXPECT_EQ(Utf8(doc.getData()), "x");
  // Built documents that declare such an encoding, or UTF-16 that the reader would not know
  // without a mark, are written in UTF-8 and read back as they were.
  for (const char16_t* header :
       {u"<?xml version=\"1.0\" encoding=\"cp037\"?>\r\n", u"<?xml version=\"1.0\" encoding=\"ISO-2022-KR\"?>\r\n",
        u"\r\n<?xml version=\"1.0\" encoding=\"UTF-16\"?>\r\n"}) {
    XmlDocument built;
    built.setDocument(header);
    built.addElement(u"a", u"caf\u00E9");
    ASSERT_TRUE(built.save(Path("b.xml")));
    EXPECT_EQ(Read("b.xml"), WToUtf8(built.getDocument())) << Utf8(header);
    XmlDocument back;
    EXPECT_TRUE(back.load(Path("b.xml"))) << Utf8(header);
    EXPECT_EQ(back.getDocument(), built.getDocument()) << Utf8(header);
  }
  // UTF-16 that starts with "<" is known without a mark and is written as declared.
  XmlDocument built;
  built.setDocument(u"<?xml version=\"1.0\" encoding=\"UTF-16\"?>\r\n");
  built.addElement(u"a", u"caf\u00E9");
  ASSERT_TRUE(built.save(Path("w.xml")));
  EXPECT_EQ(Read("w.xml").substr(0, 4), std::string("<\0?\0", 4));
  XmlDocument back;
  EXPECT_TRUE(back.load(Path("w.xml")));
  EXPECT_EQ(back.getDocument(), built.getDocument());
}

TEST(XmlEncoding, Utf7WriterReadsBackThroughTheSystemConverter) {
  // Every ASCII character, base64 runs ended before a base64 letter, "-" and the end, characters
  // of every plane, and the markup characters, which must be written as themselves.
  WString text;
  for (char16_t c = 1; c < 0x80; ++c) text += c;
  text += u"\u00E9A\u00E9-\u00E9+\u00E9\u00E9\u00E9 \u20AC\U0001F600\U0010FFFD\uFFFD\uFEFF\u0000x";
  for (char32_t c = 0x80; c < 0x10000; c += 251) {
    if (c < 0xD800 || c > 0xDFFF) text += static_cast<char16_t>(c);
  }
  std::string bytes;
  EXPECT_TRUE(XmlWideToUtf7(text, bytes));
  for (char markup : std::string("<>=\"'/?!&;[]")) EXPECT_NE(bytes.find(markup), std::string::npos) << markup;
  WString back;
  ASSERT_TRUE(platform::CodePageToWide(65000, bytes.data(), bytes.size(), back));
  EXPECT_EQ(back, text);
  // A lone surrogate is not UTF-16 text: it is written as U+FFFD and reported.
  EXPECT_FALSE(XmlWideToUtf7(WString(u"a") + static_cast<char16_t>(0xD800) + u"b", bytes));
  ASSERT_TRUE(platform::CodePageToWide(65000, bytes.data(), bytes.size(), back));
  EXPECT_EQ(back, WString(u"a\uFFFDb"));
}

TEST_F(XmlFile, SavingNotesConversionLoss) {
  XmlDocument doc;
  doc.setDocument(u"<?xml version=\"1.0\" encoding=\"windows-1252\"?>\r\n");
  doc.addElement(u"a", u"\u20AC\u65E5");
  ASSERT_TRUE(doc.save(Path("l.xml")));
  EXPECT_EQ(Utf8(doc.getErrorText()), "windows-1252 length 58 to (chars lost in conversion!)");
  EXPECT_EQ(Read("l.xml").substr(47), "<a>\x80?</a>\r\n");
}

TEST_F(XmlFile, Utf16Forms) {
  XmlDocument doc;
  // Little-endian with a mark and a NUL character, which is removed.
  Write("le.xml", std::string("\xFF\xFE<\0a\0>\0\0\0x\0<\0/\0a\0>\0", 20));
  EXPECT_TRUE(doc.load(Path("le.xml")));
  EXPECT_EQ(Utf8(doc.getDocument()), "<a>x</a>");
  EXPECT_EQ(Utf8(doc.getErrorText()), "BOM + removed 1 nulls UTF-16LE length 18");
  EXPECT_EQ(doc.getDocFlags(), XML_DF_UTF16LE_BOM);
  // Big-endian without a mark, known by its zero bytes; an odd last byte is reported.
  Write("be.xml", std::string("\0<\0a\0/\0>\0", 9));
  EXPECT_TRUE(doc.load(Path("be.xml")));
  EXPECT_EQ(Utf8(doc.getDocument()), "<a/>");
  EXPECT_EQ(Utf8(doc.getErrorText()), "encoding UTF-16BE adjustment error endian swap UTF-16BE length 9");
  ASSERT_TRUE(doc.save(Path("be2.xml")));
  EXPECT_EQ(Read("be2.xml"), std::string("\0<\0a\0/\0>", 8));
}

TEST_F(XmlFile, FileErrors) {
  XmlDocument doc;
  doc.setDocument(u"<a/>");
  EXPECT_FALSE(doc.load(Path("missing.xml")));
  EXPECT_FALSE(doc.getErrorText().empty());
  EXPECT_NE(Utf8(doc.getResult()).find("<file_error msg="), std::string::npos);
  EXPECT_TRUE(doc.getDocument().empty());
  doc.setDocument(u"<a/>");
  EXPECT_FALSE(doc.save((dir_ / "no" / "such" / "dir.xml").u16string()));
  EXPECT_NE(Utf8(doc.getResult()).find("<file_error msg="), std::string::npos);
  // A flawed file is read but reported as flawed, with what was found.
  Write("flawed.xml", "<a><b></a>");
  EXPECT_FALSE(doc.load(Path("flawed.xml")));
  EXPECT_EQ(Utf8(doc.getErrorText()), "to UTF-8 length 10 start tag 'b' at offset 3 expecting end tag at offset 10");
  EXPECT_TRUE(doc.findElement(u"a"));
}

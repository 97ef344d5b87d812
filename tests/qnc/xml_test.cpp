#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qnc/qncXml.h"

namespace {

using namespace std::string_literals;
using qnc::FastString;
using qnc::Result;
using qnc::xml::Canonical;
using qnc::xml::Document;
using qnc::xml::Element;

// {uri}prefix:local a="v"(text)[child child]
std::string show(const Element& element) {
  const auto uri = [](std::string_view text) {
    return text.empty() ? std::string() : "{" + std::string(text) + "}";
  };
  std::string out = uri(element.namespaceURI()) + std::string(element.qualifiedName());
  for (const auto a : element.attributes()) {
    out +=
        " " + uri(a.namespaceURI()) + std::string(a.qualifiedName()) + "=" + std::string(a.value());
  }
  if (!element.text().empty()) out += "(" + std::string(element.text()) + ")";
  if (element.firstChild()) {
    out += "[";
    for (const Element child : element.children())
      out += (out.back() == '[' ? "" : "|") + show(child);
    out += "]";
  }
  return out;
}

std::string utf16(std::u16string_view text, bool bigEndian) {
  std::string bytes;
  for (const char16_t unit : text) {
    const char low = static_cast<char>(unit), high = static_cast<char>(unit >> 8);
    bytes += bigEndian ? std::string{high, low} : std::string{low, high};
  }
  return bytes;
}

std::string repeated(const std::string& text, size_t count) {
  std::string out;
  while (count-- > 0)
    out += text;
  return out;
}

std::string nested(size_t depth) {
  return repeated("<a>", depth) + repeated("</a>", depth);
}

std::string numbered(const char* format, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) {
    FastString piece = format;
    piece.replaceAll("%d", std::to_string(i));
    out += piece.str();
  }
  return out;
}

TEST(Xml, ReadsDocumentsAsTheyCome) {
  const struct {
    std::string document;
    std::string expected;
  } rows[] = {
      {"<a/>", "a"},
      {"<a b='1' c=\"2\"><d/><e><f/></e><g/></a>", "a b=1 c=2[d|e[f]|g]"},
      // references, and white space in attributes
      {"<a b='&lt;&amp;&#65;&#x20AC;&quot;'>&gt;&#66;</a>", "a b=<&A\xE2\x82\xAC\"(>B)"},
      {"<a b=' x\n\ty '/>", "a b= x  y "},
      // text: pieces, CDATA, comments, white space between tags
      {"<a> x <!-- c -->y<![CDATA[<z>&]]></a>", "a( x y<z>&)"},
      {"<a>\n <b> </b>\n <c/>\n</a>", "a[b( )|c]"},
      {"<a>x <b/> <c/> y</a>", "a(x  y)[b|c]"},
      {"<a> \n </a>", "a( \n )"},
      {"<a><![CDATA[ ]]><b/></a>", "a[b]"},
      // declarations, comments and instructions around the root
      {"<?xml version='1.0'?><?p i?><!-- c --><a/><!-- c -->\n", "a"},
      {"<!DOCTYPE a [<!ELEMENT a ANY><!ATTLIST a b (x|y) #IMPLIED>]><a b='x'/>", "a b=x"},
      {"<!DOCTYPE a SYSTEM 'http://127.0.0.1:9/x.dtd'><a/>", "a"},
      {"<a><?p i?>x<?p?></a>", "a(x)"},
      // namespaces
      {"<a xmlns='u' b='1'><c xmlns=''/><d/></a>", "{u}a b=1[c|{u}d]"},
      {"<p:a xmlns:p='u' p:b='1'><p:c xmlns:p='v'/></p:a>", "{u}p:a {u}p:b=1[{v}p:c]"},
      {"<m:MPD m:a='1'><n:b/></m:MPD>", "m:MPD m:a=1[n:b]"},
      {"<a xml:lang='de'/>", "a {http://www.w3.org/XML/1998/namespace}xml:lang=de"},
      // byte-order marks and encodings
      {"\xEF\xBB\xBF<a b='\xC3\xA4'/>", "a b=\xC3\xA4"},
      {"<?xml version='1.0' encoding='ISO-8859-1'?><a b='\xE4'>\xF6</a>", "a b=\xC3\xA4(\xC3\xB6)"},
      {utf16(u"\uFEFF<a b='\u00E4'>\U0001F600</a>", false), "a b=\xC3\xA4(\xF0\x9F\x98\x80)"},
      {utf16(u"\uFEFF<?xml version='1.0' encoding='UTF-16'?><a b='\u00E4'/>", true),
       "a b=\xC3\xA4"},
      // pieces that lie across the parser's own chunks
      {"<a b='" + std::string(9001, 'x') + "'/>", "a b=" + std::string(9001, 'x')},
      {"<a>" + repeated("\xE2\x82\xAC", 5000) + "</a>",
       "a(" + repeated("\xE2\x82\xAC", 5000) + ")"},
      {utf16(u"\uFEFF<a>" + std::u16string(5000, u'\u20AC') + u"</a>", true),
       "a(" + repeated("\xE2\x82\xAC", 5000) + ")"},
  };
  for (const auto& row : rows) {
    Document document;
    ASSERT_EQ(document.parse(row.document), Result::Success) << row.document.substr(0, 80) << "\n"
                                                             << document.errorText();
    EXPECT_EQ(show(document.root()), row.expected) << row.document.substr(0, 80);
  }
}

TEST(Xml, RefusesWhatItMust) {
  const std::string big(10'000'001, 'x');
  const struct {
    std::string document;
    Result result;
    std::string error;
  } rows[] = {
      {"", Result::InvalidFormat, "m:1: Document is empty"},
      {"no XML", Result::InvalidFormat, "m:1: Start tag expected, '<' not found"},
      {"<a>\n<b>\n</a>", Result::InvalidFormat,
       "m:3: Opening and ending tag mismatch: b line 2 and a"},
      {"<a b='1'\n b='2'/>", Result::InvalidFormat, "m:2: Attribute b redefined"},
      {"<a/><b/>", Result::InvalidFormat, "m:1: Extra content at the end of the document"},
      {"<a>&x;</a>", Result::InvalidFormat, "m:1: Entity 'x' not defined"},
      {"<a>\xFF</a>", Result::InvalidFormat, ""},
      {"<a>\0</a>"s, Result::InvalidFormat, ""},
      {"<?xml version='1.0' encoding='no-such'?><a/>", Result::InvalidFormat, ""},
      // entities of every kind, also when nothing refers to them
      {"<!DOCTYPE a [\n<!ENTITY x 'y'>]><a>&x;</a>", Result::UnsupportedFeature,
       "m:2: The DTD declares entities"},
      {"<!DOCTYPE a [<!ENTITY x SYSTEM 'file:///etc/passwd'>]><a>&x;</a>",
       Result::UnsupportedFeature, "m:1: The DTD declares entities"},
      {"<!DOCTYPE a [<!ENTITY % x SYSTEM 'http://127.0.0.1:9/'>%x;]><a/>",
       Result::UnsupportedFeature, "m:1: The DTD declares entities"},
      {"<!DOCTYPE a [<!NOTATION n PUBLIC 'n'><!ENTITY x SYSTEM 'y' NDATA n>]><a/>",
       Result::UnsupportedFeature, "m:1: The DTD declares entities"},
      {"<!DOCTYPE a [<!ATTLIST a b CDATA 'c'>]><a/>", Result::UnsupportedFeature,
       "m:1: The DTD declares defaults of attributes"},
      // limits
      {"<a" + numbered(" b%d=''", 1001) + "/>", Result::OutOfRange,
       "m:1: An element has too many attributes"},
      {"<a" + numbered(" xmlns:b%d='u'", 1001) + "/>", Result::OutOfRange,
       "m:1: An element has too many attributes"},
      {"<!DOCTYPE a [" + numbered("<!ELEMENT b%d ANY>", 10'000) + "]><a/>", Result::OutOfRange,
       "m:1: The DTD is too long"},
      {nested(258), Result::OutOfRange, ""},
      {"<a>" + big + "</a>", Result::OutOfRange, "m:1: A text is too long"},
      {"<a b='" + big + "'/>", Result::InvalidFormat, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.document.substr(0, 80));
    Document document;
    EXPECT_EQ(document.parse(row.document, "m"), row.result);
    EXPECT_TRUE(document.root().empty());
    EXPECT_FALSE(document.errorText().empty());
    EXPECT_GT(document.errorLine(), 0U);
    if (!row.error.empty()) {
      EXPECT_EQ(document.errorText(), row.error);
    }
  }
}

TEST(Xml, RefusesTooManyBytesBeforeReadingThem) {
  Document document;
  // Not one of the bytes may be touched: they are not there.
  EXPECT_EQ(document.parse(nullptr, Document::kMaxSize + 1), Result::OutOfRange);
  EXPECT_EQ(document.errorText(), "line 0: The document is larger than 256 MiB");
}

// libxml2 by itself spends half a minute on this.
TEST(Xml, EndlessTagsEndSoon) {
  Document document;
  EXPECT_EQ(document.parse("<a" + numbered(" b%d=''", 200'000) + "/>"), Result::OutOfRange);
  EXPECT_EQ(document.errorText(), "line 1: An element has too many attributes");
  ASSERT_EQ(document.parse("<a" + numbered(" b%d=''", 1000) + "/>"), Result::Success);
  EXPECT_TRUE(document.root().hasAttribute("b999"));
}

TEST(Xml, NestsAsDeepAsLibxml2) {
  Document document;
  ASSERT_EQ(document.parse(nested(257)), Result::Success);
  size_t depth = 0;
  for (Element e = document.root(); e; e = e.firstChild())
    ++depth;
  EXPECT_EQ(depth, 257U);
}

TEST(Xml, ParsingAgainForgetsTheFormerDocument) {
  Document document;
  ASSERT_EQ(document.parse("<a><b/></a>"), Result::Success);
  const Document copy = document;
  ASSERT_NE(document.parse("<c"), Result::Success);
  EXPECT_TRUE(document.root().empty());
  EXPECT_EQ(document.elementCount(), 0U);
  EXPECT_EQ(show(copy.root()), "a[b]");  // a copy keeps the tree
  ASSERT_EQ(document.parse("<d/>"), Result::Success);
  EXPECT_EQ(document.errorText(), "");
  EXPECT_EQ(document.errorLine(), 0U);
}

TEST(Xml, FindsAttributesByLocalName) {
  Document document;
  ASSERT_EQ(document.parse("<a xmlns:p='u' xmlns:q='v' p:x='1' q:x='2' p:y='3' y='4' z=''"
                           " xml:lang='de' u:w='5'/>"),
            Result::Success);
  const Element a = document.root();
  const struct {
    const char* name;
    const char* value;  // null: not there
  } rows[] = {
      {"x", "1"},  // the first
      {"y", "4"},  // the one without prefix
      {"z", ""},      {"lang", "de"},     {"w", "5"},    {"p:x", nullptr},
      {"X", nullptr}, {"xmlns", nullptr}, {"", nullptr},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(a.hasAttribute(row.name), row.value != nullptr) << row.name;
    EXPECT_EQ(a.attribute(row.name), row.value ? row.value : "") << row.name;
    EXPECT_EQ(a.getAttributeValue(row.name), a.attribute(row.name)) << row.name;
    EXPECT_EQ(*(a.attribute(row.name).data() + a.attribute(row.name).size()), '\0') << row.name;
  }
}

TEST(Xml, SplitsNames) {
  Document document;
  ASSERT_EQ(document.parse("<m:MPD><p:a xmlns:p='u' n:b='1' c='2'/></m:MPD>"), Result::Success);
  const auto parts = [](const auto& node) {
    return std::string(node.prefix()) + "|" + std::string(node.localName());
  };
  EXPECT_EQ(parts(document.root()), "m|MPD");
  const Element a = document.root().firstChildByName("a");
  EXPECT_EQ(parts(a), "p|a");
  EXPECT_EQ(parts(*a.attributes().begin()), "n|b");
  EXPECT_EQ(parts(*++a.attributes().begin()), "|c");
}

TEST(Xml, WalksInEveryDirection) {
  Document document;
  ASSERT_EQ(document.parse("<r><x><y/></x><a i='1'/><x/><a i='2'/></r>"), Result::Success);
  const Element r = document.root();
  EXPECT_EQ(document.elementCount(), 6U);
  EXPECT_EQ(r.childCount(), 4U);
  const Element first = r.firstChildByName("a");
  EXPECT_EQ(first.attribute("i"), "1");
  const Element second = first.nextSiblingByName("a");
  EXPECT_EQ(second.attribute("i"), "2");
  EXPECT_TRUE(second.nextSibling().empty());
  EXPECT_TRUE(r.firstChildByName("y").empty());  // a grandchild
  EXPECT_EQ(r.firstChild().firstChild().parent().parent(), r);
  EXPECT_TRUE(r.parent().empty());
  EXPECT_TRUE(r.nextSibling().empty());
}

TEST(Xml, EmptyElementAnswersEmpty) {
  const Element none;
  EXPECT_FALSE(none);
  EXPECT_EQ(show(none), "");
  EXPECT_TRUE(none.localName().empty() && none.prefix().empty() && none.getText().empty());
  EXPECT_TRUE(none.attribute("a").empty() && !none.hasAttribute("a") && none.attributes().empty());
  EXPECT_EQ(none.firstChild(), none);
  EXPECT_EQ(none.firstChildByName("a"), none);
  EXPECT_EQ(none.nextSibling(), none);
  EXPECT_EQ(none.parent(), none);
  EXPECT_EQ(none.childCount(), 0U);
  EXPECT_TRUE(none.children().empty());
  EXPECT_EQ(Document().root(), none);
}

TEST(Xml, ReadsFragments) {
  Document document;
  ASSERT_EQ(document.parseFragment("x<a/>\n<b>y</b>"), Result::Success);
  EXPECT_EQ(show(document.root()), "fragment(x)[a|b(y)]");
  ASSERT_EQ(document.parseFragment(""), Result::Success);
  EXPECT_EQ(show(document.root()), "fragment");
  for (const char* text : {"</fragment><fragment>", "</fragment><!--", "<a>", "</a>",
                           "<?xml version='1.0'?><a/>", "<!DOCTYPE a><a/>"}) {
    EXPECT_EQ(document.parseFragment(text), Result::InvalidFormat) << text;
  }
}

// What a segment costs decides whether a long manifest fits into memory.
TEST(Xml, TreeIsCompact) {
  std::string text = "<L>";
  for (int i = 0; i < 20'000; ++i) {
    text += "\n  <S t=\"" + std::to_string(1'000'000 + i) + "\" d=\"90000\"/>";
  }
  Document document;
  ASSERT_EQ(document.parse(text + "</L>"), Result::Success);
  EXPECT_EQ(document.elementCount(), 20'001U);
  EXPECT_LT(document.memorySize() / document.elementCount(), 70U);
}

class XmlXPath : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(
        document_.parse("<!-- c --><r xmlns='urn:u' xmlns:p='urn:v'>\n <a i='2'>x</a><!-- d -->"
                        "<b z='1' a='2'><p:a/></b><a i='3'/>\n</r>",
                        "m", Document::KeepSource),
        Result::Success);
  }
  std::string select(const char* expression, Element context = {}) {
    std::vector<Element> found;
    if (document_.select(expression, found, {{"n", "urn:u"}, {"m", "urn:v"}}, context) !=
        Result::Success) {
      return "failed";
    }
    std::string out;
    for (const Element& element : found)
      out += show(element) + ";";
    return out;
  }

  Document document_;
};

TEST_F(XmlXPath, SelectsElements) {
  EXPECT_EQ(select("//n:a"), "{urn:u}a i=2(x);{urn:u}a i=3;");
  EXPECT_EQ(select("//m:a | //n:a[@i='3']"), "{urn:v}p:a;{urn:u}a i=3;");
  EXPECT_EQ(select("//a"), "");
  EXPECT_EQ(select("//@i | //text()"), "");  // no elements
  EXPECT_EQ(select(".//*", document_.root().firstChildByName("b")), "{urn:v}p:a;");
  EXPECT_EQ(select("//x:a"), "failed");  // an unknown prefix
  EXPECT_EQ(select("]["), "failed");
  EXPECT_EQ(select("1 + 1"), "failed");
}

TEST_F(XmlXPath, EvaluatesToText) {
  FastString out;
  EXPECT_EQ(document_.evaluate("count(//n:a)", out, {{"n", "urn:u"}}), Result::Success);
  EXPECT_EQ(out, "2");
  EXPECT_EQ(document_.evaluate("string(@i)", out, {}, document_.root().firstChild()),
            Result::Success);
  EXPECT_EQ(out, "2");
  EXPECT_EQ(document_.evaluate("no-such()", out), Result::InvalidFormat);
}

TEST_F(XmlXPath, SerialisesCanonically) {
  FastString out;
  ASSERT_EQ(document_.canonicalise(out), Result::Success);
  EXPECT_EQ(out,
            "<r xmlns=\"urn:u\" xmlns:p=\"urn:v\">\n <a i=\"2\">x</a>"
            "<b a=\"2\" z=\"1\"><p:a></p:a></b><a i=\"3\"></a>\n</r>");
  ASSERT_EQ(document_.canonicalise(out, {}, Canonical::Inclusive10, true), Result::Success);
  EXPECT_TRUE(out.startsWith("<!-- c -->\n<r") && out.contains("<!-- d -->"));
  const Element a = document_.root().firstChild();
  ASSERT_EQ(document_.canonicalise(out, a), Result::Success);
  EXPECT_EQ(out, "<a xmlns=\"urn:u\" xmlns:p=\"urn:v\" i=\"2\">x</a>");
  ASSERT_EQ(document_.canonicalise(out, a, Canonical::Exclusive10), Result::Success);
  EXPECT_EQ(out, "<a xmlns=\"urn:u\" i=\"2\">x</a>");
}

TEST_F(XmlXPath, NeedsTheSourceAndAnElementOfTheDocument) {
  std::vector<Element> found;
  FastString out;
  Document other;
  EXPECT_EQ(other.evaluate("1", out), Result::NotInitialized);
  ASSERT_EQ(other.parse("<a/>"), Result::Success);
  EXPECT_EQ(other.select("//*", found), Result::NotAvailable);
  EXPECT_EQ(other.canonicalise(out), Result::NotAvailable);
  EXPECT_EQ(document_.select("//*", found, {}, other.root()), Result::InvalidArguments);
}

}  // namespace

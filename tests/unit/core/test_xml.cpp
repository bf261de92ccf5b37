// Reading element texts whole, the bounds that keep a hostile document away from the loader, and the test
// of what Mini-XML can hold.
#include <gtest/gtest.h>

#include <string>

#include "core/orbs3_xml.h"

namespace {

orbs3_xml_ptr load(const std::string& text)
{
    return orbs3_xml_ptr(mxmlLoadString(nullptr, text.c_str(), MXML_OPAQUE_CALLBACK));
}

std::string repeat(const std::string& s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i)
        out += s;
    return out;
}

TEST(Xml, ElementTextIsReadWhole)
{
    struct row {
        const char* doc;
        const char* text;
    } rows[] = {
        {"<K>with space/and+plus.txt</K>", "with space/and+plus.txt"},
        {"<K> leading</K>", " leading"},
        {"<K>a\t b\n\r c  </K>", "a\t b\n\r c  "},
        {"<K>&amp;&lt;&gt;&quot;&apos;&#x20;x&#32;&#9;</K>", "&<>\"' x \t"},
        {"<K>\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80</K>", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"<K>a<![CDATA[ <b> & ]]>c</K>", "a <b> & c"},
        {"<K>a<!-- no -->b<?pi no?>c</K>", "abc"},
        {"<K>a<X>not mine</X>b</K>", "ab"},
        {"<K> </K>", " "},
        {"<K></K>", ""},
        {"<K/>", ""},
    };
    for (const row& r : rows) {
        orbs3_xml_ptr doc = load(r.doc);
        ASSERT_NE(doc, nullptr) << r.doc;
        EXPECT_EQ(orbs3_xml_text(orbs3_xml_find(doc.get(), "K")), r.text) << r.doc;
    }
    EXPECT_EQ(orbs3_xml_text(nullptr), "");

    // A tree loaded word by word, as Mini-XML does without a callback, still reads as one text.
    orbs3_xml_ptr words(mxmlLoadString(nullptr, "<K>a b  c</K>", MXML_NO_CALLBACK));
    ASSERT_NE(words, nullptr);
    EXPECT_EQ(orbs3_xml_text(words.get()), "a b c");

    EXPECT_EQ(orbs3_xml_trim(" \t\r\nEnabled \n"), "Enabled");
    EXPECT_EQ(orbs3_xml_trim(" \n "), "");
    EXPECT_EQ(orbs3_xml_trim("a b"), "a b");
}

TEST(Xml, BoundsCountOpenElementsAndStartTags)
{
    const orbs3_xml_bounds b{4, 10};
    struct row {
        std::string doc;
        bool ok;
    } rows[] = {
        {"<a><b><c><d/></c></b></a>", true},
        {"<a><b><c><d></d></c></b></a>", true},
        {"<a><b><c><d><e/></d></c></b></a>", true},
        {"<a><b><c><d><e></e></d></c></b></a>", false},
        {"<a>" + repeat("<b/>", 9) + "</a>", true},
        {"<a>" + repeat("<b/>", 10) + "</a>", false},
        {"<a>" + repeat("<b></b>", 9) + "</a>", true},
        // A '<' in a comment, a CDATA section, an instruction or a quoted attribute value is not a tag.
        {"<?xml version=\"1.0\"?><!-- <x><x><x><x><x> --><a><![CDATA[<x><x><x><x><x>]]></a>", true},
        {"<a t=\"<x><x>\" u='>'><b><c><d/></c></b></a>", true},
        {"<!DOCTYPE a><a><?pi <x><x><x><x>?></a>", true},
        // Cut short: nothing more is counted, the loader refuses it.
        {"<a><b><c><!-- <d><e><f>", true},
        {"<a><b><c><d", true},
        {"", true},
    };
    for (const row& r : rows)
        EXPECT_EQ(orbs3_xml_within_bounds(r.doc, b), r.ok) << r.doc;

    // The nesting of a hostile body is refused without reading it to the end.
    const std::string deep = repeat("<Part>", 100000) + repeat("</Part>", 100000);
    EXPECT_FALSE(orbs3_xml_within_bounds(deep, {32, 100000}));
    EXPECT_TRUE(orbs3_xml_within_bounds(deep, {100000, 100000}));
}

TEST(Xml, EscapeWritesMarkupAsEntitiesAndControlBytesAsReferences)
{
    std::string out = "<";
    orbs3_xml_escape(&out, "a&b<c>d\"e'f\tg\nh\ri\x01j\x7f");
    EXPECT_EQ(out, "<a&amp;b&lt;c&gt;d&quot;e&apos;f\tg\nh&#13;i&#1;j\x7f");
    // What it writes, Mini-XML reads back as the text (control bytes aside, which XML 1.0 cannot hold).
    std::string doc = "<K>";
    orbs3_xml_escape(&doc, " a&b \r\n\t<'\">\xc3\xa9 ");
    doc += "</K>";
    orbs3_xml_ptr back = load(doc);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(orbs3_xml_text(back.get()), " a&b \r\n\t<'\">\xc3\xa9 ");
}

TEST(Xml, TextOkIsWhatMiniXmlReadsBackUnchanged)
{
    struct row {
        std::string text;
        bool ok;
    } rows[] = {
        {"plain", true},
        {" \t\r\n&<>\"'", true},
        {"\x7f", true},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbe\xf4\x8f\xbf\xbf", true},
        {std::string(1, '\0'), false},
        {"\x01", false},
        {"a\x1f", false},
        {"\xc3", false},           // cut inside a character
        {"\xe9t\xe9", false},      // Latin-1
        {"\xc0\x80", false},       // overlong
        {"\xed\xa0\x80", false},   // surrogate
        {"\xf4\x90\x80\x80", false},  // above U+10FFFF
        {"\xff", false},
    };
    for (const row& r : rows) {
        EXPECT_EQ(orbs3_xml_text_ok(r.text), r.ok) << testing::PrintToString(r.text);
        if (!r.ok || r.text.find('\0') != std::string::npos)
            continue;
        // What the test accepts survives Mini-XML's writer and loader, in an attribute and in a text.
        orbs3_xml_ptr doc(mxmlNewXML("1.0"));
        mxml_node_t* e = mxmlNewElement(doc.get(), "K");
        mxmlElementSetAttr(e, "v", r.text.c_str());
        mxmlNewOpaque(e, r.text.c_str());
        char* saved = mxmlSaveAllocString(doc.get(), MXML_NO_CALLBACK);
        ASSERT_NE(saved, nullptr);
        orbs3_xml_ptr back = load(saved);
        std::free(saved);
        ASSERT_NE(back, nullptr) << testing::PrintToString(r.text);
        mxml_node_t* k = orbs3_xml_find(back.get(), "K");
        EXPECT_STREQ(mxmlElementGetAttr(k, "v"), r.text.c_str());
        EXPECT_EQ(orbs3_xml_text(k), r.text);
    }
}

}  // namespace

// Mini-XML through one owner: a loaded or built tree is held by orbs3_xml_ptr and freed by it alone, so no
// path of a reader or writer frees XML by hand or forgets to.
#pragma once

#include <mxml.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

struct orbs3_xml_deleter {
    void operator()(mxml_node_t* n) const noexcept { mxmlDelete(n); }
};
using orbs3_xml_ptr = std::unique_ptr<mxml_node_t, orbs3_xml_deleter>;

struct orbs3_file_closer {
    void operator()(FILE* f) const noexcept { std::fclose(f); }
};
using orbs3_file_ptr = std::unique_ptr<FILE, orbs3_file_closer>;

// The whole file as one tree, values kept as opaque text; null when it is not well-formed XML (no root
// element, two roots, a broken tag).
[[nodiscard]] orbs3_xml_ptr orbs3_xml_load_file(FILE* fp);
// Opens and loads `path`; null when it cannot be opened or is not XML.
[[nodiscard]] orbs3_xml_ptr orbs3_xml_load_path(const char* path);

// The element anywhere in the tree, `top` included (mxmlFindElement looks only below its start).
mxml_node_t* orbs3_xml_find(mxml_node_t* top, const char* name);

// The whole text of an element as it was sent: every text child in order with its blanks, tabs and line
// breaks, entities decoded, CDATA sections as their content; comments, processing instructions and the
// texts of child elements left out. "" for a null element or one without text. Mini-XML loaded without a
// callback splits a text into words, so texts are read through this function and never one node at a time.
[[nodiscard]] std::string orbs3_xml_text(mxml_node_t* element);

// The text without the blanks, tabs and line breaks XML allows around a word: for texts that are one word
// of a closed set (a status, a permission, a number), never for keys, values or names.
[[nodiscard]] std::string_view orbs3_xml_trim(std::string_view text);

// Bounds that hold a hostile document off before Mini-XML builds it: its loader and the walks over the tree
// cost time in the depth, so a body nested 100,000 deep would hold a worker for seconds.
struct orbs3_xml_bounds {
    std::size_t depth;     // elements open at once
    std::size_t elements;  // start tags in the whole text
};
// False when `text` opens more elements at once, or more elements in all, than `bounds` allow. One pass over
// the bytes that counts start and end tags; comments, CDATA sections, processing instructions, declarations
// and quoted attribute values are passed over, so a '<' inside them counts for nothing. It checks no more
// than the bounds: a text within them may still be malformed, which the loader finds.
[[nodiscard]] bool orbs3_xml_within_bounds(std::string_view text, orbs3_xml_bounds bounds);

// True when Mini-XML writes `text` in an attribute or a text node and reads the same bytes back: valid
// UTF-8 (no overlong form, no surrogate, nothing above U+10FFFF) without the control bytes XML 1.0 cannot
// hold (everything below 0x20 but tab, line feed and carriage return). Mini-XML refuses a whole document
// for one such byte, even as a character reference.
[[nodiscard]] bool orbs3_xml_text_ok(std::string_view text);

// Whether " and ' become entities. Element content needs neither; documents whose bytes clients already
// know (the error document) keep them raw, the others escape them so a text may stand in an attribute too.
enum class orbs3_xml_quotes { escape, keep };
// Appends `text` as the content of an element or a double-quoted attribute of a hand-written document:
// & < > (and " ' unless kept) as entities, and every control byte but tab and line feed as a decimal
// character reference (a carriage return must reach the client as &#13;: an XML parser turns a raw one
// into a line feed, and refuses the other control bytes with the whole document).
void orbs3_xml_escape(std::string* out, std::string_view text, orbs3_xml_quotes quotes = orbs3_xml_quotes::escape);

// atoi without its undefined behaviour: text that is not a number is 0, and a number beyond int is held
// at INT_MIN or INT_MAX. Within int the value is atoi's.
int orbs3_xml_to_int(const char* text);

// Copies the attribute's value into dest, cut to len - 1 bytes and always terminated. 0 when node and
// attribute exist; otherwise -1 and dest is left as it was.
int orbs3_xml_get_str(mxml_node_t* node, const char* attr, char* dest, std::size_t len);
// orbs3_xml_to_int of the attribute's value into dest when node and attribute exist (0 then); otherwise
// -1, dest kept.
int orbs3_xml_get_int(mxml_node_t* node, const char* attr, int* dest);

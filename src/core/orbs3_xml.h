// Mini-XML through one owner: a loaded or built tree is held by orbs3_xml_ptr and freed by it alone, so no
// path of a reader or writer frees XML by hand or forgets to.
#pragma once

#include <mxml.h>

#include <cstddef>
#include <cstdio>
#include <memory>

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

// atoi without its undefined behaviour: text that is not a number is 0, and a number beyond int is held
// at INT_MIN or INT_MAX. Within int the value is atoi's.
int orbs3_xml_to_int(const char* text);

// Copies the attribute's value into dest, cut to len - 1 bytes and always terminated. 0 when node and
// attribute exist; otherwise -1 and dest is left as it was.
int orbs3_xml_get_str(mxml_node_t* node, const char* attr, char* dest, std::size_t len);
// orbs3_xml_to_int of the attribute's value into dest when node and attribute exist (0 then); otherwise
// -1, dest kept.
int orbs3_xml_get_int(mxml_node_t* node, const char* attr, int* dest);

#include "core/orbs3_xml.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

orbs3_xml_ptr orbs3_xml_load_file(FILE* fp)
{
    if (fp == nullptr)
        return nullptr;
    return orbs3_xml_ptr(mxmlLoadFile(nullptr, fp, MXML_OPAQUE_CALLBACK));
}

orbs3_xml_ptr orbs3_xml_load_path(const char* path)
{
    if (path == nullptr)
        return nullptr;
    orbs3_file_ptr fp(std::fopen(path, "re"));
    return orbs3_xml_load_file(fp.get());
}

mxml_node_t* orbs3_xml_find(mxml_node_t* top, const char* name)
{
    if (top == nullptr)
        return nullptr;
    if (mxmlGetType(top) == MXML_ELEMENT && std::strcmp(mxmlGetElement(top), name) == 0)
        return top;
    return mxmlFindElement(top, top, name, nullptr, nullptr, MXML_DESCEND);
}

int orbs3_xml_to_int(const char* text)
{
    long v = std::strtol(text, nullptr, 10);
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

int orbs3_xml_get_str(mxml_node_t* node, const char* attr, char* dest, std::size_t len)
{
    if (node == nullptr || dest == nullptr || len == 0)
        return -1;
    const char* v = mxmlElementGetAttr(node, attr);
    if (v == nullptr)
        return -1;
    std::size_t n = strnlen(v, len - 1);
    std::memcpy(dest, v, n);
    dest[n] = '\0';
    return 0;
}

int orbs3_xml_get_int(mxml_node_t* node, const char* attr, int* dest)
{
    if (node == nullptr || dest == nullptr)
        return -1;
    const char* v = mxmlElementGetAttr(node, attr);
    if (v == nullptr)
        return -1;
    *dest = orbs3_xml_to_int(v);
    return 0;
}

std::string orbs3_xml_text(mxml_node_t* element)
{
    std::string out;
    if (element == nullptr)
        return out;
    static constexpr std::string_view cdata = "![CDATA[";
    for (mxml_node_t* n = mxmlGetFirstChild(element); n != nullptr; n = mxmlGetNextSibling(n)) {
        switch (mxmlGetType(n)) {
        case MXML_OPAQUE:
            if (const char* t = mxmlGetOpaque(n))
                out += t;
            break;
        case MXML_TEXT: {
            // A tree built or loaded word by word: the blank before a word is a flag of its node.
            int blank = 0;
            if (const char* t = mxmlGetText(n, &blank)) {
                if (blank != 0)
                    out += ' ';
                out += t;
            }
            break;
        }
        case MXML_ELEMENT: {
            // Mini-XML keeps a CDATA section as an element named "![CDATA[" and its content.
            const char* name = mxmlGetElement(n);
            if (name != nullptr && std::string_view(name).starts_with(cdata))
                out += name + cdata.size();
            break;
        }
        default:
            break;
        }
    }
    return out;
}

std::string_view orbs3_xml_trim(std::string_view text)
{
    static constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

namespace {

// The position behind the first `end` at or after `from`, npos when the text ends first.
std::size_t behind(std::string_view text, std::size_t from, std::string_view end)
{
    const std::size_t at = text.find(end, from);
    return at == std::string_view::npos ? at : at + end.size();
}

// The position behind the '>' that ends the tag opened at `from`, passing over quoted attribute values.
std::size_t tag_end(std::string_view text, std::size_t from, bool* empty)
{
    char quote = 0;
    for (std::size_t i = from; i < text.size(); ++i) {
        const char c = text[i];
        if (quote != 0) {
            if (c == quote)
                quote = 0;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            *empty = i > from && text[i - 1] == '/';
            return i + 1;
        }
    }
    return std::string_view::npos;
}

}  // namespace

bool orbs3_xml_within_bounds(std::string_view text, orbs3_xml_bounds bounds)
{
    std::size_t depth = 0;
    std::size_t elements = 0;
    std::size_t i = 0;
    while ((i = text.find('<', i)) != std::string_view::npos) {
        const std::string_view rest = text.substr(i);
        std::size_t next;
        if (rest.starts_with("<!--")) {
            next = behind(text, i + 4, "-->");
        } else if (rest.starts_with("<![CDATA[")) {
            next = behind(text, i + 9, "]]>");
        } else if (rest.starts_with("<?")) {
            next = behind(text, i + 2, "?>");
        } else if (rest.starts_with("<!")) {
            next = behind(text, i + 2, ">");
        } else if (rest.starts_with("</")) {
            next = behind(text, i + 2, ">");
            if (depth > 0)
                --depth;
        } else {
            bool empty = false;
            next = tag_end(text, i + 1, &empty);
            if (++elements > bounds.elements)
                return false;
            if (!empty && ++depth > bounds.depth)
                return false;
        }
        if (next == std::string_view::npos)
            return true;  // cut short inside markup: the loader refuses it
        i = next;
    }
    return true;
}

bool orbs3_xml_text_ok(std::string_view s)
{
    for (std::size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            if (c < 0x20 && c != '\t' && c != '\n' && c != '\r')
                return false;
            ++i;
            continue;
        }
        std::size_t len;
        uint32_t cp;
        if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > s.size())
            return false;
        for (std::size_t k = 1; k < len; ++k) {
            const auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        static constexpr uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

void orbs3_xml_escape(std::string* out, std::string_view text, orbs3_xml_quotes quotes)
{
    const bool quoted = quotes == orbs3_xml_quotes::escape;
    for (char c : text) {
        const auto b = static_cast<unsigned char>(c);
        switch (c) {
        case '&': out->append("&amp;"); break;
        case '<': out->append("&lt;"); break;
        case '>': out->append("&gt;"); break;
        case '"': quoted ? out->append("&quot;") : out->append(1, c); break;
        case '\'': quoted ? out->append("&apos;") : out->append(1, c); break;
        default:
            if (b < 0x20 && c != '\t' && c != '\n')
                out->append("&#").append(std::to_string(b)).push_back(';');
            else
                out->push_back(c);
        }
    }
}

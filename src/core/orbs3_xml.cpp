#include "core/orbs3_xml.h"

#include <climits>
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

// A listing's query on arbitrary bytes: the parameters read from the decoded form, the continuation token
// decoded, and the document written for what was read, with and without URL encoding. Checked: a read
// query is refused only with a message, a page size within its bounds, a token that decodes is the one
// this server would make for its entry, and an encoded text holds only the bytes that S3's encoding
// leaves and decodes back to the text. Every name the query carries (prefix, marker, start-after, the
// token's entry) is mapped to a path below a tree as it is, or refused: never one that climbs out or
// that the file system would fold into another name.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_list_object.h"

namespace {

int hex(char c)
{
    return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::string url_decode(std::string_view text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); i++) {
        if (text[i] == '+') {
            out.push_back(' ');
        } else if (text[i] == '%') {
            CHECK(i + 2 < text.size());
            CHECK(hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0);
            out.push_back(static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2])));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

void check_encoding(std::string_view text)
{
    std::string enc = orbs3_list_url_encode(text);
    for (char c : enc)
        CHECK(std::strchr("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~/+%", c) != nullptr &&
              c != '\0');
    CHECK(url_decode(enc) == text);
}

// The path of `name` below the tree "/t" is "/t/<name>" byte for byte, and resolving its components as
// the kernel does ("" and "." stay, ".." climbs) changes nothing: it names that very file, inside the tree
// (the empty name: the tree itself).
void check_mapped(std::string_view name)
{
    char out[ORBS3_PATH_AREA];
    if (orbs3_tree_path("/t", name, out) != 0) {
        CHECK(out[0] == '\0');
        return;
    }
    const std::string path(out);
    CHECK(path == "/t/" + std::string(name));
    std::vector<std::string_view> kept;
    std::string_view rest = std::string_view(path).substr(1);
    if (rest.ends_with('/'))
        rest.remove_suffix(1);  // a directory: the final "/" names the same file
    for (;;) {
        const std::size_t slash = rest.find('/');
        const std::string_view part = rest.substr(0, slash);
        CHECK(!part.empty() && part != "." && part != ".." && part.find('\0') == std::string_view::npos);
        kept.push_back(part);
        if (slash == std::string_view::npos)
            break;
        rest.remove_prefix(slash + 1);
    }
    CHECK(kept.size() >= (name.empty() ? 1u : 2u) && kept[0] == "t");  // "" names the tree itself
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    std::string query(reinterpret_cast<const char*>(data), size);
    orbs3_cgi_form form(cgiParseGetFormInput(query.c_str()));
    orbs3_list_params_t p;
    const char* message = nullptr;
    int rc = orbs3_list_params_from_query(form.get(), &p, &message);
    if (rc != 0) {
        CHECK(rc == static_cast<int>(ORBS3_S3_INVALID_ARGUMENT) && message != nullptr);
        return 0;
    }
    CHECK(p.max_keys >= 0 && p.max_keys <= ORBS3_LIST_MAX_KEYS);
    CHECK(!(p.v2 && p.marker) && !(!p.v2 && (p.start_after || p.continuation)));
    std::string entry;
    if (p.continuation && orbs3_list_token_decode(*p.continuation, &entry))
        CHECK(orbs3_list_token_encode(entry) == *p.continuation);
    check_mapped(p.prefix);
    check_mapped(p.prefix.substr(0, p.prefix.rfind('/') + 1));
    check_mapped(entry);
    for (const auto& name : {p.marker, p.start_after})
        if (name)
            check_mapped(*name);
    check_encoding(p.prefix);
    check_encoding(p.delimiter);
    if (p.marker)
        check_encoding(*p.marker);

    // A page whose one row is the prefix: the document is written whole whatever the texts.
    orbs3_list_entry_t row{};
    row.key.data = const_cast<char*>(p.prefix.data());
    row.key.len = p.prefix.size();
    neo_list_head_t list;
    INIT_LIST_HEAD(&list);
    list_add_tail(&row.link, &list);
    orbs3_list_doc_t doc;
    doc.bucket = "bucket";
    doc.prefix = p.prefix;
    doc.delimiter = p.delimiter;
    doc.v2 = p.v2;
    doc.marker = p.marker;
    doc.start_after = p.start_after;
    doc.continuation = p.continuation;
    doc.next = entry;
    doc.truncated = !entry.empty();
    doc.max_keys = p.max_keys;
    doc.key_count = 1;
    doc.url_encode = p.url;
    doc.fetch_owner = p.fetch_owner;
    doc.list = &list;
    char* text = make_list_objects_xml(&doc);
    CHECK(text != nullptr);
    std::free(text);
    return 0;
}

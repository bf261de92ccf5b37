// Form input: a query string decoded into a list of key/value entries, and the bounded read of one
// value. The list is heap memory of the caller, released by cgiFreeResources or by orbs3_cgi_form.
#pragma once

#include <cstddef>
#include <memory>

// One decoded pair. The upload strings stay empty for query input; a temp_file_name that is not empty
// names a file that cgiFreeResources unlinks.
struct cgiFormEntry {
    char* key;
    char* value;
    int value_length;  // decoded bytes; a decoded %00 counts, though readers stop there
    char* file_name;
    char* content_type;
    char* temp_file_name;
    cgiFormEntry* next;
};

// Results of cgiFormString.
inline constexpr int cgiFormSuccess = 0;    // a non-empty value, whole
inline constexpr int cgiFormTruncated = 1;  // the value did not fit: max - 1 bytes were copied
inline constexpr int cgiFormEmpty = 3;      // the key is there with an empty value
inline constexpr int cgiFormNotFound = 4;   // no entry with that key; the result is emptied

// Fills the hex-digit table used by '%' decoding. The table is constant-initialised, so a call is only
// the start-up step that makes the values explicit; it may be made any number of times before threads run.
void cgiSetupConstants();

// Parses `text` (NUL-terminated): key up to '=' or '&', value up to '&'; '+' is a space and '%' with two
// bytes is one byte. An empty key ends the parse. The first entry, or null for no entry or when memory
// ran out (entries read so far are released then).
[[nodiscard]] cgiFormEntry* cgiParseGetFormInput(const char* text);

// Copies the value of the first entry named `key` into result (max bytes, NUL included). A run of CR and
// LF is written as max(CRs, LFs) LF bytes. cgiFormSuccess, cgiFormEmpty, cgiFormTruncated or
// cgiFormNotFound. max must be at least 1.
[[nodiscard]] int cgiFormString(const cgiFormEntry* form, const char* key, char* result, std::size_t max);

// Releases the list and unlinks the temporary files it names. Null is accepted.
void cgiFreeResources(cgiFormEntry* form);

struct orbs3_cgi_form_deleter {
    void operator()(cgiFormEntry* f) const noexcept { cgiFreeResources(f); }
};
// Owner of a parsed form: released on every path.
using orbs3_cgi_form = std::unique_ptr<cgiFormEntry, orbs3_cgi_form_deleter>;

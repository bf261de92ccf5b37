#include "memory/orbs3_hash.h"

#include <cstring>
#include <memory>

#include "core/orbs3_log.h"
#include "memory/neo_string.h"

// Element layout, read and written through memcpy at fixed offsets so that no access depends on a
// struct's padding: [0, 8) value pointer, [8, 10) length, [10, ...) lower-cased name.
static constexpr std::size_t elt_value_off = 0;
static constexpr std::size_t elt_len_off = sizeof(void*);
static constexpr std::size_t elt_name_off = elt_len_off + sizeof(uint16_t);
static constexpr std::size_t elt_align = sizeof(void*);
static constexpr std::size_t bucket_align = 64;  // a bucket starts on its own cache line
static constexpr std::size_t terminator = sizeof(void*);

static constexpr std::size_t align_up(std::size_t n, std::size_t a)
{
    return (n + a - 1) & ~(a - 1);
}

// The value pointer plus the length and name rounded up to 8.
static constexpr std::size_t elt_size(std::size_t name_len)
{
    return sizeof(void*) + align_up(name_len + sizeof(uint16_t), elt_align);
}

static_assert(elt_size(0) == 16 && elt_size(6) == 16 && elt_size(7) == 24);

struct free_array_deleter {
    void operator()(uint64_t* p) const noexcept { std::free(p); }
};

void* orbs3_hash_find(const orbs3_hash_t* hash, uint64_t key, const uint8_t* name, std::size_t len)
{
    if (hash->size == 0)
        return nullptr;
    auto* elt = reinterpret_cast<const uint8_t*>(hash->buckets[key % hash->size]);
    if (elt == nullptr)
        return nullptr;

    for (;;) {
        void* value;
        std::memcpy(&value, elt + elt_value_off, sizeof(value));
        if (value == nullptr)
            return nullptr;
        uint16_t elt_len;
        std::memcpy(&elt_len, elt + elt_len_off, sizeof(elt_len));
        if (elt_len == len && (len == 0 || std::memcmp(elt + elt_name_off, name, len) == 0))
            return value;
        elt += elt_size(elt_len);
    }
}

int orbs3_hash_init(orbs3_hash_init_t* hinit, const orbs3_hash_key_t* names, std::size_t count)
{
    const char* what = hinit->name ? hinit->name : "hash";

    if (hinit->max_size == 0) {
        ipd_log(LOG_EMERG, "could not build %s, you should increase max_size: 0", what);
        return -1;
    }
    for (std::size_t n = 0; n < count; n++) {
        if (names[n].key.data == nullptr)
            continue;
        if (names[n].key.len > UINT16_MAX || hinit->bucket_size < elt_size(names[n].key.len) + terminator) {
            ipd_log(LOG_EMERG, "could not build %s, you should increase bucket_size: %lu", what,
                    static_cast<unsigned long>(hinit->bucket_size));
            return -1;
        }
    }

    // Bytes per bucket while sizes are tried, then offsets while elements are written.
    std::unique_ptr<uint64_t, free_array_deleter> test(
        static_cast<uint64_t*>(std::malloc(hinit->max_size * sizeof(uint64_t))));
    if (!test)
        return -1;
    uint64_t* t = test.get();

    // With every entry checked above, a bucket holds at least one element and its terminator; without
    // entries the size does not matter.
    const uint64_t usable = hinit->bucket_size > terminator ? hinit->bucket_size - terminator : 0;
    const uint64_t per_bucket = usable / (2 * sizeof(void*));
    uint64_t start = per_bucket != 0 ? count / per_bucket : 1;
    if (start == 0)
        start = 1;
    if (hinit->max_size > 10000 && count != 0 && hinit->max_size / count < 100)
        start = hinit->max_size - 1000;

    uint64_t size = hinit->max_size;
    bool fits = false;
    for (uint64_t s = start; s <= hinit->max_size && !fits; s++) {
        std::memset(t, 0, s * sizeof(uint64_t));
        fits = true;
        for (std::size_t n = 0; n < count; n++) {
            if (names[n].key.data == nullptr)
                continue;
            uint64_t b = names[n].key_hash % s;
            t[b] += elt_size(names[n].key.len);
            if (t[b] > usable) {
                fits = false;
                break;
            }
        }
        if (fits)
            size = s;
    }
    if (!fits)
        ipd_log(LOG_WARNING, "could not build optimal %s, you should increase either max_size: %lu or "
                "bucket_size: %lu; ignoring bucket_size", what,
                static_cast<unsigned long>(hinit->max_size), static_cast<unsigned long>(hinit->bucket_size));

    // Final bucket sizes, each with its terminator, rounded to a cache line.
    for (uint64_t i = 0; i < size; i++)
        t[i] = terminator;
    for (std::size_t n = 0; n < count; n++) {
        if (names[n].key.data != nullptr)
            t[names[n].key_hash % size] += elt_size(names[n].key.len);
    }
    uint64_t total = 0;
    for (uint64_t i = 0; i < size; i++) {
        if (t[i] == terminator)
            continue;
        t[i] = align_up(t[i], bucket_align);
        total += t[i];
    }

    orbs3_hash_elt_t** buckets;
    if (hinit->hash == nullptr) {
        // Three words in front of the bucket array: the table record and one spare word.
        constexpr std::size_t head = 3 * sizeof(void*);
        static_assert(sizeof(orbs3_hash_t) <= head);
        auto* mem = static_cast<uint8_t*>(orbs3_pcalloc(hinit->pool, head + size * sizeof(orbs3_hash_elt_t*)));
        if (mem == nullptr)
            return -1;
        hinit->hash = reinterpret_cast<orbs3_hash_t*>(mem);
        buckets = reinterpret_cast<orbs3_hash_elt_t**>(mem + head);
    } else {
        buckets = static_cast<orbs3_hash_elt_t**>(orbs3_pcalloc(hinit->pool, size * sizeof(orbs3_hash_elt_t*)));
        if (buckets == nullptr)
            return -1;
    }

    uint8_t* elts = nullptr;
    if (total != 0) {
        elts = static_cast<uint8_t*>(orbs3_pmemalign(hinit->pool, total, bucket_align));
        if (elts == nullptr)
            return -1;
    }
    for (uint64_t i = 0; i < size; i++) {
        if (t[i] == terminator)
            continue;
        buckets[i] = reinterpret_cast<orbs3_hash_elt_t*>(elts);
        elts += t[i];
    }

    for (uint64_t i = 0; i < size; i++)
        t[i] = 0;
    for (std::size_t n = 0; n < count; n++) {
        if (names[n].key.data == nullptr)
            continue;
        uint64_t b = names[n].key_hash % size;
        uint8_t* elt = reinterpret_cast<uint8_t*>(buckets[b]) + t[b];
        auto len = static_cast<uint16_t>(names[n].key.len);
        std::memcpy(elt + elt_value_off, &names[n].value, sizeof(void*));
        std::memcpy(elt + elt_len_off, &len, sizeof(len));
        orbs3_strlow(elt + elt_name_off, reinterpret_cast<const uint8_t*>(names[n].key.data), len);
        // The padding behind the name is cleared, so the table's bytes do not depend on the pool.
        std::memset(elt + elt_name_off + len, 0, elt_size(len) - elt_name_off - len);
        t[b] += elt_size(len);
    }
    for (uint64_t i = 0; i < size; i++) {
        if (buckets[i] == nullptr)
            continue;
        void* end = nullptr;
        std::memcpy(reinterpret_cast<uint8_t*>(buckets[i]) + t[i], &end, sizeof(end));
    }

    hinit->hash->buckets = buckets;
    hinit->hash->size = size;
    return 0;
}

uint64_t orbs3_hash_key(const uint8_t* data, std::size_t len)
{
    uint64_t key = 0;
    for (std::size_t i = 0; i < len; i++)
        key = orbs3_hash(key, data[i]);
    return key;
}

uint64_t orbs3_hash_key_lc(const uint8_t* data, std::size_t len)
{
    uint64_t key = 0;
    for (std::size_t i = 0; i < len; i++) {
        uint8_t c = data[i];
        key = orbs3_hash(key, (c >= 'A' && c <= 'Z') ? (c | 0x20) : c);
    }
    return key;
}

uint64_t orbs3_hash_strlow(uint8_t* dst, const uint8_t* src, std::size_t len)
{
    uint64_t key = 0;
    for (std::size_t i = 0; i < len; i++) {
        uint8_t c = src[i];
        c = (c >= 'A' && c <= 'Z') ? (c | 0x20) : c;
        dst[i] = c;
        key = orbs3_hash(key, c);
    }
    return key;
}

#include "memory/neo_md5.h"

#include <openssl/evp.h>

void evp_md_ctx_deleter::operator()(EVP_MD_CTX* ctx) const noexcept
{
    EVP_MD_CTX_free(ctx);
}

evp_md_ctx_ptr evp_md_ctx_new()
{
    return evp_md_ctx_ptr(EVP_MD_CTX_new());
}

int neo_md5_init(neo_md5_t* md5)
{
    md5->ready = false;
    if (!md5->ctx) {
        md5->ctx = evp_md_ctx_new();
        if (!md5->ctx)
            return -1;
    }
    if (EVP_DigestInit_ex(md5->ctx.get(), EVP_md5(), nullptr) != 1)
        return -1;
    md5->ready = true;
    return 0;
}

int neo_md5_update(neo_md5_t* md5, const void* data, std::size_t len)
{
    if (!md5->ready || !md5->ctx)  // a moved-from record has no context
        return -1;
    if (len == 0)
        return 0;
    if (EVP_DigestUpdate(md5->ctx.get(), data, len) != 1) {
        md5->ready = false;
        return -1;
    }
    return 0;
}

int neo_md5_final(uint8_t result[NEO_MD5_LEN], neo_md5_t* md5)
{
    if (!md5->ready || !md5->ctx)  // a moved-from record has no context
        return -1;
    md5->ready = false;
    unsigned int n = 0;
    if (EVP_DigestFinal_ex(md5->ctx.get(), result, &n) != 1 || n != NEO_MD5_LEN)
        return -1;
    return 0;
}

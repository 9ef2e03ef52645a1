#include "transport/base64.h"

#include <openssl/bio.h>
#include <openssl/evp.h>

std::string base64Encode(std::string_view text) {
    BIO* encoder = BIO_new(BIO_f_base64());
    BIO* sink = BIO_new(BIO_s_mem());
    if (encoder == nullptr || sink == nullptr) {
        BIO_free(encoder);
        BIO_free(sink);
        return std::string();
    }
    BIO_set_flags(encoder, BIO_FLAGS_BASE64_NO_NL);
    BIO* chain = BIO_push(encoder, sink);
    if (!text.empty()) BIO_write(chain, text.data(), (int)text.size());
    (void)BIO_flush(chain);
    char* data = nullptr;
    long length = BIO_get_mem_data(sink, &data);
    std::string encoded(data != nullptr && length > 0 ? data : "", length > 0 ? (size_t)length : 0);
    BIO_free_all(chain);
    return encoded;
}

// Helpers shared by the batch tests: digests computed independently of the
// library, and a scripted server that serves a file with byte ranges.
#ifndef WEBCHANNEL_TESTS_BATCH_HELPERS_H
#define WEBCHANNEL_TESTS_BATCH_HELPERS_H

#include <openssl/evp.h>

#include <functional>
#include <string>

#include "support/script_server.h"

namespace batchtest {

inline std::string digestOf(const std::string& data, const char* algorithm) {
    const EVP_MD* md = EVP_get_digestbyname(algorithm);
    unsigned char value[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), value, &length, md, nullptr);
    static const char hex[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += hex[value[i] >> 4];
        text += hex[value[i] & 15];
    }
    return text;
}

// The byte range a request asks for ("Range: bytes=a-b"); false without one.
inline bool requestedRange(const std::string& request, long long& first, long long& last) {
    size_t at = request.find("\r\nRange: bytes=");
    if (at == std::string::npos) return false;
    return sscanf(request.c_str() + at + 15, "%lld-%lld", &first, &last) == 2;
}

// Answers one request for `content` the way a range-capable server does:
// 206 with the asked range, or 200 with everything.
inline void serveRange(testsupport::ServerConnection& c, const std::string& request, const std::string& content) {
    long long first = 0, last = 0;
    if (requestedRange(request, first, last)) {
        std::string part = content.substr((size_t)first, (size_t)(last - first + 1));
        c.send(testsupport::httpResponse(206, part,
                                         "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) +
                                             "/" + std::to_string(content.size()) + "\r\n"));
    } else {
        c.send(testsupport::httpResponse(200, content));
    }
}

inline std::string pseudoRandom(size_t size, unsigned seed) {
    std::string data(size, '\0');
    unsigned state = seed * 2654435761u + 1;
    for (char& c : data) {
        state = state * 1103515245u + 12345u;
        c = (char)(state >> 16);
    }
    return data;
}

}  // namespace batchtest

#endif

// webChannel::httpRequest renders any method, host, target, extra text, access parameters and added headers as the
// request line, the headers in byte-wise name order, the extra text and a blank line; base64Encode as OpenSSL does.
#include <fuzzer/FuzzedDataProvider.h>
#include <openssl/evp.h>

#include <cstdint>
#include <map>

#include "fuzz_check.h"
#include "transport/base64.h"

static std::string referenceBase64(const std::string& text) {
    std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
    out.resize(EVP_EncodeBlock((unsigned char*)&out[0], (const unsigned char*)text.data(), (int)text.size()));
    return out;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string method = input.ConsumeRandomLengthString(16), host = input.ConsumeRandomLengthString(64);
    const std::string target = input.ConsumeRandomLengthString(256);
    const bool withExtra = input.ConsumeBool();
    std::string extra = input.ConsumeRandomLengthString(128).c_str();  // a C string from the host
    const bool withParams = input.ConsumeBool();
    AccessParams params;
    for (int id : {kParamUser, kParamPassword, kParamCookie, kParamProxyAuth, kParamNoCache, kParamTimeout})
        if (input.ConsumeBool()) params[id] = input.ConsumeRandomLengthString(64);
    const bool range = input.ConsumeBool(), contentLength = input.ConsumeBool();
    const std::string alone = input.ConsumeRemainingBytesAsString();

    webChannel::httpRequest request(method, host, target, withExtra ? &extra[0] : nullptr,
                                    withParams ? &params : nullptr);
    if (!withExtra) extra.clear();
    if (!withParams) params.clear();
    std::map<std::string, std::string> headers = {{"Host", host}};
    if (range) request.headers["Range"] = headers["Range"] = "bytes=0-9";
    if (contentLength) request.headers["Content-Length"] = headers["Content-Length"] = std::to_string(alone.size());
    if (params.count(kParamUser) != 0 && params.count(kParamPassword) != 0)
        headers["Authorization"] = "Basic " + referenceBase64(params[kParamUser] + ":" + params[kParamPassword]);
    if (params.count(kParamCookie) != 0) headers["Cookie"] = params[kParamCookie];
    if (params.count(kParamProxyAuth) != 0) headers["Proxy-Authorization"] = "Basic " + params[kParamProxyAuth];
    if (params.count(kParamNoCache) != 0)
        headers.insert(
            {{"Cache-Control", "no-cache, no-store, must-revalidate"}, {"Pragma", "no-cache"}, {"Expires", "0"}});
    std::string expected = method + " " + target + " HTTP/1.1\r\n";
    for (const auto& header : headers) expected += header.first + ": " + header.second + "\r\n";
    FUZZ_CHECK(request.str() == expected + extra + "\r\n");
    FUZZ_CHECK(base64Encode(alone) == referenceBase64(alone));
    return 0;
}

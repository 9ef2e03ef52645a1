// Request text: webChannel::httpRequest and base64Encode.
//
// Input: consumed by FuzzedDataProvider: method, host, target, the extra
// header text (absent, raw, or made of CR LF terminated lines), the access
// parameters (absent, or any of user, password, cookie, proxy credentials and
// the no-cache switch), optional Range and Content-Length headers as the
// callers add them, and the text that base64Encode gets on its own.
//
// Not a parser, but every request the channel sends is rendered here from
// values that come from hosts, URLs and servers (a captured cookie). Any
// values must render; the text is the request line, the header lines in
// byte-wise name order and the extra text, followed by the blank line; and
// the Basic credentials must be the standard base64 of "user:password",
// checked against an encoder written here.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <map>
#include <string>

#include "fuzz_check.h"
#include "transport/base64.h"

namespace {

std::string referenceBase64(const std::string& text) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 3 <= text.size(); i += 3) {
        uint32_t v = (uint32_t)(uint8_t)text[i] << 16 | (uint32_t)(uint8_t)text[i + 1] << 8 | (uint8_t)text[i + 2];
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (text.size() - i == 1) {
        uint32_t v = (uint32_t)(uint8_t)text[i] << 16;
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += "==";
    } else if (text.size() - i == 2) {
        uint32_t v = (uint32_t)(uint8_t)text[i] << 16 | (uint32_t)(uint8_t)text[i + 1] << 8;
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string method = input.ConsumeRandomLengthString(16);
    const std::string host = input.ConsumeRandomLengthString(64);
    const std::string target = input.ConsumeRandomLengthString(256);

    // The extra text is a C string from the host: it ends at its first NUL.
    std::string extraStorage;
    const int extraKind = input.ConsumeIntegralInRange(0, 2);  // none, raw, lines
    if (extraKind == 1) {
        extraStorage = input.ConsumeRandomLengthString(128);
    } else if (extraKind == 2) {
        for (int lines = input.ConsumeIntegralInRange(0, 4); lines > 0; --lines)
            extraStorage += input.ConsumeRandomLengthString(48) + "\r\n";
    }
    std::string extra = extraStorage.substr(0, extraStorage.find('\0'));
    extraStorage = extra;  // what the host's buffer holds up to its terminator

    const bool withParams = input.ConsumeBool();
    AccessParams params;
    for (int id : {kParamUser, kParamPassword, kParamCookie, kParamProxyAuth, kParamNoCache, kParamTimeout})
        if (input.ConsumeBool()) params[id] = input.ConsumeRandomLengthString(64);
    const bool range = input.ConsumeBool();
    const bool contentLength = input.ConsumeBool();
    const std::string alone = input.ConsumeRemainingBytesAsString();

    webChannel::httpRequest request(method, host, target, extraKind != 0 ? &extraStorage[0] : nullptr,
                                    withParams ? &params : nullptr);
    if (range) request.headers["Range"] = "bytes=0-9";
    if (contentLength) request.headers["Content-Length"] = std::to_string(alone.size());
    const std::string text = request.str();

    // The headers the parameters call for, in byte-wise name order.
    std::map<std::string, std::string> headers;
    headers["Host"] = host;
    if (withParams) {
        if (params.count(kParamUser) != 0 && params.count(kParamPassword) != 0)
            headers["Authorization"] = "Basic " + referenceBase64(params[kParamUser] + ":" + params[kParamPassword]);
        if (params.count(kParamCookie) != 0) headers["Cookie"] = params[kParamCookie];
        if (params.count(kParamProxyAuth) != 0) headers["Proxy-Authorization"] = "Basic " + params[kParamProxyAuth];
        if (params.count(kParamNoCache) != 0) {
            headers["Cache-Control"] = "no-cache, no-store, must-revalidate";
            headers["Pragma"] = "no-cache";
            headers["Expires"] = "0";
        }
    }
    if (range) headers["Range"] = "bytes=0-9";
    if (contentLength) headers["Content-Length"] = std::to_string(alone.size());
    FUZZ_CHECK(request.headers == headers, "header set differs (%zu headers, expected %zu)", request.headers.size(),
               headers.size());

    std::string expected = method + " " + target + " HTTP/1.1\r\n";
    for (const auto& header : headers) expected += header.first + ": " + header.second + "\r\n";
    expected += extra + "\r\n";
    FUZZ_CHECK(text == expected, "request text differs (%zu bytes, expected %zu)", text.size(), expected.size());
    FUZZ_CHECK(text.compare(0, method.size() + target.size() + 12, method + " " + target + " HTTP/1.1\r\n") == 0,
               "request line");
    if (extra.empty() || endsWith(extra, "\r\n"))
        FUZZ_CHECK(endsWith(text, "\r\n\r\n"), "the head does not end with a blank line");
    FUZZ_CHECK(request.str() == text, "rendering twice differs");

    const std::string encoded = base64Encode(alone);
    FUZZ_CHECK(encoded == referenceBase64(alone), "base64 of %zu bytes differs", alone.size());
    return 0;
}

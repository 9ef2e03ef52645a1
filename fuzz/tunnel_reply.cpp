// The proxy's answer to CONNECT: webChannel::checkTunnelReply.
//
// Input: the bytes of the proxy's answer; the first 63 of them are put into
// a zeroed 64-byte buffer, as the single bounded read of openTunnel does.
//
// A tunnel is used only when the proxy said yes: the answer is accepted
// exactly when its head parses and its status code, as parseResponseHead
// reads it, is 2xx, and the number written there is indeed 2xx. Anything
// else is -3024.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "http/response.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The answer buffer has exactly the size of the one in openTunnel, so a
    // read past it is reported.
    std::unique_ptr<char[]> answer(new char[64]);
    std::memset(answer.get(), 0, 64);
    std::memcpy(answer.get(), data, size < 63 ? size : 63);

    webChannel& channel = fuzzChannel();
    webChannel::connection conn(0, "h", "443", true);
    const int result = channel.checkTunnelReply(answer.get(), &conn);

    ResponseHead head;
    parseResponseHead(std::string_view(answer.get(), std::strlen(answer.get())), false, head);
    const bool accepted = head.result >= 0 && head.code >= 200 && head.code <= 299;
    FUZZ_CHECK(result == kOk || result == kTunnelRefused, "result %d", result);
    FUZZ_CHECK((result == kOk) == accepted, "result %d for status %d (parse result %d)", result, head.code,
               head.result);
    // And the number the proxy wrote is 2xx itself: one beyond the range
    // of int must not pass for one (4294967496 cut to an int is 200).
    if (result == kOk) {
        const std::string_view text(answer.get());
        const size_t first = text.find(' ');
        const std::string number(text.substr(first + 1, text.find(' ', first + 1) - first - 1));
        const long long written = std::strtoll(number.c_str(), nullptr, 10);
        FUZZ_CHECK(written >= 200 && written <= 299, "tunnel accepted for status number %lld", written);
    }
    FUZZ_CHECK(conn.host == "h" && conn.port == "443" && conn.https, "connection record damaged");
    return 0;
}

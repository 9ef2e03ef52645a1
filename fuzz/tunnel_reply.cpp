// The proxy's answer to CONNECT: webChannel::checkTunnelReply. Its first 63
// bytes go into a zeroed 64-byte buffer, as openTunnel's one bounded read
// does. Accepted exactly when the head parses with a 2xx status and the
// number written there is 2xx itself (4294967496 cut to an int is 200).
#include <cstdint>
#include <memory>
#include <string_view>

#include "fuzz_check.h"
#include "http/response.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::unique_ptr<char[]> answer(new char[64]());
    std::memcpy(answer.get(), data, size < 63 ? size : 63);
    webChannel::connection conn(0, "h", "443", true);
    const int result = fuzzChannel().checkTunnelReply(answer.get(), &conn);

    const std::string_view text(answer.get());
    ResponseHead head;
    parseResponseHead(text, false, head);
    const size_t first = text.find(' ');
    const long long written = first == text.npos ? 0 : std::strtoll(answer.get() + first + 1, nullptr, 10);
    const bool accepted = head.result >= 0 && head.code >= 200 && head.code <= 299;
    FUZZ_CHECK(result == (accepted ? kOk : kTunnelRefused), "result %d for status %d (parse result %d)", result,
               head.code, head.result);
    FUZZ_CHECK(result != kOk || (written >= 200 && written <= 299), "accepted for status number %lld", written);
    FUZZ_CHECK(conn.host == "h" && conn.port == "443" && conn.https, "connection record damaged");
    return 0;
}

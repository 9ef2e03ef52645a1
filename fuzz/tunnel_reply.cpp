// checkTunnelReply on the first 63 bytes in a zeroed 64-byte buffer, as openTunnel's one read leaves them: accepted
// exactly when the head parses with a 2xx status that is written as 2xx (4294967496 cut to an int is 200).
#include <algorithm>
#include <cstdint>
#include <memory>

#include "fuzz_check.h"
#include "http/response.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::unique_ptr<char[]> answer(new char[64]());
    std::copy(data, data + std::min<size_t>(size, 63), answer.get());
    webChannel::connection conn(0, "h", "443", true);
    const int result = fuzzChannel().checkTunnelReply(answer.get(), &conn);
    ResponseHead head;
    parseResponseHead(answer.get(), false, head);
    const char* blank = std::strchr(answer.get(), ' ');
    const long long written = blank == nullptr ? 0 : std::strtoll(blank + 1, nullptr, 10);
    FUZZ_CHECK(result == (head.result >= 0 && head.code >= 200 && head.code <= 299 ? kOk : kTunnelRefused));
    FUZZ_CHECK(result != kOk || (written >= 200 && written <= 299));
    FUZZ_CHECK(conn.host == "h" && conn.port == "443" && conn.https);
    return 0;
}

// parseResponseHead and findHeadEnd on any text: the views stay inside it, the status is the number between the first
// two blanks, saturated (4294967496 cut to an int would pass for 200), and the head ends just past the first line
// blank but for spaces, CRs and tabs that has its line feed. Input: an option byte (bit 0: cookies), then the text.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <string_view>

#include "fuzz_check.h"
#include "http/response.h"

static bool inside(std::string_view part, std::string_view text) {
    return part.empty() || (part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);  // NULs included
    ResponseHead head;
    head.code = 12345;  // must be reset by the parse
    parseResponseHead(text, (data[0] & 1) != 0, head);
    FUZZ_CHECK(inside(head.location, text) && inside(head.cookie, text));
    const size_t first = text.find(' '), second = first == text.npos ? first : text.find(' ', first + 1);
    const std::string status = second == text.npos ? "" : std::string(text.substr(first + 1, second - first - 1));
    FUZZ_CHECK((head.result == kMalformedResponse) == (second == text.npos) &&
               head.code ==
                   std::clamp(std::strtoll(status.c_str(), nullptr, 10), (long long)INT_MIN, (long long)INT_MAX));
    long long end = 0;
    for (size_t start = 0, feed; end == 0 && (feed = text.find('\n', start)) != text.npos; start = feed + 1)
        if (text.substr(start, feed - start).find_first_not_of(" \r\t") == text.npos) end = (long long)feed + 1;
    FUZZ_CHECK(findHeadEnd(text) == end);
    // Unless a redirect's location ended it, the parse ran to the same end.
    FUZZ_CHECK(head.result == kMalformedResponse || head.locationSeen ||
               (head.headerLengthSet && head.headerLength == end));
    return 0;
}

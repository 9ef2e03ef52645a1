// Text helpers of the utility library: the UTF-8 decoder (one U+FFFD per maximal invalid piece) against a plain
// version, json_escape leaving no control byte, split_string by its round trip (paths: the unit table).
// Input: byte 0 gives the length (0-3) of the separator for split_string, which follows; the rest is the text.
#include <cstdint>
#include <vector>

#include "fuzz_check.h"
#include "util/strings.h"

namespace {

// By the table of well-formed sequences: the length a lead byte announces, the range of its second byte.
std::wstring referenceDecode(const std::string& text) {
    std::wstring out;
    for (size_t i = 0; i < text.size();) {
        const unsigned lead = (uint8_t)text[i];
        const unsigned length = lead < 0x80 ? 1 : lead < 0xC2 || lead > 0xF4 ? 0 : 2 + (lead >= 0xE0) + (lead >= 0xF0);
        const unsigned low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        const unsigned high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        uint32_t code = lead & (0x7F >> (length == 1 ? 0 : length));
        size_t good = 1;
        for (; good < length && i + good < text.size(); ++good) {
            const unsigned byte = (uint8_t)text[i + good];
            if (byte < (good == 1 ? low : 0x80) || byte > (good == 1 ? high : 0xBF)) break;
            code = code << 6 | (byte & 0x3F);
        }
        out += good == length ? (wchar_t)code : (wchar_t)0xFFFD;
        i += good;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 + (data[0] & 3u)) return 0;
    const std::string separator(reinterpret_cast<const char*>(data) + 1, data[0] & 3u);
    const std::string text(reinterpret_cast<const char*>(data) + 1 + separator.size(), size - 1 - separator.size());
    const std::wstring wide = utf8_to_wide(text);
    const std::string back = wide_to_utf8(wide);
    FUZZ_CHECK(wide == referenceDecode(text) && utf8_to_wide(back) == wide);
    FUZZ_CHECK(back == text || wide.find((wchar_t)0xFFFD) != std::wstring::npos);  // valid UTF-8 comes back as it was
    const std::string json = json_escape(text);  // every escape class is in the unit table; here: none left raw
    for (const unsigned char c : json) FUZZ_CHECK(c >= 0x20);
    const std::vector<std::string> parts = split_string(text, separator);
    FUZZ_CHECK(join_strings(parts, separator) == text && (!separator.empty() || parts.size() == 1));
    for (const std::string& part : parts) FUZZ_CHECK(separator.empty() || part.find(separator) == std::string::npos);
    return 0;
}

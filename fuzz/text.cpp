// The text helpers of the utility library. Input: byte 0 gives the length
// (0-3) of the separator for split_string, which follows; the rest is the
// text. The UTF-8 decoder (one U+FFFD per maximal invalid piece) and
// json_escape are compared with versions written here; the rest is checked
// by round trips and the properties their comments promise.
#include <cstdint>
#include <vector>

#include "fuzz_check.h"
#include "util/fs.h"
#include "util/strings.h"

namespace {

// By the table of well-formed sequences: the length a lead byte announces,
// the range of the second byte; later ones are 80..BF.
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

std::string referenceJson(const std::string& text) {
    std::string out;
    char escape[8];
    for (const unsigned char c : text) {
        const size_t named = std::string("\"\\\b\f\n\r\t").find((char)c);
        out += named != std::string::npos ? std::string("\\") + "\"\\bfnrt"[named]
               : c < 0x20                 ? (std::snprintf(escape, sizeof escape, "\\u%04x", c), std::string(escape))
                                          : std::string(1, (char)c);
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size < 1 + (data[0] & 3u)) return 0;
    const std::string separator(reinterpret_cast<const char*>(data) + 1, data[0] & 3u);
    const std::string text(reinterpret_cast<const char*>(data) + 1 + separator.size(), size - 1 - separator.size());

    const std::wstring wide = utf8_to_wide(text);
    FUZZ_CHECK(wide == referenceDecode(text), "decoding differs");
    const std::string back = wide_to_utf8(wide);
    FUZZ_CHECK(utf8_to_wide(back) == wide, "the encoding of decoded text decodes differently");
    FUZZ_CHECK(back == text || wide.find((wchar_t)0xFFFD) != std::wstring::npos, "valid UTF-8 came back changed");
    FUZZ_CHECK(json_escape(text) == referenceJson(text), "JSON escaping differs");

    const std::vector<std::string> parts = split_string(text, separator);
    FUZZ_CHECK(join_strings(parts, separator) == text && (!separator.empty() || parts.size() == 1), "split differs");
    for (const std::string& part : parts)
        FUZZ_CHECK(separator.empty() || part.find(separator) == std::string::npos, "a field holds the separator");
    const size_t first = text.find_first_not_of(" \t\r\n\v\f"), end = text.find_last_not_of(" \t\r\n\v\f") + 1;
    FUZZ_CHECK(trimSpaces(text) == (first == std::string::npos ? "" : text.substr(first, end - first)), "trim differs");
    std::string lower = text, upper = text;  // ASCII letters only
    for (char& c : lower) c = c >= 'A' && c <= 'Z' ? (char)(c + 32) : c;
    for (char& c : upper) c = c >= 'a' && c <= 'z' ? (char)(c - 32) : c;
    FUZZ_CHECK(to_lower(text) == lower && to_upper(text) == upper, "case conversion differs");

    // The text as a path: the normal form is its own normal form, keeps
    // absoluteness and holds no "\\", "//", trailing "/" or "." segment.
    const std::string normal = normalize_path(text);
    FUZZ_CHECK(normalize_path(normal) == normal && normal.empty() == text.empty() &&
                   (text.empty() || (normal[0] == '/') == (text[0] == '/' || text[0] == '\\')) &&
                   normal.find('\\') == std::string::npos && normal.find("//") == std::string::npos &&
                   (normal.size() < 2 || normal.back() != '/') &&
                   (normal == "." || ("/" + normal + "/").find("/./") == std::string::npos),
               "normal form \"%s\"", normal.c_str());
    return 0;
}

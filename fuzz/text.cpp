// The text helpers of the utility library: UTF-8 decoding and encoding,
// JSON escaping, splitting and joining, trimming, case conversion and the
// textual path functions.
//
// Input: byte 0 gives the separator length (0-3) for split_string; the
// separator follows; the rest is the text every function gets.
//
// The UTF-8 decoder is compared with a decoder written here from the table
// of well-formed byte sequences (one U+FFFD per maximal invalid piece);
// the other functions are checked by their round trips and the properties
// their comments promise.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "util/fs.h"
#include "util/strings.h"

namespace {

// Decodes by the well-formed sequence table: for each lead byte, the range
// allowed for the second byte; later bytes are 80..BF.
std::wstring referenceDecode(const std::string& text) {
    std::wstring out;
    size_t i = 0;
    while (i < text.size()) {
        const unsigned lead = (uint8_t)text[i];
        unsigned length = 0, low = 0x80, high = 0xBF;
        if (lead < 0x80) length = 1;
        else if (lead >= 0xC2 && lead <= 0xDF) length = 2;
        else if (lead == 0xE0) length = 3, low = 0xA0;
        else if (lead >= 0xE1 && lead <= 0xEC) length = 3;
        else if (lead == 0xED) length = 3, high = 0x9F;
        else if (lead >= 0xEE && lead <= 0xEF) length = 3;
        else if (lead == 0xF0) length = 4, low = 0x90;
        else if (lead >= 0xF1 && lead <= 0xF3) length = 4;
        else if (lead == 0xF4) length = 4, high = 0x8F;
        if (length == 0) {
            out += (wchar_t)0xFFFD;
            ++i;
            continue;
        }
        // The longest prefix of a well-formed sequence.
        unsigned good = 1;
        while (good < length && i + good < text.size()) {
            const unsigned byte = (uint8_t)text[i + good];
            const unsigned lo = good == 1 ? low : 0x80, hi = good == 1 ? high : 0xBF;
            if (byte < lo || byte > hi) break;
            ++good;
        }
        if (good < length) {
            out += (wchar_t)0xFFFD;
            i += good;
            continue;
        }
        uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
        for (unsigned k = 1; k < length; ++k) code = code << 6 | ((uint8_t)text[i + k] & 0x3F);
        out += (wchar_t)code;
        i += length;
    }
    return out;
}

bool isScalar(uint32_t code) {
    return code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
}

// Undoes json_escape; false on an escape it would never write.
bool jsonUnescape(const std::string& text, std::string& out) {
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = (unsigned char)text[i];
        if (c < 0x20 || c == '"') return false;
        if (c != '\\') {
            out += (char)c;
            continue;
        }
        if (++i == text.size()) return false;
        switch (text[i]) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': {
            if (i + 4 >= text.size() || text.compare(i + 1, 2, "00") != 0) return false;
            const std::string hex = text.substr(i + 3, 2);
            if (hex.find_first_not_of("0123456789abcdef") != std::string::npos) return false;
            const int value = std::stoi(hex, nullptr, 16);
            if (value >= 0x20) return false;
            out += (char)value;
            i += 4;
            break;
        }
        default: return false;
        }
    }
    return true;
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

void checkUtf8(const std::string& text) {
    const std::wstring wide = utf8_to_wide(text);
    FUZZ_CHECK(wide == referenceDecode(text), "decoding differs");
    FUZZ_CHECK(wide.size() <= text.size(), "more characters than bytes");
    bool valid = true;
    for (wchar_t c : wide) {
        FUZZ_CHECK(isScalar((uint32_t)c), "decoded a value that is not a character: %x", (unsigned)c);
        if (c == 0xFFFD) valid = false;
    }
    const std::string back = wide_to_utf8(wide);
    if (valid) FUZZ_CHECK(back == text, "valid UTF-8 does not come back unchanged");
    FUZZ_CHECK(utf8_to_wide(back) == wide, "the encoding of decoded text decodes differently");

    // Any wide text, values outside Unicode included, encodes to valid UTF-8.
    std::wstring any;
    for (size_t i = 0; i + 4 <= text.size(); i += 4) {
        uint32_t v = (uint32_t)(uint8_t)text[i] | (uint32_t)(uint8_t)text[i + 1] << 8 |
                     (uint32_t)(uint8_t)text[i + 2] << 16 | (uint32_t)(uint8_t)text[i + 3] << 24;
        any += (wchar_t)v;
    }
    const std::wstring decoded = utf8_to_wide(wide_to_utf8(any));
    FUZZ_CHECK(decoded.size() == any.size(), "encoding changed the character count");
    for (size_t i = 0; i < any.size(); ++i) {
        const uint32_t v = (uint32_t)any[i];
        FUZZ_CHECK((uint32_t)decoded[i] == (isScalar(v) ? v : 0xFFFDu), "character %zu: %x became %x", i, v,
                   (unsigned)decoded[i]);
    }
}

void checkStrings(const std::string& text, const std::string& separator) {
    std::string unescaped;
    FUZZ_CHECK(jsonUnescape(json_escape(text), unescaped) && unescaped == text, "JSON escaping does not round-trip");

    const std::vector<std::string> parts = split_string(text, separator);
    FUZZ_CHECK(!parts.empty(), "split gave no field");
    FUZZ_CHECK(join_strings(parts, separator) == text, "join(split) differs");
    if (!separator.empty())
        for (const std::string& part : parts)
            FUZZ_CHECK(part.find(separator) == std::string::npos, "a field holds the separator");
    else
        FUZZ_CHECK(parts.size() == 1, "empty separator split the text");

    const std::string trimmed = trimSpaces(text);
    if (!trimmed.empty()) {
        FUZZ_CHECK(!isSpace(trimmed.front()) && !isSpace(trimmed.back()), "trim left white space");
        const size_t at = text.find(trimmed);
        FUZZ_CHECK(at != std::string::npos, "trimmed text is not part of the text");
        for (size_t i = 0; i < text.size(); ++i)
            if (i < at || i >= at + trimmed.size()) FUZZ_CHECK(isSpace(text[i]), "trim removed a non-blank");
    } else {
        for (char c : text) FUZZ_CHECK(isSpace(c), "trim removed a non-blank");
    }

    const std::string lower = to_lower(text), upper = to_upper(text);
    FUZZ_CHECK(lower.size() == text.size() && upper.size() == text.size(), "case conversion changed the length");
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        FUZZ_CHECK(lower[i] == (c >= 'A' && c <= 'Z' ? (char)(c + 32) : c), "to_lower at %zu", i);
        FUZZ_CHECK(upper[i] == (c >= 'a' && c <= 'z' ? (char)(c - 32) : c), "to_upper at %zu", i);
    }
}

void checkPaths(const std::string& path) {
    const std::string dir = get_dirname(path), base = get_basename(path);
    const size_t last = path.find_last_of("/\\");
    if (last == std::string::npos) {
        FUZZ_CHECK(dir.empty() && base == path, "no separator: dirname \"%s\"", dir.c_str());
    } else {
        const bool first = last == path.find_first_of("/\\");
        FUZZ_CHECK(dir + (first ? "" : path.substr(last, 1)) + base == path, "dirname and basename do not add up");
        FUZZ_CHECK(base.find_first_of("/\\") == std::string::npos, "basename holds a separator");
    }

    const std::string normal = normalize_path(path);
    FUZZ_CHECK(normalize_path(normal) == normal, "normalising twice changes \"%s\"", normal.c_str());
    if (path.empty()) {
        FUZZ_CHECK(normal.empty(), "empty path normalised to \"%s\"", normal.c_str());
        return;
    }
    const bool absolute = path[0] == '/' || path[0] == '\\';
    FUZZ_CHECK(!normal.empty() && (normal[0] == '/') == absolute, "normalising changed absoluteness");
    FUZZ_CHECK(normal.find('\\') == std::string::npos && normal.find("//") == std::string::npos,
               "normal form \"%s\" holds \\ or //", normal.c_str());
    FUZZ_CHECK(normal == "/" || normal.back() != '/', "normal form ends with /");
    // "." only as the whole of a relative path that cancels out; ".." only
    // at the start of a relative path.
    bool climbing = !absolute;
    for (const std::string& segment : split_string(normal == "/" ? std::string() : normal.substr(absolute), "/")) {
        if (segment == ".") FUZZ_CHECK(normal == ".", "\".\" segment left in \"%s\"", normal.c_str());
        if (segment == "..") FUZZ_CHECK(climbing, "\"..\" segment left in \"%s\"", normal.c_str());
        if (segment != "..") climbing = false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const size_t separatorLength = data[0] & 3;
    if (size < 1 + separatorLength) return 0;
    const std::string separator(reinterpret_cast<const char*>(data) + 1, separatorLength);
    const std::string text(reinterpret_cast<const char*>(data) + 1 + separatorLength, size - 1 - separatorLength);
    checkUtf8(text);
    checkStrings(text, separator);
    checkPaths(text);
    return 0;
}

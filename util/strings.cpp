// String helpers. All of them work on bytes and ignore the C locale, so their
// results do not change with the host program's setlocale().
#include "strings.h"

#include <cstdint>

namespace {

const char kWhiteSpace[] = " \t\r\n\v\f";
const char32_t kReplacement = 0xFFFD;

void append_utf8(std::string& out, uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

}  // namespace

std::string trimSpaces(const std::string& text) {
    const size_t first = text.find_first_not_of(kWhiteSpace);
    if (first == std::string::npos) return std::string();
    const size_t last = text.find_last_not_of(kWhiteSpace);
    return text.substr(first, last - first + 1);
}

std::vector<std::string> split_string(const std::string& text, const std::string& separator) {
    std::vector<std::string> parts;
    // An empty separator would match everywhere without advancing; the whole
    // text is then a single field.
    if (separator.empty()) {
        parts.push_back(text);
        return parts;
    }
    size_t start = 0;
    for (;;) {
        const size_t found = text.find(separator, start);
        if (found == std::string::npos) break;
        parts.push_back(text.substr(start, found - start));
        start = found + separator.size();
    }
    parts.push_back(text.substr(start));
    return parts;
}

std::string join_strings(const std::vector<std::string>& parts, const std::string& separator) {
    std::string joined;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i != 0) joined += separator;
        joined += parts[i];
    }
    return joined;
}

std::string to_lower(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

std::string to_upper(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return out;
}

std::wstring utf8_to_wide(const std::string& text) {
    // Strict decoding: overlong forms, surrogates and values above U+10FFFF
    // are rejected. Each maximal invalid subsequence gives one U+FFFD and
    // decoding resumes at the first byte that did not fit, so a truncated
    // sequence at the end never reads beyond the input.
    std::wstring out;
    out.reserve(text.size());
    const size_t size = text.size();
    size_t i = 0;
    while (i < size) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            out += static_cast<wchar_t>(lead);
            ++i;
            continue;
        }
        size_t length = 0;
        unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
        uint32_t code = 0;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            code = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            code = lead & 0x0F;
            if (lead == 0xE0) low = 0xA0;   // no overlong forms
            if (lead == 0xED) high = 0x9F;  // no surrogates
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            code = lead & 0x07;
            if (lead == 0xF0) low = 0x90;   // no overlong forms
            if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
        } else {
            out += static_cast<wchar_t>(kReplacement);
            ++i;
            continue;
        }
        size_t k = 1;
        for (; k < length; ++k) {
            if (i + k >= size) break;
            const unsigned char c = static_cast<unsigned char>(text[i + k]);
            const unsigned char lo = (k == 1) ? low : 0x80;
            const unsigned char hi = (k == 1) ? high : 0xBF;
            if (c < lo || c > hi) break;
            code = (code << 6) | (c & 0x3F);
        }
        if (k == length) {
            out += static_cast<wchar_t>(code);
        } else {
            out += static_cast<wchar_t>(kReplacement);
        }
        i += k;
    }
    return out;
}

std::string wide_to_utf8(const std::wstring& text) {
    std::string out;
    out.reserve(text.size());
    for (wchar_t wc : text) {
        const uint32_t code = static_cast<uint32_t>(wc);
        // Surrogate halves and values outside Unicode have no UTF-8 form.
        if ((code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF)
            append_utf8(out, kReplacement);
        else
            append_utf8(out, code);
    }
    return out;
}

std::string json_escape(const std::string& text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    out += "\\u00";
                    out += kHex[c >> 4];
                    out += kHex[c & 0x0F];
                } else {
                    // Bytes from 0x80 up are taken to be UTF-8 and kept.
                    out += ch;
                }
        }
    }
    return out;
}

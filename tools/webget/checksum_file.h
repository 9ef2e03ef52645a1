// Checksum files as the sha256sum family writes them ("HEX  NAME" for text
// mode, "HEX *NAME" for binary mode, '#' comments and blank lines allowed; a
// leading backslash marks a name with "\\" and "\n" escaped). Pure functions
// over text, kept in this header so that the unit tests can use them
// without the program.
#ifndef WEBGET_CHECKSUM_FILE_H
#define WEBGET_CHECKSUM_FILE_H

#include <cctype>
#include <string>
#include <vector>

namespace webget {

// The digest algorithm a hexadecimal digest of this length stands for, or "".
inline std::string algorithmForLength(size_t length) {
    switch (length) {
    case 32: return "md5";
    case 40: return "sha1";
    case 56: return "sha224";
    case 64: return "sha256";
    case 96: return "sha384";
    case 128: return "sha512";
    default: return std::string();
    }
}

struct ChecksumEntry {
    std::string digest;     // lower case
    std::string algorithm;
    std::string name;
    int line = 0;
};

// Undoes the escapes of a name on a line that starts with a backslash.
inline bool unescapeName(const std::string& text, std::string& name) {
    name.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            name += text[i];
            continue;
        }
        if (++i == text.size()) return false;
        if (text[i] == 'n') name += '\n';
        else if (text[i] == '\\') name += '\\';
        else return false;
    }
    return true;
}

// One line into `entry`; false with `why` set when it is malformed. Blank
// and comment lines give an entry without a name.
inline bool parseChecksumLine(std::string line, ChecksumEntry& entry, std::string& why) {
    entry = ChecksumEntry();
    if (!line.empty() && line.back() == '\r') line.pop_back();  // written on another system
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') return true;
    const bool escaped = line[0] == '\\';
    const size_t start = escaped ? 1 : 0;
    size_t end = start;
    while (end < line.size() && isxdigit((unsigned char)line[end])) ++end;
    if (end == start) return why = "expected 'HEX  NAME' or 'HEX *NAME'", false;
    if (end + 2 > line.size() || line[end] != ' ' || (line[end + 1] != ' ' && line[end + 1] != '*'))
        return why = "expected two spaces or ' *' between the digest and the name", false;
    for (size_t i = start; i < end; ++i) entry.digest += (char)tolower((unsigned char)line[i]);
    entry.algorithm = algorithmForLength(entry.digest.size());
    if (entry.algorithm.empty())
        return why = "a digest of " + std::to_string(entry.digest.size()) + " hexadecimal digits names no algorithm",
               false;
    const std::string rest = line.substr(end + 2);
    if (rest.empty()) return why = "no file name after the digest", false;
    if (!escaped) entry.name = rest;
    else if (!unescapeName(rest, entry.name)) return why = "bad escape in the file name", false;
    return true;
}

// A whole file's text. Returns false at the first malformed line, with its
// number in `badLine` and what is wrong in `why`.
inline bool parseChecksums(const std::string& text, std::vector<ChecksumEntry>& entries, int& badLine,
                           std::string& why) {
    size_t position = 0;
    for (int number = 1; position < text.size(); ++number) {
        size_t end = text.find('\n', position);
        if (end == std::string::npos) end = text.size();
        ChecksumEntry entry;
        if (!parseChecksumLine(text.substr(position, end - position), entry, why)) return badLine = number, false;
        entry.line = number;
        if (!entry.name.empty()) entries.push_back(entry);
        position = end + 1;
    }
    return true;
}

}  // namespace webget

#endif

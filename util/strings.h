// String helpers.
#ifndef WEBCHANNEL_UTIL_STRINGS_H
#define WEBCHANNEL_UTIL_STRINGS_H

#include <string>
#include <vector>

#include "../channel/webchannel_export.h"

// Removes leading and trailing white space (blank, tab, CR, LF, VT, FF).
WEBCHANNEL_EXPORT std::string trimSpaces(const std::string& text);
// Splits at every occurrence of `separator`, left to right without overlap;
// empty fields are kept. An empty separator gives the whole text as one field.
WEBCHANNEL_EXPORT std::vector<std::string> split_string(const std::string& text, const std::string& separator);
// Joins the parts with `separator` between them.
WEBCHANNEL_EXPORT std::string join_strings(const std::vector<std::string>& parts, const std::string& separator);
// ASCII case conversion; other bytes are kept.
WEBCHANNEL_EXPORT std::string to_lower(const std::string& text);
WEBCHANNEL_EXPORT std::string to_upper(const std::string& text);
// UTF-8 <-> wide (UTF-32 wchar_t) conversion; invalid sequences become U+FFFD.
// Decoding is strict (no overlong forms, surrogates or values above U+10FFFF);
// each maximal invalid piece gives one U+FFFD, and a sequence cut off by the
// end of the text is never read past.
WEBCHANNEL_EXPORT std::wstring utf8_to_wide(const std::string& text);
WEBCHANNEL_EXPORT std::string wide_to_utf8(const std::wstring& text);
// Escapes text for use inside a JSON string literal (quotes not added): '"',
// '\\', \b \f \n \r \t, other bytes below 0x20 as \u00xx (lower-case hex).
// Bytes from 0x80 up pass unchanged (the text is taken to be UTF-8).
WEBCHANNEL_EXPORT std::string json_escape(const std::string& text);

#endif

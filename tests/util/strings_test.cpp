// String helpers: trimming, splitting, joining, ASCII case, UTF-8 <-> wide
// conversion and JSON escaping.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "util/strings.h"

namespace {

using Parts = std::vector<std::string>;

TEST(Strings, TrimRemovesEveryWhiteSpaceAtBothEnds) {
    EXPECT_EQ(trimSpaces(" \t\r\n\v\fabc def\f\v\n\r\t "), "abc def");
    EXPECT_EQ(trimSpaces(" \t\n "), "");
    EXPECT_EQ(trimSpaces(""), "");
}

TEST(Strings, SplitKeepsEmptyFieldsAndJoinUndoesIt) {
    EXPECT_EQ(split_string("a,,b,", ","), (Parts{"a", "", "b", ""}));
    EXPECT_EQ(split_string("", ","), (Parts{""}));
    EXPECT_EQ(split_string("k::v::", "::"), (Parts{"k", "v", ""}));
    EXPECT_EQ(split_string("aaa", "aa"), (Parts{"", "a"}));  // matches do not overlap
    EXPECT_EQ(split_string("abc", ""), (Parts{"abc"}));      // and an empty one ends
    EXPECT_EQ(join_strings(split_string(",x,,yz,", ","), ","), ",x,,yz,");
    EXPECT_EQ(join_strings({}, ","), "");
    EXPECT_EQ(join_strings({"a", "b", "c"}, " - "), "a - b - c");
}

TEST(Strings, CaseChangesOnlyAsciiLetters) {
    EXPECT_EQ(to_lower("MiXeD-09_Z@[\xC3\x84"), "mixed-09_z@[\xC3\x84");
    EXPECT_EQ(to_upper("mixed-09_z`{\xC3\xA4"), "MIXED-09_Z`{\xC3\xA4");
}

TEST(Utf8ToWide, DecodesValidTextAndReplacesInvalidBytes) {
    const std::pair<std::string, std::wstring> cases[] = {
        {"a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80", L"a\u00E9\u4E2D\U0001F600"},
        {"\xF4\x8F\xBF\xBF", L"\U0010FFFF"},
        {std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {"\xE4\xB8" "A", L"\uFFFDA"},                          // cut short by an ASCII byte
        {"\x80x\xFF", L"\uFFFDx\uFFFD"},                        // stray and impossible bytes
        {"\xC0\xAF", L"\uFFFD\uFFFD"},                          // overlong
        {"\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},                // overlong
        {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},                // surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"}};     // above U+10FFFF
    for (const auto& c : cases) EXPECT_EQ(utf8_to_wide(c.first), c.second);
}

TEST(Utf8ToWide, EveryTruncationKeepsWholeCharactersAndMarksTheCut) {
    const std::string text = "\xF0\x9F\x98\x80\xE4\xB8\xAD\xC3\xA9z";
    const size_t ends[] = {0, 4, 7, 9, 10};  // character boundaries
    const std::wstring whole = L"\U0001F600\u4E2D\u00E9z";
    for (size_t n = 0; n <= text.size(); ++n) {
        size_t full = 0;
        while (full < 4 && ends[full + 1] <= n) ++full;
        const std::wstring expected = whole.substr(0, full) + (ends[full] < n ? L"\uFFFD" : L"");
        EXPECT_EQ(utf8_to_wide(text.substr(0, n)), expected) << n << " bytes";
    }
}

TEST(WideToUtf8, RoundTripsAndReplacesWhatHasNoUtf8Form) {
    const std::string text = "plain \xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF";
    EXPECT_EQ(wide_to_utf8(utf8_to_wide(text)), text);
    const std::wstring bad = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1)};
    EXPECT_EQ(wide_to_utf8(bad), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(JsonEscape, EscapesQuotesBackslashesAndControlsOnly) {
    EXPECT_EQ(json_escape("say \"hi\" \\ bye"), "say \\\"hi\\\" \\\\ bye");
    EXPECT_EQ(json_escape("\b\f\n\r\t"), "\\b\\f\\n\\r\\t");
    EXPECT_EQ(json_escape(std::string("\0\x01\x1f", 3)), "\\u0000\\u0001\\u001f");
    EXPECT_EQ(json_escape(" /\x7f\xC3\xA9\xFF"), " /\x7f\xC3\xA9\xFF");
}

}  // namespace

// Console output: architecture name, terminal width, a dash ruler and a
// word-wrapping printer for UTF-8 text.
#include "console.h"

#include <sys/ioctl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "logging.h"

namespace {

const int kDefaultWidth = 80;

void write_out(const std::string& text) {
    // fwrite rather than "%s", so that a NUL byte in the text does not cut
    // the line short.
    std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace

std::string get_arch() {
    struct utsname name;
    if (::uname(&name) != 0) {
        error("Can't get machine hardware name: %s\n", std::strerror(errno));
        return std::string();
    }
    return name.machine;
}

int get_window_width() {
    struct winsize size;
    // Not a terminal (a pipe, a file) or no size known: the classic width.
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return kDefaultWidth;
    const int columns = size.ws_col;
    if (columns < 10 || columns > kDefaultWidth) return kDefaultWidth;
    return columns;
}

void print_dashes() {
    static const char kRuler[] =
        "--------------------------------------------------------------------------------";
    static_assert(sizeof kRuler - 1 == kDefaultWidth, "the stored ruler is one full line");
    const int width = get_window_width();
    if (width == kDefaultWidth) {
        std::printf("%s\n", kRuler);
        return;
    }
    for (int i = 0; i < width; ++i) std::printf("-");
    std::printf("\n");
}

int print_string(const std::string& text) {
    // A line holds capacity - 1 bytes, leaving the last column free so that
    // the terminal does not wrap on its own. Multi-byte UTF-8 characters
    // raise the capacity by the bytes they take beyond their columns.
    const size_t width = static_cast<size_t>(get_window_width());
    const size_t size = text.size();
    std::string line;
    size_t capacity = width;
    size_t lineStart = 0;                 // index in `text` of line[0]
    size_t lastBlank = std::string::npos; // index in `line` of the last blank

    size_t i = 0;
    while (i < size) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        line += static_cast<char>(c);
        if (c == '\n') {
            write_out(line);
            line.clear();
            capacity = width;
            lastBlank = std::string::npos;
            lineStart = ++i;
            continue;
        }
        if (c >= 0xC0) {
            const size_t extra = (c <= 0xEF) ? 1 : 3;  // bytes beyond the columns taken
            const size_t follow = (c <= 0xDF) ? 1 : (c <= 0xEF) ? 2 : 3;
            // Only continuation bytes that are really there are taken, so a
            // sequence cut off at the end of the text is never read past.
            size_t appended = 0;
            while (appended < follow && i + 1 < size &&
                   (static_cast<unsigned char>(text[i + 1]) & 0xC0) == 0x80) {
                line += text[++i];
                ++appended;
            }
            capacity += std::min(extra, appended);
        } else if (c == ' ') {
            lastBlank = line.size() - 1;
        }

        if (line.size() + 1 >= capacity) {
            // ">=" and not "==": a multi-byte character can step over the
            // exact limit, and the line must still end there.
            const bool nextIsBreak = i + 1 < size && (text[i + 1] == ' ' || text[i + 1] == '\n');
            if (nextIsBreak) {
                ++i;  // the blank or newline after the word is the line break
            } else if (c != ' ' && lastBlank != std::string::npos) {
                // Move the partial word to the next line; lastBlank lies
                // before the current byte, so every line makes progress.
                line.resize(lastBlank + 1);
                i = lineStart + lastBlank;
            }
            write_out(line);
            std::fputc('\n', stdout);
            line.clear();
            capacity = width;
            lastBlank = std::string::npos;
            lineStart = ++i;
            continue;
        }
        ++i;
    }
    if (!line.empty()) write_out(line);
    std::fflush(stdout);
    return 0;
}

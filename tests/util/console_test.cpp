// Terminal width, the ruler and the word-wrapping printer. Output goes to a
// temporary file (no terminal: width 80) or to a pseudo terminal whose
// column count the test sets.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "tests/util/util_test_helpers.h"
#include "util/console.h"

using namespace utiltest;

namespace {

// Standard output on a raw pseudo terminal (no "\r" before "\n") of the
// given width.
class Terminal {
public:
    explicit Terminal(unsigned short columns) {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        const char* name = (master_ >= 0 && !::grantpt(master_) && !::unlockpt(master_)) ? ::ptsname(master_) : nullptr;
        const int slave = name ? ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
        struct termios mode;
        struct winsize size = {24, columns, 0, 0};
        if (slave < 0 || ::tcgetattr(slave, &mode) != 0) return;
        ::cfmakeraw(&mode);
        if (::tcsetattr(slave, TCSANOW, &mode) == 0 && ::ioctl(slave, TIOCSWINSZ, &size) == 0) {
            std::fflush(stdout);
            saved_ = ::dup(1);
            ::dup2(slave, 1);
        }
        ::close(slave);
    }
    ~Terminal() {
        std::fflush(stdout);
        if (saved_ >= 0) {
            ::dup2(saved_, 1);
            ::close(saved_);
        }
        if (master_ >= 0) ::close(master_);
    }
    bool ok() const { return saved_ >= 0; }
    // What arrived, waiting at most five seconds for each piece.
    std::string read(size_t bytes) {
        std::fflush(stdout);
        std::string text;
        char chunk[512];
        struct pollfd ready = {master_, POLLIN, 0};
        for (ssize_t got; text.size() < bytes && ::poll(&ready, 1, 5000) > 0 &&
                          (got = ::read(master_, chunk, sizeof chunk)) > 0;)
            text.append(chunk, static_cast<size_t>(got));
        return text;
    }

private:
    int master_ = -1, saved_ = -1;
};

TEST(Console, WidthFollowsTheTerminalBetweenTenAndEighty) {
    {
        OutputCapture out(1);
        EXPECT_EQ(get_window_width(), 80);
    }
    const std::pair<unsigned short, int> cases[] = {{40, 40}, {10, 10}, {9, 80}, {0, 80}, {81, 80}, {200, 80}};
    for (const auto& c : cases) {
        Terminal terminal(c.first);
        ASSERT_TRUE(terminal.ok());
        EXPECT_EQ(get_window_width(), c.second) << c.first << " columns";
    }
}

TEST(Console, RulerIsAsWideAsTheTerminal) {
    {
        OutputCapture out(1);
        print_dashes();
        EXPECT_EQ(out.take(), std::string(80, '-') + "\n");
    }
    Terminal terminal(23);
    ASSERT_TRUE(terminal.ok());
    print_dashes();
    EXPECT_EQ(terminal.read(24), std::string(23, '-') + "\n");
}

std::string printed(const std::string& text) {
    OutputCapture out(1);
    EXPECT_EQ(print_string(text), 0);
    return out.take();
}

std::string times(int n, const std::string& piece) {
    std::string text;
    while (n-- > 0) text += piece;
    return text;
}

TEST(PrintString, WrapsAtWidthEightyLessOne) {
    const std::string a70(70, 'a'), a79(79, 'a');
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"hello world", "hello world"},
        {"one\ntwo\n\nthree", "one\ntwo\n\nthree"},
        {std::string(100, 'w'), std::string(79, 'w') + "\n" + std::string(21, 'w')},  // no blank: hard split
        {a70 + " " + std::string(20, 'b'), a70 + " \n" + std::string(20, 'b')},     // cut word moves down
        {a79 + " next", a79 + "\nnext"},                                            // the blank is the break
        {a79 + "\nnext", a79 + "\nnext"},
        {"x " + std::string(77, 'y'), "x \n" + std::string(77, 'y')},  // end of text is no blank
    };
    for (const auto& c : cases) EXPECT_EQ(printed(c.first), c.second) << c.first;
}

TEST(PrintString, MultiByteCharactersCountByColumns) {
    // CJK: three bytes, two columns, so half as many per line.
    EXPECT_EQ(printed(times(50, "\xE4\xB8\xAD")), times(40, "\xE4\xB8\xAD") + "\n" + times(10, "\xE4\xB8\xAD"));
    EXPECT_EQ(printed(times(80, "\xC3\xA9")), times(79, "\xC3\xA9") + "\n\xC3\xA9");
    EXPECT_EQ(printed(times(80, "\xF0\x9F\x98\x80")), times(79, "\xF0\x9F\x98\x80") + "\n\xF0\x9F\x98\x80");
    // Sequences cut off by the end of the text are printed as they are.
    EXPECT_EQ(printed("abc\xE4\xB8"), "abc\xE4\xB8");
    EXPECT_EQ(printed("\xF0"), "\xF0");
}

TEST(PrintString, EveryTextEndsAndLosesOnlyBreakCharacters) {
    const std::string pieces[] = {" ", "\n", "a", "\xE4\xB8\xAD", "\xF0", "\x80", "  ", "word"};
    unsigned seed = 12345;
    for (int round = 0; round < 50; ++round) {
        std::string text, kept, shown;
        for (int i = 0; i < 120; ++i) text += pieces[((seed = seed * 1103515245u + 12345u) >> 16) % 8];
        for (char c : text) kept += (c == ' ' || c == '\n') ? "" : std::string(1, c);
        for (char c : printed(text)) shown += (c == ' ' || c == '\n') ? "" : std::string(1, c);
        EXPECT_EQ(shown, kept) << "round " << round;
    }
}

TEST(PrintString, WrapsToANarrowTerminal) {
    Terminal terminal(20);
    ASSERT_TRUE(terminal.ok());
    ASSERT_EQ(print_string("the quick brown fox jumps over the lazy dog"), 0);
    EXPECT_EQ(terminal.read(43), "the quick brown fox\njumps over the lazy\ndog");
}

}  // namespace

// The utility library: the logger's codes and lines, shell commands and the
// df questions, the console printer, file-system and string helpers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <climits>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/peers.h"
#include "util/webutil.h"

namespace {

using Names = std::vector<std::string>;
using Codes = std::vector<long long>;
using testsupport::readFile;
using testsupport::tempDir;

bool writeFile(const std::string& path, const std::string& content) {
    return static_cast<bool>(std::ofstream(path, std::ios::binary) << content);
}

Names listNames(const std::string& dir) {  // sorted
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// The utility log on a fresh file; messages() are its lines without the
// prefix, which ends at " : ".
struct UtilityLog {
    std::string path = tempDir() + "/util.log";
    logging_state_t* state = nullptr;
    FILE* file = log_init(path.c_str(), &state) == 0 && state != nullptr ? state->file : nullptr;
    ~UtilityLog() {
        log_disable();
        if (file != nullptr) std::fclose(file);
    }
    Names messages() const {
        Names found;
        std::istringstream in(readFile(path));
        for (std::string l; std::getline(in, l);)
            found.push_back(l.find(" : ") == std::string::npos ? "<bad line> " + l : l.substr(l.find(" : ") + 3));
        return found;
    }
};

// Standard output on a pseudo terminal of `columns` columns while it lives;
// read() gives `bytes` without CRs, waiting at most 5 s for each piece.
class Terminal {
public:
    explicit Terminal(unsigned short columns) : saved_(::dup(1)) {
        const struct winsize size = {24, columns, 0, 0};
        int slave = -1;
        std::fflush(stdout);
        if (::openpty(&master_, &slave, nullptr, nullptr, &size) == 0) ::dup2(slave, 1), ::close(slave);
    }
    ~Terminal() {
        std::fflush(stdout);
        ::dup2(saved_, 1), ::close(saved_), ::close(master_);
    }
    std::string read(size_t bytes) {
        std::fflush(stdout);
        std::string text;
        char chunk[512];
        struct pollfd in = {master_, POLLIN, 0};
        for (ssize_t got; text.size() < bytes && ::poll(&in, 1, 5000) > 0 && (got = ::read(master_, chunk, 512)) > 0;)
            std::copy_if(chunk, chunk + got, std::back_inserter(text), [](char c) { return c != '\r'; });
        return text;
    }

private:
    int saved_, master_ = -1;
};

TEST(Logger, CodesFollowTheStateOfTheLog) {
    const std::string dir = tempDir();
    const char* none = nullptr;  // no file: -3, but a null format is -1 first
    EXPECT_EQ((Codes{log_is_ready(), print_log("a"), warn("b"), error("c"), print_log(none), error(none)}),
              (Codes{-3, -3, -3, -3, -1, -1}));
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_init(nullptr, nullptr), -1);
    // A file that cannot be opened still gives 0 and leaves the logger off.
    logging_state_t* state = nullptr;
    EXPECT_EQ(log_init((dir + "/missing/util.log").c_str(), &state), 0);
    ASSERT_NE(state, nullptr);
    EXPECT_TRUE(state->file == nullptr && state->ready == 0 && print_log("lost") == -3);
    // Another module's logger is adopted while there is none: -2 until it is
    // ready; then a second adoption is refused and turns it off.
    FILE* theirs = std::fopen((dir + "/theirs.log").c_str(), "ab");
    logging_state_t record = {theirs, 0}, *handed = &record;
    EXPECT_EQ(Codes({log_init(nullptr, &handed), print_log("x"), log_disable(), (record.ready = 1, 0),
                     log_init(nullptr, &handed), log_is_ready(), print_log("through theirs"),
                     log_init(nullptr, &handed), print_log("dropped")}),
              Codes({0, -2, 0, 0, 0, 0, 0, -1, -3}));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: log name is NULL\nCan't open " + dir + "/missing/util.log\nERROR: log name is NULL\n");
    // Neither a new log nor log_disable closes a stream another module holds.
    EXPECT_TRUE(std::fputs("late\n", theirs) > 0 && std::fclose(theirs) == 0);
    const std::string text = readFile(dir + "/theirs.log");
    EXPECT_EQ(text.substr(text.find(" : ") + 3), "through theirs\nlate\n");
    log_disable();
}

TEST(Logger, LinesCarryTheirPrefixAreFlushedAtOnceAndDieFormatsOnce) {
    UtilityLog log;
    const long t0 = std::time(nullptr);
    ASSERT_EQ(Codes({print_log("copied %d of %s", 3, "files"), warn("low disk: %d%%", 5), error("lost %s", "peer")}),
              Codes(3, 0));
    EXPECT_EXIT(die(7, "fatal: %s after %d tries", "disk full", 3), ::testing::ExitedWithCode(7),
                "^fatal: disk full after 3 tries\n$");
    const long t1 = std::time(nullptr);
    std::istringstream in(readFile(log.path));  // read while the file is open: nothing may be buffered
    std::string line;
    // Plain lines carry ":" and three digits of milliseconds after the seconds.
    for (const std::string expected : {":000 : copied 3 of files", " - WARN : low disk: 5%", " - ERROR : lost peer",
                                       " - ERROR : fatal: disk full after 3 tries"}) {
        ASSERT_TRUE(std::getline(in, line));
        const size_t digits = line.find_first_not_of("0123456789");
        std::string tail = digits == std::string::npos ? "" : line.substr(digits);
        if (expected[0] == ':' && tail.size() > 4 && isdigit(tail[1]) && isdigit(tail[2]) && isdigit(tail[3]))
            tail.replace(1, 3, "000");
        EXPECT_TRUE(digits > 0 && tail == expected) << line;
        EXPECT_TRUE(std::stol(line) >= t0 && std::stol(line) <= t1) << line;
    }
}

TEST(Command, GivesOutputAndTheStatusShiftedByEightBitsAndDiscardsStandardError) {
    int code = -7;
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_command_output("printf 'a\\nb\\n'; echo noise >&2; exit 3", &code, false), "a\nb\n");
    EXPECT_EQ(code, 3);
    std::fputs("after\n", stderr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "after\n");
    EXPECT_EQ(get_command_output("printf 'a\\0b\\nc'; kill -TERM $$", &code, true), "ac");  // cut at NULs
    EXPECT_EQ(code, 0);  // ended by signal 15: 15 >> 8
}

// In a child: two descriptors left, enough for the saved standard error and
// /dev/null but not for popen's pipe. Exit 0: both given back, stderr restored.
[[noreturn]] void commandWithoutDescriptors(const std::string& logPath) {
    logging_state_t* state = nullptr;
    struct stat before, after;
    const struct rlimit limit = {256, 256};
    if (log_init(logPath.c_str(), &state) != 0 || ::fstat(2, &before) != 0 || ::setrlimit(RLIMIT_NOFILE, &limit))
        ::_exit(10);
    int previous = -1, last = -1;
    for (int i = 0, fd; i < 256 && (fd = ::open("/dev/null", O_RDONLY)) >= 0; ++i) previous = last, last = fd;
    if (previous < 0 || ::close(last) != 0 || ::close(previous) != 0) ::_exit(14);
    int code = 5;
    if (!get_command_output("echo never", &code, false).empty() || code != -1) ::_exit(11);
    if (::fstat(2, &after) != 0 || after.st_ino != before.st_ino || after.st_dev != before.st_dev) ::_exit(12);
    ::_exit(::open("/dev/null", O_RDONLY) >= 0 && ::open("/dev/null", O_RDONLY) >= 0 ? 0 : 13);
}

TEST(CommandDeathTest, StartFailureGivesStandardErrorBackAndLogsTheReason) {
    const std::string log = tempDir() + "/log";
    EXPECT_EXIT(commandWithoutDescriptors(log), ::testing::ExitedWithCode(0), "");
    EXPECT_NE(readFile(log).find(
                  " - ERROR : get_command_output: cannot execute command 'echo never': Too many open files\n"),
              std::string::npos);
}

TEST(Command, ExecuteArgsReturnsTheExitCodeAndLogsTheRawStatus) {
    UtilityLog log;
    EXPECT_EQ(execute_args("exit", "3"), 3);
    EXPECT_EQ(log.messages(), (Names{"execute_args: command exit, arguments 3", "execute_args: return code is 768"}));
    testing::internal::CaptureStdout();  // a trailing backslash stays literal unless a blank follows it
    EXPECT_EQ(Codes({execute_args("printf '[%s]' abc\\", ""), execute_args("printf '[%s]'", "x y")}), Codes(2, 0));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[abc\\][x][y]");
}

// The df commands ask about the nearest existing ancestor; the test runs in
// a fresh working directory whose only entry is "rel".
TEST(Partition, TheNearestExistingAncestorIsAskedAboutForEveryShapeOfPath) {
    const std::string dir = tempDir();
    UtilityLog log;
    struct Cwd {  // back to the working directory however the test ends
        char saved[PATH_MAX] = {};
        ~Cwd() { (void)!::chdir(saved); }
    } cwd;
    ASSERT_TRUE(log.file && ::getcwd(cwd.saved, PATH_MAX) && ::chdir(dir.c_str()) == 0 && ::mkdir("rel", 0755) == 0);
    auto df = [](const std::string& p) {
        return "getFilePartition: command is 'df \"" + p + "\" | tail -n 1 | awk '{ print $NF }' 2>/dev/null'";
    };
    EXPECT_EQ(getFilePartition("/proc/no/such/entry"), "/proc");
    EXPECT_EQ(log.messages(),
              (Names{df("/proc"), "getFilePartition: partition for file '/proc/no/such/entry' is '/proc'"}));
    std::string alternating;
    for (int i = 0; i < 50000; ++i) alternating += "a/";
    const std::string root = getFilePartition("/");
    const std::pair<std::string, std::string> cases[] = {  // a path, what df is asked about
        {"", ""}, {"x", ""}, {"x/", ""}, {"\\", ""}, {"\\\\", ""}, {"a\\b\\", ""},
        {"rel/missing/deeper", "rel/"},  // the first separator is kept, as "/x" gives "/"
        {"////", "////"}, {"/no-such/\\x", "/"}, {alternating, ""}, {std::string(20000, 'n'), ""},
        {std::string(100000, '/'), std::string(PATH_MAX - 1, '/')}};
    for (const auto& c : cases) {
        EXPECT_EQ(getFilePartition(c.first), c.second.empty() ? "" : root);
        EXPECT_EQ(log.messages().at(log.messages().size() - 2), df(c.second)) << c.first.size() << " bytes";
    }
    // Free space in millions of bytes; nothing without an existing ancestor.
    auto freeDf = [](const std::string& p) {
        return "getPartitionFreeSpace: command is 'df -P --block-size=1000000 \"" + p +
               "\" | tail -n 1 | awk '{print $4}' 2>/dev/null'";
    };
    const size_t before = log.messages().size();
    EXPECT_EQ(getPartitionFreeSpace("no/such/file"), 0);
    struct statvfs fs;
    ASSERT_EQ(::statvfs(".", &fs), 0);
    const long long got = getPartitionFreeSpace(dir + "/not-yet-there.bin");
    EXPECT_NEAR(got, static_cast<long long>(fs.f_bavail) * fs.f_frsize / 1000000, 500);  // others write meanwhile
    const Names messages = log.messages();
    EXPECT_EQ(Names(messages.begin() + before, messages.end()),
              (Names{freeDf(""), "getPartitionFreeSpace: result is ''", freeDf(dir),
                     "getPartitionFreeSpace: result is '" + std::to_string(got) + "'"}));
    // Shell characters in a name are never run.
    const std::string name = "a\"; : > pwned1; \"$(: > pwned2)`: > pwned3`\\";
    ASSERT_EQ(::mkdir(name.c_str(), 0755), 0);
    EXPECT_EQ(getFilePartition(name + "/file"), root);
    EXPECT_GT(getPartitionFreeSpace(name), 0);
    EXPECT_EQ(listNames("."), (Names{name, "rel"}));
}

TEST(Console, WidthFollowsTheTerminalBetweenTenAndEightyAndSoDoesTheRuler) {
    for (const auto& c : {std::make_pair(40, 40), {10, 10}, {9, 80}, {0, 80}, {81, 80}, {23, 23}}) {
        Terminal terminal(static_cast<unsigned short>(c.first));
        EXPECT_EQ(get_window_width(), c.second) << c.first << " columns";
        print_dashes();
        EXPECT_EQ(terminal.read(c.second + 1), std::string(c.second, '-') + "\n");
    }
}

TEST(Console, PrintStringWrapsWordsSplitsLongOnesAndCountsCharactersNotBytes) {
    const std::string a70(70, 'a'), a79(79, 'a');
    std::string cjk40, cjk10;  // three bytes, two columns: 40 a line
    for (int i = 0; i < 50; ++i) (i < 40 ? cjk40 : cjk10) += "\xE4\xB8\xAD";
    const std::pair<std::string, std::string> cases[] = {
        {"", ""}, {"one\ntwo\n\nthree", "one\ntwo\n\nthree"},
        {std::string(100, 'w'), std::string(79, 'w') + "\n" + std::string(21, 'w')},  // no blank: split
        {a70 + " " + std::string(20, 'b'), a70 + " \n" + std::string(20, 'b')},     // the cut word moves down
        {a79 + " next", a79 + "\nnext"},                                            // the blank is the break
        {cjk40 + cjk10, cjk40 + "\n" + cjk10}, {"abc\xE4\xB8", "abc\xE4\xB8"}};   // a cut sequence as it is
    for (const auto& c : cases) {
        testing::internal::CaptureStdout();  // no terminal: 80 columns
        EXPECT_EQ(print_string(c.first), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.second) << c.first;
    }
    Terminal terminal(20);
    ASSERT_EQ(print_string("the quick brown fox jumps over the lazy dog"), 0);
    EXPECT_EQ(terminal.read(43), "the quick brown fox\njumps over the lazy\ndog");
}

mode_t modeOf(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

std::string payload(size_t size) {  // every byte value, NULs included
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
    return data;
}

TEST(Fs, FolderCreateMakesEveryLevelWithTheModeAndTheTestsTellFilesFromFolders) {
    const std::string dir = tempDir();
    const mode_t saved = ::umask(0);
    EXPECT_EQ(Codes({folder_create(dir + "/a/b/c//", 0750), folder_create(dir + "/a/b", 0700)}), Codes(2, 0));
    ::umask(saved);
    for (const char* level : {"/a", "/a/b", "/a/b/c"}) EXPECT_EQ(modeOf(dir + level), S_IFDIR | 0750) << level;
    ASSERT_TRUE(writeFile(dir + "/file", "x") && ::symlink("nowhere", (dir + "/dangling").c_str()) == 0);
    EXPECT_EQ(Codes({folder_create(dir + "/file/sub", 0755), folder_create(dir + "/file", 0755),
                     folder_create("", 0755), folder_create("/", 0755), get_file_size(dir + "/file"),
                     get_file_size(dir + "/a"), get_file_size(dir + "/absent")}),
              Codes({-1, -1, -1, 0, 1, -1, -1}));
    EXPECT_TRUE(file_exists(dir + "/file") && !folder_exists(dir + "/file") && folder_exists(dir + "/a"));
    EXPECT_TRUE(path_exists(dir + "/dangling") && !file_exists(dir + "/dangling"));  // only path_exists takes it
}

TEST(Fs, CopiesAreWholeOrLeaveTheOldTargetAndNoTemporary) {
    const std::string dir = tempDir(), src = dir + "/src", dst = dir + "/dst";
    ASSERT_TRUE(writeFile(src, payload(300000)) && ::chmod(src.c_str(), 0640) == 0);
    ASSERT_TRUE(writeFile(dst, "old") && ::mkdir((dir + "/dir").c_str(), 0755) == 0);
    // No source, a file or nothing as the parent, a directory as the target
    // (fails at the rename) or the source, a read error after the open.
    for (const auto& [from, to] : {std::make_pair(dir + "/absent", dir + "/new"), {src, dst + "/x"},
                                   {src, dir + "/none/x"}, {src, dir + "/dir"}, {dir + "/dir", dir + "/new"},
                                   {std::string("/proc/self/mem"), dst}})
        EXPECT_EQ(file_copy(from, to), -1) << from << " to " << to;
    EXPECT_EQ(readFile(dst), "old");
    EXPECT_EQ(listNames(dir), (Names{"dir", "dst", "src"}));
    EXPECT_TRUE(listNames(dir + "/dir").empty());
    EXPECT_EQ(Codes({file_copy(src, dst), file_copy(dst, dst)}), Codes(2, 0));
    EXPECT_EQ(readFile(dst), payload(300000));  // onto itself: content kept
    EXPECT_EQ(modeOf(dst), S_IFREG | 0640);
    // Trees: links are copied as links, a copy into the tree itself ends,
    // removal follows no link, and neither works on a file.
    ASSERT_TRUE(folder_create(dir + "/t/sub", 0755) == 0 && ::symlink(src.c_str(), (dir + "/t/sub/up").c_str()) == 0);
    EXPECT_EQ(folder_copy(dir + "/t", dir + "/t/sub/copy"), 0);
    EXPECT_TRUE(S_ISLNK(modeOf(dir + "/t/sub/copy/sub/up")) && listNames(dir + "/t/sub/copy/sub") == Names{"up"});
    EXPECT_EQ(Codes({folder_copy(src, dir + "/x"), folder_remove(src), folder_remove(dir + "/t/sub/up"),
                     folder_remove(dir + "/t"), folder_remove(dir + "/t")}),
              Codes({-1, -1, -1, 0, 0}));
    EXPECT_EQ(readFile(src), payload(300000));
}

TEST(Fs, MoveRenamesOrCopiesAcrossFileSystemsAndRemoveFileLogsRealFailures) {
    const std::string dir = tempDir();
    UtilityLog log;
    ASSERT_TRUE(writeFile(dir + "/a", "moved") && ::mkdir((dir + "/d").c_str(), 0755) == 0);
    EXPECT_EQ(Codes({file_move(dir + "/a", dir + "/b"), file_move(dir + "/a", dir + "/b")}), Codes({0, -1}));
    EXPECT_EQ(readFile(dir + "/b"), "moved");  // a missing source leaves the target
    char other[] = "/dev/shm/webchannel-move-XXXXXX";  // another file system, most likely
    if (::mkdtemp(other) != nullptr && writeFile(std::string(other) + "/f", payload(70000))) {
        EXPECT_EQ(file_move(std::string(other) + "/f", dir + "/b"), 0);
        EXPECT_EQ(readFile(dir + "/b"), payload(70000));
        EXPECT_EQ(::rmdir(other), 0) << "the source is gone";
    }
    // Missing files are no error; the message brings its own "\n".
    EXPECT_EQ(Codes({remove_file(dir + "/b/below-a-file"), remove_file(dir + "/b"), remove_file(dir + "/b"),
                     remove_file(dir + "/d")}),
              Codes({0, 0, 0, -1}));
    EXPECT_EQ(listNames(dir), Names{"d"});
    EXPECT_EQ(log.messages(),
              (Names{"remove_file: can't delete file \"" + dir + "/d\": Is a directory", "<bad line> "}));
}

TEST(Strings, NormalizePathCleansSeparatorsDotsAndDotDots) {
    const std::pair<std::string, std::string> cases[] = {
        {"a\\b\\\\c", "a/b/c"}, {"//a///b/", "/a/b"}, {"./a/./b/.", "a/b"}, {"/a/b/../c", "/a/c"},
        {"a/b/../../c", "c"},   {"/", "/"},          {"", ""},           {"../a", "../a"},
        {"a/../../b", "../b"},  {"../../x/..", "../.."}, {"/../a", "/a"}, {"/a/../../..", "/"}, {"a/..", "."}};
    for (const auto& c : cases) EXPECT_EQ(normalize_path(c.first), c.second) << c.first;
    EXPECT_EQ((Names{get_dirname("/x"), get_dirname("a\\b/c"), get_dirname("dir/"), get_basename("a\\b")}),
              (Names{"/", "a\\b", "dir/", "b"}));
}

TEST(Strings, TrimSplitJoinCaseAndJsonWorkOnBytes) {
    EXPECT_EQ((Names{trimSpaces(" \t\r\n\v\fabc def\f\v\n\r\t "), trimSpaces(" \t\n ")}), (Names{"abc def", ""}));
    EXPECT_EQ(split_string("a,,b,", ","), (Names{"a", "", "b", ""}));
    EXPECT_EQ(split_string("aaa", "aa"), (Names{"", "a"}));  // matches do not overlap
    EXPECT_EQ((Names{split_string("", ",").at(0), split_string("abc", "").at(0)}), (Names{"", "abc"}));
    EXPECT_EQ((Names{join_strings({"a", "b", "c"}, " - "), join_strings({}, ",")}), (Names{"a - b - c", ""}));
    EXPECT_EQ((Names{to_lower("MiXeD-09_Z@[\xC3\x84"), to_upper("mixed-09_z`{\xC3\xA4")}),
              (Names{"mixed-09_z@[\xC3\x84", "MIXED-09_Z`{\xC3\xA4"}));  // ASCII letters only
    EXPECT_EQ(json_escape(std::string("say \"hi\" \\ \b\f\n\r\t\0\x01\x1f /\x7f\xC3\xA9\xFF", 25)),
              "say \\\"hi\\\" \\\\ \\b\\f\\n\\r\\t\\u0000\\u0001\\u001f /\x7f\xC3\xA9\xFF");
}

TEST(Strings, Utf8AndWideConvertWithAReplacementForEveryInvalidPiece) {
    const std::pair<std::string, std::wstring> cases[] = {
        {"a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF", L"a\u00E9\u4E2D\U0001F600\U0010FFFF"},
        {std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {"\xE4\xB8" "A\x80x\xFF", L"\uFFFDA\uFFFDx\uFFFD"},              // cut short, stray and impossible bytes
        {"\xC0\xAF\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},    // overlong
        {"\xED\xA0\x80\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"}};  // surrogate, > U+10FFFF
    for (const auto& c : cases) EXPECT_EQ(utf8_to_wide(c.first), c.second) << c.first;
    EXPECT_EQ(wide_to_utf8(cases[0].second), cases[0].first);
    const std::wstring bad = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1)};
    EXPECT_EQ(wide_to_utf8(bad), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

}  // namespace

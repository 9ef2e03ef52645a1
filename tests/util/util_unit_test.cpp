// The utility library: logger, shell commands and df questions, console printer, file-system and string helpers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>

#include "support/peers.h"
#include "util/webutil.h"

namespace {

using namespace testsupport;
using Names = std::vector<std::string>;
using Codes = std::vector<long long>;

Names listNames(const std::string& dir) {  // sorted
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

struct UtilityLog {  // the utility log on a fresh file
    std::string path = tempDir() + "/util.log";
    logging_state_t* state = nullptr;
    FILE* file = log_init(path.c_str(), &state) == 0 && state != nullptr ? state->file : nullptr;
    ~UtilityLog() {
        log_disable();
        if (file != nullptr) std::fclose(file);
    }
    Names messages() const {  // its lines without the prefixes
        const std::string text = std::regex_replace(readFile(path), std::regex("(^|\n)[^\n]*? : "), "$1");
        const std::regex newline("\n");
        return Names(std::sregex_token_iterator(text.begin(), text.end(), newline, -1), {});
    }
};

// What `print` writes to standard output on a pseudo terminal of `columns` columns, CRs dropped.
std::string onTerminal(unsigned short columns, size_t bytes, const std::function<void()>& print) {
    const struct winsize size = {24, columns, 0, 0};
    int master = -1, slave = -1;
    if (::openpty(&master, &slave, nullptr, nullptr, &size) != 0) return "no pseudo terminal";
    const int saved = (std::fflush(stdout), ::dup(1));
    ::dup2(slave, 1), ::close(slave), print(), std::fflush(stdout);
    std::string text;
    char chunk[512];
    struct pollfd in = {master, POLLIN, 0};
    for (ssize_t got; text.size() < bytes && ::poll(&in, 1, 5000) > 0 && (got = ::read(master, chunk, 512)) > 0;)
        std::copy_if(chunk, chunk + got, std::back_inserter(text), [](char c) { return c != '\r'; });
    ::dup2(saved, 1), ::close(saved), ::close(master);
    return text;
}

TEST(Logger, CodesFollowTheStateOfTheLogAndLinesCarryTheirPrefix) {
    const std::string dir = tempDir();
    const char* none = nullptr;  // no file: -3, but a null format is -1 first
    logging_state_t* state = nullptr;
    testing::internal::CaptureStderr();  // a file that cannot be opened gives 0 and leaves the logger off
    EXPECT_EQ((Codes{log_is_ready(), print_log("a"), warn("b"), error("c"), print_log(none), error(none),
                     log_init(nullptr, nullptr), log_init((dir + "/missing/util.log").c_str(), &state), warn("lost")}),
              (Codes{-3, -3, -3, -3, -1, -1, -1, 0, -3}));
    EXPECT_TRUE(state != nullptr && state->file == nullptr && state->ready == 0);
    // Another module's logger is adopted while there is none: -2 until it is ready; then a second adoption is
    // refused and turns it off. Neither that nor log_disable closes the other module's stream.
    FILE* theirs = std::fopen((dir + "/theirs.log").c_str(), "ab");
    logging_state_t record = {theirs, 0}, *handed = &record;
    EXPECT_EQ(Codes({log_init(nullptr, &handed), print_log("x"), log_disable(), (record.ready = 1, 0),
                     log_init(nullptr, &handed), log_is_ready(), print_log("through theirs"),
                     log_init(nullptr, &handed), print_log("dropped")}),
              Codes({0, -2, 0, 0, 0, 0, 0, -1, -3}));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: log name is NULL\nCan't open " + dir + "/missing/util.log\nERROR: log name is NULL\n");
    EXPECT_TRUE(std::fputs("late\n", theirs) > 0 && std::fclose(theirs) == 0);
    EXPECT_TRUE(std::regex_match(readFile(dir + "/theirs.log"), std::regex("[0-9:]+ : through theirs\nlate\n")));
    // Lines carry their prefix, are flushed at once, and die formats its message once.
    UtilityLog log;
    const long t0 = std::time(nullptr);
    ASSERT_EQ(Codes({print_log("copied %d of %s", 3, "files"), warn("low disk: %d%%", 5), error("lost %s", "peer")}),
              Codes(3, 0));
    EXPECT_EXIT(die(7, "fatal: %s after %d tries", "disk full", 3), ::testing::ExitedWithCode(7),
                "^fatal: disk full after 3 tries\n$");
    const long t1 = std::time(nullptr);
    std::string text = readFile(log.path);  // read while the file is open: nothing may be buffered
    for (long t = t0; t <= t1; ++t) text = std::regex_replace(text, std::regex("(^|\n)" + std::to_string(t)), "$1T");
    EXPECT_EQ(std::regex_replace(text, std::regex("^T:[0-9]{3} "), "T:mmm "),
              "T:mmm : copied 3 of files\nT - WARN : low disk: 5%\nT - ERROR : lost peer\n"
              "T - ERROR : fatal: disk full after 3 tries\n");
}

// Two descriptors left: enough for the saved standard error and /dev/null, not for popen's pipe. Standard error
// must come back (the death test sees the line) and both descriptors be released.
[[noreturn]] void commandWithoutDescriptors() {
    int previous = -1, last = -1, code = 5;
    if (const struct rlimit limit = {256, 256}; ::setrlimit(RLIMIT_NOFILE, &limit) != 0) ::_exit(8);
    for (int i = 0, fd; i < 256 && (fd = ::open("/dev/null", O_RDONLY)) >= 0; ++i) previous = last, last = fd;
    if (previous < 0 || ::close(last) != 0 || ::close(previous) != 0) ::_exit(8);
    const bool failed = get_command_output("echo never", &code, false).empty() && code == -1;
    std::fputs("standard error is back\n", stderr);
    ::_exit((failed ? 0 : 1) | (::open("/dev/null", O_RDONLY) >= 0 && ::open("/dev/null", O_RDONLY) >= 0 ? 0 : 2));
}

TEST(CommandDeathTest, OutputAndStatusComeBackStandardErrorIsRestoredAndExecuteArgsLogsTheRawStatus) {
    UtilityLog log;
    int code = -7;
    testing::internal::CaptureStderr();  // the command's standard error is discarded
    EXPECT_EQ(get_command_output("printf 'a\\nb\\n'; echo noise >&2; exit 3", &code, false), "a\nb\n");
    EXPECT_EQ(code, 3);
    std::fputs("after\n", stderr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "after\n");
    EXPECT_EQ(get_command_output("printf 'a\\0b\\nc'; kill -TERM $$", &code, true), "ac");  // cut at NULs
    EXPECT_EQ(code, 0);  // ended by signal 15: 15 >> 8
    EXPECT_EXIT(commandWithoutDescriptors(), ::testing::ExitedWithCode(0), "^standard error is back\n$");
    EXPECT_EQ(execute_args("exit", "3"), 3);
    EXPECT_EQ(log.messages(), (Names{"get_command_output: cannot execute command 'echo never': Too many open files",
                                     "execute_args: command exit, arguments 3", "execute_args: return code is 768"}));
    testing::internal::CaptureStdout();  // a trailing backslash stays literal unless a blank follows it
    EXPECT_EQ(Codes({execute_args("printf '[%s]' abc\\", ""), execute_args("printf '[%s]'", "x y")}), Codes(2, 0));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[abc\\][x][y]");
}

// The df commands ask about the nearest existing ancestor and run no shell characters of a name.
TEST(Partition, TheNearestExistingAncestorIsAskedAboutForEveryShapeOfPath) {
    const std::string dir = tempDir(), home = std::filesystem::current_path();
    UtilityLog log;
    std::shared_ptr<void> back(nullptr, [&home](void*) { std::filesystem::current_path(home); });
    ASSERT_TRUE(log.file && ::chdir(dir.c_str()) == 0 && ::mkdir("rel", 0755) == 0);
    const auto asked = [&log] {  // the quoted path of the last df command, logged before its result
        const Names m = log.messages();
        const std::string& command = m.at(m.size() - 2);
        return command.substr(command.find('"') + 1, command.rfind('"') - command.find('"') - 1);
    };
    const std::string root = getFilePartition("/"), slashes(100000, '/');
    const std::string alternating = std::regex_replace(std::string(50000, 'a'), std::regex("a"), "a/");
    Names partitions, dfPaths;
    for (const std::string& path : Names{"", "x", "x/", "\\", "\\\\", "a\\b\\", alternating, "rel/missing/deeper",
                                         "////", "/no-such/\\x", slashes})
        partitions.push_back(getFilePartition(path)), dfPaths.push_back(asked());
    // The first separator is kept ("rel/"), as "/x" gives "/".
    EXPECT_EQ(dfPaths, (Names{"", "", "", "", "", "", "", "rel/", "////", "/", std::string(PATH_MAX - 1, '/')}));
    EXPECT_EQ(partitions, (Names{"", "", "", "", "", "", "", root, root, root, root}));
    EXPECT_EQ(getFilePartition("/proc/no/such/entry"), "/proc");
    EXPECT_TRUE(getPartitionFreeSpace("no/such/file") == 0 && asked().empty());
    EXPECT_NEAR(getPartitionFreeSpace(dir + "/new.bin"), std::filesystem::space(dir).available / 1e6, 500);
    EXPECT_EQ(asked(), dir);
    const std::string name = "a\"; : > pwned1; \"$(: > pwned2)`: > pwned3`\\";
    ASSERT_EQ(::mkdir(name.c_str(), 0755), 0);
    EXPECT_TRUE(getFilePartition(name + "/file") == root && getPartitionFreeSpace(name) > 0);
    EXPECT_EQ(listNames("."), (Names{name, "rel"}));
}

TEST(Console, WidthFollowsTheTerminalBetweenTenAndEightyAndPrintStringWrapsCharactersNotBytes) {
    for (const auto& c : {std::make_pair(40, 40), {10, 10}, {9, 80}, {0, 80}, {81, 80}, {23, 23}})
        EXPECT_EQ(onTerminal(c.first, c.second + 1, print_dashes), std::string(c.second, '-') + "\n") << c.first;
    EXPECT_EQ(onTerminal(20, 43, [] { print_string("the quick brown fox jumps over the lazy dog"); }),
              "the quick brown fox\njumps over the lazy\ndog");
    // No terminal: 80 columns; a CJK character takes three bytes and two columns.
    const std::string a70(70, 'a'), a79(79, 'a'), b20(20, 'b');
    const std::string cjk40 = std::regex_replace(std::string(40, 'c'), std::regex("c"), "\xE4\xB8\xAD");
    const std::string cjk10 = cjk40.substr(0, 30);
    Names printed;
    for (const std::string& text : {std::string(), std::string("one\ntwo\n\nthree"), std::string(100, 'w'),
                                    a70 + " " + b20, a79 + " next", cjk40 + cjk10, std::string("abc\xE4\xB8")}) {
        testing::internal::CaptureStdout();
        const int result = print_string(text);
        printed.push_back(testing::internal::GetCapturedStdout() + (result == 0 ? "" : "<failed>"));
    }
    EXPECT_EQ(printed, (Names{"", "one\ntwo\n\nthree", std::string(79, 'w') + "\n" + std::string(21, 'w'),
                              a70 + " \n" + b20, a79 + "\nnext", cjk40 + "\n" + cjk10, "abc\xE4\xB8"}));
}

mode_t modeOf(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

TEST(Fs, FolderCreateMakesEveryLevelWithTheModeAndTheTestsTellFilesFromFolders) {
    const std::string dir = tempDir();
    const mode_t saved = ::umask(0);
    EXPECT_EQ(Codes({folder_create(dir + "/a/b/c//", 0750), folder_create(dir + "/a/b", 0700)}), Codes(2, 0));
    ::umask(saved);
    for (const char* level : {"/a", "/a/b", "/a/b/c"}) EXPECT_EQ(modeOf(dir + level), S_IFDIR | 0750) << level;
    ASSERT_TRUE(std::ofstream(dir + "/file") << "x" && ::symlink("nowhere", (dir + "/dangling").c_str()) == 0);
    EXPECT_EQ(Codes({folder_create(dir + "/file/sub", 0755), folder_create(dir + "/file", 0755),
                     folder_create("", 0755), folder_create("/", 0755), get_file_size(dir + "/file"),
                     get_file_size(dir + "/a"), get_file_size(dir + "/absent")}),
              Codes({-1, -1, -1, 0, 1, -1, -1}));
    EXPECT_TRUE(file_exists(dir + "/file") && !folder_exists(dir + "/file") && folder_exists(dir + "/a"));
    EXPECT_TRUE(path_exists(dir + "/dangling") && !file_exists(dir + "/dangling"));  // only path_exists takes it
}

TEST(Fs, CopiesAreWholeOrLeaveTheOldTargetMovesCrossFileSystemsAndRemovalsLogRealFailures) {
    const std::string dir = tempDir(), src = dir + "/src", dst = dir + "/dst";
    UtilityLog log;
    std::string data(300000, '\0');  // every byte value, NULs included
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 251);
    ASSERT_TRUE(std::ofstream(src) << data && ::chmod(src.c_str(), 0640) == 0);
    ASSERT_TRUE(std::ofstream(dst) << "old" && ::mkdir((dir + "/dir").c_str(), 0755) == 0);
    // No source, a file or nothing as parent, a directory as target or source, a read error: no trace left.
    EXPECT_EQ(
        Codes({file_copy(dir + "/absent", dir + "/new"), file_copy(src, dst + "/x"), file_copy(src, dir + "/none/x"),
               file_copy(src, dir + "/dir"), file_copy(dir + "/dir", dir + "/new"), file_copy("/proc/self/mem", dst)}),
        Codes(6, -1));
    EXPECT_TRUE(readFile(dst) == "old" && listNames(dir + "/dir").empty());
    EXPECT_EQ(listNames(dir), (Names{"dir", "dst", "src"}));
    EXPECT_EQ(Codes({file_copy(src, dst), file_copy(dst, dst)}), Codes(2, 0));
    EXPECT_TRUE(readFile(dst) == data && modeOf(dst) == (S_IFREG | 0640));  // onto itself: kept
    // Trees: links are copied as links, a copy into the tree itself ends, neither works on a file.
    ASSERT_TRUE(folder_create(dir + "/t/sub", 0755) == 0 && ::symlink(src.c_str(), (dir + "/t/sub/up").c_str()) == 0);
    EXPECT_EQ(folder_copy(dir + "/t", dir + "/t/sub/copy"), 0);
    EXPECT_TRUE(S_ISLNK(modeOf(dir + "/t/sub/copy/sub/up")) && listNames(dir + "/t/sub/copy/sub") == Names{"up"});
    EXPECT_EQ(Codes({folder_copy(src, dir + "/x"), folder_remove(src), folder_remove(dir + "/t/sub/up"),
                     folder_remove(dir + "/t"), folder_remove(dir + "/t")}),
              Codes({-1, -1, -1, 0, 0}));
    EXPECT_EQ(Codes({file_move(src, dir + "/b"), file_move(src, dir + "/b")}), Codes({0, -1}));
    EXPECT_EQ(readFile(dir + "/b"), data);             // removing the tree left the link's target alone
    char other[] = "/dev/shm/webchannel-move-XXXXXX";  // another file system, most likely
    if (::mkdtemp(other) != nullptr && std::ofstream(std::string(other) + "/f") << "moved") {
        EXPECT_EQ(file_move(std::string(other) + "/f", dir + "/b"), 0);
        EXPECT_EQ(readFile(dir + "/b"), "moved");
        EXPECT_EQ(::rmdir(other), 0) << "the source is gone";
    }
    // Missing files are no error; the message brings its own "\n".
    EXPECT_EQ(Codes({remove_file(dir + "/b/below-a-file"), remove_file(dir + "/b"), remove_file(dir + "/b"),
                     remove_file(dir + "/dir")}),
              Codes({0, 0, 0, -1}));
    EXPECT_EQ(listNames(dir), (Names{"dir", "dst"}));
    EXPECT_EQ(log.messages(), (Names{"remove_file: can't delete file \"" + dir + "/dir\": Is a directory", ""}));
}

TEST(Strings, PathsTrimSplitJoinCaseJsonAndUtf8WorkOnBytes) {
    Names normal;
    for (const char* path : {"a\\b\\\\c", "//a///b/", "./a/./b/.", "/a/b/../c", "a/b/../../c", "/", "", "../a",
                             "a/../../b", "../../x/..", "/../a", "/a/../../..", "a/.."})
        normal.push_back(normalize_path(path));
    EXPECT_EQ(normal, (Names{"a/b/c", "/a/b", "a/b", "/a/c", "c", "/", "", "../a", "../b", "../..", "/a", "/", "."}));
    EXPECT_EQ((Names{get_dirname("/x"), get_dirname("a\\b/c"), get_dirname("dir/"), get_basename("a\\b")}),
              (Names{"/", "a\\b", "dir/", "b"}));
    EXPECT_EQ((Names{trimSpaces(" \t\r\n\v\fabc def\f\v\n\r\t "), trimSpaces(" \t\n ")}), (Names{"abc def", ""}));
    EXPECT_EQ(split_string("a,,b,", ","), (Names{"a", "", "b", ""}));
    EXPECT_EQ(split_string("aaa", "aa"), (Names{"", "a"}));  // matches do not overlap
    EXPECT_EQ((Names{split_string("", ",").at(0), split_string("abc", "").at(0)}), (Names{"", "abc"}));
    EXPECT_EQ((Names{join_strings({"a", "b", "c"}, " - "), join_strings({}, ",")}), (Names{"a - b - c", ""}));
    EXPECT_EQ((Names{to_lower("MiXeD-09_Z@[\xC3\x84"), to_upper("mixed-09_z`{\xC3\xA4")}),
              (Names{"mixed-09_z@[\xC3\x84", "MIXED-09_Z`{\xC3\xA4"}));  // ASCII letters only
    EXPECT_EQ(json_escape(std::string("say \"hi\" \\ \b\f\n\r\t\0\x01\x1f /\x7f\xC3\xA9\xFF", 25)),
              "say \\\"hi\\\" \\\\ \\b\\f\\n\\r\\t\\u0000\\u0001\\u001f /\x7f\xC3\xA9\xFF");
    const std::string utf8 = std::string("a\0b", 3) + "\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
    const std::wstring wide = std::wstring(L"a\0b", 3) + L"\u00E9\u4E2D\U0001F600\U0010FFFF";
    EXPECT_TRUE(utf8_to_wide(utf8) == wide && wide_to_utf8(wide) == utf8);
    // One U+FFFD for each piece cut short, stray, impossible, overlong, a surrogate or beyond U+10FFFF.
    EXPECT_EQ(utf8_to_wide("\xE4\xB8\x41\x80x\xFF\xC0\xAF\xE0\x80\xAF\xED\xA0\x80\xF4\x90\x80\x80\xE4\xB8"),
              L"\uFFFDA\uFFFDx\uFFFD" + std::wstring(13, L'\uFFFD'));
    const std::wstring bad = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1)};
    EXPECT_EQ(wide_to_utf8(bad), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

}  // namespace

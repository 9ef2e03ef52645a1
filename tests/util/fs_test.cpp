// File-system helpers: path pieces, directory creation, copies that never
// leave half-written targets, moves, tree removal, path normalisation.
#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/util/util_test_helpers.h"
#include "util/fs.h"

using namespace utiltest;
using Names = std::vector<std::string>;

namespace {

mode_t mode_of(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

// Every byte value, NULs included.
std::string payload(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
    return data;
}

TEST(PathParts, DirnameKeepsOnlyALeadingSeparator) {
    const std::pair<std::string, std::string> cases[] = {
        {"/x", "/"}, {"\\x", "\\"}, {"/a/b", "/a"}, {"a/b/c.txt", "a/b"}, {"a\\b/c", "a\\b"},
        {"dir/", "dir/"}, {"a/b/", "a/b"}, {"file", ""}, {"", ""}};
    for (const auto& c : cases) EXPECT_EQ(get_dirname(c.first), c.second) << c.first;
    EXPECT_EQ(get_basename("/a/b.txt"), "b.txt");
    EXPECT_EQ(get_basename("a\\b"), "b");
    EXPECT_EQ(get_basename("plain"), "plain");
}

TEST(NormalizePath, CleansSeparatorsDotsAndDotDots) {
    const std::pair<std::string, std::string> cases[] = {
        {"a\\b\\\\c", "a/b/c"}, {"//a///b/", "/a/b"}, {"./a/./b/.", "a/b"}, {"/a/b/../c", "/a/c"},
        {"a/b/../../c", "c"},   {"/", "/"},          {"", ""},
        // A relative path may climb above its start; the root cannot be left.
        {"../a", "../a"}, {"a/../../b", "../b"}, {"../../x/..", "../.."}, {"/../a", "/a"},
        {"/a/../../..", "/"}, {"a/..", "."}};
    for (const auto& c : cases) EXPECT_EQ(normalize_path(c.first), c.second) << c.first;
}

TEST(FolderCreate, MakesEveryLevelWithTheModeAndFailsBelowAFile) {
    ScratchDir dir;
    const mode_t saved = ::umask(0);
    EXPECT_EQ(folder_create(dir / "a/b/c//", 0750), 0);
    EXPECT_EQ(folder_create(dir / "a/b", 0700), 0);  // exists: success, mode kept
    ::umask(saved);
    for (const char* level : {"a", "a/b", "a/b/c"}) EXPECT_EQ(mode_of(dir / level), S_IFDIR | 0750) << level;
    ASSERT_TRUE(write_file(dir / "file", "x"));
    EXPECT_EQ(folder_create(dir / "file/sub", 0755), -1);
    EXPECT_EQ(folder_create(dir / "file", 0755), -1);
    EXPECT_EQ(folder_create("", 0755), -1);
    EXPECT_EQ(folder_create("/", 0755), 0);
}

class FileCopy : public ::testing::Test {
protected:
    ScratchDir dir_;
};

TEST_F(FileCopy, CopiesEveryByteAndThePermissions) {
    ASSERT_TRUE(write_file(dir_ / "src", payload(300000)));
    ASSERT_EQ(::chmod((dir_ / "src").c_str(), 0640), 0);
    ASSERT_TRUE(write_file(dir_ / "dst", "older and shorter"));
    EXPECT_EQ(file_copy(dir_ / "src", dir_ / "dst"), 0);
    EXPECT_EQ(read_file(dir_ / "dst"), payload(300000));
    EXPECT_EQ(mode_of(dir_ / "dst"), S_IFREG | 0640);
    EXPECT_EQ(file_copy(dir_ / "dst", dir_ / "dst"), 0);  // onto itself: content kept
    EXPECT_EQ(read_file(dir_ / "dst"), payload(300000));
    EXPECT_EQ(list_names(dir_.path), (Names{"dst", "src"}));
}

TEST_F(FileCopy, FailureLeavesNoTargetAndNoTemporary) {
    ASSERT_TRUE(write_file(dir_ / "src", "data"));
    ASSERT_TRUE(write_file(dir_ / "plain", "a file"));
    ASSERT_EQ(::mkdir((dir_ / "dir").c_str(), 0755), 0);
    EXPECT_EQ(file_copy(dir_ / "absent", dir_ / "dst"), -1);
    EXPECT_EQ(file_copy(dir_ / "src", dir_ / "plain/dst"), -1);    // parent is a file
    EXPECT_EQ(file_copy(dir_ / "src", dir_ / "missing/dst"), -1);  // parent missing
    EXPECT_EQ(file_copy(dir_ / "src", dir_ / "dir"), -1);          // fails at the rename
    EXPECT_EQ(file_copy(dir_ / "dir", dir_ / "dst"), -1);          // a directory is no file
    EXPECT_EQ(list_names(dir_.path), (Names{"dir", "plain", "src"}));
    EXPECT_TRUE(list_names(dir_ / "dir").empty());
}

TEST_F(FileCopy, ReadErrorMidCopyKeepsTheOldTarget) {
    // The open succeeds, then reading address 0 of this process fails: the
    // error strikes while the temporary is being filled.
    ASSERT_TRUE(write_file(dir_ / "dst", "old"));
    EXPECT_EQ(file_copy("/proc/self/mem", dir_ / "dst"), -1);
    EXPECT_EQ(read_file(dir_ / "dst"), "old");
    EXPECT_EQ(list_names(dir_.path), (Names{"dst"}));
}

TEST(FileMove, RenamesOrCopiesAcrossFileSystems) {
    ScratchDir dir;
    ASSERT_TRUE(write_file(dir / "a", "moved"));
    EXPECT_EQ(file_move(dir / "a", dir / "b"), 0);
    EXPECT_EQ(file_move(dir / "a", dir / "b"), -1);  // source gone: target untouched
    EXPECT_EQ(read_file(dir / "b"), "moved");
    struct stat here, shm;
    if (::stat(dir.path.c_str(), &here) || ::stat("/dev/shm", &shm) || here.st_dev == shm.st_dev)
        GTEST_SKIP() << "no second file system at /dev/shm";
    char other[] = "/dev/shm/webchannel-move-XXXXXX";
    ASSERT_NE(::mkdtemp(other), nullptr);
    const std::string source = std::string(other) + "/f";
    ASSERT_TRUE(write_file(source, payload(70000)));
    EXPECT_EQ(file_move(source, dir / "b"), 0);
    EXPECT_TRUE(list_names(other).empty());
    ::rmdir(other);
    EXPECT_EQ(read_file(dir / "b"), payload(70000));
    EXPECT_EQ(list_names(dir.path), (Names{"b"}));
}

class FolderTree : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(folder_create(dir_ / "src/sub/deeper", 0755), 0);
        ASSERT_EQ(folder_create(dir_ / "src/empty", 0755), 0);
        ASSERT_TRUE(write_file(dir_ / "src/top.txt", "top"));
        ASSERT_TRUE(write_file(dir_ / "src/sub/deeper/bin", payload(5000)));
        ASSERT_TRUE(write_file(dir_ / "outside", "survives"));
        ASSERT_EQ(::symlink("sub/deeper/bin", (dir_ / "src/link").c_str()), 0);
        ASSERT_EQ(::symlink("..", (dir_ / "src/sub/up").c_str()), 0);
        ASSERT_EQ(::symlink((dir_ / "outside").c_str(), (dir_ / "src/sub/out").c_str()), 0);
    }
    ScratchDir dir_;
};

TEST_F(FolderTree, CopyReproducesFilesDirectoriesAndLinks) {
    EXPECT_EQ(folder_copy(dir_ / "src", dir_ / "new/copy"), 0);
    EXPECT_EQ(list_names(dir_ / "new/copy"), (Names{"empty", "link", "sub", "top.txt"}));
    EXPECT_EQ(read_file(dir_ / "new/copy/sub/deeper/bin"), payload(5000));
    char target[64] = {};
    ASSERT_GT(::readlink((dir_ / "new/copy/link").c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "sub/deeper/bin");
    EXPECT_TRUE(S_ISLNK(mode_of(dir_ / "new/copy/sub/up")));  // copied, not followed
    EXPECT_EQ(folder_copy(dir_ / "absent", dir_ / "x"), -1);
    EXPECT_EQ(folder_copy(dir_ / "src/top.txt", dir_ / "x"), -1);
    EXPECT_FALSE(path_exists(dir_ / "x"));
}

TEST_F(FolderTree, CopyIntoItsOwnSubdirectoryEnds) {
    EXPECT_EQ(folder_copy(dir_ / "src", dir_ / "src/sub/mirror"), 0);
    EXPECT_EQ(read_file(dir_ / "src/sub/mirror/top.txt"), "top");
    EXPECT_EQ(list_names(dir_ / "src/sub/mirror/sub"), (Names{"deeper", "out", "up"}));
}

TEST_F(FolderTree, RemoveDeletesTheTreeButNothingLinksPointTo) {
    EXPECT_EQ(folder_remove(dir_ / "src/top.txt"), -1);  // not a directory: left alone
    EXPECT_EQ(folder_remove(dir_ / "src/sub/up"), -1);
    EXPECT_EQ(folder_remove(dir_ / "src"), 0);
    EXPECT_EQ(folder_remove(dir_ / "src"), 0);  // already gone
    EXPECT_EQ(list_names(dir_.path), (Names{"outside"}));
    std::string deep = dir_ / "deep";
    for (int i = 0; i < 300; ++i) deep += "/d";
    ASSERT_EQ(folder_create(deep, 0755), 0);
    EXPECT_EQ(folder_remove(dir_ / "deep"), 0);
    EXPECT_EQ(list_names(dir_.path), (Names{"outside"}));
}

TEST(RemoveFile, MissingIsNoErrorOtherFailuresAreLogged) {
    ScratchDir dir;
    UtilityLog log;
    ASSERT_TRUE(write_file(dir / "f", "x"));
    ASSERT_EQ(::mkdir((dir / "d").c_str(), 0755), 0);
    EXPECT_EQ(remove_file(dir / "f/below-a-file"), 0);  // cannot exist
    EXPECT_EQ(remove_file(dir / "f"), 0);
    EXPECT_EQ(remove_file(dir / "f"), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(remove_file(dir / "d"), -1);
    EXPECT_EQ(list_names(dir.path), (Names{"d"}));
    // The message brings its own "\n" and the logger adds one more.
    EXPECT_EQ(log.messages(), (Names{"remove_file: can't delete file \"" + (dir / "d") + "\": Is a directory",
                                     "<bad line> "}));
    EXPECT_EQ(log.text().substr(log.text().size() - 2), "\n\n");
}

TEST(FileTests, FollowLinksExceptPathExists) {
    ScratchDir dir;
    ASSERT_TRUE(write_file(dir / "f", std::string(12345, 'z')));
    ASSERT_EQ(::symlink("nowhere", (dir / "dangling").c_str()), 0);
    EXPECT_TRUE(file_exists(dir / "f") && !folder_exists(dir / "f") && folder_exists(dir.path));
    EXPECT_TRUE(path_exists(dir / "dangling") && !file_exists(dir / "dangling"));
    EXPECT_EQ(get_file_size(dir / "f"), 12345);
    EXPECT_EQ(get_file_size(dir.path), -1);
    EXPECT_EQ(get_file_size(dir / "absent"), -1);
}

}  // namespace

// Digests of local files as isValid, addJob and the batch compute them: the exact lower-case text of any digest
// OpenSSL knows, and nothing for a file or an algorithm that is not there.
#include <gtest/gtest.h>

#include <fstream>

#include "channel/webChannel.h"
#include "support/peers.h"

namespace {

TEST(Digest, IsValidAnswersOneOnlyForTheExactText) {
    webChannel channel;
    const std::string dir = testsupport::tempDir(), file = dir + "/hello", empty = dir + "/empty";
    std::ofstream(file) << "hello";
    std::ofstream{empty};
    const std::string sha1 = "aaf4c61ddcc5e8a2dabede0f3b482cd9aea9434d", md5 = "5d41402abc4b2a76b9719d911017c592";
    const std::string sha512Empty =
        "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a"
        "81a538327af927da3e";
    const std::string crlf = "\r\nX-Injected: 1", md5Crlf = md5 + crlf, md5Name = "md5" + crlf;
    const std::string upperSha1 = "AAF4C61DDCC5E8A2DABEDE0F3B482CD9AEA9434D", missing = dir + "/missing";
    const char *f = file.c_str(), *none = nullptr;
    const std::tuple<const char*, const char*, const char*, int> cases[] = {
        // file, digest, algorithm, valid
        {f, sha1.c_str(), "sha1", 1},
        {empty.c_str(), "d41d8cd98f00b204e9800998ecf8427e", "md5", 1},
        {empty.c_str(), sha512Empty.c_str(), "sha512", 1},
        {f, upperSha1.c_str(), "sha1", 0},  // compared as given, no lower-casing
        {f, sha1.c_str() + 1, "sha1", 0},   // a prefix is not the digest
        {f, md5Crlf.c_str(), "md5", 0},     // nor is more
        {f, md5.c_str(), md5Name.c_str(), 0},
        {none, sha1.c_str(), "sha1", 0},
        {f, none, "sha1", 0},
        {f, sha1.c_str(), none, 0},
        {f, sha1.c_str(), "", 0},
        {missing.c_str(), sha1.c_str(), "sha1", 0},
        // No file or no known digest gives the empty text, which matches only an empty digest.
        {"/nonexistent", "", "md5", 1},
        {f, "", "d\xC3\xA4t\xC3\xA4-\xFF", 1},
        {f, "", "md5", 0},
    };
    for (const auto& [path, digest, algorithm, valid] : cases) {
        SCOPED_TRACE(std::string(digest ? digest : "(null)") + " " + (algorithm ? algorithm : "(null)"));
        EXPECT_EQ(channel.isValid(path, digest, algorithm), valid);
        EXPECT_EQ(channel.isValid_c(path, digest, algorithm), valid);
    }
}

}  // namespace

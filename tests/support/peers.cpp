#include "support/peers.h"

#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>

#ifndef WEBCHANNEL_TEST_ENV
#error "WEBCHANNEL_TEST_ENV (the directory of the test environment) must be defined"
#endif

namespace testsupport {

namespace {

// Records a gtest failure at the caller's test and ends it by throwing
// (gtest reports the exception too). Inside a test body, fixture or
// SetUpTestSuite this fails exactly that test.
[[noreturn]] void failHard(const std::string& message) {
    ADD_FAILURE() << message;
    throw std::runtime_error(message);
}

std::string envFilePath() { return std::string(WEBCHANNEL_TEST_ENV) + "/peers.env"; }

std::unique_ptr<Peers> loadPeers() {
    const std::string path = envFilePath();
    std::ifstream in(path);
    if (!in) {
        failHard("test peers: cannot read " + path +
                 " (it is written by the CTest fixture peers.start; run the tests through ctest, "
                 "or start the peers with scripts/test-peers.sh start " WEBCHANNEL_TEST_ENV ")");
    }
    std::map<std::string, std::string> values;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        const auto eq = line.find('=');
        if (eq == std::string::npos || eq == 0) continue;
        values[line.substr(0, eq)] = line.substr(eq + 1);
    }

    std::string problems;
    auto text = [&](const char* name) -> std::string {
        auto it = values.find(name);
        if (it == values.end() || it->second.empty()) {
            problems += std::string(" ") + name + " missing;";
            return {};
        }
        return it->second;
    };
    auto port = [&](const char* name) -> int {
        const std::string value = text(name);
        if (value.empty()) return 0;
        char* end = nullptr;
        errno = 0;
        const long n = std::strtol(value.c_str(), &end, 10);
        if (errno != 0 || *end != '\0' || n <= 0 || n > 65535) {
            problems += std::string(" ") + name + "='" + value + "' is not a port;";
            return 0;
        }
        return static_cast<int>(n);
    };

    auto p = std::make_unique<Peers>();
    p->httpPort = port("HTTP_PORT");
    p->httpsPort = port("HTTPS_PORT");
    p->squidPort = port("SQUID_PORT");
    p->tinyproxyPort = port("TINYPROXY_PORT");
    p->squidUser = text("SQUID_USER");
    p->squidPassword = text("SQUID_PASSWORD");
    p->tinyproxyUser = text("TINYPROXY_USER");
    p->tinyproxyPassword = text("TINYPROXY_PASSWORD");
    p->authUser = text("AUTH_USER");
    p->authPassword = text("AUTH_PASSWORD");
    p->www = text("WWW");
    p->cert = text("CERT");
    p->key = text("KEY");
    if (!problems.empty()) failHard("test peers: " + path + " is incomplete:" + problems);
    if (p->httpsPort != 443) {
        // URLs for the HTTPS peer leave the port out.
        failHard("test peers: " + path + " says HTTPS_PORT=" + std::to_string(p->httpsPort) + ", expected 443");
    }
    return p;
}

}  // namespace

std::string Peers::httpUrl(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(httpPort) + path;
}

std::string Peers::httpsUrl(const std::string& path) const { return "https://127.0.0.1" + path; }

const Peers& peers() {
    // Loaded once; a failed load is retried (and fails again) for every
    // caller, so each test that needs the peers reports the problem itself.
    static std::mutex mutex;
    static std::unique_ptr<Peers> loaded;
    std::lock_guard<std::mutex> lock(mutex);
    if (!loaded) loaded = loadPeers();
    return *loaded;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) failHard("readFile: cannot open " + path + ": " + std::strerror(errno));
    std::ostringstream out;
    out << in.rdbuf();
    if (in.bad()) failHard("readFile: error reading " + path);
    return out.str();
}

int openDescriptorCount() {
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) failHard(std::string("openDescriptorCount: cannot list /proc/self/fd: ") + std::strerror(errno));
    const int own = dirfd(dir);
    int count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        if (std::atoi(entry->d_name) == own) continue;
        ++count;
    }
    closedir(dir);
    return count;
}

std::string tempDir() {
    std::string base = std::string(WEBCHANNEL_TEST_ENV) + "/tmp";
    // mkdir -p for the (at most two) missing levels.
    for (const std::string& d : {std::string(WEBCHANNEL_TEST_ENV), base}) {
        if (mkdir(d.c_str(), 0755) != 0 && errno != EEXIST) {
            failHard("tempDir: cannot create " + d + ": " + std::strerror(errno));
        }
    }
    // Named after the running test, so what a failed test left behind is
    // easy to find.
    std::string name = "test";
    if (const auto* info = ::testing::UnitTest::GetInstance()->current_test_info()) {
        name = std::string(info->test_suite_name()) + "." + info->name();
    }
    for (char& c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           c == '.' || c == '_' || c == '-';
        if (!plain) c = '_';
    }
    if (name.size() > 100) name.resize(100);
    std::string pattern = base + "/" + name + "-XXXXXX";
    if (!mkdtemp(&pattern[0])) failHard("tempDir: mkdtemp " + pattern + ": " + std::strerror(errno));
    return pattern;
}

}  // namespace testsupport

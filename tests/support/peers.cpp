#include "support/peers.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
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

// Fails the calling test and ends it by throwing: a test that needs what is
// missing never passes silently.
[[noreturn]] void failHard(const std::string& message) {
    ADD_FAILURE() << message;
    throw std::runtime_error(message);
}

std::unique_ptr<Peers> loadPeers() {
    const std::string path = std::string(WEBCHANNEL_TEST_ENV) + "/peers.env";
    std::ifstream in(path);
    if (!in) failHard("test peers: cannot read " + path + " (written by the CTest fixture peers.start)");
    std::map<std::string, std::string> values;
    for (std::string line; std::getline(in, line);) {
        size_t eq = line.find('=');
        if (line.empty() || line[0] == '#' || eq == std::string::npos) continue;
        values[line.substr(0, eq)] = line.substr(eq + 1);
    }
    std::string missing;
    auto text = [&](const char* name) {
        if (values[name].empty()) missing += std::string(" ") + name;
        return values[name];
    };
    auto p = std::make_unique<Peers>();
    p->httpPort = atoi(text("HTTP_PORT").c_str());
    p->httpsPort = atoi(text("HTTPS_PORT").c_str());
    p->squidPort = atoi(text("SQUID_PORT").c_str());
    p->tinyproxyPort = atoi(text("TINYPROXY_PORT").c_str());
    p->squidUser = text("SQUID_USER");
    p->squidPassword = text("SQUID_PASSWORD");
    p->tinyproxyUser = text("TINYPROXY_USER");
    p->tinyproxyPassword = text("TINYPROXY_PASSWORD");
    p->authUser = text("AUTH_USER");
    p->authPassword = text("AUTH_PASSWORD");
    p->www = text("WWW");
    p->cert = text("CERT");
    p->key = text("KEY");
    if (!missing.empty()) failHard("test peers: " + path + " lacks" + missing);
    // URLs for the HTTPS peer leave the port out.
    if (p->httpsPort != 443) failHard("test peers: " + path + " must say HTTPS_PORT=443");
    return p;
}

}  // namespace

std::string Peers::httpUrl(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(httpPort) + path;
}

std::string Peers::httpsUrl(const std::string& path) const {
    return "https://127.0.0.1" + path;
}

const Peers& peers() {
    static std::mutex mutex;
    static std::unique_ptr<Peers> loaded;
    std::lock_guard<std::mutex> lock(mutex);
    if (!loaded) loaded = loadPeers();
    return *loaded;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) failHard("readFile: cannot open " + path + ": " + strerror(errno));
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

int openDescriptorCount() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) failHard(std::string("cannot list /proc/self/fd: ") + strerror(errno));
    int count = 0;
    while (const dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(dir)) ++count;
    closedir(dir);
    return count;
}

std::string tempDir() {
    // Not under the peers' own tmp, which peers.start clears while the unit
    // tests may be running.
    const std::string base = std::string(WEBCHANNEL_TEST_ENV) + "/scratch";
    for (const std::string& d : {std::string(WEBCHANNEL_TEST_ENV), base})
        if (mkdir(d.c_str(), 0755) != 0 && errno != EEXIST) failHard("tempDir: cannot create " + d);
    // Named after the running test, so that what a failed test left is easy to find.
    std::string name = "test";
    if (const auto* info = ::testing::UnitTest::GetInstance()->current_test_info())
        name = std::string(info->test_suite_name()) + "." + info->name();
    for (char& c : name)
        if (!isalnum((unsigned char)c) && c != '.' && c != '_' && c != '-') c = '_';
    std::string pattern = base + "/" + name.substr(0, 100) + "-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) failHard("tempDir: mkdtemp " + pattern + ": " + strerror(errno));
    return pattern;
}

}  // namespace testsupport

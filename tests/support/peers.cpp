#include "support/peers.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace testsupport {
namespace {

// Fails the calling test and ends it by throwing: a test that needs what is missing never passes silently.
[[noreturn]] void failHard(const std::string& message) {
    ADD_FAILURE() << message;
    throw std::runtime_error(message);
}

Peers loadPeers() {
    const std::string path = std::string(WEBCHANNEL_TEST_ENV) + "/peers.env";
    std::ifstream in(path);
    std::map<std::string, std::string> values;
    for (std::string line; std::getline(in, line);)
        if (size_t eq = line.find('='); eq != std::string::npos) values[line.substr(0, eq)] = line.substr(eq + 1);
    for (const char* name :
         {"HTTP_PORT", "SQUID_PORT", "SQUID_USER", "SQUID_PASSWORD", "TINYPROXY_PORT", "TINYPROXY_USER",
          "TINYPROXY_PASSWORD", "WWW", "CERT", "TRUST_CA", "TRUST_DIR", "REDIRECT_PORT", "REDIRECT_LOG", "HOST_PORTS"})
        if (values[name].empty()) failHard("test peers: no " + std::string(name) + " in " + path);
    if (values["HTTPS_PORT"] != "443") failHard("test peers: " + path + " must say HTTPS_PORT=443");
    std::map<std::string, int> tlsPorts;
    for (const auto& [name, value] : values)
        if (name.rfind("TLS_PORT_", 0) == 0) tlsPorts[name.substr(9)] = std::stoi(value);
    std::vector<int> hostPorts;
    std::istringstream ports(values["HOST_PORTS"]);
    for (int port; ports >> port;) hostPorts.push_back(port);
    return {std::stoi(values["HTTP_PORT"]),
            std::stoi(values["SQUID_PORT"]),
            std::stoi(values["TINYPROXY_PORT"]),
            values["SQUID_USER"],
            values["SQUID_PASSWORD"],
            values["TINYPROXY_USER"],
            values["TINYPROXY_PASSWORD"],
            values["WWW"],
            values["CERT"],
            tlsPorts,
            values["TRUST_CA"],
            values["TRUST_DIR"],
            std::stoi(values["REDIRECT_PORT"]),
            values["REDIRECT_LOG"], hostPorts};
}

}  // namespace

const Peers& peers() {
    static const Peers loaded = loadPeers();  // tried again by the next call when it throws
    return loaded;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) failHard("readFile: cannot open " + path + ": " + strerror(errno));
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

int openDescriptorCount() {  // less the one the listing itself holds open
    return (int)std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - 1;
}

std::string tempDir() {
    // Not under the peers' own tmp, which peers.start clears while the unit tests may be running.
    const std::string base = std::string(WEBCHANNEL_TEST_ENV) + "/scratch";
    std::error_code ignored;  // mkdtemp reports a base that could not be made
    std::filesystem::create_directories(base, ignored);
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

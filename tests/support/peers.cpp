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
    auto text = [&](const char* name) -> const std::string& {
        if (values[name].empty()) failHard("test peers: no " + std::string(name) + " in " + path);
        return values[name];
    };
    if (values["HTTPS_PORT"] != "443") failHard("test peers: " + path + " must say HTTPS_PORT=443");
    Peers p;
    p.httpPort = std::stoi(text("HTTP_PORT")), p.squidPort = std::stoi(text("SQUID_PORT"));
    p.tinyproxyPort = std::stoi(text("TINYPROXY_PORT")), p.redirectPort = std::stoi(text("REDIRECT_PORT"));
    p.squidUser = text("SQUID_USER"), p.squidPassword = text("SQUID_PASSWORD");
    p.tinyproxyUser = text("TINYPROXY_USER"), p.tinyproxyPassword = text("TINYPROXY_PASSWORD");
    p.www = text("WWW"), p.cert = text("CERT"), p.trustCa = text("TRUST_CA"), p.trustDir = text("TRUST_DIR");
    p.redirectLog = text("REDIRECT_LOG");
    std::istringstream ports(text("HOST_PORTS"));
    for (std::string port; std::getline(ports, port, ',');) p.hostPorts.push_back(std::stoi(port));
    for (const auto& [name, value] : values)
        if (name.rfind("TLS_PORT_", 0) == 0) p.tlsPorts[name.substr(9)] = std::stoi(value);
    return p;
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

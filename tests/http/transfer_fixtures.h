// Shared by the HTTP transfer tests, on top of the transport helpers: deterministic contents, the
// path of a request, and a handler that answers every request of a connection.
#ifndef WEBCHANNEL_TESTS_HTTP_TRANSFER_FIXTURES_H
#define WEBCHANNEL_TESTS_HTTP_TRANSFER_FIXTURES_H

#include <fstream>
#include <functional>
#include <mutex>
#include <random>

#include "../transport/transport_helpers.h"
#include "support/script_server.h"

namespace transfertest {

using namespace transporttest;
using namespace testsupport;

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// `size` bytes, the same for the same seed: of any value, or letters only for bodies used as C text.
inline std::string pattern(size_t size, unsigned seed, bool letters = false) {
    std::string text(size, '\0');
    std::mt19937 random(seed);
    for (char& c : text) c = letters ? (char)('a' + random() % 26) : (char)(random() & 0xff);
    return text;
}

inline std::string hostOf(const ScriptServer& server) {
    return "127.0.0.1:" + std::to_string(server.port());
}

// The path a raw request asks for, also when its line names the absolute URL.
inline std::string requestPath(const std::string& request) {
    const size_t first = request.find(' '), second = request.find(' ', first + 1);
    if (second == std::string::npos) return "";
    const std::string target = request.substr(first + 1, second - first - 1);
    return target.rfind("http://", 0) == 0 ? target.substr(std::min(target.find('/', 7), target.size())) : target;
}

// Answers every request of a connection with respond(request), at most 100.
inline ScriptServer::Handler serveEach(std::function<std::string(const std::string&)> respond) {
    return [respond](ServerConnection& connection) {
        for (int i = 0; i < 100; ++i) {
            const std::string request = connection.readRequest();
            if (request.empty() || !connection.send(respond(request))) return;
        }
    };
}

}  // namespace transfertest

#endif

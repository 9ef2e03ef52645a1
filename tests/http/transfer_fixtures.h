// Shared pieces of the HTTP transfer tests: a channel with a short time-out,
// file helpers, deterministic contents and small scripted-server handlers.
#ifndef WEBCHANNEL_TESTS_HTTP_TRANSFER_FIXTURES_H
#define WEBCHANNEL_TESTS_HTTP_TRANSFER_FIXTURES_H

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "channel/webChannel.h"
#include "support/peers.h"
#include "support/script_server.h"

namespace transfertest {

// A channel as a host sets it up: one worker, and a transfer time-out of
// one second so that stalls end quickly.
class ChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(channel.init(1), 0);
        channel.setParam(kParamTimeout, "1", true);
    }

    std::string memoryResult(long long* length = nullptr) { return channel.httpResponse(length); }

    webChannel channel;
};

inline bool fileExists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), (std::streamsize)content.size());
    ASSERT_TRUE(out.good()) << "cannot write " << path;
}

// `size` bytes of every value, the same for the same seed.
inline std::string pattern(size_t size, unsigned seed = 1) {
    std::string text(size, '\0');
    std::mt19937 random(seed);
    for (char& c : text) c = (char)(random() & 0xff);
    return text;
}

// `size` printable bytes (no NUL), for in-memory bodies read as C text.
inline std::string letters(size_t size) {
    std::string text(size, 'a');
    for (size_t i = 0; i < size; ++i) text[i] = (char)('a' + i % 26);
    return text;
}

// The request target of a raw request ("GET <target> HTTP/1.1").
inline std::string requestTarget(const std::string& request) {
    size_t first = request.find(' ');
    if (first == std::string::npos) return "";
    size_t second = request.find(' ', first + 1);
    if (second == std::string::npos) return "";
    return request.substr(first + 1, second - first - 1);
}

// The byte range a request asks for ("Range: bytes=a-b"); false if none.
inline bool requestedRange(const std::string& request, long long& first, long long& last) {
    size_t at = request.find("\r\nRange: bytes=");
    if (at == std::string::npos) return false;
    return sscanf(request.c_str() + at, "\r\nRange: bytes=%lld-%lld", &first, &last) == 2;
}

// A handler that answers every request of a connection with respond(request)
// until the client closes or respond gives "" (then the connection closes).
inline testsupport::ScriptServer::Handler serveEach(std::function<std::string(const std::string&)> respond) {
    return [respond](testsupport::ServerConnection& connection) {
        for (int i = 0; i < 100; ++i) {
            std::string request = connection.readRequest();
            if (request.empty()) return;
            std::string answer = respond(request);
            if (answer.empty() || !connection.send(answer)) return;
        }
    };
}

// A one-shot signal between the client's thread and a server handler.
class Signal {
public:
    void raise() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_raised = true;
        m_changed.notify_all();
    }
    bool wait(int seconds) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(seconds), [this] { return m_raised; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_raised = false;
};

// A port on 127.0.0.1 that is bound but not listening: connecting to it is
// refused at once.
class RefusingPort {
public:
    RefusingPort() {
        m_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (m_socket >= 0 && ::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            m_port = ntohs(address.sin_port);
    }
    ~RefusingPort() {
        if (m_socket >= 0) ::close(m_socket);
    }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;
    int port() const { return m_port; }
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(m_port) + path; }

private:
    int m_socket = -1;
    int m_port = 0;
};

inline double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace transfertest

#endif

#include "support/script_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <stdexcept>

namespace testsupport {
namespace {

// The longest single poll: the stop flag is seen at least this often.
constexpr int kTickMillis = 100;
constexpr int kSendStallMillis = 10000;
constexpr int kLingerMillis = 2000;

long long nowMillis() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Waits for `events` on fd until the deadline or the server stops.
bool waitFor(int fd, short events, long long deadline, const ServerState& state) {
    while (fd >= 0 && !state.stopping.load()) {
        long long left = deadline - nowMillis();
        if (left <= 0) return false;
        pollfd p{fd, events, 0};
        int r = ::poll(&p, 1, (int)std::min<long long>(left, kTickMillis));
        if (r > 0) return (p.revents & events) != 0 || (p.revents & (POLLERR | POLLHUP)) != 0;
        if (r < 0 && errno != EINTR) return false;
    }
    return false;
}

size_t contentLength(const std::string& head) {
    std::string lower(head);
    for (char& c : lower) c = (char)tolower((unsigned char)c);
    size_t at = lower.find("\r\ncontent-length:");
    return at == std::string::npos ? 0 : strtoul(head.c_str() + at + 17, nullptr, 10);
}

}  // namespace

ServerConnection::~ServerConnection() {
    if (fd_ >= 0) ::close(fd_);
}

bool ServerConnection::fill(long long deadline) {
    char chunk[65536];
    for (;;) {
        if (fd_ < 0) return false;
        ssize_t n = ::recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n > 0) return buffer_.append(chunk, (size_t)n), true;
        if (n == 0 || (errno != EAGAIN && errno != EINTR)) return false;
        if (!waitFor(fd_, POLLIN, deadline, state_)) return false;
    }
}

std::string ServerConnection::take(size_t length, bool log) {
    std::string out = buffer_.substr(0, length);
    buffer_.erase(0, length);
    if (log) {
        std::lock_guard<std::mutex> lock(state_.mutex);
        state_.requests.push_back(out);
    }
    return out;
}

std::string ServerConnection::readHead(int timeoutMillis) {
    const long long deadline = nowMillis() + timeoutMillis;
    size_t blank;
    while ((blank = buffer_.find("\r\n\r\n")) == std::string::npos)
        if (!fill(deadline)) return "";
    return take(blank + 4, true);
}

std::string ServerConnection::readRequest(int timeoutMillis) {
    const long long deadline = nowMillis() + timeoutMillis;
    size_t blank;
    while ((blank = buffer_.find("\r\n\r\n")) == std::string::npos)
        if (!fill(deadline)) return "";
    size_t total = blank + 4 + contentLength(buffer_.substr(0, blank + 2));
    while (buffer_.size() < total)
        if (!fill(deadline)) return "";
    return take(total, true);
}

std::string ServerConnection::readBytes(size_t n, int timeoutMillis) {
    const long long deadline = nowMillis() + timeoutMillis;
    while (buffer_.size() < n && fill(deadline)) {
    }
    return take(std::min(n, buffer_.size()), false);
}

bool ServerConnection::send(std::string_view bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        if (fd_ < 0 || state_.stopping.load()) return false;
        ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += (size_t)n;
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (!waitFor(fd_, POLLOUT, nowMillis() + kSendStallMillis, state_)) return false;
        } else {
            return false;
        }
    }
    return true;
}

bool ServerConnection::sendPieces(std::string_view bytes, const std::vector<size_t>& cuts, int gapMillis) {
    size_t from = 0;
    for (size_t i = 0; i <= cuts.size(); ++i) {
        size_t to = i < cuts.size() ? cuts[i] : bytes.size();
        if (to <= from || to > bytes.size()) continue;
        if (from > 0) ::poll(nullptr, 0, gapMillis);  // a pause between pieces
        if (state_.stopping.load() || !send(bytes.substr(from, to - from))) return false;
        from = to;
    }
    return true;
}

void ServerConnection::reset() {
    if (fd_ < 0) return;
    tally("resets");
    linger l{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    std::lock_guard<std::mutex> lock(fdMutex_);
    ::close(fd_);
    fd_ = -1;
}

void ServerConnection::close() {
    if (fd_ < 0) return;
    ::shutdown(fd_, SHUT_WR);
    // Unread input at close makes the kernel send a reset, which can destroy
    // answer bytes the client has not read yet: drain it first.
    const long long deadline = nowMillis() + kLingerMillis;
    char sink[65536];
    for (bool draining = false;;) {
        ssize_t n = ::recv(fd_, sink, sizeof sink, MSG_DONTWAIT);
        if (n > 0) {
            draining = true;
            continue;
        }
        if (n == 0 || (errno != EAGAIN && errno != EINTR) || !draining) break;
        if (!waitFor(fd_, POLLIN, std::min(deadline, nowMillis() + kTickMillis), state_)) break;
    }
    std::lock_guard<std::mutex> lock(fdMutex_);
    ::close(fd_);
    fd_ = -1;
}

bool ServerConnection::stall(int maxSeconds) {
    tally("stalls");
    // Only a FIN or a reset ends the wait, not pending input.
    return waitFor(fd_, POLLRDHUP, nowMillis() + 1000LL * maxSeconds, state_) && !state_.stopping.load();
}

void ServerConnection::shutdownForStop() {
    std::lock_guard<std::mutex> lock(fdMutex_);
    if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
}

ScriptServer::ScriptServer(Handler handler) : handler_(std::move(handler)) {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listenFd_ < 0 || ::bind(listenFd_, (sockaddr*)&address, sizeof address) != 0 || ::listen(listenFd_, 128) != 0 ||
        ::getsockname(listenFd_, (sockaddr*)&address, &length) != 0)
        throw std::runtime_error(std::string("ScriptServer: cannot listen on 127.0.0.1: ") + strerror(errno));
    port_ = ntohs(address.sin_port);
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

ScriptServer::~ScriptServer() {
    state_.stopping.store(true);
    acceptThread_.join();
    ::close(listenFd_);
    for (Worker& worker : workers_) worker.connection->shutdownForStop();
    for (Worker& worker : workers_) worker.thread.join();
}

void ScriptServer::acceptLoop() {
    while (!state_.stopping.load()) {
        // Handlers that are done are joined, so long runs do not pile up threads.
        for (auto it = workers_.begin(); it != workers_.end();)
            if (it->done.load()) it->thread.join(), it = workers_.erase(it);
            else ++it;
        if (!waitFor(listenFd_, POLLIN, nowMillis() + kTickMillis, state_)) continue;
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        Worker& worker = workers_.emplace_back();
        // Counted before the handler runs, so that a test that saw the answer sees the count.
        worker.connection = std::make_unique<ServerConnection>(fd, accepted_.fetch_add(1), state_);
        tally("connections");
        worker.thread = std::thread([this, &worker] {
            try {
                handler_(*worker.connection);
            } catch (const std::exception& e) {
                ADD_FAILURE() << "ScriptServer handler threw: " << e.what();
            }
            worker.connection->close();
            worker.done.store(true);
        });
    }
}

std::string ScriptServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<std::string> ScriptServer::requests() const {
    std::lock_guard<std::mutex> lock(state_.mutex);
    return state_.requests;
}

void tally(const char* what, uint64_t amount) {
    struct Tally {
        std::mutex mutex;
        std::map<std::string, uint64_t> counts;
        ~Tally() {
            std::string line;
            for (const auto& [name, count] : counts) line += (line.empty() ? " " : ", ") + std::to_string(count) + " " + name;
            if (!line.empty()) fprintf(stderr, "tally:%s\n", line.c_str());
        }
    };
    static Tally tally;
    std::lock_guard<std::mutex> lock(tally.mutex);
    tally.counts[what] += amount;
}

std::string httpResponse(int code, const std::string& body, const std::string& extraHeaders) {
    static const std::map<int, const char*> kReasons = {
        {200, "OK"},    {206, "Partial Content"},    {301, "Moved Permanently"}, {302, "Found"},
        {303, "See Other"}, {307, "Temporary Redirect"}, {308, "Permanent Redirect"}, {404, "Not Found"},
        {407, "Proxy Authentication Required"}, {500, "Internal Server Error"}};
    auto reason = kReasons.find(code);
    std::string out = "HTTP/1.1 " + std::to_string(code) + " " + (reason != kReasons.end() ? reason->second : "Status") +
                      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + extraHeaders;
    if (!extraHeaders.empty() && extraHeaders.back() != '\n') out += "\r\n";
    return out + "\r\n" + body;
}

std::string chunkedBody(const std::vector<std::string>& chunks) {
    std::string out;
    char size[32];
    for (const std::string& chunk : chunks) {
        if (chunk.empty()) continue;
        snprintf(size, sizeof size, "%zx\r\n", chunk.size());
        out += size + chunk + "\r\n";
    }
    return out + "0\r\n\r\n";
}

}  // namespace testsupport

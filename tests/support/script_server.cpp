#include "support/script_server.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace testsupport {
namespace {

long long nowMillis() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Whether `events` (or an error or hang-up, as the server's shutdown causes) came on fd before the deadline.
bool waitFor(int fd, short events, long long deadline) {
    pollfd p{fd, events, 0};
    return fd >= 0 && ::poll(&p, 1, (int)std::max(0LL, deadline - nowMillis())) > 0;
}

}  // namespace

ServerConnection::~ServerConnection() {
    if (fd_ >= 0) ::close(fd_);
}

bool ServerConnection::fill(long long deadline) {
    char chunk[65536];
    if (!waitFor(fd_, POLLIN, deadline)) return false;
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n > 0) buffer_.append(chunk, (size_t)n);
    return n > 0 || (n < 0 && errno == EAGAIN);
}

std::string ServerConnection::take(size_t length) {
    std::string out = buffer_.substr(0, length);
    buffer_.erase(0, length);
    return out;
}

std::string ServerConnection::readMessage(int timeoutMillis, bool withBody) {
    const long long deadline = nowMillis() + timeoutMillis;
    size_t end;
    while ((end = buffer_.find("\r\n\r\n")) == std::string::npos)
        if (!fill(deadline)) return "";
    std::string head = buffer_.substr(0, end += 4);
    for (char& c : head) c = (char)tolower((unsigned char)c);
    if (size_t at = head.find("\r\ncontent-length:"); withBody && at != std::string::npos)
        end += strtoul(&head[at + 17], nullptr, 10);
    while (buffer_.size() < end)
        if (!fill(deadline)) return "";
    std::lock_guard<std::mutex> lock(state_.mutex);
    return state_.requests.emplace_back(take(end));
}

std::string ServerConnection::readHead(int timeoutMillis) { return readMessage(timeoutMillis, false); }
std::string ServerConnection::readRequest(int timeoutMillis) { return readMessage(timeoutMillis, true); }

std::string ServerConnection::readBytes(size_t n, int timeoutMillis) {
    const long long deadline = nowMillis() + timeoutMillis;
    while (buffer_.size() < n && fill(deadline)) {
    }
    return take(std::min(n, buffer_.size()));
}

bool ServerConnection::send(std::string_view bytes) {
    for (ssize_t n = 0; !bytes.empty(); bytes.remove_prefix((size_t)n))
        if (state_.stopping.load() || (n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL)) <= 0) return false;
    return true;
}

bool ServerConnection::sendPieces(std::string_view bytes, const std::vector<size_t>& cuts, int gapMillis) {
    size_t from = 0;
    for (size_t cut : cuts) {
        if (cut <= from || cut > bytes.size()) continue;
        if (!send(bytes.substr(from, cut - from))) return false;
        ::poll(nullptr, 0, gapMillis);
        from = cut;
    }
    return send(bytes.substr(from));
}

void ServerConnection::reset() {
    std::lock_guard<std::mutex> lock(fdMutex_);
    linger l{1, 0};
    if (fd_ >= 0) ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &l, sizeof l), ::close(fd_);
    fd_ = -1;
}

void ServerConnection::close() {
    if (fd_ < 0) return;
    ::shutdown(fd_, SHUT_WR);
    // Drains what keeps arriving, waiting at most 100 ms for more each time and 2 s in all.
    char sink[65536];
    for (const long long end = nowMillis() + 2000; ::recv(fd_, sink, sizeof sink, MSG_DONTWAIT) > 0;)
        if (!waitFor(fd_, POLLIN, std::min(end, nowMillis() + 100))) break;
    std::lock_guard<std::mutex> lock(fdMutex_);
    ::close(fd_);
    fd_ = -1;
}

bool ServerConnection::stall(int maxSeconds) {
    // Only a FIN or a reset ends the wait, not pending input.
    return waitFor(fd_, POLLRDHUP, nowMillis() + 1000LL * maxSeconds) && !state_.stopping.load();
}

void ServerConnection::shutdownForStop() {
    std::lock_guard<std::mutex> lock(fdMutex_);
    if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
}

ScriptServer::ScriptServer(Handler handler) : handler_(std::move(handler)) {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    if (listenFd_ < 0 || ::bind(listenFd_, (sockaddr*)&address, sizeof address) != 0 || ::listen(listenFd_, 128) != 0 ||
        ::getsockname(listenFd_, (sockaddr*)&address, &length) != 0)
        throw std::runtime_error(std::string("ScriptServer: cannot listen on 127.0.0.1: ") + strerror(errno));
    port_ = ntohs(address.sin_port);
    acceptThread_ = std::thread([this] {
        // Ends when the destructor shuts the listening socket down.
        for (int fd; (fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0 || errno == EINTR;) {
            if (fd < 0) continue;
            const int one = 1;
            const timeval sendTimeout{10, 0};  // a client that takes nothing for 10 s fails the send
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
            // Counted before the handler runs, so that a test that saw the answer sees the count.
            ServerConnection* c = new ServerConnection(fd, accepted_.fetch_add(1), state_);
            connections_.emplace_back(c);
            handlers_.emplace_back([this, c] { handler_(*c), c->close(); });
        }
    });
}

ScriptServer::~ScriptServer() {
    state_.stopping.store(true);
    ::shutdown(listenFd_, SHUT_RDWR);
    acceptThread_.join();
    ::close(listenFd_);
    for (auto& c : connections_) c->shutdownForStop();
    for (std::thread& handler : handlers_) handler.join();
}

std::string ScriptServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<std::string> ScriptServer::requests() const {
    std::lock_guard<std::mutex> lock(state_.mutex);
    return state_.requests;
}

std::string httpResponse(int code, const std::string& body, const std::string& extraHeaders) {
    const char* reason = code == 200 ? "OK" : code == 206 ? "Partial Content" : code == 404 ? "Not Found" : "Status";
    std::string out = "HTTP/1.1 " + std::to_string(code) + " " + reason +
                      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + extraHeaders;
    if (!extraHeaders.empty() && extraHeaders.back() != '\n') out += "\r\n";
    return out + "\r\n" + body;
}

std::string chunkedBody(const std::vector<std::string>& chunks) {
    std::string out;
    char size[32];
    for (const std::string& chunk : chunks) {
        snprintf(size, sizeof size, "%zx\r\n", chunk.size());
        if (!chunk.empty()) out += size + chunk + "\r\n";
    }
    return out + "0\r\n\r\n";
}

}  // namespace testsupport

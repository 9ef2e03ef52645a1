#include "support/script_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace testsupport {

namespace detail {

// State shared by the server and its connections.
struct ServerShared {
    // Serialises closing a connection's descriptor (handler thread) against
    // shutting it down from the destructor, so the destructor never touches
    // a descriptor number that was closed and reused meanwhile.
    std::mutex fdMutex;

    // Guards `requests` and the `done` flags; stopCv wakes pauses in
    // sendPieces and the destructor's wait for handlers.
    mutable std::mutex mutex;
    std::condition_variable stopCv;
    std::atomic<bool> stopping{false};
    std::vector<std::string> requests;
};

}  // namespace detail

namespace {

using Clock = std::chrono::steady_clock;

// Longest single wait inside poll(): the stop flag is re-checked this often
// even if no shutdown() reaches a blocked call.
constexpr int kTickMillis = 250;
// A send that makes no progress for this long fails.
constexpr int kSendStallMillis = 10000;
// How long a closing connection keeps dropping what the client still sends.
constexpr int kLingerMillis = 2000;
constexpr int kLingerIdleMillis = 100;
// How long the destructor waits for handlers after shutting them down.
constexpr int kJoinMillis = 20000;

long long nowMillis() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

// How the body after a request head is delimited.
struct Framing {
    bool chunked = false;
    size_t contentLength = 0;
};

Framing framingOf(std::string_view head) {
    Framing f;
    size_t pos = head.find("\r\n");  // skip the request line
    while (pos != std::string_view::npos && pos + 2 < head.size()) {
        const size_t start = pos + 2;
        const size_t end = head.find("\r\n", start);
        const std::string_view line = head.substr(start, end == std::string_view::npos ? end : end - start);
        pos = end;
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view name = trim(line.substr(0, colon));
        const std::string_view value = trim(line.substr(colon + 1));
        if (equalsIgnoreCase(name, "content-length")) {
            size_t n = 0;
            for (char c : value) {
                if (c < '0' || c > '9') break;
                n = n * 10 + static_cast<size_t>(c - '0');
            }
            f.contentLength = n;
        } else if (equalsIgnoreCase(name, "transfer-encoding")) {
            std::string lower(value);
            for (char& c : lower) {
                if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
            }
            if (lower.find("chunked") != std::string::npos) f.chunked = true;
        }
    }
    return f;
}

constexpr size_t kIncomplete = std::string::npos;

// End offset of a chunked body (last chunk and trailers included) starting
// at `start`, or kIncomplete. A malformed size line ends the body where the
// data ends, so the request is still returned (and logged) as received.
size_t chunkedEnd(const std::string& data, size_t start) {
    size_t pos = start;
    for (;;) {
        const size_t eol = data.find("\r\n", pos);
        if (eol == std::string::npos) return kIncomplete;
        size_t size = 0;
        size_t digits = 0;
        for (size_t i = pos; i < eol; ++i, ++digits) {
            const char c = data[i];
            int v;
            if (c >= '0' && c <= '9') {
                v = c - '0';
            } else if (c >= 'a' && c <= 'f') {
                v = c - 'a' + 10;
            } else if (c >= 'A' && c <= 'F') {
                v = c - 'A' + 10;
            } else {
                break;  // extensions, blanks
            }
            if (size > (SIZE_MAX >> 4)) return data.size();
            size = size * 16 + static_cast<size_t>(v);
        }
        if (digits == 0) return data.size();
        pos = eol + 2;
        if (size == 0) {
            // Trailer fields, then the blank line.
            for (;;) {
                const size_t end = data.find("\r\n", pos);
                if (end == std::string::npos) return kIncomplete;
                if (end == pos) return end + 2;
                pos = end + 2;
            }
        }
        if (data.size() < pos + size + 2) return kIncomplete;
        pos += size + 2;
    }
}

const char* reasonPhrase(int code) {
    switch (code) {
        case 100: return "Continue";
        case 101: return "Switching Protocols";
        case 200: return "OK";
        case 201: return "Created";
        case 202: return "Accepted";
        case 204: return "No Content";
        case 206: return "Partial Content";
        case 301: return "Moved Permanently";
        case 302: return "Found";
        case 303: return "See Other";
        case 304: return "Not Modified";
        case 307: return "Temporary Redirect";
        case 308: return "Permanent Redirect";
        case 400: return "Bad Request";
        case 401: return "Unauthorized";
        case 403: return "Forbidden";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 407: return "Proxy Authentication Required";
        case 408: return "Request Timeout";
        case 411: return "Length Required";
        case 413: return "Content Too Large";
        case 416: return "Range Not Satisfiable";
        case 417: return "Expectation Failed";
        case 429: return "Too Many Requests";
        case 500: return "Internal Server Error";
        case 501: return "Not Implemented";
        case 502: return "Bad Gateway";
        case 503: return "Service Unavailable";
        case 504: return "Gateway Timeout";
        default: return "Status";
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// ServerConnection

ServerConnection::ServerConnection(int fd, int index, std::shared_ptr<detail::ServerShared> shared)
    : fd_(fd), index_(index), shared_(std::move(shared)) {}

ServerConnection::~ServerConnection() {
    if (fd_ >= 0) ::close(fd_);
}

bool ServerConnection::isOpen() const { return fd_ >= 0; }

bool ServerConnection::waitFor(short events, long long deadlineMillis) {
    for (;;) {
        if (fd_ < 0 || shared_->stopping.load()) return false;
        const long long left = deadlineMillis - nowMillis();
        if (left <= 0) return false;
        pollfd p{fd_, events, 0};
        const int r = ::poll(&p, 1, static_cast<int>(std::min<long long>(left, kTickMillis)));
        if (r > 0) return true;  // ready, or an error the next call will report
        if (r < 0 && errno != EINTR) return false;
    }
}

bool ServerConnection::fill(long long deadlineMillis) {
    char chunk[65536];
    for (;;) {
        if (fd_ < 0) return false;
        const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n > 0) {
            buffer_.append(chunk, static_cast<size_t>(n));
            return true;
        }
        if (n == 0) return false;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
        if (!waitFor(POLLIN, deadlineMillis)) return false;
    }
}

std::string ServerConnection::readHead(int timeoutMillis) {
    const long long deadline = nowMillis() + timeoutMillis;
    size_t scanned = 0;
    for (;;) {
        const size_t blank = buffer_.find("\r\n\r\n", scanned);
        if (blank != std::string::npos) {
            std::string head = buffer_.substr(0, blank + 4);
            buffer_.erase(0, blank + 4);
            std::lock_guard<std::mutex> lock(shared_->mutex);
            shared_->requests.push_back(head);
            return head;
        }
        scanned = buffer_.size() < 3 ? 0 : buffer_.size() - 3;
        if (!fill(deadline)) return "";
    }
}

std::string ServerConnection::readRequest(int timeoutMillis) {
    const long long deadline = nowMillis() + timeoutMillis;
    size_t scanned = 0;
    size_t headLength = 0;
    for (;;) {
        const size_t blank = buffer_.find("\r\n\r\n", scanned);
        if (blank != std::string::npos) {
            headLength = blank + 4;
            break;
        }
        scanned = buffer_.size() < 3 ? 0 : buffer_.size() - 3;
        if (!fill(deadline)) return "";
    }
    const Framing framing = framingOf(std::string_view(buffer_).substr(0, headLength));
    size_t total = headLength;
    if (framing.chunked) {
        for (;;) {
            const size_t end = chunkedEnd(buffer_, headLength);
            if (end != kIncomplete) {
                total = end;
                break;
            }
            if (!fill(deadline)) return "";
        }
    } else if (framing.contentLength > 0) {
        total = headLength + framing.contentLength;
        while (buffer_.size() < total) {
            if (!fill(deadline)) return "";
        }
    }
    std::string request = buffer_.substr(0, total);
    buffer_.erase(0, total);
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->requests.push_back(request);
    return request;
}

std::string ServerConnection::readBytes(size_t n, int timeoutMillis) {
    const long long deadline = nowMillis() + timeoutMillis;
    while (buffer_.size() < n) {
        if (!fill(deadline)) break;
    }
    const size_t take = std::min(n, buffer_.size());
    std::string out = buffer_.substr(0, take);
    buffer_.erase(0, take);
    return out;
}

bool ServerConnection::send(std::string_view bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        if (fd_ < 0 || shared_->stopping.load()) return false;
        const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!waitFor(POLLOUT, nowMillis() + kSendStallMillis)) return false;
            continue;
        }
        return false;
    }
    return true;
}

bool ServerConnection::sendPieces(std::string_view bytes, const std::vector<size_t>& cuts, int gapMillis) {
    std::vector<size_t> bounds{0};
    for (size_t cut : cuts) {
        if (cut > bounds.back() && cut < bytes.size()) bounds.push_back(cut);
    }
    bounds.push_back(bytes.size());
    for (size_t i = 0; i + 1 < bounds.size(); ++i) {
        if (i > 0 && gapMillis > 0) {
            // A pause the destructor can cut short.
            std::unique_lock<std::mutex> lock(shared_->mutex);
            shared_->stopCv.wait_for(lock, std::chrono::milliseconds(gapMillis),
                                     [this] { return shared_->stopping.load(); });
            if (shared_->stopping.load()) return false;
        }
        if (!send(bytes.substr(bounds[i], bounds[i + 1] - bounds[i]))) return false;
    }
    return true;
}

void ServerConnection::reset() {
    if (fd_ < 0) return;
    tally("resets");
    linger l{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    std::lock_guard<std::mutex> lock(shared_->fdMutex);
    ::close(fd_);
    fd_ = -1;
}

void ServerConnection::close() {
    if (fd_ < 0) return;
    // FIN right away; the client sees the end of the response now.
    ::shutdown(fd_, SHUT_WR);
    // Closing with unread input makes the kernel answer with RST, which can
    // destroy response bytes the client has not read yet. Drop what is
    // pending, and keep doing so while more keeps arriving (an upload in
    // progress), within a bounded time.
    const long long deadline = nowMillis() + kLingerMillis;
    bool draining = false;
    char sink[65536];
    for (;;) {
        const ssize_t n = ::recv(fd_, sink, sizeof sink, MSG_DONTWAIT);
        if (n > 0) {
            draining = true;
            continue;
        }
        if (n == 0) break;  // the client closed too
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) break;
        if (!draining) break;
        const long long left = deadline - nowMillis();
        if (left <= 0) break;
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(std::min<long long>(left, kLingerIdleMillis))) <= 0) break;
    }
    std::lock_guard<std::mutex> lock(shared_->fdMutex);
    ::close(fd_);
    fd_ = -1;
}

bool ServerConnection::stall(int maxSeconds) {
    tally("stalls");
    const long long deadline = nowMillis() + 1000LL * maxSeconds;
    for (;;) {
        if (fd_ < 0 || shared_->stopping.load()) return false;
        const long long left = deadline - nowMillis();
        if (left <= 0) return false;
        // Only POLLRDHUP is asked for: pending input (POLLIN) must not end
        // the wait, a FIN or RST from the client must.
        pollfd p{fd_, POLLRDHUP, 0};
        const int r = ::poll(&p, 1, static_cast<int>(std::min<long long>(left, kTickMillis)));
        if (r > 0) return !shared_->stopping.load();
        if (r < 0 && errno != EINTR) return false;
    }
}

void ServerConnection::shutdownForStop() {
    std::lock_guard<std::mutex> lock(shared_->fdMutex);
    if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
}

// ---------------------------------------------------------------------------
// ScriptServer

struct ScriptServer::Worker {
    std::unique_ptr<ServerConnection> connection;
    std::thread thread;
    std::atomic<bool> done{false};
};

ScriptServer::ScriptServer(Handler handler)
    : handler_(std::move(handler)), shared_(std::make_shared<detail::ServerShared>()) {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0) throw std::runtime_error(std::string("ScriptServer: socket: ") + std::strerror(errno));
    const int one = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listenFd_, 128) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        const std::string error = std::strerror(errno);
        ::close(listenFd_);
        throw std::runtime_error("ScriptServer: cannot listen on 127.0.0.1: " + error);
    }
    port_ = ntohs(addr.sin_port);
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        const std::string error = std::strerror(errno);
        ::close(listenFd_);
        throw std::runtime_error("ScriptServer: eventfd: " + error);
    }
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

ScriptServer::~ScriptServer() {
    {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->stopping.store(true);
    }
    shared_->stopCv.notify_all();
    const uint64_t one = 1;
    if (::write(wakeFd_, &one, sizeof one) < 0) {
        // The accept loop also notices `stopping` within one tick.
    }
    acceptThread_.join();
    ::close(listenFd_);
    ::close(wakeFd_);

    // Only this thread touches workers_ now.
    for (auto& worker : workers_) worker->connection->shutdownForStop();
    {
        std::unique_lock<std::mutex> lock(shared_->mutex);
        const bool finished =
            shared_->stopCv.wait_for(lock, std::chrono::milliseconds(kJoinMillis), [this] {
                return std::all_of(workers_.begin(), workers_.end(), [](const auto& w) { return w->done.load(); });
            });
        if (!finished) {
            std::fprintf(stderr,
                         "ScriptServer on port %d: a connection handler did not return within %d ms after the "
                         "server was destroyed; aborting instead of hanging\n",
                         port_, kJoinMillis);
            std::fflush(stderr);
            std::abort();
        }
    }
    reapFinished(true);
}

void tally(const char* what, uint64_t amount) {
    struct Tally {
        std::mutex mutex;
        std::vector<std::pair<std::string, uint64_t>> counts;
        ~Tally() {
            std::string line;
            for (const auto& [name, count] : counts) line += " " + std::to_string(count) + " " + name + ",";
            if (!line.empty()) std::fprintf(stderr, "tally:%s\n", line.substr(0, line.size() - 1).c_str());
        }
    };
    static Tally tally;
    std::lock_guard<std::mutex> lock(tally.mutex);
    auto it = std::find_if(tally.counts.begin(), tally.counts.end(), [&](const auto& c) { return c.first == what; });
    if (it == tally.counts.end()) it = tally.counts.insert(tally.counts.end(), {what, 0});
    it->second += amount;
}

std::string ScriptServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<std::string> ScriptServer::requests() const {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->requests;
}

int ScriptServer::connections() const { return accepted_.load(); }

void ScriptServer::reapFinished(bool all) {
    for (auto it = workers_.begin(); it != workers_.end();) {
        if (all || (*it)->done.load()) {
            if ((*it)->thread.joinable()) (*it)->thread.join();
            it = workers_.erase(it);
        } else {
            ++it;
        }
    }
}

void ScriptServer::acceptLoop() {
    while (!shared_->stopping.load()) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        const int r = ::poll(fds, 2, kTickMillis);
        // Join handlers that are done, so long tests do not pile up threads.
        reapFinished(false);
        if (r <= 0) continue;
        if (fds[1].revents != 0) break;
        if (!(fds[0].revents & POLLIN)) continue;

        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                ::poll(nullptr, 0, 10);  // out of resources: do not spin
            }
            continue;
        }
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

        auto worker = std::make_unique<Worker>();
        // Counted before the handler runs, so that a test reading
        // connections() after the handler's answer always sees it.
        worker->connection.reset(new ServerConnection(fd, accepted_.fetch_add(1), shared_));
        tally("connections");
        Worker* w = worker.get();
        try {
            w->thread = std::thread([this, w] {
                try {
                    handler_(*w->connection);
                } catch (const std::exception& e) {
                    ADD_FAILURE() << "ScriptServer handler (connection " << w->connection->index()
                                  << ") threw: " << e.what();
                } catch (...) {
                    ADD_FAILURE() << "ScriptServer handler (connection " << w->connection->index()
                                  << ") threw a non-standard exception";
                }
                if (w->connection->isOpen()) w->connection->close();
                {
                    std::lock_guard<std::mutex> lock(shared_->mutex);
                    w->done.store(true);
                }
                shared_->stopCv.notify_all();
            });
        } catch (const std::system_error& e) {
            std::fprintf(stderr, "ScriptServer: cannot start a handler thread: %s\n", e.what());
            continue;  // the connection is closed with its object
        }
        workers_.push_back(std::move(worker));
    }
}

// ---------------------------------------------------------------------------

std::string httpResponse(int code, const std::string& body, const std::string& extraHeaders) {
    std::string out = "HTTP/1.1 " + std::to_string(code) + " " + reasonPhrase(code) + "\r\n";
    out += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    out += extraHeaders;
    if (!extraHeaders.empty() && extraHeaders.compare(extraHeaders.size() - std::min<size_t>(2, extraHeaders.size()),
                                                      std::string::npos, "\r\n") != 0) {
        out += "\r\n";
    }
    out += "\r\n";
    out += body;
    return out;
}

std::string chunkedBody(const std::vector<std::string>& chunks) {
    std::string out;
    char size[32];
    for (const std::string& chunk : chunks) {
        if (chunk.empty()) continue;
        std::snprintf(size, sizeof size, "%zx\r\n", chunk.size());
        out += size;
        out += chunk;
        out += "\r\n";
    }
    out += "0\r\n\r\n";
    return out;
}

}  // namespace testsupport

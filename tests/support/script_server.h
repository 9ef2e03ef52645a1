// An in-process HTTP server on 127.0.0.1 whose every byte is scripted by the test, for the faults real
// servers do not make on demand: answers cut at chosen offsets, resets, stalls, malformed framing. Every
// wait is bounded; destroying the server shuts every connection down and joins every handler.
#ifndef WEBCHANNEL_TESTS_SUPPORT_SCRIPT_SERVER_H
#define WEBCHANNEL_TESTS_SUPPORT_SCRIPT_SERVER_H

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace testsupport {

struct ServerState {
    std::atomic<bool> stopping{false};
    std::mutex mutex;  // requests
    std::vector<std::string> requests;
};

// One accepted connection, used by its handler's thread only.
class ServerConnection {
public:
    ServerConnection(int fd, int index, ServerState& state) : fd_(fd), index_(index), state_(state) {}
    ~ServerConnection();
    std::string readRequest(int timeoutMillis = 10000);  // head and body, logged; "" on close or time-out
    std::string readHead(int timeoutMillis = 10000);             // the head alone (logged)
    std::string readBytes(size_t n, int timeoutMillis = 10000);  // up to n bytes, not logged
    bool send(std::string_view bytes);  // false on error or a client that takes nothing for 10 s
    bool sendPieces(std::string_view bytes, const std::vector<size_t>& cuts, int gapMillis = 20);  // pauses at cuts
    void reset();                // abortive close: the client sees ECONNRESET
    void close();                // orderly close, after draining input still arriving (else it is a reset)
    bool stall(int maxSeconds);  // reads nothing until the client closes (true) or maxSeconds pass
    int index() const { return index_; }  // in accept order, from 0
    void shutdownForStop();

private:
    bool fill(long long deadline);
    std::string take(size_t length);
    std::string readMessage(int timeoutMillis, bool withBody);
    int fd_;
    const int index_;
    ServerState& state_;
    std::mutex fdMutex_;  // closing against the destructor's shutdown
    std::string buffer_;
};

class ScriptServer {
public:
    using Handler = std::function<void(ServerConnection&)>;
    // Each connection runs `handler` on a thread of its own and is closed when the handler returns.
    explicit ScriptServer(Handler handler);
    ~ScriptServer();
    int port() const { return port_; }
    std::string url(const std::string& path) const;  // "http://127.0.0.1:<port>" + path
    std::vector<std::string> requests() const;       // raw, in arrival order
    int connections() const { return accepted_.load(); }

private:
    Handler handler_;
    mutable ServerState state_;
    int listenFd_ = -1, port_ = 0;
    std::atomic<int> accepted_{0};
    std::vector<std::unique_ptr<ServerConnection>> connections_;  // the accept thread's, then the destructor's
    std::vector<std::thread> handlers_;
    std::thread acceptThread_;
};

// Status line, Content-Length, extraHeaders (lines ending in "\r\n"; a missing last one is added), blank line, body.
std::string httpResponse(int code, const std::string& body, const std::string& extraHeaders = "");
// "<hex size>\r\n<data>\r\n" per non-empty chunk, then "0\r\n\r\n".
std::string chunkedBody(const std::vector<std::string>& chunks);
// The path a raw request asks for, also when its line names the absolute URL ("GET http://host/path ...").
inline std::string requestPath(const std::string& request) {
    const size_t scheme = request.find("://");
    const size_t start = scheme < request.find("\r\n") ? request.find('/', scheme + 3) : request.find(' ') + 1;
    return start > request.size() ? std::string() : request.substr(start, request.find(' ', start) - start);
}

}  // namespace testsupport

#endif

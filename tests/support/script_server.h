// An in-process HTTP server whose every byte is scripted by the test, for
// the faults real servers do not make on demand: answers cut at chosen
// offsets, resets, stalls, malformed framing.
//
//   testsupport::ScriptServer server([](testsupport::ServerConnection& c) {
//       c.readRequest();
//       c.send(testsupport::httpResponse(200, "hi"));
//   });
//
// Listens on 127.0.0.1 only. Every wait is bounded, and destroying the
// server shuts every connection down and joins all handlers.
#ifndef WEBCHANNEL_TESTS_SUPPORT_SCRIPT_SERVER_H
#define WEBCHANNEL_TESTS_SUPPORT_SCRIPT_SERVER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace testsupport {

struct ServerState;

// One accepted connection, used by its handler's thread only.
class ServerConnection {
public:
    ServerConnection(int fd, int index, ServerState& state) : fd_(fd), index_(index), state_(state) {}
    ~ServerConnection();
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;

    // One request: the head through its blank line and a Content-Length
    // body, logged in requests(). "" when the client closed or the time ran out.
    std::string readRequest(int timeoutMillis = 10000);
    // The head alone (logged), the body left unread.
    std::string readHead(int timeoutMillis = 10000);
    // Up to n bytes, not logged.
    std::string readBytes(size_t n, int timeoutMillis = 10000);
    // All bytes; false on error or a client that takes nothing for 10 s.
    bool send(std::string_view bytes);
    // The bytes cut at `cuts`, each piece its own send after a pause, so that
    // the client usually reads each piece apart.
    bool sendPieces(std::string_view bytes, const std::vector<size_t>& cuts, int gapMillis = 20);
    // Abortive close: the client sees ECONNRESET.
    void reset();
    // Orderly close; input still arriving is drained for a bounded while so
    // that it does not turn the close into a reset.
    void close();
    // Waits without reading until the client closes or maxSeconds pass;
    // true when the client closed.
    bool stall(int maxSeconds);
    int index() const { return index_; }  // in accept order, from 0
    void shutdownForStop();

private:
    bool fill(long long deadline);
    std::string take(size_t length, bool log);

    int fd_;
    const int index_;
    ServerState& state_;
    std::mutex fdMutex_;  // closing against the destructor's shutdown
    std::string buffer_;
};

// Counts what the scripted servers and content checks did ("connections",
// "resets", "bytes verified"...), printed as one "tally:" line at exit.
void tally(const char* what, uint64_t amount = 1);

struct ServerState {
    std::atomic<bool> stopping{false};
    mutable std::mutex mutex;  // requests
    std::vector<std::string> requests;
};

class ScriptServer {
public:
    using Handler = std::function<void(ServerConnection&)>;
    // Each connection runs `handler` on a thread of its own, and is closed
    // when the handler returns.
    explicit ScriptServer(Handler handler);
    ~ScriptServer();
    ScriptServer(const ScriptServer&) = delete;
    ScriptServer& operator=(const ScriptServer&) = delete;

    int port() const { return port_; }
    std::string url(const std::string& path) const;  // "http://127.0.0.1:<port>" + path
    std::vector<std::string> requests() const;       // raw, in arrival order
    int connections() const { return accepted_.load(); }

private:
    struct Worker {
        std::unique_ptr<ServerConnection> connection;
        std::thread thread;
        std::atomic<bool> done{false};
    };
    void acceptLoop();

    Handler handler_;
    ServerState state_;
    int listenFd_ = -1;
    int port_ = 0;
    std::atomic<int> accepted_{0};
    std::list<Worker> workers_;  // the accept thread's, then the destructor's
    std::thread acceptThread_;
};

// A complete response: status line, Content-Length, extraHeaders (lines
// ending in "\r\n"; a missing last one is added), blank line, body.
std::string httpResponse(int code, const std::string& body, const std::string& extraHeaders = "");
// "<hex size>\r\n<data>\r\n" per non-empty chunk, then "0\r\n\r\n".
std::string chunkedBody(const std::vector<std::string>& chunks);

}  // namespace testsupport

#endif

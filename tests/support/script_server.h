// An in-process HTTP server whose every byte is scripted by the test: for
// the faults and oddities real servers do not produce on demand (responses
// cut at chosen offsets, resets, stalls, malformed framing, ...).
//
//   testsupport::ScriptServer server([](testsupport::ServerConnection& c) {
//       c.readRequest();
//       c.send(testsupport::httpResponse(200, "hi"));
//   });
//   ... point the client at server.url("/x") ...
//   EXPECT_EQ(server.requests().size(), 1u);
//
// Listens on 127.0.0.1 only. Every wait is bounded, and destroying the
// server unblocks and joins all handlers.
#ifndef WEBCHANNEL_TESTS_SUPPORT_SCRIPT_SERVER_H
#define WEBCHANNEL_TESTS_SUPPORT_SCRIPT_SERVER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace testsupport {

namespace detail {
struct ServerShared;
}

// One accepted connection, handed to the handler on its own thread. Only
// that thread may use it. All methods are harmless on a closed connection.
class ServerConnection {
public:
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;
    ~ServerConnection();

    // Reads one request: everything up to and including the blank line
    // ("\r\n\r\n"), plus a body of Content-Length bytes if that header is
    // present (name matched case-insensitively) or a chunked body if
    // Transfer-Encoding says chunked. The raw bytes are appended to the
    // server's request log. Bytes the client sent beyond this request stay
    // buffered for the next call. Returns "" when the client closed, on an
    // error, or after timeoutMillis without a complete request.
    std::string readRequest(int timeoutMillis = 10000);

    // Reads only the request head (through the blank line) and logs it; the
    // body, if any, is left unread, e.g. to answer "Expect: 100-continue"
    // or to respond before an upload is complete. "" as for readRequest.
    std::string readHead(int timeoutMillis = 10000);

    // Reads exactly n bytes (not logged); returns fewer if the client
    // closed or timeoutMillis passed first.
    std::string readBytes(size_t n, int timeoutMillis = 10000);

    // Sends all bytes (looping over partial sends). False on error, or if the
    // client does not take any data for 10 s.
    bool send(std::string_view bytes);

    // Sends bytes split at the given offsets (ascending; out-of-range or
    // non-increasing offsets are ignored), each piece a separate send with
    // TCP_NODELAY, pausing gapMillis between pieces so the client usually
    // sees each piece in a read of its own. False on error.
    bool sendPieces(std::string_view bytes, const std::vector<size_t>& cuts, int gapMillis = 20);

    // Abortive close: SO_LINGER {1, 0}, then close, so the client sees
    // ECONNRESET (an RST instead of a FIN).
    void reset();

    // Orderly close: FIN first; whatever the client still sends meanwhile is
    // read and dropped for a short, bounded while, so unread input does not
    // turn the close into a reset.
    void close();

    // Waits, without reading, until the client closes the connection (FIN or
    // RST) or maxSeconds pass. True if the client closed.
    bool stall(int maxSeconds);

    // 0-based number of this connection in accept order.
    int index() const { return index_; }

    bool isOpen() const;

private:
    friend class ScriptServer;
    ServerConnection(int fd, int index, std::shared_ptr<detail::ServerShared> shared);

    // Waits until the descriptor is ready for `events` or the deadline
    // (steady clock, ms) passes; false on time-out, error or shutdown.
    bool waitFor(short events, long long deadlineMillis);
    // Reads whatever is available into buffer_; false on EOF/error/time-out.
    bool fill(long long deadlineMillis);
    void shutdownForStop();  // called by the server's destructor thread

    int fd_;  // written only by the handler thread, under shared_->fdMutex
    const int index_;
    std::string buffer_;  // received, not yet returned
    std::shared_ptr<detail::ServerShared> shared_;
};

// What the scripted servers and the content checks did in this process:
// connections served, resets, stalls and bytes verified. Printed to standard
// error at exit ("tally: ...") when anything was counted, as the record of a
// fault run.
void tally(const char* what, uint64_t amount = 1);

class ScriptServer {
public:
    using Handler = std::function<void(ServerConnection&)>;

    // Listens on 127.0.0.1 on an ephemeral port and accepts in a background
    // thread; each connection runs `handler` on a thread of its own. When
    // the handler returns, the connection is closed (orderly) if still open.
    explicit ScriptServer(Handler handler);
    // Stops accepting, shuts down every open connection (so handlers blocked
    // in reads, sends, stalls or pauses return promptly), and joins all
    // threads. A handler still running 20 s later is a test bug: reported on
    // stderr, then the process aborts rather than hang.
    ~ScriptServer();

    ScriptServer(const ScriptServer&) = delete;
    ScriptServer& operator=(const ScriptServer&) = delete;

    int port() const { return port_; }
    // "http://127.0.0.1:<port>" + path
    std::string url(const std::string& path) const;
    // Raw requests received so far, in arrival order (a copy).
    std::vector<std::string> requests() const;
    // Connections accepted so far.
    int connections() const;

private:
    struct Worker;

    void acceptLoop();
    void reapFinished(bool all);

    Handler handler_;
    std::shared_ptr<detail::ServerShared> shared_;
    int listenFd_ = -1;
    int wakeFd_ = -1;
    int port_ = 0;
    std::atomic<int> accepted_{0};
    std::list<std::unique_ptr<Worker>> workers_;  // touched by the accept thread, then by the destructor
    std::thread acceptThread_;
};

// A complete response: status line, Content-Length, extraHeaders (each line
// ending in "\r\n"; a missing final "\r\n" is added), blank line, body.
std::string httpResponse(int code, const std::string& body, const std::string& extraHeaders = "");

// A chunked body: "<hex size>\r\n<data>\r\n" per chunk, then "0\r\n\r\n".
// Empty chunks are left out (a zero-size chunk would end the body early).
std::string chunkedBody(const std::vector<std::string>& chunks);

}  // namespace testsupport

#endif

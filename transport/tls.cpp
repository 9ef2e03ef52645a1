// TLS: library start, OpenSSL's locking callbacks, the client context with
// its certificate store, verification logging and the handshake.
#include <arpa/inet.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "channel/atomics.h"
#include "channel/globals.h"
#include "channel/scoped_lock.h"
#include "channel/webChannel.h"
#include "transport/poll_wait.h"

pthread_mutex_t* gSSLMutexArray = nullptr;

void webChannelSSLLock(int mode, int n, const char* file, int line) {
    (void)file;
    (void)line;
    if (mode & 1)
        pthread_mutex_lock(&gSSLMutexArray[n]);
    else
        pthread_mutex_unlock(&gSSLMutexArray[n]);
}

int webChannel::initSSL() {
    SSL_library_init();
    OPENSSL_add_all_algorithms_noconf();
    // One array per process: a second set-up keeps the first one's mutexes.
    if (gSSLMutexArray == nullptr) {
        gSSLMutexArray = static_cast<pthread_mutex_t*>(malloc(sizeof(pthread_mutex_t) * CRYPTO_num_locks()));
        for (int i = 0; i < CRYPTO_num_locks(); ++i) pthread_mutex_init(&gSSLMutexArray[i], nullptr);
    }
    CRYPTO_set_locking_callback(webChannelSSLLock);

    if (m_sslContext != nullptr) return kOk;
    m_sslContext = SSL_CTX_new(SSLv23_client_method());
    if (m_sslContext == nullptr) return kTlsSetup;
    // Verification is reported, not enforced: see initSSLVerifyCallback.
    SSL_CTX_set_verify(m_sslContext, SSL_VERIFY_NONE, initSSLVerifyCallback);
    // Let OpenSSL take what the socket holds in one read instead of a read
    // for each record's header and another for its body: a download then
    // costs a few large reads instead of two small ones per 16 KiB record.
    SSL_CTX_set_read_ahead(m_sslContext, 1);
#if OPENSSL_VERSION_NUMBER >= 0x10100000L
    SSL_CTX_set_default_read_buffer_len(m_sslContext, 256 * 1024);
#endif
    return kOk;
}

void webChannel::loadTrustStore() {
    if (atomicLoad(m_trustLoaded)) return;
    ScopedLock lock(m_trustLock);
    if (m_trustLoaded) return;
    SSL_CTX_set_default_verify_paths(m_sslContext);
    for (const char* store : {"/etc/pki/tls/certs/ca-bundle.crt", "/etc/ssl/certs"}) {
        struct stat info;
        if (stat(store, &info) != 0) continue;
        bool directory = S_ISDIR(info.st_mode);
        if (logging())
            log("VRAXSecureWebChannel::initSSL: using %s as certificate store %s", store, directory ? "dir" : "file");
        int loaded = directory ? SSL_CTX_load_verify_locations(m_sslContext, nullptr, store)
                               : SSL_CTX_load_verify_locations(m_sslContext, store, nullptr);
        if (loaded == 1) break;
    }
    atomicStore(m_trustLoaded, true);
}

int webChannel::initSSLVerifyCallback(int preverifyOk, X509_STORE_CTX* store) {
    char subject[256];
    memset(subject, 0, sizeof(subject));
    X509* certificate = X509_STORE_CTX_get_current_cert(store);
    if (certificate != nullptr) X509_NAME_oneline(X509_get_subject_name(certificate), subject, sizeof(subject));
    if (logging()) log("Verifying certificate %s : %s", subject, preverifyOk ? "OK" : "FAIL");
    return preverifyOk;
}

namespace {

// The host as the resolver reads it when it names an IPv4 address, in any of
// the spellings it accepts (127.0.0.1, 127.1, 2130706433, 0x7f.0.0.1), in
// dotted-quad form; empty for a name.
std::string addressSpelling(const std::string& host) {
    in_addr address;
    if (host.empty() || inet_aton(host.c_str(), &address) == 0) return std::string();
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text) != nullptr ? text : std::string();
}

// A store of the trust anchors at `path`: a PEM bundle, or a directory of
// certificates named by their subject hashes (read as handshakes need them).
// Null when the path cannot be read or a bundle holds no certificate.
X509_STORE* loadTrustAnchors(const std::string& path) {
    struct stat info;
    if (path.empty() || stat(path.c_str(), &info) != 0) return nullptr;
    const bool directory = S_ISDIR(info.st_mode);
    if (directory && access(path.c_str(), R_OK | X_OK) != 0) return nullptr;
    X509_STORE* store = X509_STORE_new();
    if (store == nullptr) return nullptr;
    int loaded = directory ? X509_STORE_load_locations(store, nullptr, path.c_str())
                           : X509_STORE_load_locations(store, path.c_str(), nullptr);
    if (loaded == 1) return store;
    X509_STORE_free(store);
    return nullptr;
}

// OpenSSL's words for the last error it recorded on this thread, or "".
std::string openSslText() {
    unsigned long code = ERR_peek_last_error();
    if (code == 0) return std::string();
    if (const char* reason = ERR_reason_error_string(code)) return reason;
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    return text;
}

// Why a handshake did not complete: OpenSSL's words when it has some, else
// what the socket said.
std::string handshakeFailure(int error, int systemError) {
    std::string text = openSslText();
    if (!text.empty()) return text;
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) return "handshake timed out";
    if (error == SSL_ERROR_SYSCALL && systemError != 0) return webChannel::systemText(systemError);
    return "connection closed during the handshake";
}

// The verification result in OpenSSL's words, after the server it concerns.
int untrusted(webChannel::connection* conn, long verified) {
    webChannel::noteFailure(kUntrusted, conn->host + ":" + conn->port + ": " + X509_verify_cert_error_string(verified));
    return kUntrusted;
}

}  // namespace

std::optional<std::string> webChannel::verifySetting() {
    std::string value;
    if (!findParam(kParamVerifyPeer, value)) return std::nullopt;
    return value;
}

X509_STORE* webChannel::trustStore(const std::string& path) {
    ScopedLock lock(m_trustLock);
    auto found = m_trustStores.find(path);
    if (found != m_trustStores.end()) return found->second;
    X509_STORE* store = loadTrustAnchors(path);
    m_trustStores[path] = store;
    return store;
}

bool webChannel::requireTrust(connection* conn) {
    const std::string& path = *conn->verifyPeer;
    // No path: the system store, which connectSSL has loaded into the context.
    X509_STORE* store = path.empty() ? SSL_CTX_get_cert_store(m_sslContext) : trustStore(path);
    if (store == nullptr) {
        if (logging()) log("VRAXSecureWebChannel::connectSSL: cannot read the trust anchors in %s", path.c_str());
        noteFailure(kUntrusted, conn->host + ":" + conn->port + ": cannot read the trust anchors in " + path);
        return false;
    }
    if (!path.empty()) SSL_set1_verify_cert_store(conn->ssl, store);
    SSL_set_verify(conn->ssl, SSL_VERIFY_PEER, initSSLVerifyCallback);
    // An address is matched with the certificate's IP addresses, as the
    // resolver reads it, never with its DNS names; a name with its DNS names.
    // A check that cannot be set up fails closed: the server goes unchecked
    // for no one.
    X509_VERIFY_PARAM* param = SSL_get0_param(conn->ssl);
    const std::string address = addressSpelling(conn->host);
    const bool checked = address.empty() ? X509_VERIFY_PARAM_set1_host(param, conn->host.c_str(), 0) == 1
                                         : X509_VERIFY_PARAM_set1_host(param, nullptr, 0) == 1 &&
                                               X509_VERIFY_PARAM_set1_ip_asc(param, address.c_str()) == 1;
    if (!checked) {
        noteFailure(kUntrusted, conn->host + ":" + conn->port + ": the host cannot be checked against a certificate");
        return false;
    }
    return true;
}

int webChannel::connectSSL(connection* conn) {
    if (m_sslContext != nullptr) loadTrustStore();
    conn->ssl = SSL_new(m_sslContext);
    if (conn->ssl == nullptr) {
        std::string text = openSslText();
        noteFailure(kTlsSetup, text.empty() ? "no TLS session could be made" : text);
        return kTlsSetup;
    }
    SSL_set_connect_state(conn->ssl);
    SSL_set_fd(conn->ssl, conn->socket);
    X509_VERIFY_PARAM_set1_host(SSL_get0_param(conn->ssl), conn->host.c_str(), 0);
    // Name-based servers need the host name to pick their certificate.
    if (addressSpelling(conn->host).empty()) SSL_set_tlsext_host_name(conn->ssl, conn->host.c_str());
    // Without parameter 3021 verification is reported, not enforced.
    if (conn->verifyPeer && !requireTrust(conn)) return kUntrusted;

    // The socket blocks with its time-outs set, so a want-read or want-write
    // answer means a time-out expired; the whole handshake is bounded too, so
    // a server that stops mid-handshake cannot hold the caller forever.
    const int timeout = getProxyTimeout();
    const time_t deadline = time(nullptr) + timeout;
    int result;
    int error;
    int systemError;
    for (;;) {
        ERR_clear_error();
        result = SSL_connect(conn->ssl);
        systemError = errno;
        error = SSL_get_error(conn->ssl, result);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) break;
        time_t now = time(nullptr);
        if (now >= deadline) break;
        if (waitDescriptor(conn->socket, error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, (int)(deadline - now)) < 1)
            break;
    }
    long verified = SSL_get_verify_result(conn->ssl);
    if (verified != X509_V_OK && logging())
        log("VRAXSecureWebChannel::connectSSL: certificate verification failed with code %d", (int)verified);
    if (logging()) {
        if (error == SSL_ERROR_SYSCALL)
            log("VRAXSecureWebChannel::connectSSL: handshake result %d, error code %d, errno %d", result, 5, errno);
        else
            log("VRAXSecureWebChannel::connectSSL: handshake result %d, error code %d", result, error);
    }
    if (conn->verifyPeer && verified != X509_V_OK) return untrusted(conn, verified);
    if (result == 1) return kOk;
    // A system error counts only when the handshake ended in one (result -1);
    // at an end of file errno holds nothing of this handshake.
    noteFailure(kTlsHandshake, handshakeFailure(error, result < 0 ? systemError : 0));
    return kTlsHandshake;
}

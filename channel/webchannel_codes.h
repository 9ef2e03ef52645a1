// Result codes and parameter ids of the web channel, each value written once.
// Header-only so that hosts get the names and the texts without linking
// anything beyond the factory functions.
#ifndef WEBCHANNEL_CODES_H
#define WEBCHANNEL_CODES_H

namespace wc {

// Results: 0 success, positive status values between internal steps,
// negative failures.
enum : int {
    kOk = 0,
    kAlreadyPresent = 3001,      // addJob: the target already holds the expected content
    kChunked = 3002,             // the response body uses chunked transfer coding
    kRepeat = 3003,              // try the request again (redirect or connection to re-create)
    kInvalidArgument = -3000,    // invalid argument, or a failure with no more specific code
    kBadChunkSize = -3001,       // chunk length not a valid number or out of range
    kMalformedResponse = -3002,  // bad status or header lines, missing line end after a chunk
    kProxyUnusable = -3011,      // proxy (or target) cannot be parsed or resolved
    kSocketCreate = -3020,       // socket could not be created
    kConnectFailed = -3022,      // connect error or time-out, or readiness waiters not set up
    kTunnelSendShort = -3023,    // the CONNECT request was only partly sent
    kTunnelRefused = -3024,      // proxy answer to CONNECT unparsable or not 2xx
    kTlsSetup = -3030,           // TLS context or session could not be created
    kTlsHandshake = -3033,       // the TLS handshake did not complete
    kUntrusted = -3034,          // server certificate not trusted (verification asked for with 3021)
    kSendFailed = -3050,         // the request could not be sent, or a socket error on read
    kReadFailed = -3051,         // nothing usable read, or the body ended early
    kBadStatus = -3052,          // head did not parse or its status is not accepted
    kUnsupportedCoding = -3053,  // transfer coding other than chunked
    kFileWrite = -3054,          // target file could not be opened or written
    kCancelled = -3055,          // cancelled by the progress callback, or batch in error
    kPeerClosed = -3056,         // the peer closed or reset the connection
    kTooManyAttempts = -3058,    // too many attempts or redirects
    kChecksumMismatch = -3061,   // downloaded file's size or digest does not match
};

// Parameter ids for setParam/getParam.
enum : int {
    kParamUser = 3011,            // server Basic authentication: user name
    kParamPassword = 3012,        // server Basic authentication: password
    kParamRelativeTarget = 3013,  // presence: batch requests name the path only
    kParamUnknownSize = 3014,     // presence: sizes unknown, files dealt round-robin
    kParamProxyPerHost = 3015,    // presence: ask the per-host proxy resolver
    kParamTimeout = 3016,         // transfer time-out in seconds (default 300)
    kParamCookieCapture = 3017,   // presence: keep the last Set-Cookie as the cookie
    kParamCookie = 3018,          // cookie text sent as "Cookie"
    kParamProxyAuth = 3019,       // base64 proxy credentials sent as "Proxy-Authorization"
    kParamNoCache = 3020,         // presence: send the three no-cache headers
    kParamVerifyPeer = 3021,      // presence: verify servers' certificates against the trust anchors named by
                                  // the value (PEM bundle or hashed directory; empty: the system store)
    kParamContinue = 3022,        // presence, per job: continue what an earlier run left on disk
    kParamErrorDetail = 3023,     // presence: getErrorCode gives what failed and why, in a whole message
    kParamFileOrder = 3024,       // presence: files larger than a share are fetched in small pieces, in file order
    kParamAdaptive = 3025,        // presence: idle workers take work from busy ones; a slow connection's tail is
                                  // fetched by a faster one
    kParamIdleCap = 3026,         // idle keep-alive connections a worker keeps (a count); the least recently used
                                  // one beyond it is closed
    kParamStrictRedirects = 3027, // presence: credentials and cookies stay with their origin across redirects;
                                  // with 3021, a redirect from https to http is refused (value kRedirectsTrusted:
                                  // only that)
};

// The value of kParamStrictRedirects that lets the credentials and the cookie
// follow redirects to other origins; only the refusal of a redirect from
// https to http under verification stays.
constexpr const char* kRedirectsTrusted = "trusted";

inline const char* resultText(int code) {
    switch (code) {
    case kOk: return "success";
    case kAlreadyPresent: return "the target already holds the expected content";
    case kChunked: return "chunked transfer coding";
    case kRepeat: return "repeat the request";
    case kInvalidArgument: return "invalid argument";
    case kBadChunkSize: return "invalid chunk length";
    case kMalformedResponse: return "malformed response";
    case kProxyUnusable: return "proxy or host cannot be resolved";
    case kSocketCreate: return "socket could not be created";
    case kConnectFailed: return "connection failed or timed out";
    case kTunnelSendShort: return "CONNECT request only partly sent";
    case kTunnelRefused: return "proxy refused the CONNECT tunnel";
    case kTlsSetup: return "TLS context or session could not be created";
    case kTlsHandshake: return "TLS handshake failed";
    case kUntrusted: return "server certificate not trusted";
    case kSendFailed: return "request could not be sent";
    case kReadFailed: return "response incomplete or unreadable";
    case kBadStatus: return "response status not accepted";
    case kUnsupportedCoding: return "unsupported transfer coding";
    case kFileWrite: return "target file could not be written";
    case kCancelled: return "cancelled";
    case kPeerClosed: return "connection closed by the peer";
    case kTooManyAttempts: return "too many attempts or redirects";
    case kChecksumMismatch: return "size or digest mismatch";
    default: return "unknown result";
    }
}

}  // namespace wc

#endif

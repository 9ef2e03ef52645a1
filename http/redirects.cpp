// Strict redirects (parameter 3027): the server credentials and the cookie
// stay with the origin a request started from, and under verification a
// redirect never trades TLS for plain HTTP.
#include "http/redirects.h"

#include <strings.h>

#include "channel/webChannel.h"
#include "transport/url.h"

namespace {

// A URL in a message or the log is cut to this many characters.
constexpr size_t kShownUrl = 2048;

}  // namespace

bool sameOrigin(std::string_view url, std::string_view origin) {
    UrlParts a, b;
    splitUrl(url, a);
    splitUrl(origin, b);
    return a.https == b.https && a.port == b.port && strcasecmp(a.host.c_str(), b.host.c_str()) == 0;
}

bool leavesTls(std::string_view from, std::string_view to) {
    UrlParts before, after;
    splitUrl(from, before);
    return before.https && splitUrl(to, after) && !after.https;
}

std::map<int, std::string> withoutCredentials(std::map<int, std::string> params) {
    for (int id : {kParamUser, kParamPassword, kParamCookie}) params.erase(id);
    return params;
}

bool webChannel::withholdsCredentials(const std::string& url, const std::string& origin) {
    // The request at its own URL, as nearly every one is, costs no look-up.
    if (url == origin) return false;
    std::string mode;
    if (!findParam(kParamStrictRedirects, mode) || mode == kRedirectsTrusted) return false;
    return !sameOrigin(url, origin);
}

bool webChannel::refusesRedirect(const std::string& from, const std::string& to, bool downgrade, threadData* worker) {
    if (!downgrade || !hasParam(kParamStrictRedirects) || !hasParam(kParamVerifyPeer)) return false;
    // The URLs may come from a server's Location: shown, not trusted.
    const std::string shownFrom = printable(from, kShownUrl), shownTo = printable(to, kShownUrl);
    if (logging())
        log("VRAXSecureWebChannel::redirect: from %s to %s refused: it leaves verified TLS for plain HTTP",
            shownFrom.c_str(), shownTo.c_str());
    // Like an untrusted server: the URL the transfer was at comes first.
    noteFailure(kUntrusted, shownFrom + ": redirect to " + shownTo + " refused: it leaves verified TLS for plain HTTP");
    if (worker == nullptr) storeOpenFailure(kUntrusted);
    return true;
}

// Splitting URLs. Deliberately simple: the URL is cut at the first
// occurrence of four separators in a fixed order and nothing is validated.
#ifndef WEBCHANNEL_TRANSPORT_URL_H
#define WEBCHANNEL_TRANSPORT_URL_H

#include <string>
#include <string_view>

struct UrlParts {
    std::string scheme;
    std::string credentials;  // text before "@", when there is one
    std::string host;
    std::string port;         // as written, or the scheme's default
    std::string path;         // from the first "/" on, when there is one
    bool hasCredentials = false;
    bool hasPath = false;
    bool https = false;       // scheme "https" (exactly), or port "443"
};

// False when the URL has neither a scheme nor a port; the parts are filled
// in either case.
bool splitUrl(std::string_view url, UrlParts& parts);

#endif

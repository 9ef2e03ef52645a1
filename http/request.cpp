// The one builder of request text.
#include "channel/webChannel.h"
#include "transport/base64.h"

webChannel::httpRequest::httpRequest(std::string method_, std::string host, std::string target_, char* extra_,
                                     AccessParams* params)
    : method(std::move(method_)), target(std::move(target_)) {
    headers["Host"] = std::move(host);
    if (params != nullptr) {
        auto user = params->find(kParamUser);
        auto password = params->find(kParamPassword);
        if (user != params->end() && password != params->end())
            headers["Authorization"] = "Basic " + base64Encode(user->second + ":" + password->second);
        auto cookie = params->find(kParamCookie);
        if (cookie != params->end()) headers["Cookie"] = cookie->second;
        auto proxyAuth = params->find(kParamProxyAuth);
        if (proxyAuth != params->end()) headers["Proxy-Authorization"] = "Basic " + proxyAuth->second;
        if (params->count(kParamNoCache) != 0) {
            headers["Cache-Control"] = "no-cache, no-store, must-revalidate";
            headers["Pragma"] = "no-cache";
            headers["Expires"] = "0";
        }
    }
    if (extra_ != nullptr) extra = extra_;
}

webChannel::httpRequest::~httpRequest() = default;

std::string webChannel::httpRequest::str() const {
    // Header lines come out in byte-wise name order, never in insertion order.
    size_t length = method.size() + target.size() + 13 + extra.size() + 2;
    for (const auto& header : headers) length += header.first.size() + header.second.size() + 4;
    std::string text;
    text.reserve(length);
    text.append(method).append(" ").append(target).append(" HTTP/1.1\r\n");
    for (const auto& header : headers) text.append(header.first).append(": ").append(header.second).append("\r\n");
    text.append(extra).append("\r\n");
    return text;
}

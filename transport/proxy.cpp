// Proxy configuration, the per-host proxy resolver and the transfer time-out.
#include <cstdlib>

#include "channel/webChannel.h"
#include "transport/base64.h"

int webChannel::setProxy(const char* httpProxyUrl, const char* httpsProxyUrl) {
    m_httpProxyAddress = 0;
    m_httpProxyHost.clear();
    m_httpProxyPort.clear();
    std::string credentials;
    // A proxy is always spoken to in plain HTTP: the scheme of its URL is read and not used.
    bool secure = false;
    if (httpProxyUrl != nullptr) {
        std::string path;
        parseURL(httpProxyUrl, &m_httpProxyAddress, m_httpProxyHost, m_httpProxyPort, path, credentials, &secure);
    }
    // One HTTP proxy serves TLS targets too unless a TLS proxy is given.
    m_httpsProxyAddress = m_httpProxyAddress;
    m_httpsProxyHost = m_httpProxyHost;
    m_httpsProxyPort = m_httpProxyPort;
    if (httpsProxyUrl != nullptr) {
        std::string path;
        parseURL(httpsProxyUrl, &m_httpsProxyAddress, m_httpsProxyHost, m_httpsProxyPort, path, credentials,
                 &secure);
    }
    // Credentials are sent exactly as written in the URL; without new ones
    // the earlier credentials stay in force.
    if (!credentials.empty()) setParam(kParamProxyAuth, base64Encode(credentials).c_str(), true);

    if (httpProxyUrl != nullptr && m_httpProxyHost.empty()) return kInvalidArgument;
    if (httpsProxyUrl != nullptr && m_httpsProxyHost.empty()) return kInvalidArgument;
    if (httpProxyUrl != nullptr && m_httpProxyAddress == 0) return kProxyUnusable;
    if (httpsProxyUrl != nullptr && m_httpsProxyAddress == 0) return kProxyUnusable;
    return kOk;
}

std::string webChannel::resolveProxy(std::string hostAndPath, bool https) {
    // Hook for a per-URL proxy resolver; this platform has none, so every
    // target is reached directly.
    std::string url = (https ? "https://" : "http://") + hostAndPath;
    if (logging()) log("VRAXSecureWebChannel::resolveProxy: started with %s", url.c_str());
    return std::string();
}

const char* webChannel::resolveProxy(const char* url) {
    if (url == nullptr) return nullptr;
    std::string host, port, path, credentials;
    bool https = false;
    parseURL(url, nullptr, host, port, path, credentials, &https);
    m_proxyAnswer = resolveProxy(host + ":" + port + path, https);
    return m_proxyAnswer.c_str();
}

int webChannel::getProxyTimeout() {
    std::string value;
    if (findParam(kParamTimeout, value)) {
        int seconds = (int)atoll(value.c_str());
        if (seconds > 0) return seconds;
    }
    return kDefaultTimeout;
}

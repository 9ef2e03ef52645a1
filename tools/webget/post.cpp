// The POST mode: send the data, print the answer's body.
#include <strings.h>

#include <cerrno>
#include <cstring>

#include "webget.h"

namespace webget {
namespace {

// The library reads a POST's answer until the server closes the connection
// or stays silent for the time-out. Asking the server to close after its
// answer ends the POST as soon as the answer is complete; a Connection
// header of the user's own is left as it is.
std::string requestHeaders(const std::vector<std::string>& headers) {
    std::string text;
    bool connectionGiven = false;
    for (const std::string& header : headers) {
        std::string name = header.substr(0, header.find(':'));
        while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.pop_back();
        connectionGiven = connectionGiven || strcasecmp(name.c_str(), "Connection") == 0;
        text += header + "\r\n";
    }
    if (!connectionGiven) text += "Connection: close\r\n";
    return text;
}

}  // namespace

int runPost(VRAXSecureWebChannel* channel, const Options& options) {
    const std::string& url = options.urls[0];
    std::string headerText = requestHeaders(options.headers);
    std::vector<char> headers(headerText.begin(), headerText.end());
    headers.push_back(0);
    std::vector<char> body(options.postData.begin(), options.postData.end());
    body.push_back(0);
    int result = channel->httpPost(url.c_str(), headers.data(), body.data(), true);
    if (result != wc::kOk) {
        LibraryError error = lastError(channel, result);
        complain("error %d: %s", error.code, explainFailure(error.code, error.reason, url, std::string()).c_str());
        return kExitFailed;
    }
    long long ignored = 0;
    const char* answer = channel->httpResponse(&ignored);
    std::string text = answer != nullptr ? answer : "";
    std::string status = text.substr(0, text.find("\r\n"));
    size_t separator = text.find("\r\n\r\n");
    std::string bodyText = separator == std::string::npos ? std::string() : text.substr(separator + 4);
    if (!options.quiet && !status.empty()) complain("%s", status.c_str());
    if (!writeAll(bodyText.data(), bodyText.size())) {
        complain("cannot write to standard output: %s", strerror(errno));
        return kExitFailed;
    }
    return kExitOk;
}

}  // namespace webget

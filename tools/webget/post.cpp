// The POST mode: send the data, print the answer's body.
#include <cerrno>
#include <cstring>

#include "webget.h"

namespace webget {
int runPost(VRAXSecureWebChannel* channel, const Options& options) {
    const std::string& url = options.urls[0];
    std::string headerText;
    for (const std::string& header : options.headers) headerText += header + "\r\n";
    std::vector<char> headers(headerText.begin(), headerText.end());
    headers.push_back(0);
    std::vector<char> body(options.postData.begin(), options.postData.end());
    body.push_back(0);
    int result = channel->httpPost(url.c_str(), headerText.empty() ? nullptr : headers.data(), body.data(), true);
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

// The batch's account for scripts (--json): one JSON object on standard
// output, written once at the end, so that standard output holds nothing
// else and can be handed to a JSON reader as it is.
#include "webget.h"

namespace webget {
namespace {

// JSON string text: quotes, backslashes and control bytes escaped. Other
// bytes pass as they are; paths are taken to be UTF-8.
std::string quoted(const std::string& text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out = "\"";
    for (char ch : text) {
        const unsigned char c = (unsigned char)ch;
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20) {
            out += "\\u00";
            out += kHex[c >> 4];
            out += kHex[c & 0x0F];
        } else {
            out += ch;
        }
    }
    return out + "\"";
}

const char* boolean(bool value) { return value ? "true" : "false"; }

}  // namespace

void printJson(const std::vector<Job>& listed, const std::vector<Outcome>& outcomes, const Totals& totals) {
    // "bytes" are those downloaded by this run, as in the summary line.
    printf("{\"totals\":{\"files\":%zu,\"downloaded\":%d,\"up_to_date\":%d,\"failures\":%d,\"bytes\":%lld,"
           "\"seconds\":%.3f},\"jobs\":[",
           listed.size(), totals.downloaded, totals.upToDate, totals.failures, totals.bytes, totals.seconds);
    for (size_t i = 0; i < listed.size() && i < outcomes.size(); ++i) {
        const Job& job = listed[i];
        const Outcome& outcome = outcomes[i];
        std::string algorithm = job.algorithm.empty() ? "null" : quoted(job.algorithm);
        printf("%s{\"url\":%s,\"target\":%s,\"size\":%lld,\"algorithm\":%s,\"verified\":%s,\"result\":%d,"
               "\"skipped\":%s}",
               i == 0 ? "" : ",", quoted(job.url).c_str(), quoted(job.target).c_str(), outcome.size,
               algorithm.c_str(), boolean(outcome.verified), outcome.result, boolean(outcome.skipped));
    }
    printf("]}\n");
    fflush(stdout);
}

}  // namespace webget

#include "support/log_capture.h"

#include <unistd.h>

#include <sstream>

#include "channel/webChannel.h"
#include "support/peers.h"

namespace testsupport {

LogCapture::LogCapture() {
    char name[] = "/tmp/webchannel-log-XXXXXX";
    ::close(mkstemp(name));
    m_path = name;
    // Swapped in directly: a channel destroyed later closes the log and clears the stream, which is tolerated.
    webChannel::m_log = fopen(m_path.c_str(), "a+");
}

LogCapture::~LogCapture() {
    FILE* log = webChannel::m_log;
    webChannel::m_log = nullptr;  // before the close: nothing writes into a closed stream
    if (log != nullptr && log != stdout) fclose(log);
    unlink(m_path.c_str());
}

std::string LogCapture::text() const {
    return readFile(m_path);
}

int countLines(const std::string& log, const std::string& needle) {
    int count = 0;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) count += line.find(needle) != std::string::npos;
    return count;
}

}  // namespace testsupport

// Captures the channel's log lines of a test into a temporary file.
#ifndef WEBCHANNEL_TESTS_LOG_CAPTURE_H
#define WEBCHANNEL_TESTS_LOG_CAPTURE_H

#include <string>

namespace testsupport {

class LogCapture {
public:
    LogCapture();   // opens a fresh log file as the channel's log
    ~LogCapture();  // switches the channel's log off and deletes the file
    std::string text() const;

private:
    std::string m_path;
};

int countLines(const std::string& log, const std::string& needle);  // lines of `log` that contain `needle`

}  // namespace testsupport

#endif

/*
 * Copies everything written to standard error (where the POSIX log goes)
 * into a file while it lives, so a test can look for a log line.
 */
#ifndef IT_STDERR_CAPTURE_H
#define IT_STDERR_CAPTURE_H

#include <chrono>
#include <string>

namespace it {

class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    /* Everything captured so far. */
    std::string text() const;
    /* Wait until the captured text contains needle. */
    bool wait_for(const std::string &needle, std::chrono::milliseconds timeout) const;

private:
    std::string path_;
    int saved_fd_ = -1;
};

} // namespace it

#endif /* IT_STDERR_CAPTURE_H */

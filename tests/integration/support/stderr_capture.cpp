#include "stderr_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "port/posix/log/log_output.h"

namespace it {

StderrCapture::StderrCapture()
{
    char tmpl[] = "/tmp/sf_it_stderr_XXXXXX";
    const int fd = ::mkstemp(tmpl);
    path_ = tmpl;
    sf_log::flush(); /* lines logged before the capture go where they were meant to */
    std::fflush(stderr);
    saved_fd_ = ::dup(STDERR_FILENO);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
}

StderrCapture::~StderrCapture()
{
    sf_log::flush(); /* the log's writer thread still holds lines meant for the capture */
    std::fflush(stderr);
    const std::string captured = text();
    ::dup2(saved_fd_, STDERR_FILENO);
    ::close(saved_fd_);
    // Keep the lines visible in the test's output.
    std::fputs(captured.c_str(), stderr);
    ::unlink(path_.c_str());
}

std::string StderrCapture::text() const
{
    sf_log::flush();
    std::fflush(stderr);
    std::ifstream in(path_);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

bool StderrCapture::wait_for(const std::string &needle, std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        if (text().find(needle) != std::string::npos) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

} // namespace it

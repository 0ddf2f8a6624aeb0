/*
 * The inbound bytes of one LAN connection, cut into lines on demand.
 *
 * The channel reads a socket only while no complete line waits here, so
 * the buffer never holds more than one unfinished line (at most the frame
 * limit) plus one read: what a client sends beyond that stays in the
 * kernel's socket buffers and, once those are full, in the client.
 * Not thread-safe: the LAN channel's lock guards it.
 */
#ifndef SF_POSIX_LAN_LINE_BUFFER_H
#define SF_POSIX_LAN_LINE_BUFFER_H

#include <string>

namespace sf_lan {

class LineBuffer {
public:
    enum class Next {
        Line,    /* *line holds the next non-empty line, without "\n" or "\r" */
        None,    /* no complete line waits (empty lines are skipped) */
        TooLong, /* a line, complete or not, is longer than max_line: the framing is lost */
    };

    void append(const char *data, size_t len);
    Next next(size_t max_line, std::string *line);
    /* A complete line (perhaps empty) waits. */
    bool has_line() const;
    /* Bytes of an unfinished line wait. */
    bool partial() const;

private:
    std::string in_;
    size_t pos_ = 0; /* bytes before this offset are taken */
};

} // namespace sf_lan

#endif /* SF_POSIX_LAN_LINE_BUFFER_H */

/*
 * A LAN client connection: line framing in, bounded frame queue out.
 */
#include "lan_session.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "smart_frame/smart_frame.h"
#include "gateway/edge/wire_json.h"

namespace sf_lan {

Session::Session(int fd, std::string peer, Clock::time_point opened, std::string addr, uint64_t id)
    : fd_(fd), peer_(std::move(peer)), addr_(std::move(addr)), id_(id), opened_(opened), last_input_(opened),
      partial_since_(opened)
{
}

Session::~Session()
{
    release_queue();
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void Session::release_queue()
{
    for (OutFrame &frame : out_) {
        if (frame.block != nullptr) {
            put_rfc_data(frame.block);
        }
    }
    out_.clear();
    head_written_ = 0;
}

void Session::close_soon(const char *why)
{
    if (!closing_) {
        closing_ = true;
        close_reason_ = why;
    }
    release_queue();
}

void Session::take_bytes(const char *data, size_t len, Clock::time_point now)
{
    const bool was_partial = in_.partial();
    in_.append(data, len);
    last_input_ = now;
    // A line finished in these bytes: an unfinished one after it starts now.
    if (!was_partial || std::memchr(data, '\n', len) != nullptr) {
        partial_since_ = now;
    }
}

void Session::hold(Clock::time_point now)
{
    last_input_ = now;
    partial_since_ = now;
}

bool Session::queue_block(RFC_DATA_S *block, unsigned frame_type, size_t max_frames)
{
    if (closing_ || out_.size() >= max_frames) {
        return false;
    }
    get_rfc_data(block);
    OutFrame frame;
    frame.block = block;
    frame.frame_type = frame_type;
    out_.push_back(std::move(frame));
    return true;
}

bool Session::queue_text(std::string line, size_t max_frames)
{
    if (closing_ || out_.size() >= max_frames) {
        return false;
    }
    OutFrame frame;
    frame.text = std::move(line);
    out_.push_back(std::move(frame));
    return true;
}

bool Session::flush()
{
    while (!out_.empty()) {
        OutFrame &head = out_.front();
        if (head.text.empty() && head.block != nullptr) {
            const MSG_DATA_S *msg = sf_wire::message_of(head.block);
            head.text = sf_wire::wrap_frame({{"type", head.frame_type}, {"serno", msg->serno}},
                                            reinterpret_cast<const char *>(msg->data), msg->len) +
                        "\n";
        }
        const ssize_t sent = ::send(fd_, head.text.data() + head_written_, head.text.size() - head_written_,
                                    MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        }
        head_written_ += static_cast<size_t>(sent);
        if (head_written_ < head.text.size()) {
            return true;
        }
        if (head.block != nullptr) {
            put_rfc_data(head.block);
        }
        out_.pop_front();
        head_written_ = 0;
    }
    return true;
}

} // namespace sf_lan

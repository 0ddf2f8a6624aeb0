/*
 * Line framing of the LAN channel's inbound bytes.
 */
#include "lan_line_buffer.h"

namespace sf_lan {

void LineBuffer::append(const char *data, size_t len)
{
    if (pos_ > 0) {
        in_.erase(0, pos_);
        pos_ = 0;
    }
    in_.append(data, len);
}

LineBuffer::Next LineBuffer::next(size_t max_line, std::string *line)
{
    for (;;) {
        const size_t nl = in_.find('\n', pos_);
        if (nl == std::string::npos) {
            return in_.size() - pos_ > max_line ? Next::TooLong : Next::None;
        }
        const size_t start = pos_;
        size_t end = nl;
        if (end > start && in_[end - 1] == '\r') {
            --end;
        }
        if (end - start > max_line) {
            return Next::TooLong;
        }
        pos_ = nl + 1;
        if (end > start) {
            line->assign(in_, start, end - start);
            return Next::Line;
        }
    }
}

bool LineBuffer::has_line() const { return in_.find('\n', pos_) != std::string::npos; }

bool LineBuffer::partial() const { return in_.size() > pos_ && in_.back() != '\n'; }

} // namespace sf_lan

/*
 * A LAN client connection: line framing in, bounded frame queue out.
 */
#include "lan_session.h"

#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>

#include <cerrno>
#include <cstring>
#include <iterator>

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
    if (ssl_ != nullptr) {
        if (handshake_done_) {
            SSL_shutdown(ssl_); // close_notify, if the socket takes it now; never waits
        }
        SSL_free(ssl_);
        ERR_clear_error();
    }
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

bool Session::start_tls(SSL_CTX *ctx, const Psk &psk)
{
    psk_ = psk;
    ssl_ = SSL_new(ctx);
    if (ssl_ == nullptr || SSL_set_fd(ssl_, fd_) != 1) {
        return false;
    }
    bind_psk(ssl_, &psk_);
    SSL_set_accept_state(ssl_);
    return true;
}

Session::Step Session::step_handshake(std::string *why)
{
    ERR_clear_error();
    const int rc = SSL_do_handshake(ssl_);
    if (rc == 1) {
        handshake_done_ = true;
        handshake_wants_write_ = false;
        return Step::Done;
    }
    const int err = SSL_get_error(ssl_, rc);
    if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
        handshake_wants_write_ = err == SSL_ERROR_WANT_WRITE;
        return Step::Again;
    }
    *why = err == SSL_ERROR_SSL ? take_tls_error() : err == SSL_ERROR_ZERO_RETURN || errno == 0 ? "closed by the peer"
                                                                                                 : std::strerror(errno);
    ERR_clear_error();
    return Step::Failed;
}

bool Session::tls_pending() const { return handshake_done_ && SSL_pending(ssl_) > 0; }

Session::Read Session::receive(char *buf, size_t len, size_t *got)
{
    if (ssl_ == nullptr) {
        const ssize_t n = ::recv(fd_, buf, len, MSG_DONTWAIT);
        if (n > 0) {
            *got = static_cast<size_t>(n);
            return Read::Data;
        }
        return n == 0 ? Read::Eof : errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? Read::Again : Read::Error;
    }
    ERR_clear_error();
    if (SSL_read_ex(ssl_, buf, len, got) == 1) {
        return Read::Data;
    }
    const int err = SSL_get_error(ssl_, 0);
    ERR_clear_error();
    // close_notify, or (SSL_OP_IGNORE_UNEXPECTED_EOF) a bare FIN: the client's side is done.
    return err == SSL_ERROR_ZERO_RETURN                               ? Read::Eof
           : err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE ? Read::Again
                                                                      : Read::Error;
}

ssize_t Session::write_some(const char *data, size_t len)
{
    if (ssl_ == nullptr) {
        const ssize_t sent = ::send(fd_, data, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
        }
        return sent;
    }
    ERR_clear_error();
    size_t wrote = 0;
    if (SSL_write_ex(ssl_, data, len, &wrote) == 1) {
        return static_cast<ssize_t>(wrote);
    }
    const int err = SSL_get_error(ssl_, 0);
    ERR_clear_error();
    return err == SSL_ERROR_WANT_WRITE || err == SSL_ERROR_WANT_READ ? 0 : -1;
}

/*
 * The queued frames go out together, up to FLUSH_BATCH_BYTES in one write:
 * answers to pipelined commands queue up between two turns of the server
 * loop, and each write costs a system call and, with TLS, a record (its
 * header, its tag and the cipher's set-up) whatever its size. A frame
 * stays queued until its last byte is written; OpenSSL takes the longer
 * buffer of a retried write since the session allows partial writes from a
 * moving buffer (lan_psk.cpp).
 */
bool Session::flush()
{
    while (!out_.empty()) {
        const std::string &head = render(&out_.front());
        const char *data = head.data() + head_written_;
        size_t len = head.size() - head_written_;
        // Several frames that fit together are gathered into the session's
        // own buffer, whose capacity stays for the next batch; a frame that
        // goes alone is written from its own text, without a copy.
        auto next = std::next(out_.begin());
        if (next != out_.end() && len + render(&*next).size() <= FLUSH_BATCH_BYTES) {
            batch_.assign(data, len);
            for (; next != out_.end(); ++next) {
                const std::string &text = render(&*next);
                if (batch_.size() + text.size() > FLUSH_BATCH_BYTES) {
                    break;
                }
                batch_ += text;
            }
            data = batch_.data();
            len = batch_.size();
        }
        const ssize_t sent = write_some(data, len);
        if (sent <= 0) {
            return sent == 0;
        }
        consume(static_cast<size_t>(sent));
        if (static_cast<size_t>(sent) < len) {
            return true; // the socket is full
        }
    }
    return true;
}

const std::string &Session::render(OutFrame *frame)
{
    if (frame->text.empty() && frame->block != nullptr) {
        const MSG_DATA_S *msg = sf_wire::message_of(frame->block);
        frame->text = sf_wire::wrap_frame({{"type", frame->frame_type}, {"serno", msg->serno}},
                                          reinterpret_cast<const char *>(msg->data), msg->len) +
                      "\n";
    }
    return frame->text;
}

void Session::consume(size_t sent)
{
    while (sent > 0 && !out_.empty()) {
        OutFrame &head = out_.front();
        const size_t left = head.text.size() - head_written_;
        if (sent < left) {
            head_written_ += sent;
            return;
        }
        sent -= left;
        if (head.block != nullptr) {
            put_rfc_data(head.block);
        }
        out_.pop_front();
        head_written_ = 0;
    }
}

} // namespace sf_lan

/*
 * The client's end of the LAN channel's TLS (lan_tls_client.h).
 */
#include "lan_tls_client.h"

namespace sf_lan {

TlsClient::~TlsClient()
{
    SSL_free(ssl_);
    SSL_CTX_free(ctx_);
}

bool TlsClient::handshake(int fd, const std::string &identity, const std::string &local_key, std::string *why)
{
    if (!derive_psk(local_key, identity, &psk_) || (ctx_ = new_client_ctx()) == nullptr ||
        (ssl_ = SSL_new(ctx_)) == nullptr || SSL_set_fd(ssl_, fd) != 1) {
        *why = "TLS set-up failed: " + take_tls_error();
        return false;
    }
    bind_psk(ssl_, &psk_);
    if (SSL_connect(ssl_) != 1) {
        *why = "TLS handshake failed: " + take_tls_error();
        return false;
    }
    return true;
}

ssize_t TlsClient::read(char *buf, size_t len)
{
    size_t got = 0;
    if (SSL_read_ex(ssl_, buf, len, &got) == 1) {
        return static_cast<ssize_t>(got);
    }
    const int err = SSL_get_error(ssl_, 0);
    take_tls_error();
    return err == SSL_ERROR_ZERO_RETURN ? 0 : -1;
}

bool TlsClient::write_all(const std::string &text)
{
    size_t done = 0;
    while (done < text.size()) {
        size_t wrote = 0;
        if (SSL_write_ex(ssl_, text.data() + done, text.size() - done, &wrote) != 1) {
            take_tls_error();
            return false;
        }
        done += wrote;
    }
    return true;
}

bool TlsClient::pending() const { return ssl_ != nullptr && SSL_pending(ssl_) > 0; }

void TlsClient::shutdown_write()
{
    if (ssl_ != nullptr) {
        SSL_shutdown(ssl_);
    }
}

} // namespace sf_lan

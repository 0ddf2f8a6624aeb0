/*
 * The client's end of the LAN channel's TLS (lan_psk.h) over a blocking
 * socket the caller owns: sfcloud --lan, the tests and the benchmarks use
 * it. Not thread-safe; one object a connection.
 */
#ifndef SF_POSIX_LAN_TLS_CLIENT_H
#define SF_POSIX_LAN_TLS_CLIENT_H

#include <sys/types.h>

#include <string>

#include "lan_psk.h"

namespace sf_lan {

class TlsClient {
public:
    TlsClient() = default;
    ~TlsClient();
    TlsClient(const TlsClient &) = delete;
    TlsClient &operator=(const TlsClient &) = delete;

    /*
     * The handshake over fd (connected, blocking) with the gateway's
     * identity and local key. false with *why when it fails (a wrong key:
     * the gateway ends it). The fd stays the caller's.
     */
    bool handshake(int fd, const std::string &identity, const std::string &local_key, std::string *why);
    /* Decrypted bytes: > 0 read, 0 the gateway closed, < 0 an error. Blocks like recv. */
    ssize_t read(char *buf, size_t len);
    /* Every byte of text, or false. */
    bool write_all(const std::string &text);
    /* Decrypted bytes wait in the library: poll on the socket would not see them. */
    bool pending() const;
    /* Send close_notify (TLS's half-close); writing ends, reading goes on. */
    void shutdown_write();

private:
    SSL_CTX *ctx_ = nullptr;
    SSL *ssl_ = nullptr;
    Psk psk_;
};

} // namespace sf_lan

#endif /* SF_POSIX_LAN_TLS_CLIENT_H */

/*
 * The LAN channel's TLS handshake, server side, fed what a client may
 * send before it has proved the key: the session of the channel on one end
 * of a socket pair, the bytes written to the other end, the handshake
 * stepped as the channel's thread steps it until it fails, finishes or
 * waits for more. The first byte picks the bytes:
 *  - even: the rest as they are (garbage, a plain-text client);
 *  - odd:  a genuine ClientHello of the channel's identity (made once with
 *          the client's own context), with the rest written over it from
 *          the offset the second byte gives, so the fuzzer starts deep in
 *          the handshake's parsing.
 * Nothing may crash or leak; a handshake that finishes would mean a key
 * guessed, and aborts.
 */
#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "port/posix/lan/lan_psk.h"
#include "port/posix/lan/lan_session.h"

namespace {

constexpr const char *IDENTITY = "gw0001";
constexpr const char *LOCAL_KEY = "0123456789abcdef";

/* The first flight of a client that knows the key, captured from a memory BIO. */
std::string genuine_hello()
{
    sf_lan::Psk psk;
    sf_lan::derive_psk(LOCAL_KEY, IDENTITY, &psk);
    SSL_CTX *ctx = sf_lan::new_client_ctx();
    SSL *ssl = SSL_new(ctx);
    BIO *in = BIO_new(BIO_s_mem());
    BIO *out = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl, in, out);
    sf_lan::bind_psk(ssl, &psk);
    SSL_connect(ssl); // wants to read the ServerHello: the ClientHello is in out
    char *bytes = nullptr;
    const long len = BIO_get_mem_data(out, &bytes);
    std::string hello(bytes, static_cast<size_t>(len));
    SSL_free(ssl);
    SSL_CTX_free(ctx);
    ERR_clear_error();
    return hello;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    static SSL_CTX *const server_ctx = sf_lan::new_server_ctx();
    static const std::string hello = genuine_hello();
    static sf_lan::Psk psk = [] {
        sf_lan::Psk made;
        sf_lan::derive_psk(LOCAL_KEY, IDENTITY, &made);
        return made;
    }();
    std::string bytes;
    if ((data[0] & 1) != 0) {
        bytes = hello;
        const size_t at = hello.empty() ? 0 : data[1] * hello.size() / 256;
        bytes.replace(at, std::string::npos, reinterpret_cast<const char *>(data + 2), size - 2);
    } else {
        bytes.assign(reinterpret_cast<const char *>(data + 1), size - 1);
    }
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair) != 0) {
        return 0;
    }
    const int big = 1 << 20;
    ::setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    (void)!::write(pair[1], bytes.data(), bytes.size());
    ::shutdown(pair[1], SHUT_WR); // no more: the handshake must end, not wait
    {
        sf_lan::Session session(pair[0], "fuzz", sf_lan::Clock::now());
        if (session.start_tls(server_ctx, psk)) {
            std::string why;
            for (int step = 0; step < 8; ++step) {
                const sf_lan::Session::Step result = session.step_handshake(&why);
                if (result == sf_lan::Session::Step::Done) {
                    std::abort(); // no client proved the key here
                }
                if (result == sf_lan::Session::Step::Failed) {
                    break;
                }
            }
        }
    } // the session closes pair[0]
    ::close(pair[1]);
    return 0;
}

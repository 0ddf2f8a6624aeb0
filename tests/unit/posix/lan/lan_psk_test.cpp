/*
 * The LAN channel's PSK and the two ends' contexts: the derivation gives
 * the bytes docs/wire-protocol.md states (checked against `openssl kdf`),
 * and a client and a server of these contexts agree only on the same key.
 */
#include <gtest/gtest.h>

#include <openssl/err.h>

#include <cstdio>
#include <string>

#include "port/posix/lan/lan_psk.h"

namespace {

std::string hex(const sf_lan::Psk &psk)
{
    std::string out;
    for (unsigned char byte : psk.key) {
        char two[3];
        std::snprintf(two, sizeof two, "%02X", byte);
        out += two;
    }
    return out;
}

/*
 * A handshake between a client with client_key and a server with
 * server_key over memory BIOs; true when both finish it.
 */
bool handshake(const std::string &client_key, const std::string &server_key, const std::string &client_identity)
{
    sf_lan::Psk client_psk;
    sf_lan::Psk server_psk;
    EXPECT_TRUE(sf_lan::derive_psk(client_key, client_identity, &client_psk));
    EXPECT_TRUE(sf_lan::derive_psk(server_key, "gw0001", &server_psk));
    SSL_CTX *client_ctx = sf_lan::new_client_ctx();
    SSL_CTX *server_ctx = sf_lan::new_server_ctx();
    SSL *client = SSL_new(client_ctx);
    SSL *server = SSL_new(server_ctx);
    BIO *to_server = nullptr;
    BIO *to_client = nullptr;
    BIO_new_bio_pair(&to_server, 0, &to_client, 0);
    SSL_set_bio(client, to_server, to_server);
    SSL_set_bio(server, to_client, to_client);
    sf_lan::bind_psk(client, &client_psk);
    sf_lan::bind_psk(server, &server_psk);
    SSL_set_connect_state(client);
    SSL_set_accept_state(server);
    bool client_done = false;
    bool server_done = false;
    for (int turn = 0; turn < 10 && !(client_done && server_done); ++turn) {
        client_done = client_done || SSL_do_handshake(client) == 1;
        server_done = server_done || SSL_do_handshake(server) == 1;
    }
    const bool suite = !server_done || std::string(SSL_get_cipher_name(server)) == "TLS_AES_128_GCM_SHA256";
    SSL_free(client);
    SSL_free(server);
    SSL_CTX_free(client_ctx);
    SSL_CTX_free(server_ctx);
    ERR_clear_error();
    return client_done && server_done && suite;
}

TEST(LanPsk, IsHkdfSha256OfTheLocalKeyWithTheDocumentedSaltAndTheGatewayId)
{
    sf_lan::Psk psk;
    ASSERT_TRUE(sf_lan::derive_psk("0123456789abcdef", "gw0001", &psk));
    EXPECT_EQ("gw0001", psk.identity);
    // openssl kdf -keylen 32 -kdfopt digest:SHA256 -kdfopt key:0123456789abcdef
    //   -kdfopt salt:sf-lan-psk-v1 -kdfopt info:gw0001 HKDF
    EXPECT_EQ("C2512FF06C14F8444A587F55BBB9354CB250512E45AD75A5545B3E9DEE950521", hex(psk));
}

TEST(LanPsk, ClientAndServerOfTheSameKeyFinishTheHandshakeWithTheOneSuite)
{
    EXPECT_TRUE(handshake("0123456789abcdef", "0123456789abcdef", "gw0001"));
}

TEST(LanPsk, AnotherKeyOrAnotherIdentityFailsTheHandshake)
{
    EXPECT_FALSE(handshake("0123456789abcdeF", "0123456789abcdef", "gw0001"));
    EXPECT_FALSE(handshake("0123456789abcdef", "0123456789abcdef", "gw0002"));
}

} // namespace

/*
 * The LAN channel's TLS 1.3 external PSK: derivation and the contexts of
 * both ends (lan_psk.h).
 */
#include "lan_psk.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/kdf.h>

#include <cstring>

namespace sf_lan {

namespace {

/* TLS_AES_128_GCM_SHA256's code point (RFC 8446, B.4). */
constexpr unsigned char SUITE_ID[2] = {0x13, 0x01};

/* A session holding psk, the form in which OpenSSL takes an external PSK; nullptr on failure. */
SSL_SESSION *psk_session(SSL *ssl, const Psk &psk)
{
    const SSL_CIPHER *cipher = SSL_CIPHER_find(ssl, SUITE_ID);
    SSL_SESSION *session = SSL_SESSION_new();
    if (cipher == nullptr || session == nullptr || SSL_SESSION_set1_master_key(session, psk.key.data(), psk.key.size()) != 1 ||
        SSL_SESSION_set_cipher(session, cipher) != 1 ||
        SSL_SESSION_set_protocol_version(session, TLS1_3_VERSION) != 1) {
        SSL_SESSION_free(session);
        return nullptr;
    }
    return session;
}

const Psk *psk_of(SSL *ssl) { return static_cast<const Psk *>(SSL_get_app_data(ssl)); }

/* Server: the session of the one identity we know; an unknown identity gets none and the handshake fails. */
int find_session(SSL *ssl, const unsigned char *identity, size_t identity_len, SSL_SESSION **sess)
{
    const Psk *psk = psk_of(ssl);
    *sess = nullptr;
    if (psk == nullptr || identity_len != psk->identity.size() ||
        std::memcmp(identity, psk->identity.data(), identity_len) != 0) {
        return 1;
    }
    *sess = psk_session(ssl, *psk);
    return *sess != nullptr ? 1 : 0;
}

/* Client: offer the gateway's identity and key. */
int use_session(SSL *ssl, const EVP_MD *md, const unsigned char **id, size_t *idlen, SSL_SESSION **sess)
{
    const Psk *psk = psk_of(ssl);
    *sess = nullptr;
    if (psk == nullptr || (md != nullptr && md != EVP_sha256())) {
        return psk == nullptr ? 0 : 1; // a suite of another hash: no PSK for it
    }
    *sess = psk_session(ssl, *psk);
    *id = reinterpret_cast<const unsigned char *>(psk->identity.data());
    *idlen = psk->identity.size();
    return *sess != nullptr ? 1 : 0;
}

SSL_CTX *new_ctx(const SSL_METHOD *method)
{
    SSL_CTX *ctx = SSL_CTX_new(method);
    if (ctx == nullptr || SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION) != 1 || SSL_CTX_set_ciphersuites(ctx, TLS_SUITE) != 1 ||
        SSL_CTX_set_num_tickets(ctx, 0) != 1) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    SSL_CTX_set_options(ctx, SSL_OP_NO_TICKET | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return ctx;
}

} // namespace

bool derive_psk(const std::string &local_key, const std::string &identity, Psk *out)
{
    EVP_KDF *kdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
    EVP_KDF_CTX *kctx = kdf != nullptr ? EVP_KDF_CTX_new(kdf) : nullptr;
    EVP_KDF_free(kdf);
    if (kctx == nullptr) {
        return false;
    }
    char digest[] = "SHA256";
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<char *>(local_key.data()), local_key.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<char *>(PSK_SALT), std::strlen(PSK_SALT)),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<char *>(identity.data()), identity.size()),
        OSSL_PARAM_construct_end(),
    };
    const bool ok = EVP_KDF_derive(kctx, out->key.data(), out->key.size(), params) == 1;
    EVP_KDF_CTX_free(kctx);
    out->identity = identity;
    return ok;
}

SSL_CTX *new_server_ctx()
{
    SSL_CTX *ctx = new_ctx(TLS_server_method());
    if (ctx != nullptr) {
        SSL_CTX_set_psk_find_session_callback(ctx, find_session);
    }
    return ctx;
}

SSL_CTX *new_client_ctx()
{
    SSL_CTX *ctx = new_ctx(TLS_client_method());
    if (ctx != nullptr) {
        SSL_CTX_set_psk_use_session_callback(ctx, use_session);
    }
    return ctx;
}

void bind_psk(SSL *ssl, const Psk *psk) { SSL_set_app_data(ssl, const_cast<Psk *>(psk)); }

std::string take_tls_error()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    const char *reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
    return reason != nullptr ? reason : code != 0 ? "error " + std::to_string(code) : "no reason";
}

} // namespace sf_lan

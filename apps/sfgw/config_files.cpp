#include "config_files.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace sfgw {

namespace {

struct FileCloser {
    void operator()(std::FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

enum class Pem { CaBundle, Certificate, PrivateKey };

/* A key that asks for a pass phrase cannot be used by a daemon: refuse it instead of prompting. */
int no_pass_phrase(char *, int, int, void *) { return 0; }

/* How many certificates the PEM file holds (0 when none parses). */
int certificates_in(std::FILE *f)
{
    int count = 0;
    while (X509 *cert = PEM_read_X509(f, nullptr, no_pass_phrase, nullptr)) {
        X509_free(cert);
        ++count;
    }
    return count;
}

bool holds_private_key(std::FILE *f)
{
    EVP_PKEY *key = PEM_read_PrivateKey(f, nullptr, no_pass_phrase, nullptr);
    EVP_PKEY_free(key);
    return key != nullptr;
}

/* "" when path holds what kind needs, else why not. */
std::string problem_of(const std::string &path, Pem kind)
{
    File f(std::fopen(path.c_str(), "r"));
    if (!f) {
        return std::string("cannot read the file: ") + std::strerror(errno);
    }
    bool ok = false;
    const char *wanted = "";
    switch (kind) {
    case Pem::CaBundle:
        ok = certificates_in(f.get()) > 0;
        wanted = "no PEM certificate in the file (a CA bundle holds one or more)";
        break;
    case Pem::Certificate:
        ok = certificates_in(f.get()) > 0;
        wanted = "no PEM certificate in the file";
        break;
    case Pem::PrivateKey:
        ok = holds_private_key(f.get());
        wanted = "no PEM private key in the file (or the key is encrypted: a daemon cannot type its pass phrase)";
        break;
    }
    ERR_clear_error(); /* OpenSSL queues the parse failures; they are told here, once */
    return ok ? "" : wanted;
}

} // namespace

bool check_config_files(const apps::Description &description, std::string *why)
{
    const apps::MqttSettings &mqtt = description.mqtt;
    const std::string where = description.file + ": connection.mqtt.";
    if (mqtt.cert_file.empty() != mqtt.key_file.empty()) {
        *why = where + (mqtt.cert_file.empty() ? "key_file" : "cert_file") +
               ": a client certificate needs its key: give cert_file and key_file together";
        return false;
    }
    if ((!mqtt.cert_file.empty() || !mqtt.key_file.empty()) && mqtt.ca_file.empty()) {
        *why = where + "cert_file: a client certificate is used only with TLS: give ca_file too";
        return false;
    }
    const struct {
        const char *key;
        const std::string &path;
        Pem kind;
    } files[] = {{"ca_file", mqtt.ca_file, Pem::CaBundle},
                 {"cert_file", mqtt.cert_file, Pem::Certificate},
                 {"key_file", mqtt.key_file, Pem::PrivateKey}};
    for (const auto &file : files) {
        if (file.path.empty()) {
            continue;
        }
        const std::string problem = problem_of(file.path, file.kind);
        if (!problem.empty()) {
            *why = where + file.key + ": " + file.path + ": " + problem;
            return false;
        }
    }
    return true;
}

} // namespace sfgw

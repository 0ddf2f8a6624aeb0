#include "sfgw/config_files.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "common/broker_port.h"

namespace {

/* A key and a self-signed certificate made for the test, in PEM files of their own. */
class ConfigFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        EVP_PKEY *key = EVP_EC_gen("P-256");
        ASSERT_NE(nullptr, key);
        X509 *cert = X509_new();
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert), 0);
        X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
        X509_set_pubkey(cert, key);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char *>("test ca"), -1, -1, 0);
        X509_set_issuer_name(cert, X509_get_subject_name(cert));
        ASSERT_GT(X509_sign(cert, key, EVP_sha256()), 0);
        std::FILE *f = std::fopen(cert_.c_str(), "w");
        PEM_write_X509(f, cert);
        std::fclose(f);
        f = std::fopen(key_.c_str(), "w");
        PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
        std::fclose(f);
        std::ofstream(text_) << "not a certificate\n";
        X509_free(cert);
        EVP_PKEY_free(key);
    }
    void TearDown() override
    {
        for (const std::string &path : {cert_, key_, text_}) {
            std::remove(path.c_str());
        }
    }

    /* The result of the check for a description whose connection.mqtt holds mqtt (JSON members). */
    std::string check(const std::string &mqtt)
    {
        apps::Description d;
        std::string why;
        const std::string text = R"({"gateway":{"id":"gw"},"devices":[{"id":"a","dps":[{"id":1,"prop":"bool"}]}],)"
                                 R"("connection":{"mqtt":{)" + mqtt + "}}}";
        EXPECT_TRUE(apps::read_description_text(text, "gw.json", &d, &why)) << why;
        return sfgw::check_config_files(d, &why) ? "ok" : why;
    }
    static std::string member(const char *key, const std::string &path) { return std::string("\"") + key + "\":\"" + path + "\""; }

    const std::string dir_ = "/tmp/sf_config_files_" + std::to_string(getpid());
    const std::string cert_ = dir_ + "_cert.pem";
    const std::string key_ = dir_ + "_key.pem";
    const std::string text_ = dir_ + "_text.pem";
};

TEST_F(ConfigFiles, NoTlsFilesNeedNoCheck) { EXPECT_EQ("ok", check(R"("host":"broker")")); }

TEST_F(ConfigFiles, ACaFileACertificateAndItsKeyPass)
{
    EXPECT_EQ("ok", check(member("ca_file", cert_)));
    EXPECT_EQ("ok", check(member("ca_file", cert_) + "," + member("cert_file", cert_) + "," + member("key_file", key_)));
}

TEST_F(ConfigFiles, AMissingCaFileIsNamedWithItsKeyPath)
{
    EXPECT_EQ("gw.json: connection.mqtt.ca_file: /nonexistent.pem: cannot read the file: No such file or directory",
              check(member("ca_file", "/nonexistent.pem")));
}

TEST_F(ConfigFiles, ACaFileWithoutACertificateIsRefused)
{
    EXPECT_EQ("gw.json: connection.mqtt.ca_file: " + text_ +
                  ": no PEM certificate in the file (a CA bundle holds one or more)",
              check(member("ca_file", text_)));
}

TEST_F(ConfigFiles, ACertificateFileHoldingAKeyIsRefused)
{
    EXPECT_EQ("gw.json: connection.mqtt.cert_file: " + key_ + ": no PEM certificate in the file",
              check(member("ca_file", cert_) + "," + member("cert_file", key_) + "," + member("key_file", key_)));
}

TEST_F(ConfigFiles, AKeyFileHoldingACertificateIsRefused)
{
    EXPECT_EQ("gw.json: connection.mqtt.key_file: " + cert_ +
                  ": no PEM private key in the file (or the key is encrypted: a daemon cannot type its pass phrase)",
              check(member("ca_file", cert_) + "," + member("cert_file", cert_) + "," + member("key_file", cert_)));
}

TEST_F(ConfigFiles, ACertificateNeedsItsKeyAndTls)
{
    EXPECT_EQ("gw.json: connection.mqtt.cert_file: a client certificate needs its key: give cert_file and key_file "
              "together",
              check(member("ca_file", cert_) + "," + member("cert_file", cert_)));
    EXPECT_EQ("gw.json: connection.mqtt.key_file: a client certificate needs its key: give cert_file and key_file "
              "together",
              check(member("ca_file", cert_) + "," + member("key_file", key_)));
    EXPECT_EQ("gw.json: connection.mqtt.cert_file: a client certificate is used only with TLS: give ca_file too",
              check(member("cert_file", cert_) + "," + member("key_file", key_)));
}

TEST(BrokerPort, WithoutAPortTlsMeans8883AndPlainMeans1883)
{
    EXPECT_EQ(8883, apps::broker_port(0, "/etc/sfgw/ca.pem"));
    EXPECT_EQ(1883, apps::broker_port(0, ""));
    EXPECT_EQ(2883, apps::broker_port(2883, "/etc/sfgw/ca.pem"));
}

} // namespace

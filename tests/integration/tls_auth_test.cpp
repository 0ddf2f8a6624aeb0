/*
 * TLS with a throw-away CA, user name and password; a wrong password or
 * a missing client certificate keeps the gateway off the cloud, with a
 * log line that says why.
 */
#include "support/channel_fixture.h"
#include "support/stderr_capture.h"
#include "port/posix/metrics/metrics.h"

namespace it {
namespace {

class TlsAuth : public ChannelTest {
protected:
    void start_broker(bool client_cert)
    {
        BrokerOptions options;
        options.tls = true;
        options.require_client_cert = client_cert;
        options.user = "gateway";
        options.password = "s3cret";
        start({}, options, false);
    }

    MQC_CONFIG_S tls_config(const char *password) const
    {
        MQC_CONFIG_S cfg = mqtt_config();
        cfg.ca_file = ca_.c_str();
        cfg.username = "gateway";
        cfg.password = password;
        return cfg;
    }

    std::string ca_;
};

struct Done {
    std::mutex mutex;
    std::vector<OPERATE_RET> results;
};

void done_cb(OPERATE_RET op_ret, const void *prv)
{
    auto *done = static_cast<Done *>(const_cast<void *>(prv));
    std::lock_guard<std::mutex> hold(done->mutex);
    done->results.push_back(op_ret);
}

TEST_F(TlsAuth, TlsWithUserAndPasswordConnectsAndPublicationsAreAcknowledged)
{
    start_broker(false);
    ca_ = broker_->ca_file();
    MQC_CONFIG_S cfg = tls_config("s3cret");
    ASSERT_EQ(RC_OK, mqc_start(&cfg));
    ASSERT_TRUE(eventually([] { return get_mqc_conn_stat() == 1; }, seconds(30)));
    EXPECT_EQ(GW_NW_CLOUD, get_gw_nw_status());

    Done done;
    ASSERT_EQ(RC_OK, mqc_prot_data_rept_seq(MQC_PRO_PRESENCE, "{\"online\":[\"a\"]}", 1, 10, done_cb, &done));
    EXPECT_TRUE(eventually(
        [&] {
            std::lock_guard<std::mutex> hold(done.mutex);
            return done.results == std::vector<OPERATE_RET>{RC_OK};
        },
        seconds(10)));
}

TEST_F(TlsAuth, WrongPasswordIsRefusedWithAClearLog)
{
    StderrCapture log;
    start_broker(false);
    ca_ = broker_->ca_file();
    MQC_CONFIG_S cfg = tls_config("wrong");
    ASSERT_EQ(RC_OK, mqc_start(&cfg));

    const std::string refused = "MQTT broker 127.0.0.1:" + std::to_string(broker_->port()) +
                                " refused the connection: Connection Refused: not authorised."
                                " (check the user name and password)";
    EXPECT_TRUE(log.wait_for(refused, seconds(30))) << log.text();
    EXPECT_EQ(0, get_mqc_conn_stat());
    EXPECT_EQ(GW_NW_LAN, get_gw_nw_status());
    EXPECT_EQ(MQC_RC_NOT_CONNECTED, mqc_prot_data_rept_seq(MQC_PRO_PRESENCE, "{}", 1, 10, nullptr, nullptr));
}

TEST_F(TlsAuth, ClientCertificateIsPresentedWhenTheBrokerRequiresOne)
{
    start_broker(true);
    ca_ = broker_->ca_file();
    MQC_CONFIG_S cfg = tls_config("s3cret");
    const std::string cert = broker_->dir() + "/client.crt";
    const std::string key = broker_->dir() + "/client.key";
    cfg.cert_file = cert.c_str();
    cfg.key_file = key.c_str();
    ASSERT_EQ(RC_OK, mqc_start(&cfg));
    EXPECT_TRUE(eventually([] { return get_mqc_conn_stat() == 1; }, seconds(30)));
}

TEST_F(TlsAuth, UntrustedBrokerCertificateIsLoggedAndRetried)
{
    StderrCapture log;
    start_broker(false);
    ASSERT_TRUE(run_command("cd '" + broker_->dir() +
                            "' && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                            " -subj /CN=other-ca -keyout other.key -out other.crt >/dev/null 2>&1"));
    ca_ = broker_->dir() + "/other.crt";
    MQC_CONFIG_S cfg = tls_config("s3cret");
    ASSERT_EQ(RC_OK, mqc_start(&cfg));

    sf_metrics::reset();
    EXPECT_TRUE(log.wait_for("certificate verify failed", seconds(30))) << log.text();
    // libmosquitto's loop gives up on TLS errors; the client keeps trying,
    // backing off, and says so once at error level for the whole outage.
    const std::string failed = "MQTT connection to 127.0.0.1:" + std::to_string(broker_->port()) +
                               " failed (A TLS error occurred.), retrying in ";
    EXPECT_TRUE(log.wait_for(failed + "1 s", seconds(30))) << log.text();
    EXPECT_TRUE(eventually([] { return sf_metrics::snapshot().counters[sf_metrics::MqttConnectFailures] >= 3; },
                           seconds(30)));
    EXPECT_EQ(std::string::npos, log.text().find(failed + "2 s")) << log.text();
    EXPECT_EQ(0, get_mqc_conn_stat());
}

TEST_F(TlsAuth, UnknownCaFileFailsAtStartWithALog)
{
    StderrCapture log;
    start_broker(false);
    ca_ = broker_->dir() + "/missing-ca.crt";
    MQC_CONFIG_S cfg = tls_config("s3cret");
    EXPECT_EQ(MQC_RC_START_FAIL, mqc_start(&cfg));
    EXPECT_TRUE(log.wait_for("MQTT client set-up failed", seconds(5))) << log.text();
}

} // namespace
} // namespace it

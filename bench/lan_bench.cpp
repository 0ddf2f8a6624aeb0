/*
 * The LAN channel over a real loopback socket, TLS 1.3 (PSK of the local
 * key) against plain TCP in the same run.
 *
 * Backend: the production POSIX backend (sf_posix: the LAN channel, the
 * registry, the message module) with the smart frame, no MQTT client. A
 * command's round trip is a LAN group command (`{"cmd":"group",...}`, one
 * sub-device) from the client to the answer frame 208 the module sends back
 * on the LAN, through the channel's thread, the dispatch thread and an
 * application group callback that answers at once.
 *
 *  - BM_LanRoundTrip/tls:0|1: one command at a time over one connection:
 *    commands per second and the round trip's p50 and p99 (µs);
 *  - BM_LanPipelined/tls:0|1: 16 commands in flight over one connection:
 *    commands per second once connected;
 *  - BM_LanHandshake: connect, TLS handshake, greeting, close, one after
 *    the other: handshakes per second (the channel's one thread does the
 *    server's side; the client runs on another core).
 */
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "cloud_defs/gw_intf.h"
#include "port/posix/lan/lan_config.h"
#include "port/posix/lan/lan_tls_client.h"
#include "support/bench_gateway.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char LOCAL_KEY[] = "bench-local-key-01";
constexpr int WINDOW = 16;

[[noreturn]] void die(const std::string &why)
{
    std::fprintf(stderr, "sf_bench_lan: %s\n", why.c_str());
    std::exit(1);
}

OPERATE_RET answer_group(const GRP_ACTION_E, const CHAR_T *, const CHAR_T *) { return RC_OK; }

/* The channel in the mode asked, started (again) when it runs in the other one. */
void use_channel(bool tls)
{
    static int mode = -1;
    if (mode == (tls ? 1 : 0)) {
        return;
    }
    if (mode < 0) {
        bench::start_gateway(1);
        get_gw_cntl()->gw_cbs.gw_dev_grp_cb = answer_group;
        std::signal(SIGPIPE, SIG_IGN);
    }
    lan_stop();
    LAN_CONFIG_S cfg{};
    cfg.local_key = LOCAL_KEY;
    cfg.security = tls ? LAN_SECURITY_TLS : LAN_SECURITY_PLAIN;
    cfg.max_pending_clients = 64; // the handshake loop closes each connection before the next
    if (lan_start(&cfg) != RC_OK) {
        die("lan_start");
    }
    mode = tls ? 1 : 0;
}

class Client {
public:
    ~Client()
    {
        tls_.reset();
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    /* Connect, prove the key, read the greeting. */
    void open(bool tls)
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        const int on = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(lan_bound_port());
        if (::connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            die("connect");
        }
        std::string why;
        if (tls) {
            tls_ = std::make_unique<sf_lan::TlsClient>();
            if (!tls_->handshake(fd_, bench::GW_ID, LOCAL_KEY, &why)) {
                die(why);
            }
        } else {
            write(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\"}\n");
        }
        if (line().find("\"type\":1") == std::string::npos) {
            die("no greeting");
        }
    }

    void write(const std::string &text)
    {
        const bool ok = tls_ ? tls_->write_all(text)
                             : ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
        if (!ok) {
            die("write");
        }
    }

    std::string line()
    {
        for (;;) {
            const size_t end = buffer_.find('\n');
            if (end != std::string::npos) {
                std::string one = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return one;
            }
            char chunk[16384];
            const ssize_t got = tls_ ? tls_->read(chunk, sizeof chunk) : ::recv(fd_, chunk, sizeof chunk, 0);
            if (got <= 0) {
                die("the channel closed the connection");
            }
            buffer_.append(chunk, static_cast<size_t>(got));
        }
    }

private:
    int fd_ = -1;
    std::unique_ptr<sf_lan::TlsClient> tls_;
    std::string buffer_;
};

const std::string COMMAND =
    "{\"cmd\":\"group\",\"data\":{\"action\":0,\"cids\":[\"" + bench::sub_id(0) + "\"],\"gid\":\"5\"}}\n";

/* The next answer frame 208 (reports in between are skipped). */
void answer(Client *client)
{
    while (client->line().compare(0, 11, "{\"type\":208") != 0) {
    }
}

void BM_LanRoundTrip(benchmark::State &state)
{
    const bool tls = state.range(0) != 0;
    use_channel(tls);
    Client client;
    client.open(tls);
    std::vector<double> samples;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        client.write(COMMAND);
        answer(&client);
        samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    const bench::Percentiles p = bench::percentiles(samples);
    state.counters["p50_us"] = p.p50;
    state.counters["p99_us"] = p.p99;
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LanRoundTrip)->ArgName("tls")->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_LanPipelined(benchmark::State &state)
{
    const bool tls = state.range(0) != 0;
    use_channel(tls);
    Client client;
    client.open(tls);
    for (auto _ : state) {
        std::string burst;
        for (int i = 0; i < WINDOW; ++i) {
            burst += COMMAND;
        }
        client.write(burst);
        for (int i = 0; i < WINDOW; ++i) {
            answer(&client);
        }
    }
    state.SetItemsProcessed(state.iterations() * WINDOW);
}
BENCHMARK(BM_LanPipelined)->ArgName("tls")->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_LanHandshake(benchmark::State &state)
{
    use_channel(true);
    for (auto _ : state) {
        Client client;
        client.open(true);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LanHandshake)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    lan_stop(); // the channel's thread ends before the process does
    return 0;
}

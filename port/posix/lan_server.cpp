/*
 * The LAN channel: a TCP server of newline-delimited JSON frames
 * (services/lan_channel.h, port/posix/lan_config.h, docs/wire-protocol.md);
 * this file holds its sockets, its thread, start and stop.
 *
 * One thread owns the sockets: it accepts, reads, authenticates and writes
 * without ever blocking on a client. Reports are queued by the reporting
 * threads under g_mutex and written by that thread; a client whose queue is
 * full is dropped, so a slow reader never holds up the gateway. Commands
 * are handed to the smart frame after g_mutex is released, since the
 * application's query callback may report back into this channel.
 */
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "channel_log.h"
#include "gw_registry.h"
#include "lan_config.h"
#include "lan_channel_state.h"
#include "metrics.h"
#include "posix_tunables.h"

namespace sf_lan {

std::mutex g_mutex;
std::vector<std::unique_ptr<Session>> g_sessions;
Settings g_settings;

} // namespace sf_lan

using namespace sf_lan; // this file is part of the channel

namespace {

constexpr int POLL_TICK_MS = SF_LAN_POLL_TICK_MS;
constexpr size_t READ_CHUNK = SF_LAN_READ_CHUNK;

struct Command {
    std::string peer;
    std::string line;
};

// g_thread and the sockets are touched only by lan_start/lan_stop and the
// channel's thread.
int g_listen_fd = -1;
int g_wake[2] = {-1, -1};
USHORT_T g_port = 0;
bool g_stop = false;
std::thread g_thread;

} // namespace

void sf_lan::wake_loop()
{
    const char byte = 1;
    if (g_wake[1] >= 0) {
        // A full pipe already guarantees a wake-up.
        (void)!::write(g_wake[1], &byte, 1);
    }
}

namespace {

void accept_clients()
{
    for (;;) {
        sockaddr_in addr{};
        socklen_t addr_len = sizeof addr;
        const int fd = ::accept4(g_listen_fd, reinterpret_cast<sockaddr *>(&addr), &addr_len,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        char ip[INET_ADDRSTRLEN] = "?";
        ::inet_ntop(AF_INET, &addr.sin_addr, ip, sizeof ip);
        std::string peer = std::string(ip) + ":" + std::to_string(ntohs(addr.sin_port));
        std::lock_guard<std::mutex> hold(g_mutex);
        if (g_sessions.size() >= g_settings.max_clients) {
            CH_LOG_ERR("LAN client %s refused: %zu clients connected", peer.c_str(), g_sessions.size());
            ::close(fd);
            continue;
        }
        CH_LOG_INFO("LAN client %s connected", peer.c_str());
        g_sessions.push_back(std::make_unique<Session>(fd, std::move(peer), Clock::now()));
    }
}

/* Caller holds g_mutex. Reads what is there; command lines go to *commands. */
void read_session(Session *session, std::vector<Command> *commands)
{
    char buf[READ_CHUNK];
    for (;;) {
        const ssize_t got = ::recv(session->fd(), buf, sizeof buf, MSG_DONTWAIT);
        if (got == 0) {
            session->close_soon("closed by the peer");
            return;
        }
        if (got < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                session->close_soon("read error");
            }
            return;
        }
        std::vector<std::string> lines;
        if (!session->take_bytes(buf, static_cast<size_t>(got), g_settings.max_frame_bytes, &lines)) {
            session->close_soon("frame too long");
            return;
        }
        for (std::string &line : lines) {
            if (!session->authed()) {
                if (!authenticate(session, line)) {
                    sf_metrics::lan_auth_refused(session->peer());
                    session->close_soon("authentication failed");
                    return;
                }
            } else {
                commands->push_back(Command{session->peer(), std::move(line)});
            }
        }
    }
}

void run_loop()
{
    std::vector<pollfd> fds;
    for (;;) {
        fds.clear();
        fds.push_back(pollfd{g_wake[0], POLLIN, 0});
        fds.push_back(pollfd{g_listen_fd, POLLIN, 0});
        {
            std::lock_guard<std::mutex> hold(g_mutex);
            if (g_stop) {
                return;
            }
            for (const auto &session : g_sessions) {
                fds.push_back(pollfd{session->fd(), static_cast<short>(POLLIN | (session->has_output() ? POLLOUT : 0)),
                                     0});
            }
        }
        ::poll(fds.data(), fds.size(), POLL_TICK_MS);
        if (fds[0].revents & POLLIN) {
            char drain[64];
            while (::read(g_wake[0], drain, sizeof drain) > 0) {
            }
        }
        std::vector<Command> commands;
        {
            std::lock_guard<std::mutex> hold(g_mutex);
            const Clock::time_point now = Clock::now();
            // Sessions are added and removed only on this thread, so the
            // indices of the poll set still match.
            for (size_t i = 0; i + 2 < fds.size() && i < g_sessions.size(); ++i) {
                Session *session = g_sessions[i].get();
                if (!session->closing() && (fds[i + 2].revents & (POLLIN | POLLHUP | POLLERR))) {
                    read_session(session, &commands);
                }
                if (!session->closing() && !session->flush()) {
                    session->close_soon("write error");
                }
                if (!session->authed() && !session->closing() && now - session->opened() > g_settings.auth_timeout) {
                    session->close_soon("no authentication in time");
                }
            }
            for (auto it = g_sessions.begin(); it != g_sessions.end();) {
                if ((*it)->closing()) {
                    CH_LOG_INFO("LAN client %s closed: %s", (*it)->peer().c_str(), (*it)->close_reason().c_str());
                    it = g_sessions.erase(it);
                } else {
                    ++it;
                }
            }
        }
        if (fds[1].revents & POLLIN) {
            accept_clients();
        }
        for (const Command &command : commands) {
            hand_over(command.peer, command.line);
        }
    }
}

bool open_listener(const Settings &settings, sockaddr_in addr)
{
    const USHORT_T port = ntohs(addr.sin_port);
    g_listen_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (g_listen_fd < 0 || ::setsockopt(g_listen_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(g_listen_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        ::listen(g_listen_fd, 16) != 0) {
        CH_LOG_ERR("LAN listen on %s:%u failed: %s", settings.bind_addr.c_str(), port, std::strerror(errno));
        return false;
    }
    socklen_t len = sizeof addr;
    ::getsockname(g_listen_fd, reinterpret_cast<sockaddr *>(&addr), &len);
    g_port = ntohs(addr.sin_port);
    return ::pipe2(g_wake, O_NONBLOCK | O_CLOEXEC) == 0;
}

void close_sockets()
{
    for (int *fd : {&g_listen_fd, &g_wake[0], &g_wake[1]}) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
    g_port = 0;
}

} // namespace

extern "C" OPERATE_RET lan_start(const LAN_CONFIG_S *cfg)
{
    const CHAR_T *key = cfg == nullptr ? nullptr : cfg->local_key;
    if (cfg != nullptr && key == nullptr) {
        key = gw_registry_local_key();
    }
    if (key == nullptr || key[0] == '\0') {
        CH_LOG_ERR("LAN channel needs the gateway's local key");
        return RC_BAD_PARAM;
    }
    if (g_thread.joinable()) {
        CH_LOG_ERR("LAN channel already started");
        return RC_BAD_PARAM;
    }
    Settings settings;
    if (cfg->bind_addr != nullptr && cfg->bind_addr[0] != '\0') {
        settings.bind_addr = cfg->bind_addr;
    }
    settings.local_key = key;
    settings.max_clients = cfg->max_clients != 0 ? cfg->max_clients : settings.max_clients;
    settings.max_queue_frames = cfg->max_queue_frames != 0 ? cfg->max_queue_frames : settings.max_queue_frames;
    settings.max_frame_bytes = cfg->max_frame_bytes != 0 ? cfg->max_frame_bytes : settings.max_frame_bytes;
    settings.max_frame_depth = cfg->max_frame_depth != 0 ? cfg->max_frame_depth : settings.max_frame_depth;
    if (cfg->auth_timeout_ms != 0) {
        settings.auth_timeout = std::chrono::milliseconds(cfg->auth_timeout_ms);
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(cfg->port);
    if (::inet_pton(AF_INET, settings.bind_addr.c_str(), &addr.sin_addr) != 1) {
        CH_LOG_ERR("LAN bind address %s is not an IPv4 address", settings.bind_addr.c_str());
        return RC_BAD_PARAM;
    }
    if (!open_listener(settings, addr)) {
        close_sockets();
        return RC_FAIL;
    }
    {
        // Reporting threads read the limits under the lock; the channel's
        // thread reads them after its creation.
        std::lock_guard<std::mutex> hold(g_mutex);
        g_settings = settings;
        g_stop = false;
    }
    g_thread = std::thread(run_loop);
    CH_LOG_INFO("LAN channel listening on %s:%u", g_settings.bind_addr.c_str(), g_port);
    return RC_OK;
}

extern "C" USHORT_T lan_bound_port(void) { return g_port; }

extern "C" void lan_stop(void)
{
    if (!g_thread.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> hold(g_mutex);
        g_stop = true;
    }
    wake_loop();
    g_thread.join();
    {
        std::lock_guard<std::mutex> hold(g_mutex);
        g_sessions.clear();
    }
    close_sockets();
}


/*
 * The LAN channel: a TCP server of newline-delimited JSON frames
 * (services/lan_channel.h, port/posix/lan/lan_config.h, docs/wire-protocol.md);
 * this file holds its sockets, its thread, start and stop.
 *
 * One thread owns the sockets: it accepts, shakes hands (TLS), reads,
 * authenticates and writes without ever blocking on a client; the TLS
 * library runs non-blocking on the same poll loop (SSL_ERROR_WANT_READ /
 * WANT_WRITE tell which way a session waits). It reads a client only while that
 * client's commands waiting for the application are below their quota
 * (lan_commands.cpp), so a client sending faster than the application
 * handles is held back by TCP instead of filling the gateway's memory. Reports are queued by the reporting
 * threads under g_mutex and written by that thread; a client whose queue is
 * full is dropped, so a slow reader never holds up the gateway. Commands
 * are handed to the smart frame after g_mutex is released, since the
 * application's query callback may report back into this channel.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gateway/registry/gw_registry.h"
#include "lan_config.h"
#include "lan_channel_state.h"
#include "lan_security.h"
#include "port/posix/metrics/metrics.h"
#include "port/posix/posix_tunables.h"
#include "services/log_front.h"

using namespace sf_lan; // this file is part of the channel

namespace {

constexpr int POLL_TICK_MS = SF_LAN_POLL_TICK_MS;
constexpr size_t READ_CHUNK = SF_LAN_READ_CHUNK;

// g_thread, the listener and the wake-up pipe's read end are touched only
// by lan_start/lan_stop and the channel's thread.
int g_listen_fd = -1;
int g_wake_read = -1;
// Reporting threads and the dispatch thread write to the pipe's write end
// while lan_stop may close it: g_wake_mutex guards it, so a wake-up never
// goes to a closed descriptor, nor to one the process reused since.
sf_sync::Mutex g_wake_mutex;
int g_wake_write SF_GUARDED_BY(g_wake_mutex) = -1;
std::atomic<USHORT_T> g_port{0}; /* read by any thread */
bool g_stop SF_GUARDED_BY(g_mutex) = false;
std::thread g_thread;
// The channel's thread only.
uint64_t g_next_session_id = 0;
Clock::time_point g_accept_resume_at{}; /* the listener is not polled before */
bool g_out_of_descriptors = false;      /* the last accept failed for want of descriptors */

} // namespace

void sf_lan::wake_loop()
{
    const char byte = 1;
    sf_sync::Guard hold(g_wake_mutex);
    if (g_wake_write >= 0) {
        // A full pipe already guarantees a wake-up.
        (void)!::write(g_wake_write, &byte, 1);
    }
}

namespace {

bool out_of_descriptors(int err) { return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM; }

/*
 * Accept what waits, until the listen queue is empty, descriptors run out
 * (accepting pauses for accept_backoff) or a newcomer closed an older
 * connection (accepting pauses for evict_pace).
 */
void accept_clients(Clock::time_point now, std::chrono::milliseconds accept_backoff) SF_EXCLUDES(g_mutex)
{
    for (;;) {
        sockaddr_in addr{};
        socklen_t addr_len = sizeof addr;
        const int fd = ::accept4(g_listen_fd, reinterpret_cast<sockaddr *>(&addr), &addr_len,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            const int err = errno;
            if (out_of_descriptors(err)) {
                // The connection stays queued and would wake poll at once:
                // stop listening for a while instead of spinning.
                count(g_counters.accept_failures);
                if (!g_out_of_descriptors) {
                    SF_LOG_ERR("LAN accept failed: %s; trying again every %lld ms", std::strerror(err),
                               static_cast<long long>(accept_backoff.count()));
                    g_out_of_descriptors = true;
                }
                g_accept_resume_at = now + accept_backoff;
            }
            return;
        }
        if (g_out_of_descriptors) {
            SF_LOG_PROG("LAN channel accepts connections again");
            g_out_of_descriptors = false;
        }
        // Frames are small and interactive: a reply written as a few TLS
        // records or lines must not wait for the client's delayed ACK.
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        char ip[INET_ADDRSTRLEN] = "?";
        ::inet_ntop(AF_INET, &addr.sin_addr, ip, sizeof ip);
        const std::string peer = std::string(ip) + ":" + std::to_string(ntohs(addr.sin_port));
        sf_sync::Guard hold(g_mutex);
        if (admit(fd, ip, peer, ++g_next_session_id, now)) {
            g_accept_resume_at = now + g_settings.evict_pace;
            return;
        }
    }
}

/*
 * The channel reads a client only while no complete line of it waits and
 * it has room for more commands; otherwise its bytes stay in the kernel.
 */
bool wants_input(Session &session) SF_REQUIRES(g_mutex)
{
    return !session.closing() && !session.handshaking() && !session.peer_done() && !session.input().has_line() &&
           (!session.authed() || command_room(session) > 0);
}

/* Lines wait that the next turn may take, or decrypted bytes the next turn may read. */
bool lines_ready(Session &session) SF_REQUIRES(g_mutex)
{
    return !session.closing() && (session.input().has_line() || (wants_input(session) && session.tls_pending())) &&
           (!session.authed() || command_room(session) > 0);
}

/* What the channel polls a session for. */
short poll_events(Session &session) SF_REQUIRES(g_mutex)
{
    if (session.handshaking()) {
        return session.handshake_wants_write() ? POLLOUT : POLLIN;
    }
    return static_cast<short>((wants_input(session) ? POLLIN : 0) | (session.has_output() ? POLLOUT : 0));
}

/* One read of what is there. */
void read_session(Session *session, Clock::time_point now) SF_REQUIRES(g_mutex)
{
    char buf[READ_CHUNK];
    size_t got = 0;
    switch (session->receive(buf, sizeof buf, &got)) {
    case Session::Read::Data:
        session->take_bytes(buf, got, now);
        break;
    case Session::Read::Eof:
        // Perhaps only a half-close (shutdown(SHUT_WR)): what it sent is still answered.
        session->set_peer_done(now);
        break;
    case Session::Read::Error:
        session->close_soon("read error");
        break;
    case Session::Read::Again:
        break;
    }
}

/* The handshake of a TLS session, as far as the socket lets it go now. */
void shake_hands(Session *session) SF_REQUIRES(g_mutex)
{
    std::string why;
    switch (session->step_handshake(&why)) {
    case Session::Step::Done:
        if (authed_clients() >= g_settings.max_clients) {
            refuse(session, "every client place is taken");
        } else {
            welcome(session);
        }
        break;
    case Session::Step::Failed:
        handshake_failed(session, why);
        break;
    case Session::Step::Again:
        break;
    }
}

/* A half-closed client whose lines are taken, answered and written is done. */
bool finished_after_half_close(Session &session) SF_REQUIRES(g_mutex)
{
    return session.peer_done() && !session.closing() && !session.input().has_line() &&
           session.waiting_commands() == 0 && !session.has_output();
}

/*
 * The lines of one turn: the key first, then commands within the client's
 * room and the per-turn bound; the rest waits in its buffer.
 */
void take_lines(Session *session, std::vector<Command> *commands) SF_REQUIRES(g_mutex)
{
    for (size_t taken = 0; taken < g_settings.max_lines_per_turn && !session->closing(); ++taken) {
        if (session->authed() && command_room(*session) == 0) {
            return;
        }
        std::string line;
        const LineBuffer::Next next = session->input().next(g_settings.max_frame_bytes, &line);
        if (next == LineBuffer::Next::None) {
            return;
        }
        if (next == LineBuffer::Next::TooLong) {
            session->close_soon("frame too long");
            return;
        }
        if (!session->authed()) {
            if (authed_clients() >= g_settings.max_clients) {
                refuse(session, "every client place is taken");
            } else if (!authenticate(session, line)) {
                refuse(session, "wrong key or not an authentication");
            }
            continue;
        }
        if (session->tls() && session->take_first_line()) {
            // The handshake proved the key; a client written for the plain
            // mode may still send the auth frame: a right one is passed over.
            const AuthFrame auth = classify_auth_frame(line);
            if (auth == AuthFrame::WrongKey) {
                refuse(session, "wrong key in the auth frame");
            }
            if (auth != AuthFrame::NotAuth) {
                continue;
            }
        }
        command_taken(session);
        commands->push_back(Command{session->id(), session->peer(), std::move(line)});
    }
}

void run_loop() SF_EXCLUDES(g_mutex)
{
    // OpenSSL writes with write(2): a client gone would raise SIGPIPE in
    // this thread. Blocked, it stays pending and the write says EPIPE.
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
    // What this thread uses of the settings without g_mutex: lan_start set
    // them before the thread began and sets them again only after it ended.
    FrameLimits limits{};
    std::chrono::milliseconds accept_backoff{};
    {
        sf_sync::Guard hold(g_mutex);
        limits = FrameLimits{g_settings.max_frame_bytes, g_settings.max_frame_depth};
        accept_backoff = g_settings.accept_backoff;
    }
    std::vector<pollfd> fds;
    for (;;) {
        fds.clear();
        fds.push_back(pollfd{g_wake_read, POLLIN, 0});
        int wait_ms = POLL_TICK_MS;
        const Clock::time_point turn = Clock::now();
        if (turn >= g_accept_resume_at) {
            fds.push_back(pollfd{g_listen_fd, POLLIN, 0});
        } else {
            fds.push_back(pollfd{-1, 0, 0}); // accepting pauses
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(g_accept_resume_at - turn);
            wait_ms = static_cast<int>(std::min<long long>(wait_ms, left.count() + 1));
        }
        {
            sf_sync::Guard hold(g_mutex);
            if (g_stop) {
                return;
            }
            for (const auto &session : g_sessions) {
                fds.push_back(pollfd{session->fd(), poll_events(*session), 0});
                if (lines_ready(*session)) {
                    wait_ms = 0; // lines wait that may be taken now
                }
            }
        }
        ::poll(fds.data(), fds.size(), wait_ms);
        count(g_counters.poll_wakeups);
        if (fds[0].revents & POLLIN) {
            char drain[64];
            while (::read(g_wake_read, drain, sizeof drain) > 0) {
            }
        }
        std::vector<Command> commands;
        {
            sf_sync::Guard hold(g_mutex);
            const Clock::time_point now = Clock::now();
            // Sessions are added and removed only on this thread, so the
            // indices of the poll set still match.
            for (size_t i = 0; i + 2 < fds.size() && i < g_sessions.size(); ++i) {
                Session *session = g_sessions[i].get();
                const short revents = fds[i + 2].revents;
                if (session->handshaking() && !session->closing() && revents != 0) {
                    shake_hands(session);
                } else if (wants_input(*session) &&
                           (((fds[i + 2].events & POLLIN) && (revents & (POLLIN | POLLHUP | POLLERR))) ||
                            session->tls_pending())) {
                    read_session(session, now);
                }
                if (!session->closing()) {
                    take_lines(session, &commands);
                }
                if (!session->closing() && !wants_input(*session)) {
                    session->hold(now);
                }
                if (!session->closing() && !session->handshaking() && !session->flush()) {
                    session->close_soon("write error");
                }
                if (finished_after_half_close(*session)) {
                    session->close_soon("closed by the peer");
                }
                check_timeouts(session, now);
            }
            for (auto it = g_sessions.begin(); it != g_sessions.end();) {
                if ((*it)->closing()) {
                    SF_LOG_PROG("LAN client %s closed: %s", (*it)->peer().c_str(), (*it)->close_reason().c_str());
                    it = g_sessions.erase(it);
                } else {
                    ++it;
                }
            }
        }
        if (fds[1].revents & POLLIN) {
            accept_clients(Clock::now(), accept_backoff);
        }
        hand_over_turn(commands, limits);
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
        SF_LOG_ERR("LAN listen on %s:%u failed: %s", settings.bind_addr.c_str(), port, std::strerror(errno));
        return false;
    }
    socklen_t len = sizeof addr;
    ::getsockname(g_listen_fd, reinterpret_cast<sockaddr *>(&addr), &len);
    g_port.store(ntohs(addr.sin_port));
    int wake[2];
    if (::pipe2(wake, O_NONBLOCK | O_CLOEXEC) != 0) {
        return false;
    }
    sf_sync::Guard hold(g_wake_mutex);
    g_wake_read = wake[0];
    g_wake_write = wake[1];
    return true;
}

void close_sockets()
{
    sf_sync::Guard hold(g_wake_mutex);
    for (int *fd : {&g_listen_fd, &g_wake_read, &g_wake_write}) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
    g_port.store(0);
}

} // namespace

extern "C" OPERATE_RET lan_start(const LAN_CONFIG_S *cfg)
{
    const CHAR_T *key = cfg == nullptr ? nullptr : cfg->local_key;
    if (cfg != nullptr && key == nullptr) {
        key = gw_registry_local_key();
    }
    if (key == nullptr || key[0] == '\0') {
        SF_LOG_ERR("LAN channel needs the gateway's local key");
        return RC_BAD_PARAM;
    }
    if (g_thread.joinable()) {
        SF_LOG_ERR("LAN channel already started");
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
    settings.max_client_commands =
        cfg->max_client_commands != 0 ? cfg->max_client_commands : settings.max_client_commands;
    settings.max_lines_per_turn = cfg->max_lines_per_turn != 0 ? cfg->max_lines_per_turn : settings.max_lines_per_turn;
    settings.max_pending_clients =
        cfg->max_pending_clients != 0 ? cfg->max_pending_clients : settings.max_pending_clients;
    settings.max_pending_per_addr =
        cfg->max_pending_per_addr != 0 ? cfg->max_pending_per_addr : settings.max_pending_per_addr;
    for (const auto &[field, setting] : {std::pair{cfg->auth_timeout_ms, &settings.auth_timeout},
                                         std::pair{cfg->idle_timeout_ms, &settings.idle_timeout},
                                         std::pair{cfg->frame_timeout_ms, &settings.frame_timeout},
                                         std::pair{cfg->accept_backoff_ms, &settings.accept_backoff},
                                         std::pair{cfg->evict_pace_ms, &settings.evict_pace}}) {
        if (field != 0) {
            *setting = std::chrono::milliseconds(field);
        }
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(cfg->port);
    if (::inet_pton(AF_INET, settings.bind_addr.c_str(), &addr.sin_addr) != 1) {
        SF_LOG_ERR("LAN bind address %s is not an IPv4 address", settings.bind_addr.c_str());
        return RC_BAD_PARAM;
    }
    if (cfg->handshake_timeout_ms != 0) {
        settings.handshake_timeout = std::chrono::milliseconds(cfg->handshake_timeout_ms);
    }
    Security security;
    const OPERATE_RET security_rc = prepare_security(*cfg, &settings, &security);
    if (security_rc != RC_OK) {
        return security_rc;
    }
    if (!open_listener(settings, addr) || !open_command_markers()) {
        close_sockets();
        SSL_CTX_free(security.ctx);
        return RC_FAIL;
    }
    g_counters.reset();
    {
        // Reporting threads read the limits under the lock; the channel's
        // thread reads them after its creation.
        sf_sync::Guard hold(g_mutex);
        g_settings = settings;
        g_stop = false;
        g_queued_commands = 0;
        g_accept_resume_at = Clock::time_point{};
        g_out_of_descriptors = false;
        g_queued_commands_peak = 0;
        g_psk = security.psk;
        g_key_generation = 0;
    }
    g_tls_ctx = security.ctx;
    g_thread = std::thread(run_loop);
    log_security(settings, security.psk, g_port.load());
    return RC_OK;
}

extern "C" USHORT_T lan_bound_port(void) { return g_port.load(); }

extern "C" void lan_stop(void)
{
    if (!g_thread.joinable()) {
        return;
    }
    {
        sf_sync::Guard hold(g_mutex);
        g_stop = true;
    }
    wake_loop();
    g_thread.join();
    {
        sf_sync::Guard hold(g_mutex);
        g_sessions.clear();
        g_settings.local_key.clear(); // lan_set_local_key answers "not started" from now on
    }
    SSL_CTX_free(g_tls_ctx);
    g_tls_ctx = nullptr;
    close_command_markers();
    close_sockets();
}


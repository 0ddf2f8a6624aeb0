/*
 * The log's buffer and writer thread (log_output.h).
 *
 * Producers append records to `pending` under one short lock (a copy,
 * never I/O); the writer swaps `pending` with its own buffer and writes
 * that without the lock. Both buffers keep their reserved capacity across
 * swaps, so a line costs no allocation here. The same lock guards the rate
 * limit (log_rate_limit.h). The counters read by any thread are atomics.
 *
 * A record is [level byte][4-byte length][text]: the level lets syslog
 * get a priority per line; a raw continuation is its own record.
 */
#include <fcntl.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "services/uni_log.h"
#include "gateway/sync/annotated_lock.h"
#include "log_internal.h"
#include "log_output.h"
#include "log_rate_limit.h"
#include "port/posix/posix_tunables.h"

namespace sf_log {
namespace {

constexpr size_t kCapacity = SF_LOG_BUFFER_BYTES;
constexpr size_t kRecordHeader = 5;

enum class Output { Stderr, File, Syslog };

struct State {
    State() { pending.reserve(kCapacity); } /* before any thread sees it: no lock */

    sf_sync::Mutex lock;
    sf_sync::CondVar work;    /* pending text, a reopen, or a flush request */
    sf_sync::CondVar written; /* a batch went out */
    std::string pending SF_GUARDED_BY(lock);
    uint64_t records_in SF_GUARDED_BY(lock) = 0;  /* records appended so far */
    uint64_t records_out SF_GUARDED_BY(lock) = 0; /* records handed to the output so far */
    uint64_t dropped_since_notice SF_GUARDED_BY(lock) = 0;
    bool reopen_wanted SF_GUARDED_BY(lock) = false;
    Output output SF_GUARDED_BY(lock) = Output::Stderr;
    std::string file_path SF_GUARDED_BY(lock);
    int file_fd SF_GUARDED_BY(lock) = -1;
    std::atomic<uint64_t> suppressed{0}; /* the rate limit's count, read without the lock */
    detail::RateLimit rate SF_GUARDED_BY(lock){suppressed};
    std::vector<std::string> summaries SF_GUARDED_BY(lock); /* scratch of the rate limit's summary lines */
    std::atomic<uint64_t> dropped{0};
    std::atomic<uint64_t> bytes_written{0};
};

void flush_at_exit()
{
    summarize_suppressed();
    flush(std::chrono::milliseconds(2000));
}

void run_writer(State *s);
void write_pending_on_abort(int signal_number);
State *g_state = nullptr; /* for the abort handler */

/* The process-wide state and its writer, started at the first line; never destroyed. */
State &state()
{
    static State *s = [] {
        State *created = new State();
        std::thread(run_writer, created).detach();
        std::atexit(flush_at_exit);
        g_state = created;
        /* the line that says why a process aborts must not die in the buffer */
        struct sigaction action;
        std::memset(&action, 0, sizeof action);
        action.sa_handler = write_pending_on_abort;
        action.sa_flags = SA_RESETHAND;
        sigemptyset(&action.sa_mask);
        sigaction(SIGABRT, &action, nullptr);
        return created;
    }();
    return *s;
}

/* Append one record if it fits. */
bool append_locked(State &s, int level, const std::string &text) SF_REQUIRES(s.lock)
{
    if (s.pending.size() + kRecordHeader + text.size() > kCapacity) {
        return false;
    }
    const uint32_t len = static_cast<uint32_t>(text.size());
    char header[kRecordHeader];
    header[0] = static_cast<char>(level);
    std::memcpy(header + 1, &len, sizeof len);
    s.pending.append(header, kRecordHeader);
    s.pending.append(text);
    ++s.records_in;
    return true;
}

/* Append, or count the line dropped; a first line that fits after drops says how many went. */
bool enqueue_locked(State &s, int level, const std::string &text) SF_REQUIRES(s.lock)
{
    if (s.dropped_since_notice != 0) {
        const std::string notice = detail::time_prefix() + "WARN os_log: " + std::to_string(s.dropped_since_notice) +
                                   " log lines dropped: the log output is too slow\n";
        if (s.pending.size() + 2 * kRecordHeader + notice.size() + text.size() > kCapacity) {
            ++s.dropped_since_notice;
            s.dropped.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        append_locked(s, LOG_LEVEL_WARN, notice);
        s.dropped_since_notice = 0;
    }
    if (!append_locked(s, level, text)) {
        ++s.dropped_since_notice;
        s.dropped.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    return true;
}

/* Queue the rate limit's summary lines, if any. */
void enqueue_summaries_locked(State &s) SF_REQUIRES(s.lock)
{
    for (const std::string &line : s.summaries) {
        enqueue_locked(s, LOG_LEVEL_WARN, line);
    }
    s.summaries.clear();
}

void write_fd(int fd, const char *data, size_t len)
{
    while (len > 0) {
        const ssize_t n = ::write(fd, data, len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return; /* the output is gone: nothing better to do with the lines */
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

int syslog_priority(int level)
{
    static const int priorities[] = {LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_INFO, LOG_DEBUG};
    return level >= 0 && level <= LOG_LEVEL_DETAIL ? priorities[level] : LOG_INFO;
}

/* Hand a batch of records to the output; returns the bytes of text. Writer thread, lock not held. */
size_t write_batch(const std::string &batch, Output output, int fd, std::string *syslog_line, int *syslog_level)
{
    std::string text;
    text.reserve(batch.size());
    size_t bytes = 0;
    for (size_t at = 0; at + kRecordHeader <= batch.size();) {
        uint32_t len = 0;
        std::memcpy(&len, batch.data() + at + 1, sizeof len);
        const int level = static_cast<unsigned char>(batch[at]);
        const char *body = batch.data() + at + kRecordHeader;
        at += kRecordHeader + len;
        bytes += len;
        if (output != Output::Syslog) {
            text.append(body, len);
            continue;
        }
        if (syslog_line->empty()) {
            *syslog_level = level;
        }
        syslog_line->append(body, len);
        size_t end;
        while ((end = syslog_line->find('\n')) != std::string::npos) {
            /* syslog stamps its own time: ours (up to the first space) is left out */
            const size_t space = syslog_line->find(' ');
            const size_t from = space != std::string::npos && space < end ? space + 1 : 0;
            syslog(syslog_priority(*syslog_level), "%.*s", static_cast<int>(end - from), syslog_line->c_str() + from);
            syslog_line->erase(0, end + 1);
        }
    }
    if (!text.empty()) {
        write_fd(fd, text.data(), text.size());
    }
    return bytes;
}

/*
 * SIGABRT: write what is still queued straight to the output (write(2)
 * only, no allocation), then let the abort go on. The lock is taken if it
 * is free; a process that aborts is past caring for a race with its writer.
 * When the lock is not free (the aborting thread may hold it itself) the
 * guarded fields are read without it on purpose, which no annotation can
 * say: the one function of the log outside the analysis.
 */
void write_pending_on_abort(int) SF_NO_THREAD_SAFETY_ANALYSIS
{
    State *s = g_state;
    if (s == nullptr || s->output == Output::Syslog) {
        return;
    }
    const bool locked = s->lock.try_lock();
    const int fd = s->output == Output::File ? s->file_fd : STDERR_FILENO;
    const std::string &pending = s->pending;
    for (size_t at = 0; at + kRecordHeader <= pending.size();) {
        uint32_t len = 0;
        std::memcpy(&len, pending.data() + at + 1, sizeof len);
        write_fd(fd, pending.data() + at + kRecordHeader, len);
        at += kRecordHeader + len;
    }
    if (locked) {
        s->pending.clear();
        s->lock.unlock();
    }
}

void reopen_locked(State &s) SF_REQUIRES(s.lock)
{
    s.reopen_wanted = false;
    if (s.output != Output::File) {
        return;
    }
    const int fd = ::open(s.file_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd >= 0) {
        ::close(s.file_fd);
        s.file_fd = fd;
    }
}

void run_writer(State *s)
{
    std::string batch;
    batch.reserve(kCapacity);
    std::string syslog_line;
    int syslog_level = LOG_LEVEL_DETAIL;
    sf_sync::Guard held(s->lock);
    for (;;) {
        s->work.wait_for(s->lock, std::chrono::seconds(1),
                         [s]() SF_REQUIRES(s->lock) { return !s->pending.empty() || s->reopen_wanted; });
        if (s->reopen_wanted) {
            reopen_locked(*s);
        }
        s->rate.sweep(&s->summaries);
        enqueue_summaries_locked(*s);
        if (s->pending.empty()) {
            continue;
        }
        batch.swap(s->pending);
        const uint64_t upto = s->records_in;
        const Output output = s->output;
        const int fd = output == Output::File ? s->file_fd : STDERR_FILENO;
        held.unlock();
        s->bytes_written.fetch_add(write_batch(batch, output, fd, &syslog_line, &syslog_level),
                                   std::memory_order_relaxed);
        batch.clear();
        held.lock();
        s->records_out = upto;
        s->written.notify_all();
    }
}

} // namespace

namespace detail {

bool submit_line(int level, const Site &site, const std::string &text)
{
    State &s = state();
    bool queued;
    {
        sf_sync::Guard hold(s.lock);
        const bool allowed = s.rate.allows(level, site, &s.summaries);
        enqueue_summaries_locked(s);
        if (!allowed) {
            return false;
        }
        queued = enqueue_locked(s, level, text);
    }
    if (queued) {
        s.work.notify_one();
    }
    return true;
}

void submit_raw(int level, const std::string &text)
{
    State &s = state();
    {
        sf_sync::Guard hold(s.lock);
        if (!enqueue_locked(s, level, text)) {
            return;
        }
    }
    s.work.notify_one();
}

} // namespace detail

bool use_file(const std::string &path, std::string *why)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd < 0) {
        *why = "cannot open the log file " + path + ": " + std::strerror(errno);
        return false;
    }
    State &s = state();
    sf_sync::Guard hold(s.lock);
    if (s.file_fd >= 0) {
        ::close(s.file_fd);
    }
    s.file_fd = fd;
    s.file_path = path;
    s.output = Output::File;
    return true;
}

void use_syslog(const char *ident)
{
    openlog(ident, LOG_PID, LOG_DAEMON);
    State &s = state();
    sf_sync::Guard hold(s.lock);
    s.output = Output::Syslog;
}

void reopen()
{
    State &s = state();
    {
        sf_sync::Guard hold(s.lock);
        s.reopen_wanted = true;
    }
    s.work.notify_one();
}

bool flush(std::chrono::milliseconds limit)
{
    State &s = state();
    sf_sync::Guard held(s.lock);
    const uint64_t target = s.records_in;
    s.work.notify_one();
    return s.written.wait_for(s.lock, limit, [&s, target]() SF_REQUIRES(s.lock) { return s.records_out >= target; });
}

void summarize_suppressed()
{
    State &s = state();
    {
        sf_sync::Guard hold(s.lock);
        s.rate.sweep(&s.summaries, true);
        enqueue_summaries_locked(s);
    }
    s.work.notify_one();
}

void set_rate_limit(unsigned burst, std::chrono::milliseconds window)
{
    State &s = state();
    sf_sync::Guard hold(s.lock);
    s.rate.configure(burst, window);
}

uint64_t dropped_lines() { return state().dropped.load(std::memory_order_relaxed); }

uint64_t suppressed_lines() { return state().suppressed.load(std::memory_order_relaxed); }

uint64_t written_bytes() { return state().bytes_written.load(std::memory_order_relaxed); }

} // namespace sf_log

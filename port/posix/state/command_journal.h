/*
 * The command journal and the session number, in the state file
 * (docs/state.md "Commands in flight").
 *
 * libmosquitto sends the PUBACK of an inbound QoS 1 command from its
 * network loop after the message callback returns (docs/wire-protocol.md
 * "Delivery of commands"), and the broker forgets the command once it has
 * the PUBACK. So the MQTT client writes each command here inside its
 * message callback, with a commit that syncs the WAL, and deletes it once
 * the smart frame has run it: a command the broker counts as delivered is
 * then in memory on its way to the device or in this file, never neither.
 * At start the commands left here are handed on first, oldest first.
 *
 * A connection of its own to the state file (SQLite serialises it against
 * the state writer's), behind one leaf lock: every call may be made from
 * any thread, and put() blocks for one synchronised commit (about 0.5 ms
 * on the machine of docs/benchmarks.md).
 */
#ifndef PORT_POSIX_STATE_COMMAND_JOURNAL_H
#define PORT_POSIX_STATE_COMMAND_JOURNAL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sf_state {
namespace journal {

/* One command kept: its MQTT topic's last level ("dp", "group", ...), its document, and when it expires. */
struct Entry {
    int64_t seq = 0;        /* order of arrival, rising across restarts */
    std::string kind;
    std::string payload;
    int64_t expires_ms = 0; /* POSIX milliseconds after which it is never applied; 0: never expires */
};

/*
 * Open the journal in the state file at path (the store must have opened
 * it: state_store.h start()). false, logged, when it cannot: commands then
 * live in memory only until they are applied, as without a state file.
 */
bool open(const std::string &path);

/* Close; what is still journaled stays for the next start. Idempotent. */
void close();

bool is_open();

/*
 * Keep one command before its acknowledgement leaves. Its seq, or 0 when
 * it could not be kept (journal closed, or a failed write, logged once per
 * episode): the command then goes on in memory only.
 */
int64_t put(const char *kind, const void *payload, size_t len, int64_t expires_ms);

/* The command seq reached the application (or was refused, or expired): delete it at the next flush(). */
void done(int64_t seq);

/* Delete the commands marked done, in one transaction. */
void flush();

/* Every command kept, oldest first (at start, before any new one arrives). */
std::vector<Entry> read_all();

/*
 * The session number of the next connection: the stored one plus one,
 * stored before it is returned (a synchronised commit). 0 when the journal
 * is not open or the write failed (logged).
 */
uint64_t next_session();

} // namespace journal
} // namespace sf_state

#endif /* PORT_POSIX_STATE_COMMAND_JOURNAL_H */

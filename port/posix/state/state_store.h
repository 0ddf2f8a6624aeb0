/*
 * Durable DP state of the gateway (format and guarantees: docs/state.md).
 *
 * start() opens the state file, applies the stored values and publish
 * states to the freshly loaded registry, and starts the writer thread.
 * From then on every device the module looks up is marked; every interval
 * the writer copies the marked devices' DP tables under dev_mutex (a copy,
 * nothing more) and writes the rows that changed in one transaction, with
 * dev_mutex released. stop() writes everything once more and closes.
 *
 * A bad state file never stops the gateway: start() logs one line and
 * either sets the file aside and starts from the description, or runs on
 * without storing (from the stored values when the file is good but its
 * location read-only). Failed writes are logged once per episode and retried.
 */
#ifndef PORT_POSIX_STATE_STORE_H
#define PORT_POSIX_STATE_STORE_H

#include <chrono>
#include <string>

#include "port/posix/posix_tunables.h"

namespace sf_state {

struct Settings {
    std::string path;
    std::chrono::milliseconds interval{SF_STATE_WRITE_INTERVAL_MS}; /* between two writes */
};

/*
 * After the registry is loaded and before anything reports (the module's
 * DP sync may already run: the restored publish states are what it sends).
 * true when the writer runs; false (logged) when no state file can be used.
 * Not with dev_mutex held; not while a store runs.
 */
bool start(const Settings &settings);

/*
 * Write every DP once more, stop the writer and close the file. After the
 * threads that report have stopped and before the registry is unloaded.
 * Idempotent.
 */
void stop();

bool running();

/*
 * Whether start() found the state file's location read-only: the stored
 * values were restored from it, and nothing is written (no writer runs).
 * Any thread; the metric sf_state_read_only shows it.
 */
bool read_only();

/* Whether start() applied a stored value to this DP (the simulator starts its devices from it). */
bool restored(const std::string &dev, int dpid);

/* Writer passes done since start(); tests wait on it. */
unsigned long passes();

/* Run SQL on the writer's connection between two writes; the SQLite result code (tests: a full disk). */
int exec_for_test(const std::string &sql);

} // namespace sf_state

#endif /* PORT_POSIX_STATE_STORE_H */

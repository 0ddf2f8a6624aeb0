/*
 * The writer thread of the state store: every interval it takes the
 * devices marked by sf_state_touch (and those of the interval before, so
 * a change made just after the copy of its device is not missed), copies
 * their DP tables, and writes the rows that differ from what the file
 * holds in one transaction. Rows that could not be written stay pending
 * and are retried on every pass.
 */
#ifndef PORT_POSIX_STATE_WRITER_H
#define PORT_POSIX_STATE_WRITER_H

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "gateway/sync/annotated_lock.h"
#include "state_db.h"
#include "state_rows.h"

namespace sf_state {

class Writer {
public:
    Writer(std::unique_ptr<Db> db, std::chrono::milliseconds interval);
    ~Writer();
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    /* Take the registry as it is now as what the file holds, start marking and the thread. */
    void start();
    /* Stop marking and the thread, write every DP once more, close the file. */
    void stop();

    unsigned long passes() const { return passes_.load(); }
    int exec(const std::string &sql) SF_EXCLUDES(db_mutex_);

private:
    void run() SF_EXCLUDES(wait_mutex_);
    void pass(bool everything) SF_EXCLUDES(db_mutex_);
    void write_pending() SF_EXCLUDES(db_mutex_);

    const std::string path_; /* the file's, for the logs: fixed once it is open */
    sf_sync::Mutex db_mutex_; /* the connection: a pass against exec() */
    const std::unique_ptr<Db> db_ SF_PT_GUARDED_BY(db_mutex_);
    const std::chrono::milliseconds interval_;
    // The writer thread's own, and stop()'s once it has joined the thread: no lock.
    std::map<Key, Row> written_;
    std::map<Key, Row> pending_; /* changed, not written yet */
    Marks previous_;
    bool failing_ = false;

    sf_sync::Mutex wait_mutex_;
    sf_sync::CondVar wake_;
    bool stopping_ SF_GUARDED_BY(wait_mutex_) = false;
    std::atomic<unsigned long> passes_{0};
    std::thread thread_;
};

} // namespace sf_state

#endif /* PORT_POSIX_STATE_WRITER_H */

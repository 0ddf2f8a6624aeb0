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
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

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
    int exec(const std::string &sql);

private:
    void run();
    void pass(bool everything);
    void write_pending();

    std::unique_ptr<Db> db_;
    std::mutex db_mutex_; /* the connection: a pass against exec() */
    const std::chrono::milliseconds interval_;
    std::map<Key, Row> written_; /* writer thread only */
    std::map<Key, Row> pending_; /* changed, not written yet; writer thread only */
    Marks previous_;
    bool failing_ = false;

    std::mutex wait_mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::atomic<unsigned long> passes_{0};
    std::thread thread_;
};

} // namespace sf_state

#endif /* PORT_POSIX_STATE_WRITER_H */

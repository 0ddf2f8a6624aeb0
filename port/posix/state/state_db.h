/*
 * The state file: one SQLite database in WAL mode holding one row per
 * (device, DP) with the DP's value, its publish state and the time the
 * value was written. Format and guarantees: docs/state.md.
 *
 * Only storage lives here; what goes in and comes out is decided by
 * state_capture.cpp and state_restore.cpp. Not thread-safe: one thread at
 * a time uses a Db (the writer thread once it runs).
 */
#ifndef PORT_POSIX_STATE_DB_H
#define PORT_POSIX_STATE_DB_H

#include <string>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace sf_state {

/* The schema this gateway reads and writes (PRAGMA user_version). */
constexpr int SCHEMA_VERSION = 1;

/* One stored DP. */
struct Row {
    std::string dev;      /* device id */
    int dpid = 0;
    int prop = 0;         /* DP_PROP_TP_E */
    std::string range;    /* the DP's limits when stored ("0..1000/1/0", "len 255", "bits 8", "") */
    long long num = 0;    /* bool, value and bitmap DPs */
    std::string text;     /* string DPs; enum DPs store the name, so reordered names cannot mislead */
    int pv_stat = 0;      /* DP_PV_STAT_E */
    long long time_ms = 0; /* POSIX milliseconds the writer saw this value; not compared */

    /* Same stored content; the time is left out. */
    bool same_as(const Row &other) const
    {
        return prop == other.prop && num == other.num && pv_stat == other.pv_stat && range == other.range &&
               text == other.text;
    }
};

using Key = std::pair<std::string, int>; /* (device id, DP id) */

class Db {
public:
    Db() = default;
    ~Db();
    Db(const Db &) = delete;
    Db &operator=(const Db &) = delete;

    /*
     * Open the file, creating it when missing. A file that is no SQLite
     * database, is damaged, or holds another schema version is renamed
     * to PATH.bad-<UTC time> (its -wal too) with one log line, and a new
     * file is made in its place. A good file that cannot be opened for
     * writing (a read-only mount, as flash becomes after a file-system
     * error) is opened read-only: read_only() is then true, its rows can
     * be read and write() refuses. false, with one log line, when the
     * location cannot be used at all (no file and no way to make one,
     * missing directory): the gateway then runs without a state file.
     */
    bool open(const std::string &path);
    bool is_open() const { return db_ != nullptr; }
    bool read_only() const { return !copy_dir_.empty(); }
    const std::string &path() const { return path_; }

    /* Every stored row; false (logged) when the file cannot be read. */
    bool read_all(std::vector<Row> *rows);

    /*
     * Insert or replace rows and delete keys, all in one transaction. Returns
     * the SQLite result code (0 SQLITE_OK); on failure nothing was written
     * and *why names the reason. Nothing is logged here: the writer logs
     * once per episode.
     */
    int write(const std::vector<Row> &rows, const std::vector<Key> &deletes, std::string *why);

    /* Run one SQL statement on the connection (tests: a page limit standing for a full disk). */
    int exec(const std::string &sql);

    void close();

private:
    enum class Check { GOOD, EMPTY, BAD, UNUSABLE };
    Check check(std::string *why);
    bool create_schema();
    bool reopen();
    void set_aside(const std::string &why);
    bool open_read_only_copy();

    std::string path_;
    /*
     * Read-only: the private directory holding the copy that is open.
     * SQLite cannot read a WAL file in a location where it may not create
     * the shared-memory index, so the file and its WAL are copied out and
     * read there; the copy goes with close().
     */
    std::string copy_dir_;
    sqlite3 *db_ = nullptr;
    sqlite3_stmt *upsert_ = nullptr;
    sqlite3_stmt *remove_ = nullptr;
};

} // namespace sf_state

#endif /* PORT_POSIX_STATE_DB_H */

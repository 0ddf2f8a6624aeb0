/*
 * The command journal and the session number on SQLite (command_journal.h).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_STATE
#include "command_journal.h"

#include <sqlite3.h>

#include <chrono>

#include "gateway/sync/annotated_lock.h"
#include "port/posix/posix_tunables.h"
#include "services/log_front.h"

namespace sf_state {
namespace journal {

namespace {

/*
 * Made beside dp_state on first use; a state file without them is read as
 * before, so the schema version stays the same.
 */
constexpr char CREATE[] =
    "CREATE TABLE IF NOT EXISTS cmd_journal("
    " seq INTEGER PRIMARY KEY, kind TEXT NOT NULL, payload BLOB NOT NULL,"
    " expires_ms INTEGER NOT NULL, received_ms INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS gw_meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID";
constexpr char INSERT[] = "INSERT INTO cmd_journal(kind, payload, expires_ms, received_ms) VALUES(?1, ?2, ?3, ?4)";
constexpr char REMOVE[] = "DELETE FROM cmd_journal WHERE seq = ?1";
constexpr char SELECT_ALL[] = "SELECT seq, kind, payload, expires_ms FROM cmd_journal ORDER BY seq";
constexpr char RAISE_SESSION[] =
    "INSERT INTO gw_meta VALUES('session', 1) ON CONFLICT(key) DO UPDATE SET value = value + 1 RETURNING value";

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

struct Journal {
    sf_sync::Mutex db_mutex; /* the connection; held for one commit at a time */
    sqlite3 *db SF_GUARDED_BY(db_mutex) = nullptr;
    sqlite3_stmt *insert SF_GUARDED_BY(db_mutex) = nullptr;
    sqlite3_stmt *remove SF_GUARDED_BY(db_mutex) = nullptr;
    std::string path SF_GUARDED_BY(db_mutex);
    bool failing SF_GUARDED_BY(db_mutex) = false; /* a write failed: logged once until one works */

    sf_sync::Mutex marks_mutex; /* leaf: done() never waits for a commit */
    std::vector<int64_t> marked SF_GUARDED_BY(marks_mutex);
};

Journal g_journal;

void close_locked(Journal &j) SF_REQUIRES(j.db_mutex)
{
    sqlite3_finalize(j.insert);
    sqlite3_finalize(j.remove);
    j.insert = nullptr;
    j.remove = nullptr;
    if (j.db != nullptr) {
        sqlite3_close_v2(j.db);
        j.db = nullptr;
    }
}

/* Log the first failure of an episode and the first success after it. */
void note_write(Journal &j, int rc, const char *what) SF_REQUIRES(j.db_mutex)
{
    if (rc != SQLITE_OK && !j.failing) {
        j.failing = true;
        SF_LOG_ERR("state: journal of %s: %s failed (%s): commands are kept in memory only until this works again",
                   j.path.c_str(), what, sqlite3_errmsg(j.db));
    } else if (rc == SQLITE_OK && j.failing) {
        j.failing = false;
        SF_LOG_NOTICE("state: journal of %s works again", j.path.c_str());
    }
}

} // namespace

bool open(const std::string &path)
{
    Journal &j = g_journal;
    sf_sync::Guard hold(j.db_mutex);
    if (j.db != nullptr) {
        return true;
    }
    j.path = path;
    int rc = sqlite3_open_v2(path.c_str(), &j.db, SQLITE_OPEN_READWRITE, nullptr);
    if (rc == SQLITE_OK) {
        sqlite3_busy_timeout(j.db, SF_STATE_BUSY_TIMEOUT_MS);
        /* FULL in WAL mode: every commit syncs the WAL, so a journaled command survives a power cut. */
        rc = sqlite3_exec(j.db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
    }
    if (rc == SQLITE_OK) {
        rc = sqlite3_exec(j.db, CREATE, nullptr, nullptr, nullptr);
    }
    if (rc == SQLITE_OK) {
        rc = sqlite3_prepare_v2(j.db, INSERT, -1, &j.insert, nullptr);
    }
    if (rc == SQLITE_OK) {
        rc = sqlite3_prepare_v2(j.db, REMOVE, -1, &j.remove, nullptr);
    }
    if (rc != SQLITE_OK) {
        SF_LOG_ERR("state: no command journal in %s (%s): commands are kept in memory only until they are applied",
                   path.c_str(), j.db != nullptr ? sqlite3_errmsg(j.db) : sqlite3_errstr(rc));
        close_locked(j);
        return false;
    }
    j.failing = false;
    return true;
}

void close()
{
    flush();
    sf_sync::Guard hold(g_journal.db_mutex);
    close_locked(g_journal);
}

bool is_open()
{
    sf_sync::Guard hold(g_journal.db_mutex);
    return g_journal.db != nullptr;
}

int64_t put(const char *kind, const void *payload, size_t len, int64_t expires_ms)
{
    Journal &j = g_journal;
    sf_sync::Guard hold(j.db_mutex);
    if (j.db == nullptr) {
        return 0;
    }
    sqlite3_reset(j.insert);
    sqlite3_bind_text(j.insert, 1, kind, -1, SQLITE_STATIC);
    sqlite3_bind_blob(j.insert, 2, len != 0 ? payload : "", static_cast<int>(len), SQLITE_STATIC);
    sqlite3_bind_int64(j.insert, 3, expires_ms);
    sqlite3_bind_int64(j.insert, 4, now_ms());
    const int rc = sqlite3_step(j.insert) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(j.db);
    sqlite3_reset(j.insert);
    note_write(j, rc, "keeping a command");
    return rc == SQLITE_OK ? sqlite3_last_insert_rowid(j.db) : 0;
}

void done(int64_t seq)
{
    if (seq <= 0) {
        return;
    }
    sf_sync::Guard hold(g_journal.marks_mutex);
    g_journal.marked.push_back(seq);
}

void flush()
{
    Journal &j = g_journal;
    std::vector<int64_t> marked;
    {
        sf_sync::Guard hold(j.marks_mutex);
        marked.swap(j.marked);
    }
    if (marked.empty()) {
        return;
    }
    sf_sync::Guard hold(j.db_mutex);
    if (j.db == nullptr) {
        return;
    }
    int rc = sqlite3_exec(j.db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    for (size_t i = 0; rc == SQLITE_OK && i < marked.size(); ++i) {
        sqlite3_reset(j.remove);
        sqlite3_bind_int64(j.remove, 1, marked[i]);
        rc = sqlite3_step(j.remove) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(j.db);
    }
    sqlite3_reset(j.remove);
    if (rc == SQLITE_OK) {
        rc = sqlite3_exec(j.db, "COMMIT", nullptr, nullptr, nullptr);
    }
    note_write(j, rc, "deleting applied commands");
    if (rc != SQLITE_OK) {
        if (sqlite3_get_autocommit(j.db) == 0) {
            sqlite3_exec(j.db, "ROLLBACK", nullptr, nullptr, nullptr);
        }
        // Not deleted: tried again at the next flush. A crash before then
        // applies them once more, which an absolute command makes harmless.
        sf_sync::Guard again(j.marks_mutex);
        j.marked.insert(j.marked.end(), marked.begin(), marked.end());
    }
}

std::vector<Entry> read_all()
{
    Journal &j = g_journal;
    std::vector<Entry> entries;
    sf_sync::Guard hold(j.db_mutex);
    if (j.db == nullptr) {
        return entries;
    }
    sqlite3_stmt *stmt = nullptr;
    int rc = sqlite3_prepare_v2(j.db, SELECT_ALL, -1, &stmt, nullptr);
    while (rc == SQLITE_OK && (rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        Entry e;
        e.seq = sqlite3_column_int64(stmt, 0);
        const unsigned char *kind = sqlite3_column_text(stmt, 1);
        e.kind = kind != nullptr ? reinterpret_cast<const char *>(kind) : "";
        const void *blob = sqlite3_column_blob(stmt, 2);
        e.payload.assign(static_cast<const char *>(blob != nullptr ? blob : ""),
                         static_cast<size_t>(sqlite3_column_bytes(stmt, 2)));
        e.expires_ms = sqlite3_column_int64(stmt, 3);
        entries.push_back(std::move(e));
        rc = SQLITE_OK;
    }
    sqlite3_finalize(stmt);
    if (rc != SQLITE_DONE) {
        SF_LOG_ERR("state: cannot read the command journal of %s (%s): the commands in it are not applied",
                   j.path.c_str(), sqlite3_errmsg(j.db));
        entries.clear();
    }
    return entries;
}

uint64_t next_session()
{
    Journal &j = g_journal;
    sf_sync::Guard hold(j.db_mutex);
    if (j.db == nullptr) {
        return 0;
    }
    sqlite3_stmt *stmt = nullptr;
    int64_t value = 0;
    int rc = sqlite3_prepare_v2(j.db, RAISE_SESSION, -1, &stmt, nullptr);
    if (rc == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW) {
        value = sqlite3_column_int64(stmt, 0);
    }
    rc = sqlite3_finalize(stmt);
    note_write(j, rc, "raising the session number");
    return rc == SQLITE_OK && value > 0 ? static_cast<uint64_t>(value) : 0;
}

} // namespace journal
} // namespace sf_state

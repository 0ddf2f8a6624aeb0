/*
 * The state file on SQLite: opening with its checks, setting a bad file
 * aside, reading every row, and writing changed rows in one transaction.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_STATE
#include "state_db.h"

#include <sqlite3.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <stdlib.h>
#include <sys/stat.h>

#include "port/posix/posix_tunables.h"
#include "services/log_front.h"

namespace sf_state {

namespace {

/* "SFST": marks a state file of this gateway among other SQLite files. */
constexpr int APPLICATION_ID = 0x53465354;

constexpr char CREATE_TABLE[] =
    "CREATE TABLE dp_state("
    " dev TEXT NOT NULL, dp INTEGER NOT NULL, prop INTEGER NOT NULL, range TEXT NOT NULL,"
    " num INTEGER NOT NULL, text TEXT NOT NULL, pv_stat INTEGER NOT NULL, time_ms INTEGER NOT NULL,"
    " PRIMARY KEY(dev, dp)) WITHOUT ROWID";
constexpr char UPSERT[] = "INSERT OR REPLACE INTO dp_state VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)";
constexpr char REMOVE[] = "DELETE FROM dp_state WHERE dev = ?1 AND dp = ?2";
constexpr char SELECT_ALL[] = "SELECT dev, dp, prop, range, num, text, pv_stat, time_ms FROM dp_state";

bool exists(const std::string &path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

/* One integer from a statement such as "PRAGMA user_version"; the SQLite result code. */
int query_int(sqlite3 *db, const char *sql, long long *out)
{
    sqlite3_stmt *stmt = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
    if (rc == SQLITE_OK) {
        rc = sqlite3_step(stmt);
        if (rc == SQLITE_ROW) {
            *out = sqlite3_column_int64(stmt, 0);
            rc = SQLITE_OK;
        }
    }
    sqlite3_finalize(stmt);
    return rc;
}

/* The first text of a statement such as "PRAGMA quick_check"; the SQLite result code. */
int query_text(sqlite3 *db, const char *sql, std::string *out)
{
    sqlite3_stmt *stmt = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
    if (rc == SQLITE_OK) {
        rc = sqlite3_step(stmt);
        if (rc == SQLITE_ROW) {
            const unsigned char *text = sqlite3_column_text(stmt, 0);
            *out = text != nullptr ? reinterpret_cast<const char *>(text) : "";
            rc = SQLITE_OK;
        }
    }
    sqlite3_finalize(stmt);
    return rc;
}

bool unreadable(int rc) { return rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT; }

std::string utc_stamp()
{
    const std::time_t now = std::time(nullptr);
    struct tm parts {};
    gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
    return text;
}

} // namespace

Db::~Db() { close(); }

void Db::close()
{
    sqlite3_finalize(upsert_);
    sqlite3_finalize(remove_);
    upsert_ = nullptr;
    remove_ = nullptr;
    if (db_ != nullptr) {
        sqlite3_close_v2(db_);
        db_ = nullptr;
    }
    if (!copy_dir_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(copy_dir_, ignored);
        copy_dir_.clear();
    }
}

/*
 * The stored file copied (with its WAL, which may hold the last committed
 * writes) into a private temporary directory and opened there; true when
 * the copy is a good state file. Nothing is written to the original.
 */
bool Db::open_read_only_copy()
{
    close();
    std::string pattern = (std::filesystem::temp_directory_path() / "sf_state_ro.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        return false;
    }
    copy_dir_ = pattern;
    const std::string copy = copy_dir_ + "/state.db";
    std::error_code failed;
    std::filesystem::copy_file(path_, copy, failed);
    if (!failed && exists(path_ + "-wal")) {
        std::filesystem::copy_file(path_ + "-wal", copy + "-wal", failed);
    }
    std::string why;
    if (failed || sqlite3_open_v2(copy.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        check(&why) != Check::GOOD) {
        close();
        return false;
    }
    return true;
}

bool Db::reopen()
{
    close();
    const int rc = sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        SF_LOG_ERR("state: cannot open %s (%s): the gateway runs from its description and stores nothing",
                   path_.c_str(), db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
        close();
        return false;
    }
    sqlite3_busy_timeout(db_, SF_STATE_BUSY_TIMEOUT_MS);
    sqlite3_extended_result_codes(db_, 0);
    return true;
}

Db::Check Db::check(std::string *why)
{
    long long app_id = 0;
    long long version = 0;
    long long tables = 0;
    int rc = query_int(db_, "PRAGMA application_id", &app_id);
    if (rc == SQLITE_OK) {
        rc = query_int(db_, "PRAGMA user_version", &version);
    }
    if (rc == SQLITE_OK) {
        rc = query_int(db_, "SELECT count(*) FROM sqlite_master", &tables);
    }
    if (rc != SQLITE_OK) {
        *why = sqlite3_errmsg(db_);
        return unreadable(rc) ? Check::BAD : Check::UNUSABLE;
    }
    if (sqlite3_db_readonly(db_, "main") == 1) {
        *why = "the file is read-only";
        return Check::UNUSABLE;
    }
    if (app_id == 0 && tables == 0) {
        return Check::EMPTY;
    }
    if (app_id != APPLICATION_ID) {
        *why = "not a state file of this gateway";
        return Check::BAD;
    }
    if (version != SCHEMA_VERSION) {
        *why = "schema version " + std::to_string(version) + ", this gateway reads version " +
               std::to_string(SCHEMA_VERSION);
        return Check::BAD;
    }
    std::string verdict;
    rc = query_text(db_, "PRAGMA quick_check", &verdict);
    if (rc != SQLITE_OK || verdict != "ok") {
        *why = rc != SQLITE_OK ? sqlite3_errmsg(db_) : "damaged: " + verdict;
        return rc != SQLITE_OK && !unreadable(rc) ? Check::UNUSABLE : Check::BAD;
    }
    std::string mode;
    rc = query_text(db_, "PRAGMA journal_mode=WAL", &mode);
    if (rc != SQLITE_OK || mode != "wal") {
        *why = rc != SQLITE_OK ? sqlite3_errmsg(db_) : "WAL mode refused";
        return unreadable(rc) ? Check::BAD : Check::UNUSABLE;
    }
    return Check::GOOD;
}

void Db::set_aside(const std::string &why)
{
    close();
    std::string aside = path_ + ".bad-" + utc_stamp();
    for (int n = 2; exists(aside); ++n) {
        aside = path_ + ".bad-" + utc_stamp() + "-" + std::to_string(n);
    }
    std::rename(path_.c_str(), aside.c_str());
    std::rename((path_ + "-wal").c_str(), (aside + "-wal").c_str());
    std::remove((path_ + "-shm").c_str());
    SF_LOG_ERR("state: %s cannot be used (%s); kept as %s, the gateway starts from its description", path_.c_str(),
               why.c_str(), aside.c_str());
}

bool Db::create_schema()
{
    const std::string sql = "PRAGMA page_size=" + std::to_string(SF_STATE_PAGE_SIZE) +
                            "; PRAGMA journal_mode=WAL; BEGIN; PRAGMA application_id=" +
                            std::to_string(APPLICATION_ID) + "; PRAGMA user_version=" +
                            std::to_string(SCHEMA_VERSION) + "; " + CREATE_TABLE + "; COMMIT";
    char *error = nullptr;
    const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        SF_LOG_ERR("state: cannot create %s (%s): the gateway runs from its description and stores nothing",
                   path_.c_str(), error != nullptr ? error : sqlite3_errstr(rc));
        sqlite3_free(error);
        return false;
    }
    return true;
}

bool Db::open(const std::string &path)
{
    path_ = path;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!reopen()) {
            return false;
        }
        std::string why;
        const Check verdict = check(&why);
        bool ready = verdict == Check::GOOD || (verdict == Check::EMPTY && create_schema());
        if (verdict == Check::UNUSABLE && exists(path_) && open_read_only_copy()) {
            return true; /* the store says so, once, with what it restored */
        }
        if (verdict == Check::UNUSABLE) {
            SF_LOG_ERR("state: cannot use %s (%s): the gateway runs from its description and stores nothing",
                       path_.c_str(), why.c_str());
        }
        if (verdict == Check::BAD && attempt == 0) {
            set_aside(why);
            continue;
        }
        /*
         * FULL: every commit syncs the WAL, so a committed transaction
         * survives a power cut (docs/state.md).
         */
        ready = ready && sqlite3_exec(db_, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) == SQLITE_OK &&
                sqlite3_prepare_v2(db_, UPSERT, -1, &upsert_, nullptr) == SQLITE_OK &&
                sqlite3_prepare_v2(db_, REMOVE, -1, &remove_, nullptr) == SQLITE_OK;
        if (!ready) {
            close();
        }
        return ready;
    }
    close();
    return false;
}

bool Db::read_all(std::vector<Row> *rows)
{
    sqlite3_stmt *stmt = nullptr;
    int rc = sqlite3_prepare_v2(db_, SELECT_ALL, -1, &stmt, nullptr);
    while (rc == SQLITE_OK && (rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        Row row;
        const unsigned char *dev = sqlite3_column_text(stmt, 0);
        const unsigned char *range = sqlite3_column_text(stmt, 3);
        const unsigned char *text = sqlite3_column_text(stmt, 5);
        row.dev = dev != nullptr ? reinterpret_cast<const char *>(dev) : "";
        row.dpid = sqlite3_column_int(stmt, 1);
        row.prop = sqlite3_column_int(stmt, 2);
        row.range = range != nullptr ? reinterpret_cast<const char *>(range) : "";
        row.num = sqlite3_column_int64(stmt, 4);
        row.text = text != nullptr ? reinterpret_cast<const char *>(text) : "";
        row.pv_stat = sqlite3_column_int(stmt, 6);
        row.time_ms = sqlite3_column_int64(stmt, 7);
        rows->push_back(std::move(row));
        rc = SQLITE_OK;
    }
    sqlite3_finalize(stmt);
    if (rc != SQLITE_DONE) {
        SF_LOG_ERR("state: cannot read %s (%s): the gateway starts from its description", path_.c_str(),
                   sqlite3_errmsg(db_));
        rows->clear();
        return false;
    }
    return true;
}

int Db::write(const std::vector<Row> &rows, const std::vector<Key> &deletes, std::string *why)
{
    if (read_only()) {
        *why = "the state file is open read-only";
        return SQLITE_READONLY;
    }
    int rc = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    for (size_t i = 0; rc == SQLITE_OK && i < rows.size(); ++i) {
        const Row &row = rows[i];
        sqlite3_reset(upsert_);
        sqlite3_bind_text(upsert_, 1, row.dev.c_str(), static_cast<int>(row.dev.size()), SQLITE_STATIC);
        sqlite3_bind_int(upsert_, 2, row.dpid);
        sqlite3_bind_int(upsert_, 3, row.prop);
        sqlite3_bind_text(upsert_, 4, row.range.c_str(), static_cast<int>(row.range.size()), SQLITE_STATIC);
        sqlite3_bind_int64(upsert_, 5, row.num);
        sqlite3_bind_text(upsert_, 6, row.text.c_str(), static_cast<int>(row.text.size()), SQLITE_STATIC);
        sqlite3_bind_int(upsert_, 7, row.pv_stat);
        sqlite3_bind_int64(upsert_, 8, row.time_ms);
        rc = sqlite3_step(upsert_) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(db_);
    }
    for (size_t i = 0; rc == SQLITE_OK && i < deletes.size(); ++i) {
        sqlite3_reset(remove_);
        sqlite3_bind_text(remove_, 1, deletes[i].first.c_str(), static_cast<int>(deletes[i].first.size()),
                          SQLITE_STATIC);
        sqlite3_bind_int(remove_, 2, deletes[i].second);
        rc = sqlite3_step(remove_) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(db_);
    }
    if (rc == SQLITE_OK) {
        rc = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    }
    if (rc != SQLITE_OK) {
        *why = sqlite3_errmsg(db_);
        if (sqlite3_get_autocommit(db_) == 0) {
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    sqlite3_reset(upsert_);
    sqlite3_reset(remove_);
    return rc;
}

int Db::exec(const std::string &sql) { return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr); }

} // namespace sf_state

/*
 * Helpers of the state store tests: a gateway in the real registry, a
 * temporary directory for the state file, changes made the way the module
 * makes them (lookup, then dev_mutex), and the rows of a state file read
 * with SQLite directly.
 */
#ifndef STATE_TEST_UTIL_H
#define STATE_TEST_UTIL_H

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "cloud_defs/gw_intf.h"
#include "gateway/registry/gw_registry.h"
#include "services/uni_mutex.h"
#include "smart_frame/dp_lookup.h"

namespace state_test {

/* plug: every kind of object DP, and a raw one; lamp: one bool; many: 40 values. */
inline std::string description()
{
    std::string many;
    for (int i = 1; i <= 40; ++i) {
        many += std::string(i > 1 ? "," : "") + R"({"id":)" + std::to_string(i) +
                R"(,"prop":"value","min":0,"max":100000})";
    }
    return R"({"gateway":{"id":"gw1","local_key":"k","dps":[{"id":1,"prop":"bool"}]},
      "devices":[
        {"id":"plug","dps":[{"id":1,"prop":"bool"},{"id":2,"prop":"value","min":0,"max":1000},
                            {"id":3,"prop":"str","max_len":8},{"id":4,"prop":"enum","range":["low","mid","high"]},
                            {"id":5,"prop":"bitmap","max_len":8},{"id":6,"type":"raw"}]},
        {"id":"lamp","dps":[{"id":1,"prop":"bool"}]},
        {"id":"many","dps":[)" + many + R"(]}]})";
}

inline bool load()
{
    gw_registry::LoadError error;
    return gw_registry::load_text(description(), "state-test.json", &error);
}

/* A fresh directory under /tmp, removed with its files by the destructor. */
class TempDir {
public:
    TempDir()
    {
        char name[] = "/tmp/sf_state_unit.XXXXXX";
        path_ = mkdtemp(name) != nullptr ? name : "/tmp";
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

/* Change a DP as the module does: look the device up, then write under dev_mutex. */
inline void change(const char *dev, int dpid, const std::function<void(DP_CNTL_S &)> &edit)
{
    DEV_CNTL_N_S *node = get_dev_cntl(dev);
    ASSERT_NE(nullptr, node) << dev;
    MutexLock(get_gw_cntl()->dev_mutex);
    DP_CNTL_S *dp = __locate_dp_ctl_by_dpid(node, dpid);
    if (dp != nullptr) {
        edit(*dp);
    }
    MutexUnLock(get_gw_cntl()->dev_mutex);
    ASSERT_NE(nullptr, dp) << dev << " DP " << dpid;
}

inline void set_value(const char *dev, int dpid, INT_T value, DP_PV_STAT_E pv)
{
    change(dev, dpid, [&](DP_CNTL_S &dp) {
        dp.prop.prop_value.value = value;
        dp.pv_stat = pv;
    });
}

/* A copy of a DP as the registry holds it now. */
inline DP_CNTL_S dp_of(const char *dev, int dpid)
{
    DP_CNTL_S copy{};
    MutexLock(get_gw_cntl()->dev_mutex);
    DEV_CNTL_N_S *node = get_dev_cntl_unlock(dev);
    const DP_CNTL_S *dp = node != nullptr ? __locate_dp_ctl_by_dpid(node, dpid) : nullptr;
    if (dp != nullptr) {
        copy = *dp;
    }
    MutexUnLock(get_gw_cntl()->dev_mutex);
    return copy;
}

/* The rows of a state file as "dev dp num text pv", in key order; read-only, any time. */
inline std::vector<std::string> rows(const std::string &file, const std::string &where = "")
{
    std::vector<std::string> out;
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(db, 5000);
        sqlite3_stmt *stmt = nullptr;
        const std::string sql = "SELECT dev || ' ' || dp || ' ' || num || ' ' || text || ' ' || pv_stat FROM dp_state " +
                                where + " ORDER BY dev, dp";
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK) {
            while (sqlite3_step(stmt) == SQLITE_ROW) {
                out.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(stmt, 0)));
            }
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return out;
}

/* Run SQL on a file of one's own (no store using it). */
inline int exec(const std::string &file, const std::string &sql)
{
    sqlite3 *db = nullptr;
    int rc = sqlite3_open(file.c_str(), &db);
    if (rc == SQLITE_OK) {
        rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    }
    sqlite3_close(db);
    return rc;
}

inline size_t count_of(const std::string &text, const std::string &part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++n;
    }
    return n;
}

} // namespace state_test

#endif /* STATE_TEST_UTIL_H */

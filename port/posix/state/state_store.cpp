/*
 * Start and stop of the DP state store (state_store.h): open, restore,
 * prune, then hand the file to the writer thread.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_STATE
#include "state_store.h"

#include <atomic>
#include <memory>
#include <set>
#include <vector>

#include "gateway/sync/annotated_lock.h"
#include "state_rows.h"
#include "state_writer.h"
#include "services/log_front.h"

namespace sf_state {

namespace {

sf_sync::Mutex g_life; /* start, stop and the restored set */
std::unique_ptr<Writer> g_writer SF_GUARDED_BY(g_life);
std::set<Key> g_restored SF_GUARDED_BY(g_life);
std::atomic<bool> g_read_only{false};

void log_restore(const Db &db, const Restored &restored)
{
    for (const Key &key : restored.changed) {
        SF_LOG_WARN("state: %s DP %d changed type or range since it was stored: it keeps the description's default",
                    key.first.c_str(), key.second);
    }
    const size_t gone = restored.dropped.size() - restored.changed.size();
    if (gone > 0) {
        SF_LOG_NOTICE("state: %zu stored values of devices or DPs no longer described were dropped", gone);
    }
    SF_LOG_NOTICE("state: %zu DP values restored from %s (%zu not confirmed by the cloud yet: sent again once "
                  "connected)",
                  restored.applied.size(), db.path().c_str(), restored.unconfirmed);
}

} // namespace

bool start(const Settings &settings)
{
    sf_sync::Guard life(g_life);
    if (g_writer) {
        return false;
    }
    g_restored.clear();
    g_read_only.store(false);
    auto db = std::make_unique<Db>();
    if (!db->open(settings.path)) {
        return false;
    }
    std::vector<Row> rows;
    db->read_all(&rows); /* an unreadable table is logged there; the gateway then starts from its description */
    Restored restored;
    apply_rows(rows, &restored);
    log_restore(*db, restored);
    g_restored.insert(restored.applied.begin(), restored.applied.end());
    g_read_only.store(db->read_only());
    if (db->read_only()) {
        /* the stored values win over the description's all the same; nothing is written, not even a drop */
        SF_LOG_WARN("state: %s cannot be written: the gateway runs on the values it restored and stores nothing "
                    "until it restarts with a writable location",
                    db->path().c_str());
        return false;
    }
    if (!restored.dropped.empty()) {
        std::string why;
        if (db->write({}, restored.dropped, &why) != 0) {
            SF_LOG_ERR("state: stale rows of %s not dropped (%s); they are ignored", db->path().c_str(), why.c_str());
        }
    }
    g_writer = std::make_unique<Writer>(std::move(db), settings.interval);
    g_writer->start();
    return true;
}

void stop()
{
    std::unique_ptr<Writer> writer;
    {
        sf_sync::Guard life(g_life);
        writer = std::move(g_writer);
    }
    if (writer) {
        writer->stop();
    }
}

bool read_only() { return g_read_only.load(); }

bool running()
{
    sf_sync::Guard life(g_life);
    return g_writer != nullptr;
}

bool restored(const std::string &dev, int dpid)
{
    sf_sync::Guard life(g_life);
    return g_restored.count(Key(dev, dpid)) != 0;
}

unsigned long passes()
{
    sf_sync::Guard life(g_life);
    return g_writer ? g_writer->passes() : 0;
}

int exec_for_test(const std::string &sql)
{
    sf_sync::Guard life(g_life);
    return g_writer ? g_writer->exec(sql) : -1;
}

} // namespace sf_state

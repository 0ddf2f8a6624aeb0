/*
 * The state store's writer thread and the marks it works from
 * (state_writer.h, state_hook.h).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_STATE
#include "state_writer.h"

#include <vector>

#include "gateway/registry/registry_hooks.h"
#include "services/log_front.h"

namespace sf_state {

namespace {

std::atomic<bool> g_marking{false};
sf_sync::Mutex g_marks_mutex; /* a leaf lock: nothing is called while it is held */
Marks g_marks SF_GUARDED_BY(g_marks_mutex);

long long now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

Marks take_marks() SF_EXCLUDES(g_marks_mutex)
{
    Marks taken;
    sf_sync::Guard hold(g_marks_mutex);
    taken.swap(g_marks);
    return taken;
}

} // namespace

Writer::Writer(std::unique_ptr<Db> db, std::chrono::milliseconds interval)
    : path_(db->path()), db_(std::move(db)), interval_(interval)
{
}

Writer::~Writer() { stop(); }

void Writer::start()
{
    std::vector<Row> rows;
    copy_rows(nullptr, now_ms(), &rows);
    for (Row &row : rows) {
        Key key(row.dev, row.dpid);
        written_[key] = std::move(row);
    }
    g_marking = true;
    thread_ = std::thread([this] { run(); });
}

void Writer::stop()
{
    if (!thread_.joinable()) {
        return;
    }
    {
        sf_sync::Guard hold(wait_mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
    g_marking = false;
    take_marks();
    pass(true);
    if (!pending_.empty()) {
        SF_LOG_ERR("state: %zu changed values could not be written to %s before the stop", pending_.size(),
                   path_.c_str());
    }
    sf_sync::Guard hold(db_mutex_);
    db_->close();
}

int Writer::exec(const std::string &sql)
{
    sf_sync::Guard hold(db_mutex_);
    return db_->is_open() ? db_->exec(sql) : -1;
}

void Writer::run()
{
    sf_sync::Guard hold(wait_mutex_);
    while (!wake_.wait_for(wait_mutex_, interval_, [this]() SF_REQUIRES(wait_mutex_) { return stopping_; })) {
        hold.unlock();
        pass(false);
        hold.lock();
    }
}

void Writer::pass(bool everything)
{
    Marks current = everything ? Marks() : take_marks();
    Marks both = current;
    both.insert(previous_.begin(), previous_.end());
    previous_ = std::move(current);
    if (everything || !both.empty()) {
        std::vector<Row> rows;
        copy_rows(everything ? nullptr : &both, now_ms(), &rows);
        for (Row &row : rows) {
            Key key(row.dev, row.dpid);
            const auto known = written_.find(key);
            if (known != written_.end() && known->second.same_as(row)) {
                pending_.erase(key);
            } else {
                pending_[key] = std::move(row);
            }
        }
    }
    if (!pending_.empty()) {
        write_pending();
    }
    passes_.fetch_add(1);
}

void Writer::write_pending()
{
    std::vector<Row> rows;
    rows.reserve(pending_.size());
    for (const auto &entry : pending_) {
        rows.push_back(entry.second);
    }
    std::string why;
    int rc;
    {
        sf_sync::Guard hold(db_mutex_);
        rc = db_->write(rows, {}, &why);
    }
    if (rc != 0) {
        if (!failing_) {
            SF_LOG_ERR("state: writing %s failed (%s): the values stay in memory, retried every %lld ms",
                       path_.c_str(), why.c_str(), static_cast<long long>(interval_.count()));
            failing_ = true;
        }
        return;
    }
    if (failing_) {
        SF_LOG_NOTICE("state: writing %s works again (%zu values written)", path_.c_str(), rows.size());
        failing_ = false;
    }
    for (auto &entry : pending_) {
        written_[entry.first] = std::move(entry.second);
    }
    pending_.clear();
}

} // namespace sf_state

extern "C" void sf_state_touch(const DEV_CNTL_N_S *node)
{
    if (node == nullptr || !sf_state::g_marking.load(std::memory_order_relaxed)) {
        return;
    }
    sf_sync::Guard hold(sf_state::g_marks_mutex);
    sf_state::g_marks.insert(node);
}

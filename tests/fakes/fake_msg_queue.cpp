/*
 * Message module on the test's thread: posted messages wait in a queue
 * until the test runs them; timed messages fire on a virtual clock that
 * only timers::advance moves. Every call can be made to fail.
 */
#include <algorithm>
#include <cstring>
#include <deque>
#include <map>

#include "fake_internal.h"

namespace {

using fake::msgq::Call;

struct TimedMessage {
    bool armed = false;
    TIME_MS period = 0;
    TIMER_TYPE type = TIMER_ONCE;
    uint64_t due = 0;
    uint64_t armed_seq = 0; /* orders timers due at the same instant by arming order */
};

struct MsgqState {
    std::map<Call, fake::detail::FailureQueue> failures;
    std::map<Call, int> calls;
    MSG_ID next_id = 1;
    std::vector<std::pair<MSG_ID, MSG_CALLBACK>> handlers;
    std::vector<MSG_ID> unregistered;
    std::deque<MESSAGE> queue;
    std::vector<fake::msgq::Post> posts;
    std::map<TM_MSG_S *, TimedMessage> timed;
    std::vector<TM_MSG_S *> created;
    std::vector<TM_MSG_S *> released;
    std::vector<fake::timers::Start> starts;
    uint64_t now = 0;
    uint64_t seq = 0;
};

MsgqState &state()
{
    static MsgqState &s = *new MsgqState(); // never destroyed: what it points at stays reachable at exit
    return s;
}

/* Count the call and tell whether an injected failure replaces it. */
bool injected(Call call, OPERATE_RET &code)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    ++state().calls[call];
    return fake::detail::take_failure(state().failures[call], code);
}

MSG_CALLBACK find_handler(MSG_ID mid)
{
    for (const auto &entry : state().handlers) {
        if (entry.first == mid) {
            return entry.second;
        }
    }
    return nullptr;
}

} // namespace

extern "C" OPERATE_RET system_timer_init(void)
{
    OPERATE_RET code = RC_OK;
    return injected(Call::system_timer_init, code) ? code : RC_OK;
}

extern "C" OPERATE_RET cmmod_init(void)
{
    OPERATE_RET code = RC_OK;
    return injected(Call::cmmod_init, code) ? code : RC_OK;
}

extern "C" OPERATE_RET cmmod_get_free_msgid(MSG_ID *mid)
{
    OPERATE_RET code = RC_OK;
    if (injected(Call::get_free_msgid, code)) {
        return code;
    }
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    *mid = state().next_id++;
    return RC_OK;
}

extern "C" OPERATE_RET cmmod_reg_msgcb(MSG_ID mid, MSG_CALLBACK cb)
{
    OPERATE_RET code = RC_OK;
    if (injected(Call::reg_msgcb, code)) {
        return code;
    }
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    state().handlers.emplace_back(mid, cb);
    return RC_OK;
}

extern "C" void cmmod_unreg_msgcb(MSG_ID mid)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    state().unregistered.push_back(mid);
    auto &handlers = state().handlers;
    handlers.erase(std::remove_if(handlers.begin(), handlers.end(),
                                  [mid](const std::pair<MSG_ID, MSG_CALLBACK> &h) { return h.first == mid; }),
                   handlers.end());
}

extern "C" OPERATE_RET cmmod_post_msg_malloc(MSG_ID mid, void *data, MSG_DATA_LEN len)
{
    OPERATE_RET code = RC_OK;
    if (injected(Call::post_msg_malloc, code)) {
        return code;
    }
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    if (find_handler(mid) == nullptr) {
        return RC_BAD_PARAM;
    }
    void *copy = Malloc(len);
    if (copy == nullptr) {
        return RC_NO_MEMORY;
    }
    std::memcpy(copy, data, len);
    state().queue.push_back(MESSAGE{mid, copy, len});
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    state().posts.push_back({mid, std::vector<uint8_t>(bytes, bytes + len)});
    return RC_OK;
}

extern "C" OPERATE_RET cmmod_cr_tm_msg_hand(TM_MSG_CB cb, void *data, TM_MSG_S **tm_msg)
{
    OPERATE_RET code = RC_OK;
    if (injected(Call::cr_tm_msg_hand, code)) {
        return code;
    }
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    TM_MSG_S *tm = new TM_MSG_S();
    tm->cb = cb;
    tm->data = data;
    tm->timer = static_cast<TIMER_ID>(state().created.size());
    state().created.push_back(tm);
    state().timed[tm] = TimedMessage();
    *tm_msg = tm;
    return RC_OK;
}

extern "C" OPERATE_RET cmmod_start_tm_msg(TM_MSG_S *tm_msg, TIME_MS period_ms, TIMER_TYPE timer_type)
{
    OPERATE_RET code = RC_OK;
    if (injected(Call::start_tm_msg, code)) {
        return code;
    }
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    auto it = state().timed.find(tm_msg);
    if (it == state().timed.end()) {
        fake::contract::violation("cmmod_start_tm_msg of an unknown timed message");
        return RC_BAD_PARAM;
    }
    TimedMessage &t = it->second;
    t.armed = true;
    t.period = period_ms;
    t.type = timer_type;
    t.due = state().now + period_ms;
    t.armed_seq = ++state().seq;
    state().starts.push_back({tm_msg, period_ms, timer_type, state().now});
    return RC_OK;
}

extern "C" void cmmod_release_tm_msg(TM_MSG_S *tm_msg)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    state().released.push_back(tm_msg);
    if (tm_msg != nullptr) {
        state().timed.erase(tm_msg);
    }
}

namespace fake {
namespace msgq {

void fail(Call call, OPERATE_RET code, int nth)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().failures[call].emplace_back(nth, code);
}

int calls(Call call)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return state().calls[call];
}

const std::vector<Post> &posts()
{
    return state().posts;
}

MSG_CALLBACK handler(MSG_ID mid)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return find_handler(mid);
}

std::vector<MSG_ID> registered()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    std::vector<MSG_ID> ids;
    for (const auto &entry : state().handlers) {
        ids.push_back(entry.first);
    }
    return ids;
}

const std::vector<MSG_ID> &unregistered()
{
    return state().unregistered;
}

size_t pending()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return state().queue.size();
}

bool run_one()
{
    MESSAGE msg;
    MSG_CALLBACK cb = nullptr;
    {
        std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
        if (state().queue.empty()) {
            return false;
        }
        msg = state().queue.front();
        state().queue.pop_front();
        cb = find_handler(msg.msgID);
    }
    if (cb == nullptr) {
        contract::violation("message for an unregistered id");
        Free(msg.pMsgData);
        return true;
    }
    cb(&msg);
    return true;
}

size_t run_all()
{
    size_t ran = 0;
    while (run_one()) {
        ++ran;
    }
    return ran;
}

} // namespace msgq

namespace timers {

const std::vector<Start> &starts()
{
    return state().starts;
}

std::vector<Start> starts_of(TM_MSG_S *tm)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    std::vector<Start> found;
    for (const Start &start : state().starts) {
        if (start.tm == tm) {
            found.push_back(start);
        }
    }
    return found;
}

const std::vector<TM_MSG_S *> &created()
{
    return state().created;
}

const std::vector<TM_MSG_S *> &released()
{
    return state().released;
}

bool armed(TM_MSG_S *tm)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    auto it = state().timed.find(tm);
    return it != state().timed.end() && it->second.armed;
}

uint64_t due_ms(TM_MSG_S *tm)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    auto it = state().timed.find(tm);
    return it == state().timed.end() ? 0 : it->second.due;
}

uint64_t now_ms()
{
    return state().now;
}

void fire(TM_MSG_S *tm)
{
    {
        std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
        auto it = state().timed.find(tm);
        if (it == state().timed.end()) {
            return;
        }
        TimedMessage &t = it->second;
        if (t.type == TIMER_ONCE) {
            t.armed = false;
        } else if (t.armed) {
            t.due = state().now + t.period;
        }
    }
    tm->cb(tm);
}

void advance(uint64_t ms)
{
    const uint64_t end = state().now + ms;
    for (;;) {
        TM_MSG_S *next = nullptr;
        {
            std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
            uint64_t best_due = 0;
            uint64_t best_seq = 0;
            for (auto &entry : state().timed) {
                const TimedMessage &t = entry.second;
                if (!t.armed || t.due > end) {
                    continue;
                }
                if (next == nullptr || t.due < best_due || (t.due == best_due && t.armed_seq < best_seq)) {
                    next = entry.first;
                    best_due = t.due;
                    best_seq = t.armed_seq;
                }
            }
            if (next == nullptr) {
                break;
            }
            detail::clock_advance_ms(best_due - state().now);
            state().now = best_due;
            TimedMessage &t = state().timed[next];
            if (t.type == TIMER_ONCE) {
                t.armed = false;
            } else {
                t.due += t.period == 0 ? 1 : t.period;
            }
        }
        next->cb(next);
    }
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    detail::clock_advance_ms(end - state().now);
    state().now = end;
}

} // namespace timers

namespace detail {
void reset_msgq()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    for (MESSAGE &msg : state().queue) {
        Free(msg.pMsgData);
    }
    /* timed messages of an earlier scenario may still be referenced by the module */
    for (TM_MSG_S *tm : state().created) {
        keep_reachable(tm);
    }
    state() = MsgqState();
}

void forget_msgq_history()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    state().posts.clear();
    state().starts.clear();
    state().unregistered.clear();
    state().released.clear();
}
} // namespace detail
} // namespace fake

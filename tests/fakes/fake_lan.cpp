/*
 * LAN channel that records every offered block and frame. When it takes a
 * block (result RC_OK) it keeps that reference until the test lets it
 * "write" (release_held), as the real channel does until the socket drains.
 */
#include <deque>

#include "fake_internal.h"

namespace {

struct LanState {
    std::vector<fake::lan::Report> reports;
    std::deque<OPERATE_RET> results;
    OPERATE_RET result = RC_LAN_NOT_SENT;
    std::vector<RFC_DATA_S *> held;
    std::vector<fake::lan::Frame> frames;
    OPERATE_RET frame_result = RC_OK;
};

LanState &state()
{
    static LanState &s = *new LanState(); // never destroyed: what it points at stays reachable at exit
    return s;
}

} // namespace

extern "C" OPERATE_RET lan_dp_sata_report(RFC_DATA_S *rfc_data, UINT_T frame_kind)
{
    fake::contract::check_no_lock_held("lan_dp_sata_report");
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    LanState &s = state();
    OPERATE_RET result = s.result;
    if (!s.results.empty()) {
        result = s.results.front();
        s.results.pop_front();
    }
    s.reports.push_back({rfc_data, fake::detail::block_text(rfc_data),
                         static_cast<const MSG_DATA_S *>(rfc_data->data)->serno, frame_kind, result});
    if (result == RC_OK) {
        s.held.push_back(rfc_data);
    }
    return result;
}

extern "C" OPERATE_RET lan_data_report_cb(UINT_T fr_type, UINT_T ret_flag, const CHAR_T *data, UINT_T len)
{
    fake::contract::check_no_lock_held("lan_data_report_cb");
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    state().frames.push_back({fr_type, ret_flag, data != nullptr ? std::string(data, len) : std::string(), len});
    return state().frame_result;
}

namespace fake {
namespace lan {

const std::vector<Report> &reports()
{
    return state().reports;
}

void set_result(OPERATE_RET code)
{
    state().result = code;
}

void push_result(OPERATE_RET code)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().results.push_back(code);
}

size_t held()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return state().held.size();
}

void release_held()
{
    std::vector<RFC_DATA_S *> blocks;
    {
        std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
        blocks.swap(state().held);
    }
    for (RFC_DATA_S *block : blocks) {
        put_rfc_data(block);
    }
}

const std::vector<Frame> &frames()
{
    return state().frames;
}

void set_frame_result(OPERATE_RET code)
{
    state().frame_result = code;
}

} // namespace lan

namespace detail {
void reset_lan()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    state() = LanState();
}

void forget_lan_history()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    state().reports.clear();
    state().frames.clear();
}
} // namespace detail
} // namespace fake

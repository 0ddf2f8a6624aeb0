/*
 * MQTT client that records every publication and completes it when, and
 * with the result, the test chooses. It keeps its own reference on an
 * accepted DP report block until the completion, as the real client does.
 */
#include <deque>
#include <thread>

#include "fake_internal.h"

namespace {

struct MqttState {
    std::vector<fake::mqtt::DpReport> dp_reports;
    std::deque<OPERATE_RET> dp_results;
    OPERATE_RET dp_default = RC_OK;
    fake::mqtt::AutoComplete mode = fake::mqtt::AutoComplete::Off;
    OPERATE_RET auto_result = RC_OK;
    std::vector<fake::mqtt::Prot> prots;
    std::deque<OPERATE_RET> prot_results;
    OPERATE_RET prot_default = RC_OK;
    std::vector<fake::mqtt::Query> queries;
    OPERATE_RET query_result = RC_OK;
    BOOL_T conn = 1;
    int conn_calls = 0;
};

MqttState &state()
{
    static MqttState &s = *new MqttState(); // never destroyed: what it points at stays reachable at exit
    return s;
}

std::vector<std::thread> &threads()
{
    static std::vector<std::thread> t;
    return t;
}

OPERATE_RET next_result(std::deque<OPERATE_RET> &queue, OPERATE_RET fallback)
{
    if (queue.empty()) {
        return fallback;
    }
    const OPERATE_RET code = queue.front();
    queue.pop_front();
    return code;
}

void run_completion(size_t index, OPERATE_RET op_ret)
{
    MQ_PUB_ASYNC_IFM_CB cb = nullptr;
    const void *prv = nullptr;
    RFC_DATA_S *block = nullptr;
    {
        std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
        fake::mqtt::DpReport &report = state().dp_reports.at(index);
        if (report.completed) {
            fake::contract::violation("DP report completed twice");
            return;
        }
        report.completed = true;
        cb = report.cb;
        prv = report.prv_data;
        block = report.block;
    }
    if (cb != nullptr) {
        cb(op_ret, prv);
    }
    put_rfc_data(block);
}

} // namespace

extern "C" OPERATE_RET mqc_dp_report_async(RFC_DATA_S *rfc_data, UINT_T to_lmt_s, MQ_PUB_ASYNC_IFM_CB cb,
                                           void *prv_data)
{
    fake::contract::check_no_lock_held("mqc_dp_report_async");
    size_t index = 0;
    fake::mqtt::AutoComplete mode;
    OPERATE_RET auto_result;
    {
        std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
        MqttState &s = state();
        const OPERATE_RET result = next_result(s.dp_results, s.dp_default);
        fake::mqtt::DpReport report{rfc_data, fake::detail::block_text(rfc_data),
                                    static_cast<const MSG_DATA_S *>(rfc_data->data)->serno,
                                    to_lmt_s, cb, prv_data, rfc_data->rfc, result != RC_OK};
        s.dp_reports.push_back(report);
        if (result != RC_OK) {
            return result;
        }
        get_rfc_data(rfc_data);
        index = s.dp_reports.size() - 1;
        mode = s.mode;
        auto_result = s.auto_result;
    }
    if (mode == fake::mqtt::AutoComplete::Inline) {
        run_completion(index, auto_result);
    } else if (mode == fake::mqtt::AutoComplete::OnThread) {
        std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
        threads().emplace_back([index, auto_result] { run_completion(index, auto_result); });
    }
    return RC_OK;
}

extern "C" OPERATE_RET mqc_obj_dp_query(RFC_DATA_S *rfc_data)
{
    fake::contract::check_no_lock_held("mqc_obj_dp_query");
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    state().queries.push_back({rfc_data, fake::detail::block_text(rfc_data),
                               static_cast<const MSG_DATA_S *>(rfc_data->data)->serno, rfc_data->rfc});
    return state().query_result;
}

extern "C" OPERATE_RET mqc_prot_data_rept_seq(UINT_T pro, const CHAR_T *data, BYTE_T qos, UINT_T to_lmt_s,
                                              MQ_PUB_ASYNC_IFM_CB cb, void *prv_data)
{
    fake::contract::check_no_lock_held("mqc_prot_data_rept_seq");
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    const OPERATE_RET result = next_result(state().prot_results, state().prot_default);
    state().prots.push_back({pro, data != nullptr ? data : "", qos, to_lmt_s, cb, prv_data, result == RC_OK, false});
    return result;
}

extern "C" BOOL_T get_mqc_conn_stat(void)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    ++state().conn_calls;
    return state().conn;
}

namespace fake {
namespace mqtt {

const std::vector<DpReport> &dp_reports()
{
    return state().dp_reports;
}

void set_dp_report_result(OPERATE_RET code)
{
    state().dp_default = code;
}

void push_dp_report_result(OPERATE_RET code)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().dp_results.push_back(code);
}

void set_auto_complete(AutoComplete mode, OPERATE_RET op_ret)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().mode = mode;
    state().auto_result = op_ret;
}

void join_threads()
{
    std::vector<std::thread> running;
    {
        std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
        running.swap(threads());
    }
    for (std::thread &t : running) {
        t.join();
    }
}

void complete(size_t index, OPERATE_RET op_ret)
{
    run_completion(index, op_ret);
}

void complete_all(OPERATE_RET op_ret)
{
    for (size_t i = 0; i < dp_reports().size(); ++i) {
        if (!dp_reports()[i].completed) {
            run_completion(i, op_ret);
        }
    }
    for (size_t i = 0; i < prot_reports().size(); ++i) {
        const Prot &prot = prot_reports()[i];
        if (prot.accepted && !prot.completed && prot.cb != nullptr) {
            complete_prot(i, op_ret);
        }
    }
}

size_t pending()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    size_t open = 0;
    for (const DpReport &report : state().dp_reports) {
        open += report.completed ? 0 : 1;
    }
    for (const Prot &prot : state().prots) {
        open += (prot.accepted && prot.cb != nullptr && !prot.completed) ? 1 : 0;
    }
    return open;
}

const std::vector<Prot> &prot_reports()
{
    return state().prots;
}

void set_prot_result(OPERATE_RET code)
{
    state().prot_default = code;
}

void push_prot_result(OPERATE_RET code)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().prot_results.push_back(code);
}

void complete_prot(size_t index, OPERATE_RET op_ret)
{
    MQ_PUB_ASYNC_IFM_CB cb = nullptr;
    void *prv = nullptr;
    {
        std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
        Prot &prot = state().prots.at(index);
        if (!prot.accepted || prot.completed) {
            contract::violation("protocol publication completed twice or never accepted");
            return;
        }
        prot.completed = true;
        cb = prot.cb;
        prv = prot.prv_data;
    }
    if (cb != nullptr) {
        cb(op_ret, prv);
    }
}

const std::vector<Query> &queries()
{
    return state().queries;
}

void set_query_result(OPERATE_RET code)
{
    state().query_result = code;
}

void set_conn_stat(BOOL_T up)
{
    state().conn = up;
}

int conn_stat_calls()
{
    return state().conn_calls;
}

} // namespace mqtt

namespace detail {
void reset_mqtt()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    state() = MqttState();
}

void forget_mqtt_history()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    state().dp_reports.clear();
    state().prots.clear();
    state().queries.clear();
}
} // namespace detail
} // namespace fake

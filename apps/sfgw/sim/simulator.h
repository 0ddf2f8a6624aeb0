/*
 * The simulated sub-devices behind the gateway, run on one thread of
 * their own. The smart frame's callbacks and the control link only queue
 * work here (they run on the dispatch, MQTT and control threads, and the
 * heartbeat probe even with the presence lock held); this thread then
 * does what a real device would: apply the command and report its new
 * state, answer queries and probes, send heartbeats, let a temperature
 * drift, send raw samples.
 */
#ifndef SFGW_SIMULATOR_H
#define SFGW_SIMULATOR_H

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "gateway/sync/annotated_lock.h"
#include "sim_device.h"

namespace sfgw {

/* Where the simulator tells the world what its devices saw (the control link). */
using EventSink = std::function<void(const std::string &json)>;

class Simulator {
public:
    Simulator(const apps::Description &description, EventSink sink);
    ~Simulator();
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;

    /*
     * Set heartbeat time-outs, send the first heartbeats, take the
     * start-up values (the restored state where the store kept one, else
     * the description's), start the thread. The thread sends the start-up
     * reports once the gateway is connected to the cloud (see run()).
     */
    void start();
    /* Stop and join the thread; queued work is dropped. Idempotent. */
    void stop();

    /* Queue work; any thread, never blocks for long. cid "" is the gateway itself. */
    void command(const std::string &cid, DpValues values);
    void raw_command(const std::string &cid, int dpid, std::vector<unsigned char> bytes);
    void query(const std::string &cid, std::vector<int> dpids);
    void probe(const std::string &cid);
    /* A control document {"cid":"x","silent":true}, as the console sends it. */
    void control(const std::string &payload);

private:
    using Clock = std::chrono::steady_clock;
    struct Timer {
        Clock::time_point due;
        size_t device;
        enum Kind { HEARTBEAT, DRIFT, RAW_SAMPLE } kind;
    };

    void post(std::function<void()> job) SF_EXCLUDES(mutex_);
    void run() SF_EXCLUDES(mutex_);
    void fire(Timer &timer);
    bool report_start_values_when_connected();
    SimDevice *find(const std::string &cid);
    void report(SimDevice &device, const std::string &text, bool force);
    void answer_query(SimDevice &device, const std::vector<int> &dpids);
    void raw_report(SimDevice &device, int dpid);
    void heartbeat(SimDevice &device);
    void handle_control(const std::string &payload);
    void event(const std::string &json);

    // Set up by start() before the thread runs, then the thread's own: no lock.
    std::vector<SimDevice> devices_;
    std::vector<Timer> timers_;
    /* device index and the DPs of its start-up report, until the first connection */
    std::vector<std::pair<size_t, std::vector<int>>> start_reports_;
    EventSink sink_;

    sf_sync::Mutex mutex_;
    sf_sync::CondVar wake_;
    std::deque<std::function<void()>> jobs_ SF_GUARDED_BY(mutex_);
    bool stopping_ SF_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

} // namespace sfgw

#endif /* SFGW_SIMULATOR_H */

/*
 * The brokers the MQTT client may use, and which one it tries next.
 *
 * A fleet's cloud is often several broker nodes (a cluster behind a list of
 * addresses). The client connects to one at a time; when a connect fails
 * or an accepted session is lost it moves on to the next, in the order
 * given, round and round. The rules:
 *   - it stays on a broker that works: nothing moves it while connected;
 *   - every attempt is preceded by a wait of at least the first back-off
 *     step, so going round the list never spins;
 *   - the wait doubles (up to the cap) after each whole round in which no
 *     broker accepted a session, so a list of one keeps the back-off the
 *     client always had (1, 2, 4 ... 30 s);
 *   - the broker of the session lost is tried last in the next round.
 *
 * Used by one thread at a time (the client's network thread, or the
 * console's connection thread); not thread-safe by itself.
 */
#ifndef SF_POSIX_MQTT_BROKERS_H
#define SF_POSIX_MQTT_BROKERS_H

#include <cstddef>
#include <string>
#include <vector>

namespace sf_mqtt {

/* One broker with the settings in force on it (the shared ones, or its own). */
struct Broker {
    std::string host;
    int port = 1883;
    std::string username, password, ca_file, cert_file, key_file;

    /* "host:port", "[v6]:port" for an IPv6 address: the name in logs and metrics. */
    std::string name() const;
};

class BrokerList {
public:
    /* brokers MUST NOT be empty; min_s >= 1 and max_s >= min_s (seconds). */
    BrokerList(std::vector<Broker> brokers, unsigned min_s, unsigned max_s);

    const Broker &current() const { return brokers_[index_]; }
    size_t index() const { return index_; }
    size_t size() const { return brokers_.size(); }

    /*
     * The broker of current() accepted a session: stay on it, and start the
     * back-off anew. true when it is another broker than that of the
     * previous accepted session (a change of broker; the first session is
     * none).
     */
    bool accepted();

    /*
     * The attempt on current() ended: its connect failed (was_accepted
     * false) or its accepted session was lost (true). Moves to the next
     * broker and returns the seconds to wait before trying it (never 0).
     */
    unsigned after_attempt(bool was_accepted);

    /* The broker of the last accepted session; NULL before the first. */
    const Broker *in_use() const { return last_accepted_ < brokers_.size() ? &brokers_[last_accepted_] : nullptr; }

    /* Changes of broker since the start (accepted() that returned true). */
    unsigned long long changes() const { return changes_; }

private:
    std::vector<Broker> brokers_;
    unsigned min_s_, max_s_, delay_s_;
    size_t index_ = 0;
    size_t round_start_ = 0;
    size_t last_accepted_;
    unsigned long long changes_ = 0;
};

} // namespace sf_mqtt

#endif /* SF_POSIX_MQTT_BROKERS_H */

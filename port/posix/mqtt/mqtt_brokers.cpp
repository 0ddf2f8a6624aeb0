/*
 * The broker list's rotation and back-off (mqtt_brokers.h).
 */
#include "mqtt_brokers.h"

#include <utility>

namespace sf_mqtt {

std::string Broker::name() const
{
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

BrokerList::BrokerList(std::vector<Broker> brokers, unsigned min_s, unsigned max_s)
    : brokers_(std::move(brokers)), min_s_(min_s < 1 ? 1 : min_s), max_s_(max_s < min_s_ ? min_s_ : max_s),
      delay_s_(min_s_), last_accepted_(brokers_.size())
{
}

bool BrokerList::accepted()
{
    const bool changed = last_accepted_ != brokers_.size() && last_accepted_ != index_;
    last_accepted_ = index_;
    round_start_ = index_;
    delay_s_ = min_s_;
    if (changed) {
        ++changes_;
    }
    return changed;
}

unsigned BrokerList::after_attempt(bool was_accepted)
{
    if (was_accepted) {
        // A new outage: the round that ends with the lost broker begins now.
        delay_s_ = min_s_;
    }
    const unsigned wait_s = delay_s_;
    index_ = (index_ + 1) % brokers_.size();
    if (index_ == round_start_) {
        // A whole round without a session: the next one goes slower.
        delay_s_ = delay_s_ * 2 > max_s_ ? max_s_ : delay_s_ * 2;
    }
    return wait_s;
}

} // namespace sf_mqtt

/*
 * A console command checked and turned into what to send and what answer
 * to wait for, before any connection is made: a bad command line is
 * refused without a broker.
 */
#ifndef SFCLOUD_PLAN_H
#define SFCLOUD_PLAN_H

#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "options.h"
#include "uplink.h"

namespace sfcloud {

struct Verdict {
    enum State { PENDING, OK, FAILED } state = PENDING;
    std::string why; /* for OK: what was seen ("report", "echo"); for FAILED: why */
};

/* Waits for the answer of one command, message by message. */
class Matcher {
public:
    virtual ~Matcher() = default;
    /* Whether the message concerns this command (shown to the user). */
    virtual bool relevant(const Message &m) const = 0;
    virtual Verdict feed(const Message &m) = 0;
    /* A document to send after feed() (kind, document), e.g. a query for values a report left out. */
    virtual bool follow_up(std::string *kind, std::string *document) { (void)kind; (void)document; return false; }
    /* What is still missing, for the time-out message. */
    virtual std::string missing() const = 0;
};

struct Plan {
    std::string command;
    bool needs_mqtt = false; /* simulator control and presence exist only over MQTT */
    std::string send_kind;   /* empty: nothing to send */
    std::string document;
    std::unique_ptr<Matcher> matcher; /* null for watch and subscribe */
};

/*
 * Check the command words against the description (names may be NULL:
 * then DPs must be numbers and values JSON) and build the plan.
 * false with *why for people.
 */
bool make_plan(const Options &options, const apps::Description *names, const std::string &gw_id, Plan *out,
               std::string *why);

} // namespace sfcloud

#endif /* SFCLOUD_PLAN_H */

/*
 * What the console receives, decoded: uplink messages of the gateway
 * (docs/wire-protocol.md), LAN frames, the simulator's events and the
 * gateway's status, each as one record with a line for people and a JSON
 * object for scripts.
 */
#ifndef SFCLOUD_UPLINK_H
#define SFCLOUD_UPLINK_H

#include <map>
#include <string>
#include <vector>

#include "common/description.h"
#include "common/topics.h"

namespace sfcloud {

enum class Kind {
    REPORT,   /* pro 4 DP report, or a LAN frame of type 4 */
    ANSWER,   /* pro 16: query answer or the echo of a command that changed nothing */
    MULTI,    /* pro 4 carrying a multi-DP command as it came */
    PRESENCE, /* pro 25 */
    GROUP,    /* pro 203, LAN frame 208 */
    SCENE,    /* pro 205 */
    PROBE,    /* simulator: a heartbeat probe reached a device */
    CONTROL,  /* simulator: answer to silence / wake */
    STATUS,   /* the gateway's retained online flag */
    OTHER,
};

const char *kind_name(Kind kind);

struct Message {
    Kind kind = Kind::OTHER;
    long long serno = -1;
    int pro = 0;
    std::string cid;                          /* device of a report / probe / control; the gateway id for its own */
    std::map<int, std::string> dps;           /* DP -> JSON value */
    std::vector<std::string> online, offline; /* presence */
    int action = -1;                          /* group / scene */
    std::string gid, sid, token;
    std::vector<std::string> cids;            /* scene: as sent; group: not carried, see rets */
    std::vector<long long> rets;
    bool flag = false;                        /* probe: answered; control: ok; status: online */
    long long session = 0;                    /* status: the gateway's session number (0: none given) */
    std::string raw;                          /* the payload as received */
};

/* Decode a payload of topic (an uplink, sim event or status topic of topics). false when it is not one. */
bool decode_mqtt(const apps::Topics &topics, const std::string &topic, const std::string &payload,
                 const std::string &gateway_id, Message *out);

/*
 * The rule of docs/wire-protocol.md section 2 for sf/<gw>/status: a status
 * whose session number is below the newest seen from that gateway is late
 * (a will of an older connection delivered after the new online status)
 * and is ignored. true, and *newest raised, when the status counts.
 */
bool status_is_current(long long session, long long *newest);

/* Decode one LAN frame; false when it is no JSON object. */
bool decode_lan(const std::string &frame, const std::string &gateway_id, Message *out);

/* "#17 report  plug01  switch=true current_ma=0" */
std::string describe(const Message &message, const apps::Description *names);

/* {"kind":"report","serno":17,"cid":"plug01","dps":{"switch":true}} with DP names where known. */
std::string to_json(const Message &message, const apps::Description *names);

/* The name of a DP for people, its number when unknown. */
std::string dp_label(const apps::Description *names, const std::string &cid, int dpid);

} // namespace sfcloud

#endif /* SFCLOUD_UPLINK_H */

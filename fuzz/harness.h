/*
 * What every fuzz target shares: the module started once on the
 * deterministic fakes with a gateway that has a DP of every kind, each
 * input run from the same starting state, and each run ended with the
 * fakes' leak and contract check (libFuzzer's own leak detection cannot
 * see what the counting heap knows: blocks the module still holds).
 */
#ifndef SF_FUZZ_HARNESS_H
#define SF_FUZZ_HARNESS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "smart_frame/smart_frame.h"

namespace sf_fuzz {

/* How the collaborators answer during one run; chosen from input bits so the fuzzer explores them. */
struct Channels {
    bool lan_takes = false;   /* LAN channel keeps the block (else RC_LAN_NOT_SENT) */
    bool lan_broken = false;  /* LAN channel fails with another code */
    bool mqtt_refuses = false; /* the next publication is refused */
    bool mqtt_fails = false;  /* accepted publications complete with a failure */
    bool net_down = false;    /* the gateway reports no network */
};

/* Channels from the low five bits of a byte. */
Channels channels_from(uint8_t bits);

/* Start the module once (idempotent): fakes, gateway, application callbacks. */
void start_once();

/* Start the module if needed, put every DP back to its starting state and set the channels for this run. */
void begin_run(const Channels &channels);

/*
 * One run of a report target on an input led by a control byte: the
 * byte's low three bits pick the device (gateway, bound sub-device,
 * unbound sub-device, unknown id, the gateway's id in capitals), its upper
 * five bits the channels, and the input's length parity a flag; body gets
 * them with the rest of the input as text. An empty input does nothing.
 */
using ReportBody = void (*)(const CHAR_T *dev_id, BOOL_T flag, const std::string &text);
int run_report(const uint8_t *data, size_t size, ReportBody body);

/*
 * Finish a run: handle queued messages, let the DP sync run, complete every
 * publication, let the LAN channel write. Aborts with a report when a block
 * of the counting heap, a message block, a publication or a queued message
 * is left over, or a locking contract was broken. Then forgets the fakes'
 * records so a long campaign does not grow.
 */
void end_run();

/* The input as a NUL-terminated text (the module takes C texts). */
std::string as_text(const uint8_t *data, size_t size);

/* The input parsed as JSON, or NULL; the tree comes from Malloc (cJSON is hooked). */
cJSON *parse(const uint8_t *data, size_t size);

} // namespace sf_fuzz

#endif /* SF_FUZZ_HARNESS_H */

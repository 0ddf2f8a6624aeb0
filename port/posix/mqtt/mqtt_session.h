/*
 * The MQTT client's session: its number (docs/wire-protocol.md "Session
 * number"), the status texts and the will that carry it, whether the broker
 * kept the session, and telling when another client takes it from us.
 * Internal to the client; network thread unless said otherwise.
 */
#ifndef SF_POSIX_MQTT_SESSION_H
#define SF_POSIX_MQTT_SESSION_H

#include <string>

#include "mqtt_client_state.h"

namespace sf_mqtt {

/* The next session number: from the state file's journal when open, else one more than before. */
void raise_session(Client *client);

/* {"online":true,"session":N} / {"online":false,"session":N} of the current session number. Any thread. */
std::string status_text(bool online);

/* The will of the next connect: the offline status with the current session number. */
int set_will(Client *client);

/* The broker accepted a session; session_present is its CONNACK flag. */
void session_accepted(Client *client, bool session_present);

/*
 * An accepted session ended with rc (libmosquitto's code, or under MQTT 5
 * the broker's DISCONNECT reason). Whether it was taken over by another
 * client with our client id: MQTT 5 may say so (reason 0x8E); otherwise
 * SF_MQTT_TAKEOVER_REPEATS sessions in a row lost within
 * SF_MQTT_TAKEOVER_WINDOW_S of their start are taken for it. The first
 * take-over is logged at error level naming the client id; each is
 * counted. The caller then waits takeover_backoff_s before connecting.
 */
bool session_taken_over(Client *client, int rc);

} // namespace sf_mqtt

#endif /* SF_POSIX_MQTT_SESSION_H */

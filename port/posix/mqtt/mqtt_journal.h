/*
 * The MQTT client and the command journal (port/posix/state/command_journal.h):
 * what the last run left is handed on first, and each journaled command is
 * marked applied once the smart frame has run it. Internal to the client.
 */
#ifndef SF_POSIX_MQTT_JOURNAL_H
#define SF_POSIX_MQTT_JOURNAL_H

#include "mqtt_client_state.h"

namespace sf_mqtt {

/*
 * At mqc_start, before the network thread runs: whether commands are
 * journaled (the journal is open), and the commands the last run left,
 * queued for the inbound worker oldest first.
 */
void take_journal(Client *client);

} // namespace sf_mqtt

#endif /* SF_POSIX_MQTT_JOURNAL_H */

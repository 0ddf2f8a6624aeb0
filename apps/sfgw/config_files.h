/*
 * The files the gateway description names, checked before anything
 * starts (also by --check): the broker's CA bundle, the client
 * certificate and its key (connection.mqtt.ca_file, cert_file, key_file).
 * A mistake there is otherwise found only by the MQTT client at connect
 * time, which names neither the file nor the key.
 */
#ifndef SFGW_CONFIG_FILES_H
#define SFGW_CONFIG_FILES_H

#include <string>

#include "common/description.h"

namespace sfgw {

/*
 * true when every named file exists, is readable and parses as PEM (the
 * CA file holds at least one certificate, the certificate file one, the
 * key file an unencrypted private key), and cert_file and key_file are
 * given together. Otherwise false with *why naming the description, the
 * key path, the file and the reason, e.g.
 * "gw.json: connection.mqtt.ca_file: /x.pem: cannot read the file: No such file or directory".
 */
bool check_config_files(const apps::Description &description, std::string *why);

} // namespace sfgw

#endif /* SFGW_CONFIG_FILES_H */

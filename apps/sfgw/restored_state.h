/*
 * The state a simulated device had before the gateway restarted: the
 * values the state store put back into the registry, as JSON values the
 * simulator reports. A real sub-device keeps its state across a gateway
 * restart; the simulator stands for it, so it starts from these.
 */
#ifndef SFGW_RESTORED_STATE_H
#define SFGW_RESTORED_STATE_H

#include "common/schema.h"
#include "apps/sfgw/sim/sim_device.h"

namespace sfgw {

/*
 * The restored object DPs of a device, in schema order, with their JSON
 * values (true, 210, "colour"); empty when nothing was restored. Takes
 * dev_mutex; not with it held.
 */
DpValues restored_values(const apps::DeviceSchema &schema);

} // namespace sfgw

#endif /* SFGW_RESTORED_STATE_H */

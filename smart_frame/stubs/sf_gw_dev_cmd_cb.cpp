// Placeholder until the handler lands; replaced by its area's source file.
#include "../inbound/inbound.h"
extern "C" void __sf_gw_dev_cmd_cb(MESSAGE *) {}

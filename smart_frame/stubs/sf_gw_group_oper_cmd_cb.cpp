// Placeholder until the handler lands; replaced by its area's source file.
#include "../inbound/inbound.h"
extern "C" void __sf_gw_group_oper_cmd_cb(MESSAGE *) {}

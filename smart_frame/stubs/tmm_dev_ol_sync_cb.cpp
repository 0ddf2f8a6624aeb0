// Placeholder until the handler lands; replaced by its area's source file.
#include "../presence/presence.h"
extern "C" void __tmm_dev_ol_sync_cb(TM_MSG_S *) {}

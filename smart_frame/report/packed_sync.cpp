#include "packed_sync.h"

namespace {

UINT_T g_stored_values = 0;                             /* under dev_mutex */
thread_local const sf::PackedReport *t_packed = nullptr; /* the sync's report on this thread */

} // namespace

namespace sf {

void note_value_stored()
{
    ++g_stored_values;
}

UINT_T stored_values()
{
    return g_stored_values;
}

PackedReport::PackedReport(const CHAR_T *text, UINT_T stored) : outer_(t_packed), text_(text), stored_(stored)
{
    t_packed = this;
}

PackedReport::~PackedReport()
{
    t_packed = outer_;
}

bool packed_values_may_be_stale(const CHAR_T *data)
{
    const PackedReport *packed = t_packed;
    return packed != nullptr && packed->text_ == data && packed->stored_ != g_stored_values;
}

} // namespace sf

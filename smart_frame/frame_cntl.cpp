/*
 * The control block and the start-up flag. Kept apart from the start-up
 * (frame_init.cpp), which binds the handlers of every room: the rooms use
 * the block, so defining it there would make start-up and rooms call each
 * other.
 */
#include "frame_cntl.h"

namespace sf {

SMT_FRM_CNTL_S sf_cntl;

namespace {

BOOL_T init = FALSE;

} // namespace

bool frame_inited()
{
    return init == TRUE;
}

void set_frame_inited()
{
    init = TRUE;
}

} // namespace sf

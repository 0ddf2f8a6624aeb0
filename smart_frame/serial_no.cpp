/*
 * Serial numbers of outgoing report messages: unique and increasing per
 * run, starting at 0, wrapping at 2^32 without special case.
 */
#include "frame_cntl.h"
#include "sf_lock.h"

using sf::sf_cntl;

extern "C" UINT_T sf_get_serial_no(void)
{
    sf::Hold lock(sf::serial_mutex);
    return sf_cntl.serial_no++;
}

extern "C" void sf_inc_serial_no(void)
{
    sf::Hold lock(sf::serial_mutex);
    ++sf_cntl.serial_no;
}

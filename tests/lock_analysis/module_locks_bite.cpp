/*
 * Proof that the module's lock names cannot be paired with the wrong
 * handle, and that the checks of `make test-thread-safety` bite on the
 * module's locks: every line that carries an expected diagnostic breaks a
 * rule, and clang with -Wthread-safety -Werror must reject exactly those
 * lines, with those messages. scripts/check_lock_analysis.sh compiles this
 * file with clang's -verify; it is never built into a program.
 */
#include "smart_frame/frame_cntl.h"
#include "smart_frame/presence/presence.h"

namespace {

using sf::sf_cntl;

// A guarded field written under its own lock: accepted.
void dos_update_under_its_lock()
{
    sf::Hold lock(sf::dos_mutex);
    sf_cntl.dos_update = TRUE;
}

// The same field under another of the module's locks.
void dos_update_under_another_lock()
{
    sf::Hold lock(sf::serial_mutex);
    sf_cntl.dos_update = TRUE; // expected-error {{writing variable 'dos_update' requires holding mutex 'dos_mutex_cap' exclusively}}
}

// Written after the hold ended.
void serial_after_unlock()
{
    sf::Hold lock(sf::serial_mutex);
    lock.unlock();
    ++sf_cntl.serial_no; // expected-error {{writing variable 'serial_no' requires holding mutex 'serial_mutex_cap' exclusively}}
}

// A function that takes dos_mutex itself, called with it held.
void marking_under_dos_mutex(DEV_CNTL_N_S *dev)
{
    sf::Hold lock(sf::dos_mutex);
    __sf_dev_ol_stat_update(dev, TRUE); // expected-error {{cannot call function '__sf_dev_ol_stat_update' while mutex 'dos_mutex_cap' is held}}
}

// Under dev_mutex, which the marking may be called with: accepted.
void marking_under_dev_mutex(DEV_CNTL_N_S *dev)
{
    sf::Hold lock(sf::dev_mutex, get_gw_cntl());
    __sf_dev_ol_stat_update(dev, TRUE);
}

// A handle cannot be handed to a Hold: only the lock's own accessor picks it.
// Last in the file: a hard error ends clang's lock analysis of what follows.
void handle_chosen_by_the_caller()
{
    sf::Hold lock(sf_cntl.mutex); // expected-error {{calling a private constructor of class 'sf::Hold'}}
                                  // expected-note@smart_frame/sf_lock.h:* {{declared private here}}
}

} // namespace

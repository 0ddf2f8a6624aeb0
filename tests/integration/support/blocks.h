/* Report blocks made by a test, as the smart frame makes them (MSG_DATA_S in an RFC_DATA_S). */
#ifndef IT_BLOCKS_H
#define IT_BLOCKS_H

#include <string>

#include "services/uni_rfc.h"

namespace it {

/* A block holding text with serial number serno and one reference (the test's). */
RFC_DATA_S *make_block(const std::string &text, UINT_T serno);

/* The block's reference count, read under its lock. */
UINT_T references(RFC_DATA_S *block);

} // namespace it

#endif /* IT_BLOCKS_H */

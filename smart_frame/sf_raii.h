/*
 * Owners for what the module allocates, so every early return releases it:
 * cJSON documents and texts from Malloc or cJSON's printer (locks: sf_lock.h).
 */
#ifndef SF_RAII_H
#define SF_RAII_H

#include <cjson/cJSON.h>

#include <memory>

#include "../services/uni_memory.h"

namespace sf {

struct JsonDeleter {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

struct FreeDeleter {
    void operator()(void *ptr) const { Free(ptr); }
};
template <typename T>
using MallocPtr = std::unique_ptr<T, FreeDeleter>;
using TextPtr = MallocPtr<char>;

} // namespace sf

#endif /* SF_RAII_H */

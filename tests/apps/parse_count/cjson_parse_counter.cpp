/*
 * The counting parse functions (cjson_parse_counter.h). They stand in for
 * cJSON's within this program and pass each call on (RTLD_NEXT).
 */
#include "cjson_parse_counter.h"

#include <cjson/cJSON.h>
#include <dlfcn.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace {

std::mutex g_lock;
std::string g_watched;
std::atomic<int> g_watched_parses{0};
std::atomic<int> g_all_parses{0};
thread_local int t_depth = 0;

void count(const char *text, size_t len)
{
    if (t_depth > 0 || text == nullptr) {
        return;
    }
    ++g_all_parses;
    std::lock_guard<std::mutex> hold(g_lock);
    const size_t used = ::strnlen(text, len);
    if (!g_watched.empty() && used == g_watched.size() && std::memcmp(text, g_watched.data(), used) == 0) {
        ++g_watched_parses;
    }
}

template <typename Fn>
Fn real(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

/* Counts the outermost call only: the library's own nested calls come back through these. */
struct Depth {
    Depth() { ++t_depth; }
    ~Depth() { --t_depth; }
};

} // namespace

namespace parse_counter {

void watch(const std::string &watched)
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_watched = watched;
    g_watched_parses = 0;
    g_all_parses = 0;
}

int watched_parses() { return g_watched_parses; }
int all_parses() { return g_all_parses; }

} // namespace parse_counter

extern "C" {

cJSON *cJSON_ParseWithLengthOpts(const char *value, size_t length, const char **end, cJSON_bool null_terminated)
{
    using Fn = cJSON *(*)(const char *, size_t, const char **, cJSON_bool);
    static const Fn next = real<Fn>("cJSON_ParseWithLengthOpts");
    count(value, length);
    Depth nested;
    return next(value, length, end, null_terminated);
}

cJSON *cJSON_ParseWithOpts(const char *value, const char **end, cJSON_bool null_terminated)
{
    using Fn = cJSON *(*)(const char *, const char **, cJSON_bool);
    static const Fn next = real<Fn>("cJSON_ParseWithOpts");
    count(value, value != nullptr ? std::strlen(value) : 0);
    Depth nested;
    return next(value, end, null_terminated);
}

cJSON *cJSON_ParseWithLength(const char *value, size_t length)
{
    using Fn = cJSON *(*)(const char *, size_t);
    static const Fn next = real<Fn>("cJSON_ParseWithLength");
    count(value, length);
    Depth nested;
    return next(value, length);
}

cJSON *cJSON_Parse(const char *value)
{
    using Fn = cJSON *(*)(const char *);
    static const Fn next = real<Fn>("cJSON_Parse");
    count(value, value != nullptr ? std::strlen(value) : 0);
    Depth nested;
    return next(value);
}

} // extern "C"

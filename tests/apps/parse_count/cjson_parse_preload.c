/*
 * Preloaded into a real program (tests/apps/parse_count/count_parses.sh):
 * counts the program's cJSON parses, each entry point passing the call on
 * to the library, and prints "cJSON parses: N" on stderr at exit. A parse
 * function the library calls inside another one counts once.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

typedef struct cJSON cJSON;

static int g_parses;
static __thread int t_depth;

__attribute__((destructor)) static void report(void) { fprintf(stderr, "cJSON parses: %d\n", g_parses); }

static void *next_of(const char *name) { return dlsym(RTLD_NEXT, name); }

#define COUNTED(call)        \
    do {                     \
        if (t_depth == 0) {  \
            ++g_parses;      \
        }                    \
        ++t_depth;           \
        cJSON *out = (call); \
        --t_depth;           \
        return out;          \
    } while (0)

cJSON *cJSON_ParseWithLengthOpts(const char *value, size_t length, const char **end, int null_terminated)
{
    cJSON *(*next)(const char *, size_t, const char **, int) = next_of("cJSON_ParseWithLengthOpts");
    COUNTED(next(value, length, end, null_terminated));
}

cJSON *cJSON_ParseWithOpts(const char *value, const char **end, int null_terminated)
{
    cJSON *(*next)(const char *, const char **, int) = next_of("cJSON_ParseWithOpts");
    COUNTED(next(value, end, null_terminated));
}

cJSON *cJSON_ParseWithLength(const char *value, size_t length)
{
    cJSON *(*next)(const char *, size_t) = next_of("cJSON_ParseWithLength");
    COUNTED(next(value, length));
}

cJSON *cJSON_Parse(const char *value)
{
    cJSON *(*next)(const char *) = next_of("cJSON_Parse");
    COUNTED(next(value));
}

/*
 * Reading one JSON object of a description with a key path for every
 * error ("devices[2].sim.heartbeat_s: expected an integer"). The first
 * error wins; later calls do nothing once one was recorded.
 */
#ifndef APPS_COMMON_JSON_READER_H
#define APPS_COMMON_JSON_READER_H

#include <cjson/cJSON.h>

#include <memory>
#include <set>
#include <string>

namespace apps {

/* Owner of a parsed or built cJSON tree. */
struct JsonDeleter {
    void operator()(cJSON *node) const { cJSON_Delete(node); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

/* Whole decimal text within lo..hi into *out; false (and *out untouched) otherwise. */
bool parse_int(const std::string &text, long lo, long hi, int *out);

class JsonReader {
public:
    /* object may be NULL or not an object: the first call then reports "expected an object". */
    JsonReader(const cJSON *object, std::string path, std::string *error);

    /* The member, or NULL (absent and not required, or an error recorded). */
    const cJSON *member(const char *key, bool required);
    /* The typed getters return true only when the value was there and fitted (then *out is set). */
    bool integer(const char *key, bool required, long long lo, long long hi, long long *out);
    bool boolean(const char *key, bool required, bool *out);
    bool text(const char *key, bool required, std::string *out);
    const cJSON *object(const char *key, bool required);

    /* Call last: refuses a member that no getter asked for. */
    bool no_unknown_keys();

    bool ok() const { return error_->empty(); }
    bool fail(const std::string &key, const std::string &why);
    std::string path_of(const std::string &key) const;

private:
    const cJSON *object_;
    std::string path_;
    std::string *error_;
    std::set<std::string> known_;
};

/* "devices" + 2 -> "devices[2]", under path when it is not empty. */
std::string element_path(const std::string &path, const char *key, int index);

/* Whether node is a number with an integral value. */
bool is_integer(const cJSON *node);

} // namespace apps

#endif /* APPS_COMMON_JSON_READER_H */

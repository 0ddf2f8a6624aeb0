/*
 * Reading a gateway description (docs/gateway-description.md): the text
 * parsed once, and typed access to its objects with a key path for every
 * refusal ("gw.json: devices[2].sim.heartbeat_s: expected an integer").
 * The registry, the daemon and the console all read through it, so a key
 * is refused in the same words whoever reads it. Portable: no platform call.
 */
#ifndef GATEWAY_DESCRIPTION_DESC_READER_H
#define GATEWAY_DESCRIPTION_DESC_READER_H

#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

namespace gw_desc {

/* Why a description (or a part of it) was refused: file, key path and reason. */
struct LoadError {
    std::string file; /* file name, or the label the text was given */
    std::string path; /* key path such as devices[1].dps[0].id; empty for the whole document */
    std::string why;  /* e.g. "missing key", "expected a string" */
    /* "file: path: why" (the path part left out when empty) */
    std::string text() const;
};

/* Fill *error (when given) and return false, for one-line refusals. */
bool fail(LoadError *error, const std::string &file, const std::string &path, const std::string &why);

/* Owner of a parsed cJSON tree. */
struct JsonDeleter {
    void operator()(cJSON *node) const { cJSON_Delete(node); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

/*
 * The one parse of a description text. nullptr with *error = "label: not
 * valid JSON (near line L, column C)" when the text is no JSON document.
 */
Json parse_text(const std::string &text, const std::string &label, LoadError *error);

/* The whole file into *text; false with *error = "file: cannot read the file: why". */
bool read_file(const std::string &file, std::string *text, LoadError *error);

/* A JSON number with an integral value that a long long holds exactly (|n| <= 9e15). */
bool is_integer(const cJSON *node);

/* "devices" + 2 -> "devices[2]", under path when it is not empty. */
std::string element_path(const std::string &path, const char *key, int index);

/* One name of a choice and the value it stands for ("rw" -> DP_MODE_RW). */
struct Choice {
    const char *name;
    int value;
};

/*
 * Typed access to the members of one JSON object. The first problem is
 * recorded in *error (file as the caller set it, this path and key) and
 * every later call becomes a no-op returning false, so a parse reads as
 * a list of fields followed by one check of ok().
 */
class Reader {
public:
    /* object may be NULL or no object: the reader then starts failed with "expected an object". */
    Reader(const cJSON *object, std::string path, LoadError *error);

    bool ok() const { return ok_; }
    const std::string &path() const { return path_; }
    /* The key path of a member: "devices[0]" + "id" -> "devices[0].id". */
    std::string at(const std::string &key) const;

    /* Record why under key (the object itself when key is NULL); false. */
    bool refuse(const char *key, const std::string &why);

    /* The member, or NULL (absent and not required, or an error recorded). */
    const cJSON *member(const char *key, bool required);
    /* Mark a member as read by someone else: no_unknown_keys leaves it alone. */
    void skip(const std::string &key) { known_.insert(key); }

    /* The typed getters return true only when the value was there and fitted (then *out is set). */
    bool text(const char *key, bool required, std::string *out) { return text(key, required, 0, SIZE_MAX, out); }
    bool text(const char *key, bool required, size_t min_len, size_t max_len, std::string *out);
    bool integer(const char *key, bool required, long long min, long long max, long long *out,
                 const char *range_why = "out of range");
    bool boolean(const char *key, bool required, bool *out);
    const cJSON *object(const char *key, bool required);
    const cJSON *array(const char *key, bool required);
    /* A name out of choices[0..count); "unknown value \"x\" (one of a, b)" otherwise. */
    bool choice(const char *key, bool required, const Choice *choices, size_t count, int *out);
    template <size_t N>
    bool choice(const char *key, bool required, const Choice (&choices)[N], int *out)
    {
        return choice(key, required, choices, N, out);
    }

    /* Call last: refuses a member that no getter asked for and no one skipped. */
    bool no_unknown_keys();

private:
    const cJSON *object_;
    std::string path_;
    LoadError *error_;
    std::set<std::string> known_;
    bool ok_ = true;
};

} // namespace gw_desc

#endif /* GATEWAY_DESCRIPTION_DESC_READER_H */

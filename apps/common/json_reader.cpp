#include "json_reader.h"

#include <cmath>
#include <cstdlib>

namespace apps {

JsonReader::JsonReader(const cJSON *object, std::string path, std::string *error)
    : object_(object), path_(std::move(path)), error_(error)
{
    if (ok() && !cJSON_IsObject(object_)) {
        *error_ = (path_.empty() ? std::string("document") : path_) + ": expected an object";
    }
}

std::string JsonReader::path_of(const std::string &key) const
{
    return path_.empty() ? key : path_ + "." + key;
}

bool JsonReader::fail(const std::string &key, const std::string &why)
{
    if (ok()) {
        *error_ = path_of(key) + ": " + why;
    }
    return false;
}

const cJSON *JsonReader::member(const char *key, bool required)
{
    known_.insert(key);
    if (!ok()) {
        return nullptr;
    }
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object_, key);
    if (item == nullptr && required) {
        fail(key, "missing key");
    }
    return item;
}

bool JsonReader::integer(const char *key, bool required, long long lo, long long hi, long long *out)
{
    const cJSON *item = member(key, required);
    if (item == nullptr) {
        return false;
    }
    if (!is_integer(item)) {
        return fail(key, "expected an integer");
    }
    const long long value = static_cast<long long>(item->valuedouble);
    if (value < lo || value > hi) {
        return fail(key, "out of range (" + std::to_string(lo) + ".." + std::to_string(hi) + "): " +
                             std::to_string(value));
    }
    *out = value;
    return true;
}

bool JsonReader::boolean(const char *key, bool required, bool *out)
{
    const cJSON *item = member(key, required);
    if (item == nullptr) {
        return false;
    }
    if (!cJSON_IsBool(item)) {
        return fail(key, "expected true or false");
    }
    *out = cJSON_IsTrue(item);
    return true;
}

bool JsonReader::text(const char *key, bool required, std::string *out)
{
    const cJSON *item = member(key, required);
    if (item == nullptr) {
        return false;
    }
    if (!cJSON_IsString(item)) {
        return fail(key, "expected a string");
    }
    *out = item->valuestring;
    return true;
}

const cJSON *JsonReader::object(const char *key, bool required)
{
    const cJSON *item = member(key, required);
    if (item != nullptr && !cJSON_IsObject(item)) {
        fail(key, "expected an object");
        return nullptr;
    }
    return item;
}

bool JsonReader::no_unknown_keys()
{
    if (!ok()) {
        return false;
    }
    for (const cJSON *item = object_->child; item != nullptr; item = item->next) {
        if (item->string != nullptr && known_.count(item->string) == 0) {
            return fail(item->string, "unknown key");
        }
    }
    return true;
}

std::string element_path(const std::string &path, const char *key, int index)
{
    return (path.empty() ? std::string(key) : path + "." + key) + "[" + std::to_string(index) + "]";
}

bool parse_int(const std::string &text, long lo, long hi, int *out)
{
    char *end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < lo || value > hi) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

bool is_integer(const cJSON *node)
{
    return cJSON_IsNumber(node) && std::isfinite(node->valuedouble) &&
           std::floor(node->valuedouble) == node->valuedouble && std::fabs(node->valuedouble) < 9.0e15;
}

} // namespace apps

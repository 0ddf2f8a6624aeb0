/*
 * The description's one parse and its key-path reader (desc_reader.h).
 */
#include "desc_reader.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

namespace gw_desc {

std::string LoadError::text() const
{
    return path.empty() ? file + ": " + why : file + ": " + path + ": " + why;
}

bool fail(LoadError *error, const std::string &file, const std::string &path, const std::string &why)
{
    if (error != nullptr) {
        error->file = file;
        error->path = path;
        error->why = why;
    }
    return false;
}

Json parse_text(const std::string &text, const std::string &label, LoadError *error)
{
    const char *end = nullptr;
    /* up to the first NUL, as a C string reader would; the terminator is part of the buffer */
    Json root(cJSON_ParseWithLengthOpts(text.c_str(), std::strlen(text.c_str()) + 1, &end, 1));
    if (root != nullptr) {
        return root;
    }
    const size_t offset = end != nullptr && end >= text.c_str() ? static_cast<size_t>(end - text.c_str()) : 0;
    int line = 1;
    int column = 1;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        column = text[i] == '\n' ? 1 : column + 1;
        line += text[i] == '\n' ? 1 : 0;
    }
    fail(error, label, "",
         "not valid JSON (near line " + std::to_string(line) + ", column " + std::to_string(column) + ")");
    return nullptr;
}

bool read_file(const std::string &file, std::string *text, LoadError *error)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return fail(error, file, "", std::string("cannot read the file: ") + std::strerror(errno));
    }
    std::ostringstream content;
    content << in.rdbuf();
    *text = content.str();
    return true;
}

bool is_integer(const cJSON *node)
{
    return cJSON_IsNumber(node) && std::isfinite(node->valuedouble) &&
           std::floor(node->valuedouble) == node->valuedouble && std::fabs(node->valuedouble) <= 9.0e15;
}

std::string element_path(const std::string &path, const char *key, int index)
{
    return (path.empty() ? std::string(key) : path + "." + key) + "[" + std::to_string(index) + "]";
}

Reader::Reader(const cJSON *object, std::string path, LoadError *error)
    : object_(object), path_(std::move(path)), error_(error)
{
    if (!cJSON_IsObject(object_)) {
        refuse(nullptr, "expected an object");
    }
}

std::string Reader::at(const std::string &key) const { return path_.empty() ? key : path_ + "." + key; }

bool Reader::refuse(const char *key, const std::string &why)
{
    if (ok_) {
        ok_ = fail(error_, error_->file, key != nullptr ? at(key) : path_, why);
    }
    return false;
}

const cJSON *Reader::member(const char *key, bool required)
{
    if (!ok_) {
        return nullptr;
    }
    known_.insert(key);
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object_, key);
    if (item == nullptr && required) {
        refuse(key, "missing key");
    }
    return item;
}

bool Reader::text(const char *key, bool required, size_t min_len, size_t max_len, std::string *out)
{
    const cJSON *item = member(key, required);
    if (item == nullptr) {
        return false;
    }
    if (!cJSON_IsString(item) || item->valuestring == nullptr) {
        return refuse(key, "expected a string");
    }
    const size_t len = std::strlen(item->valuestring);
    if (len < min_len || len > max_len) {
        return refuse(key, "length " + std::to_string(len) + " outside " + std::to_string(min_len) + ".." +
                               std::to_string(max_len));
    }
    *out = item->valuestring;
    return true;
}

bool Reader::integer(const char *key, bool required, long long min, long long max, long long *out,
                     const char *range_why)
{
    const cJSON *item = member(key, required);
    if (item == nullptr) {
        return false;
    }
    if (!is_integer(item)) {
        return refuse(key, "expected an integer");
    }
    const long long number = static_cast<long long>(item->valuedouble);
    if (number < min || number > max) {
        return refuse(key, std::string(range_why) + " (" + std::to_string(min) + ".." + std::to_string(max) +
                               "): " + std::to_string(number));
    }
    *out = number;
    return true;
}

bool Reader::boolean(const char *key, bool required, bool *out)
{
    const cJSON *item = member(key, required);
    if (item == nullptr) {
        return false;
    }
    if (!cJSON_IsBool(item)) {
        return refuse(key, "expected true or false");
    }
    *out = cJSON_IsTrue(item);
    return true;
}

const cJSON *Reader::object(const char *key, bool required)
{
    const cJSON *item = member(key, required);
    if (item != nullptr && !cJSON_IsObject(item)) {
        refuse(key, "expected an object");
        return nullptr;
    }
    return item;
}

const cJSON *Reader::array(const char *key, bool required)
{
    const cJSON *item = member(key, required);
    if (item != nullptr && !cJSON_IsArray(item)) {
        refuse(key, "expected an array");
        return nullptr;
    }
    return item;
}

bool Reader::choice(const char *key, bool required, const Choice *choices, size_t count, int *out)
{
    std::string name;
    if (!text(key, required, &name)) {
        return false;
    }
    std::string list;
    for (size_t i = 0; i < count; ++i) {
        if (name == choices[i].name) {
            *out = choices[i].value;
            return true;
        }
        list += (list.empty() ? "" : ", ") + std::string(choices[i].name);
    }
    return refuse(key, "unknown value \"" + name + "\" (one of " + list + ")");
}

bool Reader::no_unknown_keys()
{
    if (!ok_) {
        return false;
    }
    for (const cJSON *item = object_->child; item != nullptr; item = item->next) {
        if (item->string != nullptr && known_.count(item->string) == 0) {
            return refuse(item->string, "unknown key");
        }
    }
    return true;
}

} // namespace gw_desc

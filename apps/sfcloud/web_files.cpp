#include "web_files.h"

#include <array>
#include <utility>

namespace sfcloud {

bool web_file_path(const std::string &root, const std::string &target, std::string *path)
{
    std::string p = target.substr(0, target.find_first_of("?#"));
    if (p.empty() || p[0] != '/') {
        return false;
    }
    /* The page's files have plain names; anything that needs decoding is not one of them. */
    if (p.find_first_of(std::string("\\%\0", 3)) != std::string::npos) {
        return false;
    }
    for (size_t at = 0; at != std::string::npos; at = p.find('/', at + 1)) {
        const size_t end = p.find('/', at + 1);
        const std::string segment = p.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
        if (segment == ".." || segment == ".") {
            return false;
        }
    }
    if (p.back() == '/') {
        p += "index.html";
    }
    *path = root + p;
    return true;
}

const char *media_type_of(const std::string &path)
{
    static const std::array<std::pair<const char *, const char *>, 11> types = {{
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".json", "application/json"},
        {".map", "application/json"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".ico", "image/x-icon"},
        {".txt", "text/plain; charset=utf-8"},
        {".woff2", "font/woff2"},
    }};
    for (const auto &t : types) {
        const std::string ext = t.first;
        if (path.size() >= ext.size() && path.compare(path.size() - ext.size(), ext.size(), ext) == 0) {
            return t.second;
        }
    }
    return "application/octet-stream";
}

} // namespace sfcloud

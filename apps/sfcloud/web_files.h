/*
 * sfcloud serve: which file of the built page answers a URL path, and its
 * media type. No network code here, so the rules are tested on their own.
 */
#ifndef SFCLOUD_WEB_FILES_H
#define SFCLOUD_WEB_FILES_H

#include <string>

namespace sfcloud {

/*
 * The file under root for the request target ("/", "/assets/index-3f2a.js?x=1").
 * false when the target could leave the folder or is not a plain path
 * (".." segments, backslashes, percent escapes, NUL): the caller answers 404,
 * never reading outside root. "/" is "/index.html".
 */
bool web_file_path(const std::string &root, const std::string &target, std::string *path);

/* The Content-Type of a file from its extension; application/octet-stream when unknown. */
const char *media_type_of(const std::string &path);

} // namespace sfcloud

#endif /* SFCLOUD_WEB_FILES_H */

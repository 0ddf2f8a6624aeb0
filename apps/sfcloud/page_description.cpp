#include "page_description.h"

#include <cjson/cJSON.h>

#include <cstdlib>
#include <memory>

namespace sfcloud {

std::string page_description(const apps::Description *names)
{
    if (names == nullptr) {
        return "";
    }
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> doc(cJSON_Parse(names->registry_text.c_str()), cJSON_Delete);
    if (!cJSON_IsObject(doc.get())) {
        return "";
    }
    cJSON_DeleteItemFromObjectCaseSensitive(cJSON_GetObjectItemCaseSensitive(doc.get(), "gateway"), "local_key");
    cJSON_DeleteItemFromObjectCaseSensitive(doc.get(), "connection");
    cJSON_AddItemToObject(doc.get(), "topic_root", cJSON_CreateString(names->mqtt.topic_root.c_str()));
    std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(doc.get()), cJSON_free);
    return text ? std::string(text.get()) : std::string();
}

} // namespace sfcloud

/** JSON whose fields stay in the order in which they were written. */
#ifndef TOOL_JSON_H
#define TOOL_JSON_H

#include <nlohmann/json.hpp>
#include <string>

using Json = nlohmann::ordered_json;

/** Names from packages may be no UTF-8; what is not is shown as U+FFFD. */
inline std::string to_text(const Json& value, int indent = -1) {
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

#endif

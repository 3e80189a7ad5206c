/** JSON whose fields stay in the order in which they were written. */
#ifndef TOOL_JSON_H
#define TOOL_JSON_H

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

#endif

// SPDX-License-Identifier: Apache-2.0
/** A detail in which readers of zip packages differ. */
#pragma once

#include <algorithm>
#include <string_view>

/** minizip takes any locator in the file's tail, the command only one that is directly before the end record. */
inline bool has_stray_locator(std::string_view file) {
    const size_t locator = file.rfind("PK\6\7");
    return locator != std::string_view::npos && file.substr(std::min(file.size(), locator + 20), 4) != "PK\5\6";
}

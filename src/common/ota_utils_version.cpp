// SPDX-License-Identifier: Apache-2.0
/** Version strings: extracted from a line, read from a file, compared. */
#include "ota_log.h"
#include "ota_owner.h"
#include "ota_paths.h"
#include "ota_utils.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr char version_marker[] = "_V";

bool is_end_of_version(char c) {
    return c == '\0' || c == '_';
}

/** The value of the segment at `*version`, which is advanced to the next. Any character is accepted. */
int32_t parse_segment(const char** version) {
    const char* at = *version;
    uint32_t num = 0;
    for (; !is_end_of_version(*at) && *at != '.' && *at != '-'; ++at) {
        num = num * 10 + static_cast<unsigned char>(*at) - '0';
    }
    *version = is_end_of_version(*at) ? at : at + 1;
    return static_cast<int32_t>(num);
}

} // namespace

int32_t parse_version_info(const char* in_version, char* out_version) {
    if (in_version == nullptr || out_version == nullptr) {
        ota_log_error("%s is null\n", in_version == nullptr ? "in_version" : "out_version");
        return -1;
    }
    const char* marker = std::strstr(in_version, version_marker);
    if (marker == nullptr) {
        ota_log_error("version:%s is format error!\n", in_version);
        return -1;
    }
    /* The line belongs to the caller and is writable, in spite of its type. */
    char* rest = const_cast<char*>(marker) + 1;
    char* const token = strsep(&rest, " ");
    char* const last = token + std::strlen(token) - 1;
    if (*last == '\n' || *last == '\r') {
        *last = '\0';
    }
    (void)std::snprintf(out_version, ota_path_size, "%s", token);
    return static_cast<int32_t>(std::strlen(token));
}

int32_t get_system_version(const char* ver_path, char* verbuf) {
    if (ver_path == nullptr) {
        ota_log_error("version path is NULL!\n");
        return -1;
    }
    char ver_tmp[ota_path_size] = {};
    ota_stream fpread(std::fopen(ver_path, "rb"));
    if (fpread == nullptr) {
        ota_log_error("open ver_path:%s error!\n", ver_path);
        return -1;
    }
    (void)std::fseek(fpread.get(), 0, SEEK_END);
    const long size_len = std::ftell(fpread.get());
    (void)std::fseek(fpread.get(), 0, SEEK_SET);
    const long room = std::clamp(size_len, 0L, static_cast<long>(sizeof ver_tmp) - 1);
    const size_t count = std::fread(ver_tmp, 1, static_cast<size_t>(room), fpread.get());
    if (size_len < 0 || count != static_cast<size_t>(size_len)) {
        ota_log_error("read %s version error!\n", ver_path);
    }
    fpread.reset();
    return parse_version_info(ver_tmp, verbuf);
}

int32_t compare_sys_versions(const char* v1, const char* v2) {
    if (v1 == nullptr || v2 == nullptr) {
        ota_log_error("%s is null\n", v1 == nullptr ? "v1" : "v2");
        return 0;
    }
    while (!is_end_of_version(*v1) && !is_end_of_version(*v2)) {
        const int32_t segment1 = parse_segment(&v1);
        const int32_t segment2 = parse_segment(&v2);
        if (segment1 != segment2) {
            return segment1 < segment2 ? 1 : 0;
        }
    }
    ota_log_error("Compare %s %s is same version\n", v1, v2);
    return 0;
}

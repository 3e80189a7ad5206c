// SPDX-License-Identifier: Apache-2.0
/** Comparison of partitions, the single-instance lock, and command execution. */
#include "md5.h"
#include "ota_log.h"
#include "ota_owner.h"
#include "ota_utils.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t digest_size = 16;

int32_t g_lockfd = -1; /* descriptor of the held lock; -1: none is held */

const char* printable(const char* text) {
    return text == nullptr ? "(null)" : text;
}

bool digest_device(const char* path, md5_byte_t (&digest)[digest_size], int32_t garbage) {
    if (MD5Dev(path, digest, garbage) != 0) {
        ota_log_error("md5 %s fail\n", path);
        return false;
    }
    return true;
}

} // namespace

int32_t ota_check_two_partition_md5(const char* partition1_path, const char* partition2_path, int32_t garbage) {
    md5_byte_t digest1[digest_size] = {};
    md5_byte_t digest2[digest_size] = {};
    if (partition1_path == nullptr || partition2_path == nullptr) {
        ota_log_error("check two partition md5sum parament error!\n");
        return -1;
    }
    if (!digest_device(partition1_path, digest1, garbage) || !digest_device(partition2_path, digest2, garbage)) {
        return -1;
    }
    if (std::memcmp(digest1, digest2, digest_size) != 0) {
        ota_log_error("dev:%s md5 not equal dev:%s\n", partition1_path, partition2_path);
        return -1;
    }
    return 0;
}

int32_t get_file_lock(char* lock_file) {
    ota_descriptor lockfd(lock_file == nullptr ? -1 : open(lock_file, O_WRONLY | O_CREAT, 0766));
    if (!lockfd.is_open()) {
        ota_log_error("open file %s failed.\n", printable(lock_file));
        return -1;
    }
    if (flock(lockfd.get(), LOCK_EX | LOCK_NB) != 0) {
        ota_log_error("file %s is already locked.\n", lock_file);
        ota_log_error("ota doesn't support multiple processes.\n");
        return -1;
    }
    ota_log_debug("lock file %s successfully.\n", lock_file);
    g_lockfd = lockfd.release();
    return 0;
}

int32_t put_file_lock(char* lock_file) {
    if (g_lockfd == -1) {
        return -1;
    }
    const bool released = flock(g_lockfd, LOCK_UN) == 0;
    if (released) {
        ota_log_info("unlock file %s successfully\n", printable(lock_file));
    } else {
        ota_log_error("unlock file %s failed\n", printable(lock_file));
    }
    close(g_lockfd);
    g_lockfd = -1;
    return released ? 0 : -1;
}

int32_t ota_system_exe(char* cmd) {
    if (cmd == nullptr) {
        ota_log_error("system cmd is NULL!\n");
        return -1;
    }
    const int status = system(cmd);
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        ota_log_error("execute cmd:%s failed!\n", cmd);
        return -1;
    }
    ota_log_debug("execute cmd:%s success!\n", cmd);
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
/**
 * Extraction of zip packages.
 *
 * An entry's name is a path relative to the working directory, which is the destination while a package is
 * extracted. Before anything is touched for an entry, its name is checked: nothing outside the destination
 * is written and no mode is set there, whatever links the package contains.
 */
#include "vx_zip.h"

#include "minizip_owner.h"
#include "ota_log.h"
#include "ota_owner.h"
#include "ota_paths.h"
#include "vx_zip_destination.h"
#include "vx_zip_entry.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

namespace {

constexpr size_t zip_buf_size = 8192;
char g_zip_buf[zip_buf_size]; /* all entry data and every link target pass through it */

constexpr int32_t makedir_no_memory = -104;

struct extraction {
    unzFile uf;
    zip_destination dest;
};

/* ---- extraction ---- */

bool is_separator(char c) {
    return c == '/' || c == '\\';
}

int32_t mymkdir(const char* dirname) {
    return mkdir(dirname, 0775);
}

/** Opens the file of an entry, with its parent directories where they are missing. */
FILE* open_output(zip_entry& entry) {
    FILE* fout = fopen64(entry.name, "wb");
    const auto without_path = static_cast<size_t>(zip_last_component(entry.name) - entry.name);
    if (fout != nullptr || without_path == 0) {
        return fout;
    }
    char* const separator = entry.name + without_path - 1;
    const char held = *separator;
    *separator = '\0';
    (void)makedir(entry.name);
    *separator = held;
    return fopen64(entry.name, "wb");
}

int32_t copy_data(zip_entry_data* data, FILE* fout) {
    int32_t err = 0;
    do {
        err = zip_entry_read(data, g_zip_buf, zip_buf_size);
        if (err < 0) {
            ota_log_error("error %d with zipfile in unzReadCurrentFile\n", err);
            return err;
        }
        if (err > 0 && std::fwrite(g_zip_buf, static_cast<size_t>(err), 1, fout) != 1) {
            ota_log_error("error in writing extracted file\n");
            return -1;
        }
    } while (err > 0);
    return 0;
}

/** Sets the mode of what the name refers to. A file has been checked already; a link may have any target. */
void set_mode(extraction& walk, const zip_entry& entry) {
    if (zip_entry_kind(entry) == zip_kind::link && zip_name_leads_out(&walk.dest, entry.name, zip_kind::file)) {
        ota_log_debug("mode of %s is not set: its target is not in the destination\n", entry.name);
        return;
    }
    (void)chmod(entry.name, zip_permissions(entry.info.external_fa));
}

int32_t extract_link(zip_entry_data* data, const zip_entry& entry) {
    const int32_t length = zip_entry_read(data, g_zip_buf, zip_buf_size);
    if (length < 0 || data->left != 0 || static_cast<size_t>(length) >= zip_buf_size) {
        ota_log_error("error reading link target of %s\n", entry.name);
        return length < 0 ? length : -1;
    }
    g_zip_buf[length] = '\0';
    ota_log_info("g_zip_buf is %s, filename_inzip = %s\n", g_zip_buf, entry.name);
    if (symlink(g_zip_buf, entry.name) != 0) {
        ota_log_error("%s symlink error\n", g_zip_buf);
    }
    return 0;
}

/** Writes the data of a regular file and sets its date. */
int32_t extract_file(zip_entry_data* data, zip_entry& entry) {
    FILE* fout = open_output(entry);
    if (fout == nullptr) {
        ota_log_error("error opening %s\n", entry.name);
        return -1;
    }
    /* The result of fclose() is ignored, so no data may be left for it. This also saves a copy. */
    (void)std::setvbuf(fout, nullptr, _IONBF, 0);
    const int32_t err = copy_data(data, fout);
    (void)std::fclose(fout);
    if (err == 0) {
        change_file_date(entry.name, entry.info.dosDate, entry.info.tmu_date);
    }
    return err;
}

/** Extracts a link or a regular file, and sets the mode of what the name then refers to, even after a failure. */
int32_t extract_data(extraction& walk, zip_entry& entry) {
    uint64_t size = 0;
    if (!zip_entry_deliverable_size(walk.uf, entry.info, entry.name, &size)) {
        return -1;
    }
    zip_entry_data data = zip_entry_begin(walk.uf, size, entry.info);
    int32_t err = unzOpenCurrentFilePassword(walk.uf, nullptr);
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzOpenCurrentFilePassword\n", err);
    } else if (zip_entry_kind(entry) == zip_kind::link) {
        err = extract_link(&data, entry);
    } else {
        err = extract_file(&data, entry);
    }
    set_mode(walk, entry);
    if (err != 0) {
        (void)unzCloseCurrentFile(walk.uf);
        return err;
    }
    err = zip_entry_end(data, entry.info);
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzCloseCurrentFile\n", err);
    }
    return err;
}

/** Checks that the name of an entry can be extracted, and logs the reason when it cannot. */
bool check_name(extraction& walk, const zip_entry& entry) {
    if (entry.info.size_filename >= sizeof entry.name) {
        ota_log_error("entry name of %u bytes is too long\n", static_cast<unsigned>(entry.info.size_filename));
        return false;
    }
    if (zip_name_leads_out(&walk.dest, entry.name, zip_entry_kind(entry))) {
        ota_log_error("entry %s leads out of the destination\n", entry.name);
        return false;
    }
    return true;
}

/** Extracts the entry read last. */
int32_t extract_entry(extraction& walk, zip_entry& entry) {
    if (!check_name(walk, entry)) {
        return -1;
    }
    if (zip_entry_kind(entry) == zip_kind::directory) {
        (void)mymkdir(entry.name);
        return 0;
    }
    return extract_data(walk, entry);
}

int32_t do_extract(extraction& walk) {
    zip_walk entries = zip_walk_begin(walk.uf);
    zip_entry entry;
    while (zip_walk_next(&entries, &entry)) {
        if (extract_entry(walk, entry) != 0) {
            return -1;
        }
    }
    return entries.state == zip_walk_state::at_end ? 0 : -1;
}

/* ---- entering and leaving the destination ---- */

bool change_directory(const char* path) {
    if (chdir(path) != 0) {
        ota_log_error("change dir failed \n");
        return false;
    }
    return true;
}

/** A package to be extracted, and the working directory that the call has to restore. */
struct unpacking {
    char dir_path[ota_path_size];
    ota_package uf;
};

/** Opens the package before the change of directory: a relative `src` is relative to the caller's. */
bool begin_unpacking(unpacking& work, const char* src) {
    if (!zip_save_working_directory(work.dir_path)) {
        return false;
    }
    work.uf = zip_open_package(src);
    return work.uf != nullptr;
}

enum class missing_directory { error, warning };

/** Enters `dest`, which is created if missing. A failure to create it shows when it is entered. */
bool enter_destination(const char* dest, missing_directory level) {
    if (chdir(dest) == 0) {
        return true;
    }
    if (level == missing_directory::error) {
        ota_log_error("%s is not exist, create it\n", dest);
    } else {
        ota_log_warning("%s is not exist, create it\n", dest);
    }
    (void)makedir(dest);
    return change_directory(dest);
}

/** Fills in an extraction into the working directory. */
bool begin_extraction(extraction& walk, unzFile uf) {
    walk.uf = uf;
    if (!zip_destination_begin(&walk.dest)) {
        ota_log_error("change dir failed \n");
        return false;
    }
    return true;
}

/**
 * Locates the entry named exactly `file_name` and extracts it, or only a regular file of that name. The
 * package is closed before a failure is logged.
 */
int32_t extract_named(ota_package& uf, const char* file_name, bool only_regular) {
    const int32_t found = unzLocateFile(uf.get(), file_name, 0);
    if (found != UNZ_OK) {
        uf.reset();
        ota_log_warning("cannot find %s in package, error %d\n", file_name, found);
        return -1;
    }
    extraction walk;
    zip_entry entry;
    const bool is_read = begin_extraction(walk, uf.get()) && zip_entry_read_info(uf.get(), &entry) == 0;
    if (is_read && only_regular && zip_entry_kind(entry) != zip_kind::file) {
        uf.reset();
        ota_log_error("%s is not a regular file in the package\n", file_name);
        return -1;
    }
    const int32_t ret = is_read ? extract_entry(walk, entry) : -1;
    uf.reset();
    if (ret != 0) {
        ota_log_error("extract file failed\n");
    }
    return ret;
}

int32_t uncompress_one(const char* src, const char* dest, const char* file_name, bool only_regular) {
    if (src == nullptr || dest == nullptr || file_name == nullptr) {
        ota_log_error("%s is null\n", src == nullptr ? "src" : dest == nullptr ? "dest" : "file_name");
        return -1;
    }
    unpacking work;
    if (!begin_unpacking(work, src) || !enter_destination(dest, missing_directory::warning)) {
        return -1;
    }
    if (extract_named(work.uf, file_name, only_regular) != 0) {
        return -1; /* the working directory stays `dest` */
    }
    return change_directory(work.dir_path) ? 0 : -1;
}

} // namespace

int32_t vx_uncompress(const char* src, const char* dest) {
    if (dest == nullptr || src == nullptr) {
        ota_log_error("destnation or source file is null\n");
        return -1;
    }
    unpacking work;
    if (!begin_unpacking(work, src) || !enter_destination(dest, missing_directory::error)) {
        return -1;
    }
    extraction walk;
    const int32_t ret_value = begin_extraction(walk, work.uf.get()) ? do_extract(walk) : -1;
    work.uf.reset();
    return change_directory(work.dir_path) ? ret_value : -1;
}

int32_t vx_uncompress_one(const char* src, const char* dest, const char* file_name) {
    return uncompress_one(src, dest, file_name, false);
}

int32_t zip_extract_regular_file(const char* src, const char* dest, const char* file_name) {
    return uncompress_one(src, dest, file_name, true);
}

int32_t makedir(const char* newdir) {
    if (newdir == nullptr) {
        ota_log_error("newdir is null\n");
        return -1;
    }
    const size_t len = std::strlen(newdir);
    if (len < 1) {
        return -1;
    }
    const ota_memory<char> buffer(static_cast<char*>(std::calloc(len + 1, 1)));
    if (buffer == nullptr) {
        ota_log_error("Error allocating memory\n");
        return makedir_no_memory;
    }
    char* const path = buffer.get();
    std::memcpy(path, newdir, len);
    if (path[len - 1] == '/') {
        path[len - 1] = '\0';
    }
    if (mymkdir(path) == 0) {
        return 0;
    }
    for (char* p = path + 1;; ++p) {
        while (*p != '\0' && !is_separator(*p)) {
            ++p;
        }
        const char held = *p;
        *p = '\0';
        if (mymkdir(path) == -1 && errno == ENOENT) {
            ota_log_error("couldn't create directory %s\n", path);
            return -1;
        }
        if (held == '\0') {
            return 0;
        }
        *p = held;
    }
}

void change_file_date(const char* filename, uLong /*dosdate*/, tm_unz tmu_date) {
    constexpr uInt full_year = 1900;
    std::tm date{};
    date.tm_sec = static_cast<int>(tmu_date.tm_sec);
    date.tm_min = static_cast<int>(tmu_date.tm_min);
    date.tm_hour = static_cast<int>(tmu_date.tm_hour);
    date.tm_mday = static_cast<int>(tmu_date.tm_mday);
    date.tm_mon = static_cast<int>(tmu_date.tm_mon);
    date.tm_year = static_cast<int>(tmu_date.tm_year > full_year ? tmu_date.tm_year - full_year : tmu_date.tm_year);
    date.tm_isdst = -1;
    utimbuf times{};
    times.actime = times.modtime = std::mktime(&date);
    (void)utime(filename, &times);
}

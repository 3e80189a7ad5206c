/**
 * Extraction and inventory of zip packages.
 *
 * An entry's name serves as a path relative to the working directory, which is the destination while a
 * package is extracted. Before anything is touched for an entry, its name is judged: what lies outside
 * the destination is never written, nor is a mode set there, whatever links the package brought along.
 */
#include "ota_handle.h" /* ahead of every other header that brings in minizip */

#include "vx_zip.h"

#include "ota_log.h"
#include "ota_paths.h"
#include "ota_utils.h"
#include "vx_zip_destination.h"
#include "vx_zip_entry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <utime.h>
#include <zlib.h>

namespace {

constexpr size_t zip_buf_size = 8192;
char g_zip_buf[zip_buf_size]; /* all entry data and every link target pass through it */

constexpr uint32_t size_in_zip64 = 0xFFFFFFFF; /* "see the zip64 extra field" */
constexpr unsigned zip64_header = 0x0001;
constexpr int32_t makedir_no_memory = -104;

using entry_name = char[ota_entry_size];

struct extraction {
    unzFile uf;
    zip_destination dest;
};

/** An entry in hand. */
struct zip_entry {
    unz_file_info64 info;
    entry_name name;
    char* without_path; /* behind the last separator of the name */
};

/* ---- entries ---- */

/** Takes the information and the name of the current entry. A longer name is cut. */
int32_t read_entry(unzFile uf, unz_file_info64* info, entry_name& name) {
    std::memset(name, 0, sizeof name);
    const int32_t err = unzGetCurrentFileInfo64(uf, info, name, sizeof name, nullptr, 0, nullptr, 0);
    name[sizeof name - 1] = '\0';
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzGetCurrentFileInfo\n", err);
    }
    return err;
}

bool move_on(unzFile uf) {
    const int32_t err = unzGoToNextFile(uf);
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzGoToNextFile\n", err);
    }
    return err == UNZ_OK;
}

bool count_entries(unzFile uf, uint64_t* count) {
    unz_global_info64 gi;
    const int32_t err = unzGetGlobalInfo64(uf, &gi);
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzGetGlobalInfo \n", err);
        return false;
    }
    *count = gi.number_entry;
    return true;
}

bool is_separator(char c) {
    return c == '/' || c == '\\';
}

/** What stands behind the last separator of a name. */
char* last_component(char* name) {
    char* last = name;
    for (char* p = name; *p != '\0'; ++p) {
        if (is_separator(*p)) {
            last = p + 1;
        }
    }
    return last;
}

/** A name decides first, then the file type of a Unix mode in the high half of the attributes. */
zip_kind kind_of(const zip_entry& entry) {
    if (*entry.without_path == '\0') {
        return zip_kind::directory;
    }
    return (entry.info.external_fa & 0xF0000000) == 0xA0000000 ? zip_kind::link : zip_kind::file;
}

mode_t permissions(const zip_entry& entry) {
    return static_cast<mode_t>((entry.info.external_fa >> 16) & 0x1FF);
}

/* ---- extraction ---- */

int32_t mymkdir(const char* dirname) {
    return mkdir(dirname, 0775);
}

/** Opens the file of an entry, with its parent directories where they are missing. */
FILE* open_output(zip_entry& entry) {
    FILE* fout = fopen64(entry.name, "wb");
    if (fout != nullptr || entry.without_path == entry.name) {
        return fout;
    }
    char* const separator = entry.without_path - 1;
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

void set_mode(const extraction& walk, const zip_entry& entry) {
    if (kind_of(entry) == zip_kind::link && zip_link_leads_out(walk.dest, entry.name)) {
        ota_log_debug("mode of %s is not set: its target is not in the destination, or not yet\n", entry.name);
        return;
    }
    (void)chmod(entry.name, permissions(entry));
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
int32_t extract_file(zip_entry_data* data, zip_entry& entry, bool* opened) {
    FILE* fout = open_output(entry);
    *opened = fout != nullptr;
    if (fout == nullptr) {
        ota_log_error("error opening %s\n", entry.name);
        return -1;
    }
    /* The result of fclose() is not looked at, so nothing may wait for it; and nothing is copied twice. */
    (void)std::setvbuf(fout, nullptr, _IONBF, 0);
    const int32_t err = copy_data(data, fout);
    (void)std::fclose(fout);
    if (err == 0) {
        change_file_date(entry.name, entry.info.dosDate, entry.info.tmu_date);
    }
    return err;
}

/** Extracts a link or a regular file, and sets its mode whatever came of reading its data. */
int32_t extract_data(const extraction& walk, zip_entry& entry) {
    const uint64_t size = zip_entry_size(walk.uf, entry.info);
    if (!zip_entry_is_deliverable(size, entry.info)) {
        ota_log_error("entry %s of %llu bytes is too large to be read\n", entry.name,
                      static_cast<unsigned long long>(size));
        return -1;
    }
    zip_entry_data data = zip_entry_begin(walk.uf, size, entry.info);
    int32_t err = unzOpenCurrentFilePassword(walk.uf, nullptr);
    bool named = true; /* the name may hold something that the mode is for */
    if (err != UNZ_OK) {
        ota_log_error("error %d with zipfile in unzOpenCurrentFilePassword\n", err);
    } else if (kind_of(entry) == zip_kind::link) {
        err = extract_link(&data, entry);
    } else {
        err = extract_file(&data, entry, &named);
    }
    if (named) {
        set_mode(walk, entry);
    }
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

/** Whether the name of an entry lets it be extracted at all; says why not. */
bool is_acceptable(extraction& walk, const zip_entry& entry) {
    if (entry.info.size_filename >= sizeof entry.name) {
        ota_log_error("entry name of %u bytes is too long\n", static_cast<unsigned>(entry.info.size_filename));
        return false;
    }
    if (zip_name_leads_out(&walk.dest, entry.name, kind_of(entry))) {
        ota_log_error("entry %s leads out of the destination\n", entry.name);
        return false;
    }
    return true;
}

int32_t do_extract_currentfile(extraction& walk) {
    zip_entry entry;
    const int32_t err = read_entry(walk.uf, &entry.info, entry.name);
    if (err != UNZ_OK) {
        return err;
    }
    entry.without_path = last_component(entry.name);
    if (!is_acceptable(walk, entry)) {
        return -1;
    }
    if (kind_of(entry) == zip_kind::directory) {
        (void)mymkdir(entry.name);
        return 0;
    }
    return extract_data(walk, entry);
}

int32_t do_extract(extraction& walk) {
    uint64_t count = 0;
    if (!count_entries(walk.uf, &count)) {
        return -1;
    }
    for (uint64_t i = 0; i < count; ++i) {
        if (do_extract_currentfile(walk) != 0 || (i + 1 < count && !move_on(walk.uf))) {
            return -1;
        }
    }
    return 0;
}

/* ---- the way in and out of the destination ---- */

bool save_working_directory(char (&dir_path)[ota_path_size]) {
    std::memset(dir_path, 0, sizeof dir_path);
    if (getcwd(dir_path, sizeof dir_path) == nullptr) {
        ota_log_error("get current directory absolute path error!\n");
        return false;
    }
    return true;
}

unzFile open_package(const char* src) {
    const unzFile uf = unzOpen64(src);
    if (uf == nullptr) {
        ota_log_error("Cannot open %s or %s.zip\n", src, src);
    }
    return uf;
}

/** Makes `dest` and enters it. Whether it could be made shows when it is entered. */
bool enter_made_directory(const char* dest) {
    (void)makedir(dest);
    return chdir(dest) == 0;
}

bool change_directory(const char* path) {
    if (chdir(path) != 0) {
        ota_log_error("change dir failed \n");
        return false;
    }
    return true;
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

/* ---- inventory ---- */

/** A name that is too long to be judged counts as an image. */
bool is_image(const char* name) {
    return is_xxx_file(name, "img") != 0 || is_xxx_file(name, "bin") != 0 || is_xxx_file(name, "ubifs") != 0;
}

/** Adds `size` to a sum that has to stay within 63 bits. */
bool add_size(uint64_t* sum, uint64_t size) {
    uint64_t total = 0;
    if (__builtin_add_overflow(*sum, size, &total) || total > INT64_MAX) {
        return false;
    }
    *sum = total;
    return true;
}

/** Adds up the current entry. What the caller had in `img_size` may be anything and is not judged. */
bool add_entry(const char* zipfile, unzFile uf, uint64_t* img_size, uint64_t* total_size) {
    unz_file_info64 info;
    entry_name name;
    if (read_entry(uf, &info, name) != UNZ_OK) {
        return false;
    }
    const uint64_t size = zip_entry_size(uf, info);
    ota_log_debug("file name in zip:%s\n", name);
    if (is_image(name)) {
        *img_size += size;
    }
    if (!add_size(total_size, size)) {
        ota_log_error("sizes in %s overflow\n", zipfile);
        return false;
    }
    ota_log_debug("len:%llu\n", static_cast<unsigned long long>(size));
    return true;
}

/** The next package of a directory: a regular file with the extension zip. Null at the end. */
const char* next_package(DIR* dir) {
    while (const dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 || entry->d_type != DT_REG) {
            continue;
        }
        if (is_xxx_file(name, "zip") != 0) {
            return name;
        }
    }
    return nullptr;
}

/**
 * The largest total of the packages in the working directory, which `path` leads to as well: their names
 * are opened from the working directory.
 */
int64_t max_package_size(const char* path) {
    const ota_directory dir(opendir(path));
    if (dir == nullptr) {
        ota_log_error("Open dir error...\n");
        return -1;
    }
    int64_t max_size = 0;
    while (const char* name = next_package(dir.get())) {
        uint64_t img_size = 0;
        const int64_t tmp_size = vx_get_zip_size(name, &img_size);
        if (tmp_size < 0) {
            ota_log_error("get zip size error\n");
            return -1;
        }
        ota_log_info("zip name:%s, zip size:%ld\n", name, tmp_size);
        max_size = tmp_size > max_size ? tmp_size : max_size;
    }
    return max_size;
}

} // namespace

uint64_t zip_entry_size(unzFile uf, const unz_file_info64& info) {
    if (info.uncompressed_size != size_in_zip64) {
        return info.uncompressed_size;
    }
    unsigned char extra[UINT16_MAX]; /* the longest extra field */
    unz_file_info64 again;
    if (unzGetCurrentFileInfo64(uf, &again, nullptr, 0, extra, sizeof extra, nullptr, 0) != UNZ_OK) {
        return info.uncompressed_size;
    }
    const size_t length = again.size_file_extra < sizeof extra ? again.size_file_extra : sizeof extra;
    const auto load = [](const unsigned char* p, size_t bytes) {
        uint64_t value = 0;
        for (size_t i = bytes; i > 0; --i) {
            value = value << 8 | p[i - 1];
        }
        return value;
    };
    for (size_t at = 0; length - at >= 4;) {
        const uint64_t header = load(extra + at, 2);
        const uint64_t size = load(extra + at + 2, 2);
        at += 4;
        if (size > length - at) {
            break;
        }
        if (header == zip64_header && size >= 8) {
            return load(extra + at, 8); /* the uncompressed size comes first where it is present */
        }
        at += size;
    }
    return info.uncompressed_size;
}

bool zip_entry_is_deliverable(uint64_t size, const unz_file_info64& info) {
    return info.uncompressed_size != size_in_zip64 || size <= size_in_zip64;
}

bool zip_entry_is_no_file(const char* src, const char* file_name) {
    const ota_package uf(unzOpen64(src));
    zip_entry entry;
    if (uf == nullptr || unzLocateFile(uf.get(), file_name, 0) != UNZ_OK ||
        read_entry(uf.get(), &entry.info, entry.name) != UNZ_OK) {
        return false;
    }
    entry.without_path = last_component(entry.name);
    return kind_of(entry) != zip_kind::file;
}

zip_entry_data zip_entry_begin(unzFile uf, uint64_t size, const unz_file_info64& info) {
    return {uf, size, info.uncompressed_size == size_in_zip64, 0};
}

int32_t zip_entry_read(zip_entry_data* data, void* buf, uint32_t size) {
    const auto wanted = data->in_zip64 ? static_cast<uint32_t>(std::min<uint64_t>(size, data->left)) : size;
    const int32_t length = unzReadCurrentFile(data->uf, buf, wanted);
    if (length < 0) {
        return length;
    }
    if (length == 0 && data->left != 0) {
        return UNZ_BADZIPFILE;
    }
    data->left -= std::min<uint64_t>(data->left, static_cast<uint32_t>(length));
    if (data->in_zip64) {
        data->crc = static_cast<uint32_t>(crc32(data->crc, static_cast<const Bytef*>(buf), static_cast<uInt>(length)));
    }
    return length;
}

int32_t zip_entry_end(const zip_entry_data& data, const unz_file_info64& info) {
    const int32_t err = unzCloseCurrentFile(data.uf);
    const bool judged = data.in_zip64 && data.left == 0;
    return err == UNZ_OK && judged && data.crc != info.crc ? UNZ_CRCERROR : err;
}

int32_t vx_uncompress(const char* src, const char* dest) {
    if (dest == nullptr || src == nullptr) {
        ota_log_error("destnation or source file is null\n");
        return -1;
    }
    char dir_path[ota_path_size];
    if (!save_working_directory(dir_path)) {
        return -1;
    }
    ota_package uf(open_package(src));
    if (uf == nullptr) {
        return -1;
    }
    if (chdir(dest) != 0) {
        ota_log_error("%s is not exist, create it\n", dest);
        if (!enter_made_directory(dest)) {
            ota_log_error("change dir failed \n");
            return -1;
        }
    }
    extraction walk;
    const int32_t ret_value = begin_extraction(walk, uf.get()) ? do_extract(walk) : -1;
    uf.reset();
    return change_directory(dir_path) ? ret_value : -1;
}

int32_t vx_uncompress_one(const char* src, const char* dest, const char* file_name) {
    if (src == nullptr || dest == nullptr || file_name == nullptr) {
        ota_log_error("%s is null\n", src == nullptr ? "src" : dest == nullptr ? "dest" : "file_name");
        return -1;
    }
    char dir_path[ota_path_size];
    if (!save_working_directory(dir_path)) {
        return -1;
    }
    ota_package uf(open_package(src));
    if (uf == nullptr) {
        return -1;
    }
    if (chdir(dest) != 0) {
        ota_log_warning("%s is not exist, create it\n", dest);
        if (!enter_made_directory(dest)) {
            ota_log_error("change dir failed \n");
            return -1;
        }
    }
    const int32_t found = unzLocateFile(uf.get(), file_name, 0);
    if (found != UNZ_OK) {
        uf.reset();
        ota_log_warning("cannot find %s in package, error %d\n", file_name, found);
        return -1;
    }
    extraction walk;
    if (!begin_extraction(walk, uf.get()) || do_extract_currentfile(walk) != 0) {
        uf.reset();
        ota_log_error("extract file failed\n");
        return -1;
    }
    uf.reset();
    return change_directory(dir_path) ? 0 : -1;
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

int32_t vx_zip_has_file(const char* zipfile, char* file_name) {
    if (zipfile == nullptr) {
        ota_log_error("error:no zip file\n");
        return -1;
    }
    if (file_name == nullptr) {
        ota_log_error("file_name is null\n");
        return -1;
    }
    const ota_package uf(unzOpen64(zipfile));
    if (uf == nullptr) {
        ota_log_error("open %s failed\n", zipfile);
        return -1;
    }
    uint64_t count = 0;
    if (!count_entries(uf.get(), &count)) {
        return -1;
    }
    const size_t length = std::strlen(file_name);
    for (uint64_t i = 0; i < count; ++i) {
        unz_file_info64 info;
        entry_name name;
        if (read_entry(uf.get(), &info, name) != UNZ_OK) {
            return -1;
        }
        if (std::strncmp(name, file_name, length) == 0) {
            ota_log_info("in zip has file:%s\n", file_name);
            return 1;
        }
        if (i + 1 < count && !move_on(uf.get())) {
            break;
        }
    }
    return 0;
}

int64_t vx_get_zip_size(const char* zipfile, uint64_t* img_size) {
    if (zipfile == nullptr) {
        ota_log_error("no zip file\n");
        return -1;
    }
    if (img_size == nullptr) {
        ota_log_error("img_size is null\n");
        return -1;
    }
    const ota_package uf(unzOpen64(zipfile));
    if (uf == nullptr) {
        ota_log_error("open %s failed\n", zipfile);
        return -1;
    }
    uint64_t count = 0;
    if (!count_entries(uf.get(), &count)) {
        return -1;
    }
    uint64_t total_size = 0;
    for (uint64_t i = 0; i < count; ++i) {
        if (!add_entry(zipfile, uf.get(), img_size, &total_size)) {
            return -1;
        }
        if (i + 1 < count && !move_on(uf.get())) {
            break;
        }
    }
    return static_cast<int64_t>(total_size);
}

int64_t vx_all_image_size(const char* path) {
    if (path == nullptr) {
        ota_log_error("no zip file\n");
        return -1;
    }
    const ota_directory dir(opendir(path));
    if (dir == nullptr) {
        ota_log_error("Open dir error...\n");
        return -1;
    }
    uint64_t total_size = 0;
    while (const char* name = next_package(dir.get())) {
        uint64_t tmp_size = 0;
        const int64_t size = vx_get_zip_size(name, &tmp_size);
        ota_log_info("zip name:%s, image size:%lu\n", name, tmp_size);
        if (size < 0) {
            ota_log_error("get zip size error\n");
            return -1;
        }
        if (!add_size(&total_size, tmp_size)) {
            ota_log_error("sizes in %s overflow\n", path);
            return -1;
        }
    }
    return static_cast<int64_t>(total_size);
}

int64_t vx_get_max_zip_size(const char* path) {
    char dir_path[ota_path_size];
    if (!save_working_directory(dir_path)) {
        return -1;
    }
    if (path == nullptr) {
        ota_log_error("no zip file\n");
        return -1;
    }
    if (chdir(path) != 0) {
        ota_log_error("change dir:%s failed \n", path);
        return -1;
    }
    const int64_t max_size = max_package_size(path);
    if (max_size < 0) {
        return -1;
    }
    if (chdir(dir_path) != 0) {
        ota_log_error("change dir:%s failed \n", dir_path);
        return -1;
    }
    return max_size;
}

// SPDX-License-Identifier: Apache-2.0
#include "vx_zip_destination.h"

#include "ota_log.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr int max_links = 40; /* the kernel's own limit for one path */
constexpr int directory_flags = O_PATH | O_DIRECTORY | O_CLOEXEC;

/**
 * The result of following a component. A whole path is never passed to the kernel: when a mount elsewhere
 * disturbs its walk, it starts over with the links already counted, and may report ELOOP for that alone.
 */
enum class reach { found, missing, nowhere, unknown };

/** A path being followed. Link targets are kept at the end of `text` until their components are followed. */
struct path_walk {
    explicit path_walk(const zip_destination& destination) : dest(destination) {
    }
    void move_to(int fd) {
        owned.reset(fd);
        at = fd;
    }

    const zip_destination& dest;
    int at = AT_FDCWD; /* the directory reached so far */
    ota_descriptor owned{-1};
    bool strayed = false; /* through a link, ".." or the root: only its parents show where it is */
    int links = 0;
    size_t pending = sizeof text; /* where the rest of the link targets begins */
    char text[PATH_MAX + ota_entry_size] = {};
};

reach reach_of_error() {
    switch (errno) {
    case ENOENT:
        return reach::missing;
    case ENOTDIR:
    case EACCES:
    case ENAMETOOLONG:
        return reach::nowhere;
    default:
        return reach::unknown;
    }
}

/** Whether the directory reached is the destination or has it among its parents. */
bool is_inside(const path_walk& walk) {
    if (!walk.strayed) {
        return true;
    }
    ota_descriptor dir(openat(walk.at, ".", directory_flags));
    struct stat here {};
    for (struct stat below{}; dir.is_open() && fstat(dir.get(), &here) == 0; below = here) {
        if (here.st_dev == walk.dest.device && here.st_ino == walk.dest.inode) {
            return true;
        }
        if (here.st_dev == below.st_dev && here.st_ino == below.st_ino) {
            return false; /* only the root is its own parent */
        }
        dir.reset(openat(dir.get(), "..", directory_flags));
    }
    return false;
}

reach open_component(path_walk& walk, const char* part, int flags) {
    const int fd = openat(walk.at, part, flags);
    if (fd < 0) {
        return reach_of_error();
    }
    walk.move_to(fd);
    return reach::found;
}

/** Whether links in the directory reached may not lead where their text says. */
bool has_magic_links(const path_walk& walk) {
    struct statfs system {};
    const int failed = walk.at == AT_FDCWD ? statfs(".", &system) : fstatfs(walk.at, &system);
    return failed != 0 || system.f_type == PROC_SUPER_MAGIC;
}

/** Puts the target of the link `part` before what is pending. */
reach follow_link(path_walk& walk, const char* part) {
    if (++walk.links > max_links) {
        return reach::nowhere;
    }
    walk.strayed = true;
    const ssize_t length = readlinkat(walk.at, part, walk.text, walk.pending);
    if (length < 0) {
        return reach_of_error();
    }
    const auto size = static_cast<size_t>(length);
    if (size >= walk.pending || has_magic_links(walk)) {
        const reach result = open_component(walk, part, O_PATH | O_CLOEXEC); /* nothing is created through it */
        return result == reach::missing ? reach::nowhere : result;
    }
    const bool is_absolute = walk.text[0] == '/';
    if (walk.pending < sizeof walk.text) {
        walk.text[--walk.pending] = '/';
    }
    walk.pending -= size;
    std::memmove(walk.text + walk.pending, walk.text, size);
    return is_absolute ? open_component(walk, "/", directory_flags) : reach::found;
}

/** Follows one component. The last one is followed only if it is a link: it need not be a directory. */
reach step(path_walk& walk, const char* part, bool is_last) {
    if (std::strcmp(part, ".") == 0) {
        return open_component(walk, part, directory_flags);
    }
    if (std::strcmp(part, "..") == 0) {
        walk.strayed = true;
        return open_component(walk, part, directory_flags);
    }
    struct stat status {};
    if (fstatat(walk.at, part, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return reach_of_error();
    }
    if (S_ISLNK(status.st_mode)) {
        return follow_link(walk, part);
    }
    return is_last ? reach::found : open_component(walk, part, O_PATH | O_NOFOLLOW | O_CLOEXEC);
}

/** The length of the next component at `*path`, which is advanced past the separators before it; 0 at the end. */
size_t next_component(const char** path, const char* end) {
    while (*path < end && **path == '/') {
        ++*path;
    }
    const auto* separator = static_cast<const char*>(std::memchr(*path, '/', static_cast<size_t>(end - *path)));
    return static_cast<size_t>((separator == nullptr ? end : separator) - *path);
}

/** Takes the next component of the pending targets. @return false at their end */
bool take_pending(path_walk& walk, char (&part)[NAME_MAX + 1], size_t* length) {
    const char* const end = walk.text + sizeof walk.text;
    const char* at = walk.text + walk.pending;
    *length = next_component(&at, end);
    const size_t copied = *length < sizeof part ? *length : 0;
    std::memcpy(part, at, copied);
    part[copied] = '\0';
    at += *length;
    while (at < end && *at == '/') {
        ++at;
    }
    walk.pending = static_cast<size_t>(at - walk.text);
    return *length > 0;
}

/** Follows the targets of links to their end, where a missing file may still be created. */
reach follow_pending(path_walk& walk, bool is_last) {
    char part[NAME_MAX + 1];
    size_t length = 0;
    while (take_pending(walk, part, &length)) {
        const bool is_end = is_last && walk.pending == sizeof walk.text;
        const reach result = length >= sizeof part ? reach::nowhere : step(walk, part, is_end);
        if (result == reach::missing) {
            return is_end ? reach::found : reach::nowhere;
        }
        if (result != reach::found) {
            return result;
        }
    }
    return reach::found;
}

/** The end of the parent directory in `name`; 0 without one. */
size_t parent_length(const char* name, size_t length) {
    while (length > 0 && name[length - 1] == '/') {
        --length;
    }
    const auto* last = static_cast<const char*>(memrchr(name, '/', length));
    return last == nullptr ? 0 : static_cast<size_t>(last - name);
}

/** An entry's name being followed. */
struct name_walk {
    path_walk path;
    zip_kind kind;
    bool makes = false; /* parents of the file may have to be created, after which more names resolve */
    size_t made = 0;    /* components down from `path` that do not exist yet: there are no links in them */
};

/** Whether to continue with the next component, or where the name leads. */
enum class course { on, in, out };

course follow_component(name_walk& walk, const char* part, bool is_last) {
    const bool is_parent = std::strcmp(part, "..") == 0;
    if (walk.made > 0) {
        const size_t deeper = std::strcmp(part, ".") == 0 ? 0 : 1;
        walk.made = is_parent ? walk.made - 1 : walk.made + deeper;
        return course::on;
    }
    const bool is_file = walk.kind == zip_kind::file;
    if (is_last && !is_file && !is_parent) {
        return is_inside(walk.path) ? course::in : course::out; /* neither mkdir() nor symlink() follows it */
    }
    if (is_file && std::strchr(part, '\\') != nullptr) { /* makedir() also creates what is before it */
        walk.makes = true;
        if (!is_inside(walk.path)) {
            return course::out;
        }
    }
    reach result = step(walk.path, part, is_last);
    if (result == reach::missing && is_file && !is_last) {
        walk.makes = true;
        walk.made = 1;
        return is_inside(walk.path) ? course::on : course::out;
    }
    if (result == reach::found) {
        result = follow_pending(walk.path, is_last);
    }
    if (result == reach::found || (result == reach::missing && is_last)) {
        return course::on;
    }
    const bool may_resolve = result == reach::unknown || (is_file && walk.makes);
    return may_resolve ? course::out : course::in;
}

bool is_verified(const zip_destination& dest, const char* name, size_t parent) {
    return parent > 0 && std::strlen(dest.verified_dir) == parent && std::memcmp(name, dest.verified_dir, parent) == 0;
}

/** Keeps the parent directory that the walk has reached, if it exists inside the destination. */
void keep_verified(zip_destination* dest, name_walk& walk, const char* name, size_t parent) {
    if (parent == 0 || walk.makes || !walk.path.owned.is_open() || !is_inside(walk.path)) {
        return;
    }
    std::memcpy(dest->verified_dir, name, parent);
    dest->verified_dir[parent] = '\0';
    dest->verified.reset(walk.path.owned.release());
    walk.path.strayed = false;
}

} // namespace

bool zip_save_working_directory(char (&dir_path)[ota_path_size]) {
    std::memset(dir_path, 0, sizeof dir_path);
    if (getcwd(dir_path, sizeof dir_path) == nullptr) {
        ota_log_error("get current directory absolute path error!\n");
        return false;
    }
    return true;
}

bool zip_destination_begin(zip_destination* dest) {
    struct stat status {};
    if (stat(".", &status) != 0) {
        return false;
    }
    dest->device = status.st_dev;
    dest->inode = status.st_ino;
    return true;
}

bool zip_name_leads_out(zip_destination* dest, const char* name, zip_kind kind) {
    const char* const end = name + std::strlen(name);
    const size_t parent = parent_length(name, static_cast<size_t>(end - name));
    const char* at = name;
    name_walk walk{path_walk(*dest), kind};
    if (is_verified(*dest, name, parent)) {
        walk.path.at = dest->verified.get();
        at += parent;
    } else if (name[0] == '/') {
        walk.path.strayed = true;
        if (open_component(walk.path, "/", directory_flags) != reach::found) {
            return true;
        }
    }
    while (const size_t length = next_component(&at, end)) {
        char part[ota_entry_size];
        std::memcpy(part, at, length);
        part[length] = '\0';
        const bool is_last = at >= name + parent;
        if (is_last) {
            keep_verified(dest, walk, name, parent);
        }
        const course next = follow_component(walk, part, is_last);
        if (next != course::on) {
            return next == course::out;
        }
        at += length;
    }
    return !is_inside(walk.path);
}

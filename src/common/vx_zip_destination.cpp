#include "vx_zip_destination.h"

#include "ota_handle.h"

#include <cerrno>
#include <climits>
#include <cstring>

namespace {

enum class place { inside, outside, nowhere };
enum class node { link, other, unreachable, unknown };

/**
 * Whether a path walk that failed says that nothing can be reached by the path. Other failures come and
 * go: a walk that a mount elsewhere disturbs is started again by the kernel with the links already
 * counted, and may fail with ELOOP for that alone.
 */
bool is_unreachable(int error) {
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG;
}

/** What has the name `path`, a link not followed. */
node node_at(const char* path) {
    struct stat status {};
    if (lstat(path, &status) == 0) {
        return S_ISLNK(status.st_mode) ? node::link : node::other;
    }
    return is_unreachable(errno) ? node::unreachable : node::unknown;
}

/** Where the directory `path` lies, links followed: the way up from it meets the destination or not. */
place place_of(const zip_destination& dest, const char* path) {
    constexpr int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    ota_descriptor dir(open(path, flags));
    if (!dir.is_open()) {
        return is_unreachable(errno) ? place::nowhere : place::outside;
    }
    struct stat here {};
    for (struct stat below{}; dir.is_open() && fstat(dir.get(), &here) == 0; below = here) {
        if (here.st_dev == dest.device && here.st_ino == dest.inode) {
            return place::inside;
        }
        if (here.st_dev == below.st_dev && here.st_ino == below.st_ino) {
            return place::outside; /* only the top is its own parent */
        }
        dir.reset(openat(dir.get(), "..", flags));
    }
    return place::outside;
}

bool has_parent_component(const char* name) {
    for (const char* part = name; part != nullptr; part = std::strchr(part, '/')) {
        part += *part == '/' ? 1 : 0;
        if (part[0] == '.' && part[1] == '.' && (part[2] == '/' || part[2] == '\0')) {
            return true;
        }
    }
    return false;
}

/** The bytes of `name` that are a parent known to be in the destination. */
size_t verified_length(const zip_destination& dest, const char* name) {
    size_t length = 0;
    for (size_t i = 0; name[i] != '\0'; ++i) {
        const char verified = dest.verified_dir[i];
        if (name[i] == '/' && (verified == '/' || verified == '\0')) {
            length = i;
        }
        if (name[i] != verified) {
            break;
        }
    }
    return length;
}

/** Judges each parent directory of `name`, from the first. Most entries share theirs with the one before. */
bool parents_lead_out(zip_destination* dest, const char* name, zip_kind kind) {
    size_t end = std::strlen(name);
    while (kind == zip_kind::directory && end > 0 && name[end - 1] == '/') {
        --end; /* mkdir() follows no link in the last component */
    }
    const auto* last = static_cast<const char*>(memrchr(name, '/', end));
    if (last == nullptr) {
        return false;
    }
    const auto length = static_cast<size_t>(last - name);
    char dir[ota_entry_size] = {};
    for (size_t i = verified_length(*dest, name) + 1; i <= length; ++i) {
        if (name[i] != '/') {
            continue;
        }
        std::memcpy(dir, name, i);
        const node parent = node_at(dir);
        if (parent == node::unreachable || parent == node::unknown) {
            return parent == node::unknown;
        }
        if (parent == node::other) {
            continue;
        }
        const place target = place_of(*dest, dir);
        if (target != place::inside) {
            return target == place::outside || kind == zip_kind::file;
        }
    }
    std::memcpy(dest->verified_dir, name, length);
    dest->verified_dir[length] = '\0';
    return false;
}

/** The path that the link `path` leads to, one step. */
bool follow_link(char (&path)[PATH_MAX]) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path, target, sizeof target - 1);
    if (length < 0) {
        return false;
    }
    target[length] = '\0';
    char* const last = std::strrchr(path, '/');
    char* const tail = target[0] == '/' || last == nullptr ? path : last + 1;
    const size_t room = sizeof path - static_cast<size_t>(tail - path);
    return static_cast<size_t>(std::snprintf(tail, room, "%s", target)) < room;
}

/** Whether `path` lies in a directory of the destination and is no way out of it itself, as ".." is. */
bool lies_in(const zip_destination& dest, const char* path) {
    char dir[PATH_MAX] = ".";
    if (const char* last = std::strrchr(path, '/')) {
        const auto length = last == path ? size_t{1} : static_cast<size_t>(last - path);
        std::memcpy(dir, path, length);
        dir[length] = '\0';
    }
    return place_of(dest, dir) == place::inside && place_of(dest, path) != place::outside;
}

} // namespace

bool zip_destination_begin(zip_destination* dest) {
    struct stat status {};
    if (stat(".", &status) != 0) {
        return false;
    }
    dest->device = status.st_dev;
    dest->inode = status.st_ino;
    dest->verified_dir[0] = '\0';
    return true;
}

bool zip_name_leads_out(zip_destination* dest, const char* name, zip_kind kind) {
    if (name[0] == '/' || has_parent_component(name) || parents_lead_out(dest, name, kind)) {
        return true;
    }
    return kind == zip_kind::file && zip_link_leads_out(*dest, name);
}

bool zip_link_leads_out(const zip_destination& dest, const char* name) {
    constexpr int max_links = 40; /* the kernel's own limit */
    char path[PATH_MAX];
    (void)std::snprintf(path, sizeof path, "%s", name);
    node last = node_at(path);
    for (int links = 0; last == node::link; ++links) {
        if (links == max_links || !follow_link(path) || !lies_in(dest, path)) {
            return true;
        }
        last = node_at(path);
    }
    return last == node::unknown;
}

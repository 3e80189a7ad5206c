// SPDX-License-Identifier: Apache-2.0
#include "install/device_claim.h"

#include "console/failure.h"
#include "console/text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

namespace fs = std::filesystem;

constexpr char ubi_directory[] = "/sys/class/ubi";
constexpr unsigned mtd_block_major = 31; /* jffs2 has this number too, though it mounts no block device */

struct Mount {
    std::string device; /* "major:minor" */
    std::string source; /* "/dev/mmcblk0p2", "ubi0:rootfs", ... */
    std::string point;
};

[[noreturn]] void refuse(const std::string& name, const std::string& user, const std::string& hint) {
    throw Failure(ExitCode::failed, "cannot write " + name + ": " + user, hint);
}

/** The kernel writes blanks and backslashes as three octal digits. */
std::string unescaped(std::string_view text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool is_escape = text[i] == '\\' && i + 3 < text.size();
        result += is_escape ? static_cast<char>(std::stoi(std::string(text.substr(i + 1, 3)), nullptr, 8)) : text[i];
        i += is_escape ? 3 : 0;
    }
    return result;
}

/** A line is "ID PARENT MAJOR:MINOR ROOT POINT OPTIONS... - TYPE SOURCE ...". */
Mount parse_mount(const std::string& line) {
    std::istringstream words(line);
    std::string skipped;
    Mount mount;
    words >> skipped >> skipped >> mount.device >> skipped >> mount.point;
    while (words >> skipped && skipped != "-") {
    }
    words >> skipped >> mount.source;
    mount.point = unescaped(mount.point);
    mount.source = unescaped(mount.source);
    return mount;
}

template <class Match>
void refuse_mounted(const std::string& name, Match is_the_device) {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        if (const Mount mount = parse_mount(line); is_the_device(mount)) {
            refuse(name, "it is mounted on " + mount.point, "umount " + mount.point);
        }
    }
}

std::string first_line(const fs::path& file) {
    std::string line;
    std::ifstream stream(file);
    std::getline(stream, line);
    return line;
}

/** The kernel's name of a character device: "mtd5", "ubi0_3". */
std::string kernel_name(const std::string& path) {
    struct stat status {};
    std::error_code error;
    if (stat(path.c_str(), &status) == 0 && S_ISCHR(status.st_mode)) {
        const std::string link = format("/sys/dev/char/%u:%u", major(status.st_rdev), minor(status.st_rdev));
        if (const fs::path target = fs::read_symlink(link, error); !error) {
            return target.filename();
        }
    }
    return fs::canonical(path, error).filename();
}

bool is_one_of(std::string source, std::initializer_list<std::string> names) {
    if (source.starts_with("/dev/")) {
        source.erase(0, 5);
    }
    return std::find(names.begin(), names.end(), source) != names.end();
}

void check_mtd(const std::string& path, const std::string& name) {
    const std::string device = kernel_name(path);
    const std::string number = device.substr(std::min<size_t>(device.size(), 3));
    std::error_code error;
    for (fs::directory_iterator entry(ubi_directory, error), end; !error && entry != end; entry.increment(error)) {
        if (first_line(entry->path() / "mtd_num") == number) {
            refuse(name, "UBI is attached to it as " + entry->path().filename().string(), "ubidetach -m " + number);
        }
    }
    const std::string title = first_line("/sys/class/mtd/" + device + "/name");
    refuse_mounted(name, [&](const Mount& mount) {
        return mount.device == format("%u:%s", mtd_block_major, number.c_str()) ||
               is_one_of(mount.source, {device, "mtdblock" + number, "mtd:" + title});
    });
}

void check_ubi(const std::string& path, const std::string& name) {
    const std::string volume = kernel_name(path);
    const std::string device = volume.substr(0, volume.find('_'));
    const std::string title = first_line(fs::path(ubi_directory) / volume / "name");
    const std::string short_device = device == "ubi0" ? "ubi" : device; /* "ubi:rootfs" is on device 0 */
    refuse_mounted(name, [&](const Mount& mount) {
        return is_one_of(mount.source,
                         {volume, "ubiblock" + volume.substr(std::min<size_t>(volume.size(), 3)), device + ":" + title,
                          device + "!" + title, short_device + ":" + title, short_device + "!" + title});
    });
    const Descriptor writer(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (writer.get() < 0 && errno == EBUSY) {
        refuse(name, "another program or driver uses it", "");
    }
}

Descriptor claim_block(const std::string& path, const std::string& name) {
    Descriptor claim(open(path.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    if (claim.get() >= 0) {
        return claim;
    }
    if (errno != EBUSY) {
        throw Failure(ExitCode::device, "cannot open " + path + because(errno));
    }
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        const std::string number = format("%u:%u", major(status.st_rdev), minor(status.st_rdev));
        refuse_mounted(name, [&](const Mount& mount) { return mount.device == number; });
    }
    std::error_code error;
    refuse_mounted(name, [&](const Mount& mount) { return fs::equivalent(mount.source, path, error); });
    refuse(name, "another program or driver uses it", "");
}

} // namespace

Descriptor claim_device(const Device& device, const std::string& path, const std::string& name) {
    switch (device.kind()) {
    case DeviceKind::block:
        return claim_block(path, name);
    case DeviceKind::mtd:
        check_mtd(path, name);
        break;
    case DeviceKind::ubi:
        check_ubi(path, name);
        break;
    case DeviceKind::file:
        break;
    }
    return Descriptor(-1);
}

// SPDX-License-Identifier: Apache-2.0
/** tessera package: shows, checks and unpacks a package. */
#include "console/interrupt.h"
#include "console/text.h"
#include "internal/ota_staging.h"
#include "package/package_check.h"
#include "velox_ota_hl.h"
#include "verbs/package_info.h"
#include "verbs/verb.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

namespace {

std::string mode_text(const Entry& entry) {
    static constexpr std::string_view letters = "rwxrwxrwx";
    std::string text(1, entry.kind == zip_kind::directory ? 'd' : entry.kind == zip_kind::link ? 'l' : '-');
    for (size_t i = 0; i < letters.size(); ++i) {
        text += (entry.mode >> (letters.size() - 1 - i) & 1) != 0 ? letters[i] : '-';
    }
    return text;
}

std::string date_text(const Entry& entry) {
    return format("%04d-%02d-%02d %02d:%02d", (entry.date >> 9) + 1980, entry.date >> 5 & 0xF, entry.date & 0x1F,
                  entry.time >> 11, entry.time >> 5 & 0x3F);
}

const char* kind_word(zip_kind kind) {
    return kind == zip_kind::directory ? "directory" : kind == zip_kind::link ? "link" : "file";
}

struct Totals {
    int64_t all;
    uint64_t images;

    /** What unpacking requires of a file system. */
    [[nodiscard]] int64_t need_kib() const {
        return ota_staging_kib(all);
    }
};

Totals read_totals(const Package& package) {
    Totals totals{};
    totals.all = require(ExitCode::refused, "cannot add up the sizes in the package",
                         [&] { return vx_get_zip_size(package.path().c_str(), &totals.images); });
    return totals;
}

void list(const Context& context, const std::string& file) {
    const Package package(file);
    const Totals totals = read_totals(package);
    Json entries = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const Entry& entry : package.entries()) {
        rows.push_back({std::to_string(entry.size), std::to_string(entry.packed_size), mode_text(entry),
                        date_text(entry), entry.is_image() ? "image" : "", entry.name});
        entries.push_back({{"name", entry.name},
                           {"kind", kind_word(entry.kind)},
                           {"image", entry.is_image()},
                           {"size", entry.size},
                           {"packed", entry.packed_size},
                           {"mode", format("%04o", entry.mode)},
                           {"date", date_text(entry)}});
    }
    const auto all = static_cast<uint64_t>(totals.all);
    const std::string sums =
        format("%zu entries, %s, of which %s are images; unpacking needs %lld KiB\n", package.entries().size(),
               human_bytes(all).c_str(), human_bytes(totals.images).c_str(), static_cast<long long>(totals.need_kib()));
    context.show(
        {{"entries", entries}, {"bytes", all}, {"image_bytes", totals.images}, {"need_kib", totals.need_kib()}},
        table({"size", "packed", "mode", "date", "", "name"}, rows) + sums);
}

/** Bytes that this process has written so far, by the kernel's own count. */
uint64_t bytes_written() {
    std::ifstream file("/proc/self/io");
    std::string word;
    uint64_t count = 0;
    while (file >> word >> count && word != "wchar:") {
    }
    return word == "wchar:" ? count : 0;
}

/** Shows progress while the library unpacks, which reports none. */
class UnpackProgress {
public:
    explicit UnpackProgress(uint64_t total)
        : progress_(default_progress_mode()),
          thread_([this, total](const std::stop_token& stop) { watch(stop, total); }) {
    }

private:
    void watch(const std::stop_token& stop, uint64_t total) {
        const uint64_t start = bytes_written();
        progress_.expect("unpack", total);
        progress_.begin("unpack", "");
        for (uint64_t shown = 0; !stop.stop_requested();) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            const uint64_t now = bytes_written() - start;
            progress_.advance("unpack", now - shown);
            shown = now;
        }
    }

    Progress progress_;
    std::jthread thread_;
};

/** A package that does not fit would be unpacked partially. */
void demand_room(const std::string& directory, const Totals& totals) {
    if (makedir(directory.c_str()) != 0 || !std::filesystem::is_directory(directory)) {
        std::error_code error; /* for the reason */
        std::filesystem::create_directories(directory, error);
        throw Failure(ExitCode::failed, "cannot create the directory " + directory +
                                            (error ? ": " + error.message() : ": it is not a directory"));
    }
    std::string path = directory;
    const uint64_t room = get_free_space(path.data());
    const auto need = static_cast<uint64_t>(totals.all);
    if (room != UINT64_MAX && need > room) {
        throw Failure(ExitCode::failed, "the package unpacks to " + human_bytes(need) + ", but the file system of " +
                                            directory + " has only " + human_bytes(room) + " free");
    }
}

/** A package that is truncated inside its end record can look empty. */
void demand_entries(const Package& package, const std::string& file) {
    if (package.entries().empty()) {
        throw Failure(ExitCode::refused, file + " contains no entries");
    }
}

bool is_intact(const Package& package, const Entry& entry) {
    try {
        return package.read(entry, [](std::span<const uint8_t> /*piece*/) { return true; });
    } catch (const Failure&) {
        return false;
    }
}

/**
 * Whether unpacking ended in a file that is shorter than its entry, although the package has all of the data: the file
 * system did not accept it. A file outside the directory is not one that was unpacked.
 */
bool is_cut_by_file_system(const Package& package, const std::string& directory) {
    namespace fs = std::filesystem;
    for (const Entry& entry : package.entries()) {
        if (entry.kind != zip_kind::file) {
            continue;
        }
        std::error_code error;
        const fs::path file = fs::canonical(directory + "/" + entry.name, error);
        const uint64_t size = error ? 0 : fs::file_size(file, error);
        if (error || !file.string().starts_with(fs::canonical(directory).string() + "/")) {
            return false;
        }
        if (size != entry.size) {
            return size < entry.size && is_intact(package, entry);
        }
    }
    return false;
}

void unpack_entries(const Package& package, const std::string& file, const std::string& directory) {
    try {
        require(ExitCode::refused, "cannot unpack " + file + " to " + directory,
                [&] { return vx_uncompress(package.path().c_str(), directory.c_str()); });
    } catch (Failure& failure) {
        if (is_cut_by_file_system(package, directory)) {
            failure.code = ExitCode::device;
        }
        throw;
    }
}

void unpack(const Context& context, const std::string& file, const std::string& directory) {
    const Package package(file);
    demand_entries(package, file);
    const Totals totals = read_totals(package);
    demand_room(directory, totals);
    {
        const UnpackProgress progress(static_cast<uint64_t>(totals.all));
        unpack_entries(package, file, directory);
    }
    context.show({{"entries", package.entries().size()}, {"bytes", totals.all}, {"directory", directory}},
                 format("unpacked %zu entries, %s, to %s", package.entries().size(),
                        human_bytes(static_cast<uint64_t>(totals.all)).c_str(), directory.c_str()));
}

void has(const Context& context, const std::string& file, std::string name) {
    const Package package(file);
    const bool found = require(ExitCode::refused, "cannot search " + file,
                               [&] { return vx_zip_has_file(package.path().c_str(), name.data()); }) == 1;
    if (!found) {
        throw Failure(ExitCode::failed, "no entry of " + file + " begins with " + name);
    }
    context.show({{"found", true}}, file + " has an entry that begins with " + name);
}

/** The images that have block maps, by file; none where the package has no description that can be read. */
std::map<std::string, Image> framed_images(const Package& package) {
    std::map<std::string, Image> images;
    try {
        const std::string text = package.text(description_entry, description_limit);
        for (const Image& image : parse_description(parse_json(text, description_entry)).images) {
            if (image.blocks) {
                images.emplace(image.file, image);
            }
        }
    } catch (const Failure& failure) {
        if (failure.code != ExitCode::refused) {
            throw;
        }
    }
    return images;
}

/** Reads a whole entry, an image with a block map by its frames. @return what is wrong with it, or nothing */
std::string check_entry(const Package& package, const Entry& entry, const std::map<std::string, Image>& framed,
                        Progress& progress) {
    try {
        if (const auto image = framed.find(entry.name); image != framed.end()) {
            (void)digest_image(*open_image(package, image->second), image->second, image->second.strongest_digest(),
                               progress);
        } else {
            read_through(package, entry, progress);
        }
    } catch (const Failure& failure) {
        if (failure.code == ExitCode::interrupted) {
            throw;
        }
        return failure.what();
    }
    return {};
}

void check(const Context& context, const std::string& file) {
    watch_interrupts();
    const Package package(file);
    demand_entries(package, file);
    Progress progress(default_progress_mode());
    for (const Entry& entry : package.entries()) {
        progress.expect("check", entry.size);
    }
    const std::map<std::string, Image> framed = framed_images(package);
    std::vector<std::string> problems;
    for (const Entry& entry : package.entries()) {
        if (const std::string problem = check_entry(package, entry, framed, progress); !problem.empty()) {
            problems.push_back(problem);
        }
    }
    progress.finish();
    std::string text;
    for (const std::string& problem : problems) {
        text += problem + "\n";
    }
    text += problems.empty() ? format("all %zu entries are intact", package.entries().size()) : "";
    context.show({{"entries", package.entries().size()}, {"problems", problems}}, text);
    if (!problems.empty()) {
        throw Failure(ExitCode::refused, format("%zu of %zu entries of ", problems.size(), package.entries().size()) +
                                             file + " are damaged");
    }
}

struct Options {
    std::string file;
    std::string other; /* a directory or a name */
    TrustOptions trust;
};

Command& declare_one(Command& verb, const char* name, const char* summary, const std::shared_ptr<Options>& options) {
    Command& command = add_command(verb, name, summary);
    add_word(command, "FILE", options->file, "Package (zip file)");
    return command;
}

} // namespace

void declare_package(Command& verb, Context& context) {
    demand_command(verb);
    auto options = std::make_shared<Options>();
    Command& info_command =
        declare_one(verb, "info", "Show version, boards, signers and images, and report problems", options);
    add_trust(info_command, options->trust);
    on_command(info_command, context,
               [&context, options] { show_package_info(context, options->file, options->trust); });
    on_command(declare_one(verb, "list", "List the entries and the space that unpacking needs", options), context,
               [&context, options] { list(context, options->file); });
    Command& unpack_command = declare_one(verb, "unpack", "Unpack all entries into a directory", options);
    add_word(unpack_command, "DIR", options->other, "Directory, created if it does not exist");
    on_command(unpack_command, context, [&context, options] { unpack(context, options->file, options->other); });
    Command& has_command = declare_one(verb, "has", "Check whether any entry's name begins with NAME", options);
    add_word(has_command, "NAME", options->other, "Name of an entry, or its beginning");
    on_command(has_command, context, [&context, options] { has(context, options->file, options->other); });
    Command& check_command =
        declare_one(verb, "check-zip", "Read every entry of the zip file and verify its checksum", options);
    check_command.old_name = "check";
    on_command(check_command, context, [&context, options] { check(context, options->file); });
}

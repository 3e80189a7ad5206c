// SPDX-License-Identifier: Apache-2.0
/** tessera flashcmd: writes a prepared flash command to the board's node for such commands. */
#include "board/device.h"
#include "board/partition.h"
#include "board/small_file.h"
#include "console/text.h"
#include "format/flash_command.h"
#include "install/update_lock.h"
#include "internal/ota_paths.h"
#include "velox_ota_hl.h"
#include "verbs/verb.h"

#include <cerrno>
#include <fstream>
#include <optional>
#include <unistd.h>

namespace {

struct Options {
    std::string name;
    std::string data_file;
    uint32_t offset = 0;
    std::string lock_file = default_lock_file;
};

constexpr size_t data_limit = size_t{64} << 20;

std::string read_data(const std::string& path) {
    std::string data = read_small_file(path, data_limit);
    if (data.empty()) {
        throw Failure(ExitCode::failed, path + " is empty");
    }
    return data;
}

/** The name becomes part of a path, and the library ignores data that a command does not take. */
void check_options(const Options& options) {
    if (options.name.empty() || options.name.find('/') != std::string::npos || options.name.starts_with('.')) {
        throw Failure(ExitCode::failed, "\"" + options.name + "\" is not a valid name of a flash command");
    }
    if (options.name != flash_command_with_data && (!options.data_file.empty() || options.offset != 0)) {
        throw Failure(ExitCode::usage, options.name + " takes no data; only " + flash_command_with_data + " does");
    }
    const std::string file = std::string(ota_flashcmd_dir) + "/" + options.name;
    if (access(file.c_str(), R_OK) != 0) {
        throw Failure(ExitCode::failed, "cannot read the flash command " + file + because(errno));
    }
}

std::string read_back(const Device& device, size_t offset, size_t length) {
    std::string bytes(length, '\0');
    device.read_raw(offset, {reinterpret_cast<uint8_t*>(bytes.data()), length});
    return bytes;
}

/** What the library writes: the record, then the data area with the data at its offset. */
std::string whole_command(const Options& options, const std::string& data) {
    fimage_update_t record{};
    std::ifstream(std::string(ota_flashcmd_dir) + "/" + options.name, std::ios::binary)
        .read(reinterpret_cast<char*>(&record), sizeof record);
    std::string command(reinterpret_cast<const char*>(&record), sizeof record);
    if (options.name == flash_command_with_data) {
        command.resize(sizeof record + flash_command_area_size(record));
        command.replace(sizeof record + options.offset, data.size(), data);
    }
    return command;
}

/**
 * The command is written as to a file, without erasing: NOR then keeps a mixture of the old bits and the
 * new ones, without an error. A driver node without a size cannot be compared.
 */
void demand_kept(const Options& options, const std::string& data) {
    const std::string path = partition_path(ota_flashcmd_partition);
    std::optional<Device> device;
    try {
        device.emplace(path);
    } catch (const Failure&) {
        if (access(path.c_str(), R_OK) != 0) {
            throw;
        }
        return;
    }
    device->sync();
    const std::string command = whole_command(options, data);
    if (device->raw_size() < command.size() || read_back(*device, 0, command.size()) != command) {
        throw Failure(ExitCode::device, "the command " + options.name + " did not persist in flashcmd",
                      "the partition must be large enough, and flash must be erased before each command");
    }
}

void write_command(const Context& context, const Options& options) {
    check_options(options);
    std::string data = options.data_file.empty() ? std::string() : read_data(options.data_file);
    const UpdateLock lock(options.lock_file, "tessera flashcmd " + options.name);
    const auto length = static_cast<uint32_t>(data.size());
    (void)existing_partition(ota_flashcmd_partition);
    require(ExitCode::failed, "the flash command " + options.name + " was not written",
            [&] { return ota_write_flashcmd(options.name.c_str(), data.data(), length, options.offset); });
    demand_kept(options, data);
    const Json value = {{"command", options.name}, {"data_bytes", length}, {"offset", options.offset}};
    context.show(value, options.name + " written" +
                            (data.empty() ? "" : format(" with %u bytes of data at %u", length, options.offset)));
}

} // namespace

void declare_flashcmd(Command& verb, Context& context) {
    auto options = std::make_shared<Options>();
    add_word(verb, "NAME", options->name, "Name of the command file on the board");
    Option* data = add_text(verb, "--data", "FILE", options->data_file, "File with the data for misc_write_cmd");
    add_need(add_number(verb, "--offset", options->offset, "Offset of the data in the data area"), data);
    add_lock(verb, options->lock_file);
    on_command(verb, context, [&context, options] { write_command(context, *options); });
}

/** tessera flashcmd: hands a prepared command of the board to its flash command node. */
#include "device.h"
#include "partition.h"
#include "text.h"
#include "velox_ota_hl.h"
#include "verb.h"

#include <fstream>
#include <optional>

namespace {

constexpr char node[] = "flashcmd";
constexpr char command_directory[] = "/usr/velox/share/ota/";
constexpr char command_with_data[] = "misc_write_cmd";

struct Options {
    std::string name;
    std::string data_file;
    uint32_t offset = 0;
};

/** The area that takes the data is far below this; more than it is never read into memory. */
constexpr size_t data_limit = size_t{64} << 20;

std::string read_data(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string data(data_limit + 1, '\0');
    file.read(data.data(), static_cast<std::streamsize>(data.size()));
    data.resize(static_cast<size_t>(file.gcount()));
    if (!file.eof() || data.empty()) {
        throw Failure(ExitCode::failed, path + (data.size() > data_limit ? " is too large for a flash command"
                                                                         : " cannot be read or is empty"));
    }
    return data;
}

/** The name becomes part of a path; and the library passes over data that a command does not take. */
void judge(const Options& options) {
    if (options.name.empty() || options.name.find('/') != std::string::npos || options.name.starts_with('.')) {
        throw Failure(ExitCode::failed, "\"" + options.name + "\" is no name of a flash command");
    }
    if (options.name != command_with_data && (!options.data_file.empty() || options.offset != 0)) {
        throw Failure(ExitCode::usage, options.name + " takes no data, only " + command_with_data + " does");
    }
}

std::string read_back(const Device& device, size_t offset, size_t length) {
    std::string bytes(length, '\0');
    device.read_raw(offset, {reinterpret_cast<uint8_t*>(bytes.data()), length});
    return bytes;
}

/**
 * The command is written as to a file, without erasing: NOR then keeps a mixture of the old bits and the
 * new ones, and says nothing. A node that is a driver's door, without a size, shows nothing to compare.
 */
void demand_kept(const Options& options, const std::string& data) {
    std::optional<Device> device;
    try {
        device.emplace(partition_path(node));
    } catch (const Failure&) {
        return;
    }
    device->sync();
    std::string record(sizeof(fimage_update_t), '\0');
    std::ifstream(std::string(command_directory) + options.name, std::ios::binary)
        .read(record.data(), static_cast<std::streamsize>(record.size()));
    if (read_back(*device, 0, record.size()) != record ||
        read_back(*device, record.size() + options.offset, data.size()) != data) {
        throw Failure(ExitCode::device, "flashcmd did not keep the command " + options.name,
                      "flash has to be erased before each command");
    }
}

void write_command(const Context& context, const Options& options) {
    judge(options);
    std::string data = options.data_file.empty() ? std::string() : read_data(options.data_file);
    const auto length = static_cast<uint32_t>(data.size());
    require(ExitCode::failed, "the flash command " + options.name + " was not written",
            [&] { return ota_write_flashcmd(options.name.c_str(), data.data(), length, options.offset); });
    demand_kept(options, data);
    const Json value = {{"command", options.name}, {"data_bytes", length}, {"offset", options.offset}};
    context.show(value, options.name + " is written" +
                            (data.empty() ? "" : format(" with %u bytes of data at %u", length, options.offset)));
}

} // namespace

void declare_flashcmd(CLI::App& verb, Context& context) {
    auto options = std::make_shared<Options>();
    verb.add_option("NAME", options->name, "Name of the command's file on the board")->required();
    CLI::Option* data = verb.add_option("--data", options->data_file, "File with data, for misc_write_cmd");
    verb.add_option("--offset", options->offset, "Byte of the data area where the data goes")->needs(data);
    on_command(verb, context, [&context, options] { write_command(context, *options); });
}

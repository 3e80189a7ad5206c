/** tessera compare: do two partitions hold the same bytes? */
#include "digest.h"
#include "partition.h"
#include "text.h"
#include "verb.h"

#include <array>

namespace {

struct Options {
    std::string first;
    std::string second;
    int32_t garbage = 0;
};

std::string md5_of(const std::string& name, int32_t garbage) {
    const std::string path = file_or_partition(name);
    std::array<uint8_t, 16> digest{};
    require(ExitCode::device, "cannot read " + name, [&] { return MD5Dev(path.c_str(), digest.data(), garbage); });
    return to_hex(digest);
}

void compare(const Context& context, const Options& options) {
    const std::string first = md5_of(options.first, options.garbage);
    const std::string second = md5_of(options.second, options.garbage);
    const std::string names = options.first + " and " + options.second;
    if (first != second) {
        throw Failure(ExitCode::failed, names + " differ");
    }
    context.show({{"equal", true}, {"md5", first}}, names + " hold the same bytes");
}

} // namespace

void declare_compare(CLI::App& verb, Context& context) {
    auto options = std::make_shared<Options>();
    verb.add_option("PART_A", options->first, "A partition by its name, or a file")->required();
    verb.add_option("PART_B", options->second, "Another one")->required();
    verb.add_option("--garbage", options->garbage, "Leave out so many bytes at the end")->check(CLI::NonNegativeNumber);
    on_command(verb, context, [&context, options] { compare(context, *options); });
}

// SPDX-License-Identifier: Apache-2.0
/** tessera version: version files, and which of two versions is older. */
#include "board/version_file.h"
#include "console/text.h"
#include "velox_ota_hl.h"
#include "verbs/verb.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace {

/** A version as the library compares it; of a whole line such as "board_V1.2.0_20240101" the part from the V. */
std::string comparable(const std::string& word) {
    std::array<char, 128> version{};
    std::string line = word;
    const bool is_version = line.size() > 1 && line[0] == 'V' && std::isdigit(static_cast<unsigned char>(line[1])) != 0;
    if (!is_version && line.find("_V") != std::string::npos) {
        require(ExitCode::failed, word + " is not a version",
                [&] { return parse_version_info(line.data(), version.data()); });
        line = version.data();
    }
    if (line.find_first_of("0123456789") >= std::min(line.find('_'), line.size())) {
        throw Failure(ExitCode::failed, "\"" + word + "\" is not a version: no digit before its first _");
    }
    return line;
}

bool begins_with_letter(const std::string& version) {
    return std::isalpha(static_cast<unsigned char>(version.front())) != 0;
}

void compare(const Context& context, const std::string& word1, const std::string& word2) {
    const std::string v1 = comparable(word1);
    const std::string v2 = comparable(word2);
    /* The library compares letters like digits: V1.0 against 1.0 would be meaningless. */
    if (begins_with_letter(v1) != begins_with_letter(v2)) {
        throw Failure(ExitCode::failed, v1 + " and " + v2 + " use different notations",
                      "write both with a leading V, or both without");
    }
    const char* order = compare_sys_versions(v1.c_str(), v2.c_str()) == 1   ? "older"
                        : compare_sys_versions(v2.c_str(), v1.c_str()) == 1 ? "newer"
                                                                            : "same";
    const std::string middle = std::string(order) == "same" ? " compares equal to " : format(" is %s than ", order);
    context.show({{"version", v1}, {"other", v2}, {"order", order}}, v1 + middle + v2);
}

void show_version(const Context& context, const std::string& file) {
    const std::string version = read_version_file(file);
    context.show({{"file", file}, {"version", version}}, version);
}

} // namespace

void declare_version(Command& verb, Context& context) {
    demand_command(verb);
    auto words = std::make_shared<std::array<std::string, 2>>();
    Command& comparison = add_command(verb, "compare", "Report whether V1 is older or newer than V2");
    add_word(comparison, "V1", (*words)[0], "Version, or a line with one after _");
    add_word(comparison, "V2", (*words)[1], "Version to compare it with");
    on_command(comparison, context, [&context, words] { compare(context, (*words)[0], (*words)[1]); });
    Command& show = add_command(verb, "show", "Show the version in a version file");
    add_word(show, "FILE", (*words)[0], "Version file");
    on_command(show, context, [&context, words] { show_version(context, (*words)[0]); });
}

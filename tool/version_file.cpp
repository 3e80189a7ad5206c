#include "version_file.h"

#include "console.h"
#include "velox_ota_hl.h"

#include <algorithm>
#include <array>
#include <cctype>

std::string read_version_file(const std::string& path) {
    std::array<char, 128> buffer{};
    const std::string sentence = "cannot take a version from " + path;
    require(ExitCode::failed, sentence, [&] { return get_system_version(path.c_str(), buffer.data()); });
    /* Of a file that is too long the library takes what it could read, and says so in its log only. */
    if (const std::string cause = console::logged_cause(); !cause.empty()) {
        throw Failure(ExitCode::failed, sentence + cause);
    }
    /* The library ends a version at a blank: a second line, or the CR of another system, is still there. */
    std::string version(buffer.data());
    version.erase(std::find_if(version.begin(), version.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }),
                  version.end());
    return version;
}

// SPDX-License-Identifier: Apache-2.0
#include "flash_device.h"

#include <sstream>
#include <stdexcept>

namespace {

/** The words of a setup line: those alone, and those with a value. */
struct setup_line {
    std::string path;
    std::string kind;
    std::string state;
    flash_geometry geometry{0, 0, {}};
};

uint32_t parse_size(const std::string& text) {
    const uint64_t value = parse_number(text);
    if (value > UINT32_MAX) {
        throw std::runtime_error("'" + text + "' is too large");
    }
    return static_cast<uint32_t>(value);
}

std::vector<uint64_t> parse_numbers(const std::string& text) {
    std::vector<uint64_t> values;
    std::istringstream items(text);
    for (std::string item; std::getline(items, item, ',');) {
        values.push_back(parse_number(item));
    }
    return values;
}

void set_value(setup_line& line, const std::string& key, const std::string& value) {
    if (key == "erasesize") {
        line.geometry.erasesize = parse_size(value);
    } else if (key == "writesize") {
        line.geometry.writesize = parse_size(value);
    } else if (key == "bad") {
        line.geometry.factory_bad = parse_numbers(value);
    } else if (key == "state") {
        line.state = value;
    } else {
        throw std::runtime_error("'" + key + "' is not a property of a device");
    }
}

setup_line parse_line(const std::string& text) {
    setup_line line;
    std::istringstream words(text);
    words >> line.path >> line.kind;
    line.state = line.path + ".state";
    for (std::string word; words >> word;) {
        const size_t equals = word.find('=');
        if (equals == std::string::npos) {
            throw std::runtime_error("'" + word + "' has no value");
        }
        set_value(line, word.substr(0, equals), word.substr(equals + 1));
    }
    return line;
}

std::unique_ptr<flash_device> build_device(setup_line line) {
    if (line.kind == "nor") {
        line.geometry.writesize = 1;
    }
    if (line.kind == "mtd" || line.kind == "nor") {
        return make_mtd_device(line.path, line.state, std::move(line.geometry));
    }
    if (line.kind == "ubi") {
        return make_ubi_volume(line.path, line.state, std::move(line.geometry));
    }
    if (line.kind == "block") {
        return make_block_device(line.path, line.state);
    }
    throw std::runtime_error("'" + line.kind + "' is not a kind of device");
}

} // namespace

uint64_t parse_number(const std::string& text) {
    size_t used = 0;
    uint64_t value = 0;
    try {
        value = std::stoull(text, &used, 0);
    } catch (const std::logic_error&) {
        used = 0;
    }
    if (used == 0 || used != text.size() || text.find('-') != std::string::npos) {
        throw std::runtime_error("'" + text + "' is not a number");
    }
    return value;
}

named_device make_device(const std::string& line) {
    setup_line setup = parse_line(line);
    std::string name = setup.path.substr(setup.path.rfind('/') + 1);
    return {std::move(name), build_device(std::move(setup))};
}

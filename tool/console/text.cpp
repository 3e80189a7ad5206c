// SPDX-License-Identifier: Apache-2.0
#include "console/text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

bool is_number(const std::string& cell) {
    return !cell.empty() && std::isdigit(static_cast<unsigned char>(cell.front())) != 0;
}

std::string padded(std::string cell, size_t width, bool to_the_right) {
    std::replace(cell.begin(), cell.end(), '\n', '?'); /* in a name from outside */
    const std::string blanks(width - std::min(width, cell.size()), ' ');
    return to_the_right ? blanks + cell : cell + blanks;
}

} // namespace

std::string format(const char* pattern, ...) {
    va_list args;
    va_start(args, pattern);
    va_list again;
    va_copy(again, args);
    std::string text(static_cast<size_t>(std::max(0, std::vsnprintf(nullptr, 0, pattern, args))), '\0');
    (void)std::vsnprintf(text.data(), text.size() + 1, pattern, again);
    va_end(again);
    va_end(args);
    return text;
}

std::string human_bytes(uint64_t bytes) {
    static constexpr std::array units = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    auto value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < units.size(); ++unit) {
        value /= 1024;
    }
    return format("%.1f %s", value, units[unit]);
}

std::string because(int error) {
    return error == 0 ? "" : std::string(": ") + std::strerror(error);
}

std::string printable(std::string text) {
    const auto steers = [](char c) { return std::iscntrl(static_cast<unsigned char>(c)) != 0 && c != '\n'; };
    std::replace_if(text.begin(), text.end(), steers, '?');
    return text;
}

std::string to_hex(std::span<const uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

std::string table(const std::vector<std::string>& heading, const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    widths.reserve(heading.size());
    for (const std::string& title : heading) {
        widths.push_back(title.size());
    }
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    const auto line_of = [&](const std::vector<std::string>& cells) {
        std::string line;
        for (size_t i = 0; i < cells.size(); ++i) {
            const bool right = is_number(rows.empty() ? cells[i] : rows.front()[i]);
            line += padded(cells[i], widths[i], right) + "  ";
        }
        line.erase(line.find_last_not_of(' ') + 1);
        return line + "\n";
    };
    std::string text = line_of(heading);
    for (const auto& row : rows) {
        text += line_of(row);
    }
    return text;
}

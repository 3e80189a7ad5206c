// SPDX-License-Identifier: Apache-2.0
/** Helpers for human-readable text. */
#ifndef TOOL_TEXT_H
#define TOOL_TEXT_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

/** printf into a string. */
[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...);

/** A number of bytes in a suitable unit: "1.5 MiB". */
std::string human_bytes(uint64_t bytes);

/** The message of an errno value, prefixed with ": ". */
std::string because(int error);

/** Lower-case hexadecimal digits. */
std::string to_hex(std::span<const uint8_t> bytes);

/** Untrusted text for a terminal: control characters are replaced by question marks. */
std::string printable(std::string text);

/** "a, b, c" */
std::string joined(const std::vector<std::string>& words);

/** Columns with a heading, each as wide as its widest cell. Numbers are right-aligned. */
std::string table(const std::vector<std::string>& heading, const std::vector<std::vector<std::string>>& rows);

#endif

// SPDX-License-Identifier: Apache-2.0
#include "flash_script.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <sstream>
#include <stdexcept>

namespace {

constexpr std::array<std::string_view, 14> kinds = {
    "MEMGETINFO",        "MEMGETBADBLOCK", "MEMSETBADBLOCK", "MEMERASE",       "MEMERASE64",
    "ECCGETSTATS",       "UBI_IOCVOLINFO", "UBI_IOCEBER",    "UBI_IOCEBUNMAP", "UBI_IOCEBISMAP",
    "UBI_IOCSETVOLPROP", "pread",          "pwrite",         "fsync"};

template <class Value>
Value required(std::istringstream& words, const char* what) {
    Value value{};
    if (!(words >> value)) {
        throw std::runtime_error(std::string("a rule lacks ") + what);
    }
    return value;
}

uint64_t required_number(std::istringstream& words, const char* what) {
    return parse_number(required<std::string>(words, what));
}

/** The result of an operation that was carried out in full. */
long full_result(const flash_operation& operation) {
    const std::string_view kind = operation.kind;
    return kind == "pread" || kind == "pwrite" ? static_cast<long>(operation.length) : 0;
}

} // namespace

flash_script::flash_script(std::string_view text) {
    std::string lines(text);
    std::ranges::replace(lines, ';', '\n');
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        if (line.find_first_not_of(" \t") != std::string::npos) {
            parse_rule(line);
        }
    }
}

void flash_script::parse_rule(const std::string& text) {
    std::istringstream words(text);
    const auto verb = required<std::string>(words, "a verb");
    if (verb == "cut") {
        parse_cut(words);
        return;
    }
    rule fault{effect::fail, required<std::string>(words, "a kind"), required_number(words, "a number"), -EIO};
    if (std::ranges::find(kinds, fault.kind) == kinds.end()) {
        throw std::runtime_error("'" + fault.kind + "' is not a kind of operation");
    }
    if (verb == "give") {
        fault.what = effect::give;
        fault.value = required<long>(words, "a result");
    } else if (verb == "short") {
        fault.what = effect::shorten;
        fault.value = required<long>(words, "a number of bytes");
    } else if (verb == "raise") {
        fault.what = effect::raise;
        fault.value = required<long>(words, "a signal");
    } else if (verb == "lose") {
        fault.what = effect::lose;
    } else if (verb != "fail") {
        throw std::runtime_error("'" + verb + "' is not a rule");
    } else if (long error = 0; words >> error) {
        fault.value = -error;
    }
    words.clear();
    if (std::string rest; words >> rest) {
        throw std::runtime_error("'" + rest + "' does not belong to a rule '" + verb + "'");
    }
    rules_.push_back(fault);
}

void flash_script::parse_cut(std::istringstream& words) {
    cut_.after = required_number(words, "the number of the last operation");
    for (std::string word; words >> word;) {
        if (word == "tear") {
            cut_.tear = tear_in_the_middle;
        } else if (word.starts_with("tear=")) {
            cut_.tear = parse_number(word.substr(word.find('=') + 1));
        } else if (word == "kill") {
            cut_.kills = true;
        } else if (word.starts_with("seed=")) {
            cut_.seed = parse_number(word.substr(word.find('=') + 1));
        } else {
            throw std::runtime_error("'" + word + "' does not belong to a rule 'cut'");
        }
    }
}

flash_verdict flash_script::decide(const flash_operation& operation, std::atomic<uint64_t>& operations) {
    flash_verdict verdict;
    const uint64_t total = operations < cut_.after ? ++operations : UINT64_MAX;
    if (total > cut_.after) {
        verdict.refused = true;
        return verdict;
    }
    const uint64_t number = ++counts_[operation.kind];
    for (const rule& fault : rules_) {
        if (fault.kind == operation.kind && fault.number == number) {
            apply(fault, operation, verdict);
        }
    }
    verdict.is_last = total == cut_.after;
    verdict.tear = verdict.is_last ? cut_.tear : std::nullopt;
    return verdict;
}

void flash_script::apply(const rule& fault, const flash_operation& operation, flash_verdict& verdict) {
    if (fault.what == effect::shorten) {
        verdict.limit = static_cast<uint64_t>(fault.value);
    } else if (fault.what == effect::raise) {
        verdict.signal = static_cast<int>(fault.value);
    } else {
        verdict.result = fault.what == effect::lose ? full_result(operation) : fault.value;
    }
}

std::string journal_line(const std::string& device, const flash_operation& operation, long result) {
    std::ostringstream line;
    line << device << ' ' << operation.kind;
    if (operation.position) {
        line << ' ' << *operation.position;
    }
    if (operation.length != 0) {
        line << '+' << operation.length;
    }
    line << " = " << result;
    return line.str();
}

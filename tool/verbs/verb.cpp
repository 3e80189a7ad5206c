// SPDX-License-Identifier: Apache-2.0
#include "verbs/verb.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace {

/** Splits "-o,--output" into its letter and its name. */
Option& add_option(Command& command, std::string_view names, std::string_view type, const char* help) {
    const bool is_option = names.starts_with('-');
    Option& option = (is_option ? command.options : command.words).emplace_back();
    if (names.size() > 3 && names[2] == ',') {
        option.letter = names[1];
        names.remove_prefix(3);
    }
    option.name = names;
    option.type = type;
    option.help = help;
    return option;
}

Option& add_stored(Command& command, const char* names, const char* type, std::string& text, const char* help) {
    Option& option = add_option(command, names, type, help);
    option.initial = text;
    option.take = [&text](const std::string& value) {
        text = value;
        return std::string();
    };
    return option;
}

/** An empty value comes from an unset variable in a script, and must not disable a check. */
Option& add_filled(Command& command, const char* name, const char* type, std::string& text, const char* help) {
    Option& option = add_option(command, name, type, help);
    option.take = [&text](const std::string& value) {
        text = value;
        return std::string(value.empty() ? "must not be empty" : "");
    };
    return option;
}

/** Decimal, or hexadecimal after 0x. */
std::string to_number(std::string_view text, uint64_t most, uint64_t& number) {
    if (text.starts_with('-')) {
        return "must not be negative";
    }
    const bool is_hexadecimal = text.starts_with("0x");
    const std::string_view digits = text.substr(is_hexadecimal ? 2 : 0);
    const char* end = digits.data() + digits.size();
    const auto [after, error] = std::from_chars(digits.data(), end, number, is_hexadecimal ? 16 : 10);
    if (after != end || error == std::errc::invalid_argument) {
        return "\"" + std::string(text) + "\" is not a whole number";
    }
    return error == std::errc() && number <= most ? "" : std::string(text) + " is too large";
}

/** Leaves the stored value unchanged if the word is not a number. */
template <class Number>
Option* add_any_number(Command& command, const char* name, Number& number, uint64_t most, const char* help) {
    Option& option = add_option(command, name, "N", help);
    option.take = [&number, most](const std::string& text) {
        uint64_t value = 0;
        std::string problem = to_number(text, most, value);
        if (problem.empty()) {
            number = static_cast<Number>(value);
        }
        return problem;
    };
    return &option;
}

} // namespace

void on_command(Command& command, Context& context, const std::function<void()>& action) {
    command.action = [&context, action] { context.run = action; };
}

Command& add_command(Command& verb, const char* name, const char* summary) {
    return verb.add(name, summary);
}

void allow_command(Command& verb) {
    verb.below = Command::Below::optional;
}

void demand_command(Command& verb) {
    verb.below = Command::Below::required;
}

void add_word(Command& command, const char* name, std::string& word, const char* help) {
    add_stored(command, name, name, word, help).is_required = true;
}

Option* add_text(Command& command, const char* name, const char* type, std::string& text, const char* help) {
    return &add_stored(command, name, type, text, help);
}

Option* add_texts(Command& command, const char* name, const char* type, std::vector<std::string>& texts,
                  const char* help) {
    Option& option = add_option(command, name, type, help);
    option.is_repeatable = true;
    option.take = [&texts](const std::string& value) {
        texts.push_back(value);
        return std::string();
    };
    return &option;
}

Option* add_number(Command& command, const char* name, uint32_t& number, const char* help) {
    return add_any_number(command, name, number, std::numeric_limits<uint32_t>::max(), help);
}

Option* add_number(Command& command, const char* name, uint64_t& number, const char* help) {
    return add_any_number(command, name, number, std::numeric_limits<uint64_t>::max(), help);
}

Option* add_number(Command& command, const char* name, std::optional<uint64_t>& number, const char* help) {
    return add_any_number(command, name, number, std::numeric_limits<uint64_t>::max(), help);
}

Option* add_flag(Command& command, const char* name, bool& flag, const char* help) {
    Option& option = add_option(command, name, "", help);
    option.take = [&flag](const std::string&) {
        flag = true;
        return std::string();
    };
    return &option;
}

Option* add_choice(Command& command, const char* name, const char* type, const std::vector<std::string>& words,
                   const std::function<void(const std::string&)>& choose, const char* help) {
    Option& option = add_option(command, name, type, help);
    option.take = [words, choose](const std::string& word) {
        if (std::ranges::find(words, word) != words.end()) {
            choose(word);
            return std::string();
        }
        std::string problem = "\"" + word + "\" is not one of";
        for (const std::string& choice : words) {
            problem += (&choice == &words.front() ? " " : ", ") + choice;
        }
        return problem;
    };
    return &option;
}

void add_lock(Command& command, std::string& file) {
    add_text(command, "--lock", "FILE", file, "Lock file, held by one command at a time");
}

void add_trust(Command& command, TrustOptions& trust) {
    Option& option = add_filled(command, "--trust", "FILE", trust.file,
                                "PEM file of the trusted authorities and their revocation lists");
    option.environment = "TESSERA_TRUST";
    const auto choose = [&trust](const std::string& word) {
        trust.time = word == "now" ? TrustTime::now : TrustTime::signing;
    };
    Option* time = add_choice(command, "--trust-time", "WHEN", {"now", "signing"}, choose,
                              "When the signer's certificate must be valid: now (default) or signing");
    add_need(time, &option);
}

void add_board(Command& command, std::string& name) {
    add_filled(command, "--board", "NAME", name, "Name of this board, instead of those in its device tree");
}

void add_need(Option* option, Option* other) {
    option->needs.push_back(other);
}

void add_exclusion(Option* option, Option* other) {
    option->excludes.push_back(other);
    other->excludes.push_back(option);
}

bool is_given(const Option* option) {
    return option->is_given;
}

#include "verb.h"

#include <CLI/CLI.hpp>

namespace {

/** The parser's own check would tell the largest double with all its digits. */
std::string judge_sign(const std::string& number) {
    const size_t first = number.find_first_not_of(" \t");
    return first != std::string::npos && number[first] == '-' ? "it must not be negative" : "";
}

} // namespace

void on_command(CLI::App& command, Context& context, const std::function<void()>& action) {
    command.callback([&command, &context, action] {
        if (command.get_subcommands().empty()) {
            context.run = action;
        }
    });
}

CLI::App& add_command(CLI::App& verb, const char* name, const char* summary) {
    return *verb.add_subcommand(name, summary)->fallthrough();
}

void allow_command(CLI::App& verb) {
    verb.require_subcommand(0, 1);
}

void demand_command(CLI::App& verb) {
    verb.require_subcommand(1);
}

void add_word(CLI::App& command, const char* name, std::string& word, const char* help) {
    command.add_option(name, word, help)->required();
}

CLI::Option* add_text(CLI::App& command, const char* name, std::string& text, const char* help) {
    CLI::Option* option = command.add_option(name, text, help);
    return text.empty() ? option : option->capture_default_str();
}

CLI::Option* add_number(CLI::App& command, const char* name, uint32_t& number, const char* help) {
    return command.add_option(name, number, help)->check(judge_sign);
}

CLI::Option* add_number(CLI::App& command, const char* name, uint64_t& number, const char* help) {
    return command.add_option(name, number, help)->check(judge_sign);
}

CLI::Option* add_number(CLI::App& command, const char* name, std::optional<uint64_t>& number, const char* help) {
    return command.add_option(name, number, help)->check(judge_sign);
}

void add_flag(CLI::App& command, const char* name, bool& flag, const char* help) {
    command.add_flag(name, flag, help);
}

void add_choice(CLI::App& command, const char* name, const char* type, const std::vector<std::string>& words,
                const std::function<void(const std::string&)>& choose, const char* help) {
    command.add_option_function<std::string>(name, choose, help)
        ->check(CLI::IsMember(words).description(""))
        ->type_name(type);
}

void add_lock(CLI::App& command, std::string& file) {
    add_text(command, "--lock", file, "Lock that only one command at a time holds");
}

/* An empty name is that of an unset variable in a script, and must not switch the check off. */
void add_trust(CLI::App& command, std::string& file) {
    add_text(command, "--trust", file, "PEM file of the certificates whose signatures are accepted")
        ->envname("TESSERA_TRUST")
        ->check([](const std::string& name) { return name.empty() ? "it names no file" : ""; });
}

void add_need(CLI::Option* option, CLI::Option* other) {
    option->needs(other);
}

void add_exclusion(CLI::Option* option, CLI::Option* other) {
    option->excludes(other);
}

bool is_given(const CLI::Option* option) {
    return option->count() > 0;
}

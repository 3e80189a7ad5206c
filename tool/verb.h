/** The table of verbs. Each verb lives in a file of its own, verb_<name>.cpp. */
#ifndef TOOL_VERB_H
#define TOOL_VERB_H

#include "console.h"
#include "json.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>

/** One run of the command. */
struct Context {
    bool json = false;
    bool verbose = false;
    std::function<void()> run; /* what the verb on the command line does; throws Failure */

    /** Prints a result, in the form asked for. */
    void show(const Json& value, const std::string& text) const {
        console::print(json ? to_text(value, 2) : text);
    }
};

struct Verb {
    const char* name;
    const char* summary;
    void (*declare)(CLI::App& verb, Context& context); /* adds options, and what to do */
};

/** Has `command` do `action`, unless a command below it is given. */
inline void on_command(CLI::App& command, Context& context, const std::function<void()>& action) {
    command.callback([&command, &context, action] {
        if (command.get_subcommands().empty()) {
            context.run = action;
        }
    });
}

/** A command below a verb; it takes the verb's common options too. */
inline CLI::App& add_command(CLI::App& verb, const char* name, const char* summary) {
    return *verb.add_subcommand(name, summary)->fallthrough();
}

/** The lock that everything takes which changes what an update relies on. */
inline void add_lock(CLI::App& command, std::string& file) {
    command.add_option("--lock", file, "Lock that only one command at a time holds")->capture_default_str();
}

/** An empty name is that of an unset variable in a script, and must not switch the check off. */
inline void add_trust(CLI::App& command, std::string& file) {
    command.add_option("--trust", file, "PEM file of the certificates whose signatures are accepted")
        ->envname("TESSERA_TRUST")
        ->check([](const std::string& name) { return name.empty() ? "it names no file" : ""; });
}

/** Of a number that cannot be below 0. The parser's own check would tell the largest double with all its digits. */
inline const CLI::Validator
    not_negative([](const std::string& number) { return number.starts_with('-') ? "it must not be negative" : ""; },
                 "");

void declare_board(CLI::App& verb, Context& context);
void declare_compare(CLI::App& verb, Context& context);
void declare_confirm(CLI::App& verb, Context& context);
void declare_digest(CLI::App& verb, Context& context);
void declare_efuse(CLI::App& verb, Context& context);
void declare_flashcmd(CLI::App& verb, Context& context);
void declare_install(CLI::App& verb, Context& context);
void declare_pack(CLI::App& verb, Context& context);
void declare_package(CLI::App& verb, Context& context);
void declare_partitions(CLI::App& verb, Context& context);
void declare_rollback(CLI::App& verb, Context& context);
void declare_slots(CLI::App& verb, Context& context);
void declare_status(CLI::App& verb, Context& context);
void declare_verify(CLI::App& verb, Context& context);
void declare_version(CLI::App& verb, Context& context);
void declare_versions(CLI::App& verb, Context& context);

#endif

/** The table of verbs. Each verb lives in a file of its own, verb_<name>.cpp. */
#ifndef TOOL_VERB_H
#define TOOL_VERB_H

#include "console.h"
#include "json.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

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

/* What a verb declares. The parser's header is large: only verb.cpp and main.cpp see it. */

/** Has `command` do `action`, unless a command below it is given. */
void on_command(CLI::App& command, Context& context, const std::function<void()>& action);

/** A command below a verb; it takes the verb's common options too. */
CLI::App& add_command(CLI::App& verb, const char* name, const char* summary);
void allow_command(CLI::App& verb);
void demand_command(CLI::App& verb);

/** A word that has to be there. */
void add_word(CLI::App& command, const char* name, std::string& word, const char* help);

CLI::Option* add_text(CLI::App& command, const char* name, std::string& text, const char* help);
CLI::Option* add_number(CLI::App& command, const char* name, uint32_t& number, const char* help);
CLI::Option* add_number(CLI::App& command, const char* name, uint64_t& number, const char* help);
CLI::Option* add_number(CLI::App& command, const char* name, std::optional<uint64_t>& number, const char* help);
void add_flag(CLI::App& command, const char* name, bool& flag, const char* help);

/** One of several words; `choose` gets it when the whole command line has been read. */
void add_choice(CLI::App& command, const char* name, const char* type, const std::vector<std::string>& words,
                const std::function<void(const std::string&)>& choose, const char* help);

/** The lock that everything takes which changes what an update relies on. */
void add_lock(CLI::App& command, std::string& file);

/** The certificates whose signatures are accepted. */
void add_trust(CLI::App& command, std::string& file);

void add_need(CLI::Option* option, CLI::Option* other);
void add_exclusion(CLI::Option* option, CLI::Option* other);
bool is_given(const CLI::Option* option);

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

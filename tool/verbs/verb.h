// SPDX-License-Identifier: Apache-2.0
/** What the verbs share. Each verb is a file of its own, verbs/<name>.cpp. */
#ifndef TOOL_VERB_H
#define TOOL_VERB_H

#include "console/command_line.h"
#include "console/console.h"
#include "console/json.h"
#include "package/trust.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/** One run of the command. */
struct Context {
    bool json = false;
    bool verbose = false;
    std::function<void()> run; /* what the verb on the command line does; throws Failure */
    std::string state;         /* of the board after a change, for the case that the results cannot be written */

    /** Prints a result in the requested form. */
    void show(const Json& value, const std::string& text) const {
        console::print(json ? to_text(value, 2) : text);
    }
    /** The same for the results of a change. `text` is one line. */
    void show_change(const Json& value, const std::string& text) {
        state = text;
        show(value, text);
    }
};

struct Verb {
    const char* name;
    const char* summary;
    void (*declare)(Command& verb, Context& context); /* adds options, and what to do */
    std::string_view old_name = {};                   /* also accepted, but not shown */
};

/* What a verb declares. */

/** Has `command` do `action`, unless a command below it is given. */
void on_command(Command& command, Context& context, const std::function<void()>& action);

/** A command below a verb; it takes the verb's common options too. */
Command& add_command(Command& verb, const char* name, const char* summary);
void allow_command(Command& verb);
void demand_command(Command& verb);

/** A word that has to be there. */
void add_word(Command& command, const char* name, std::string& word, const char* help);

/** @param type  what the value is, for the help: "FILE" */
Option* add_text(Command& command, const char* name, const char* type, std::string& text, const char* help);
/** A text that may be given several times. */
Option* add_texts(Command& command, const char* name, const char* type, std::vector<std::string>& texts,
                  const char* help);
Option* add_number(Command& command, const char* name, uint32_t& number, const char* help);
Option* add_number(Command& command, const char* name, uint64_t& number, const char* help);
Option* add_number(Command& command, const char* name, std::optional<uint64_t>& number, const char* help);
Option* add_flag(Command& command, const char* name, bool& flag, const char* help);

/** One of several words; `choose` gets it. */
Option* add_choice(Command& command, const char* name, const char* type, const std::vector<std::string>& words,
                   const std::function<void(const std::string&)>& choose, const char* help);

/** The lock of all commands that change what updates rely on. */
void add_lock(Command& command, std::string& file);

/** The authorities whose signatures are accepted, and the moment that counts. */
void add_trust(Command& command, TrustOptions& trust);

/** The name of the board, instead of those in its device tree. */
void add_board(Command& command, std::string& name);

void add_need(Option* option, Option* other);
void add_exclusion(Option* option, Option* other);
bool is_given(const Option* option);

void declare_board(Command& verb, Context& context);
void declare_compare(Command& verb, Context& context);
void declare_confirm(Command& verb, Context& context);
void declare_digest(Command& verb, Context& context);
void declare_efuse(Command& verb, Context& context);
void declare_firmware(Command& verb, Context& context);
void declare_flashcmd(Command& verb, Context& context);
void declare_install(Command& verb, Context& context);
void declare_pack(Command& verb, Context& context);
void declare_package(Command& verb, Context& context);
void declare_partitions(Command& verb, Context& context);
void declare_rollback(Command& verb, Context& context);
void declare_slots(Command& verb, Context& context);
void declare_status(Command& verb, Context& context);
void declare_verify(Command& verb, Context& context);
void declare_version(Command& verb, Context& context);

#endif

// SPDX-License-Identifier: Apache-2.0
/** The command line: the words and options of each command, their help, and the parser. */
#ifndef TOOL_COMMAND_LINE_H
#define TOOL_COMMAND_LINE_H

#include <deque>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/** An option, or a positional word. The views must outlive the command; they are usually literals. */
struct Option {
    char letter = '\0';    /* of "-o"; NUL: it has none */
    std::string_view name; /* "--output"; "FILE" of a word */
    std::string_view type; /* what its value is, as the help shows it; empty: it is a flag */
    std::string_view help;
    std::string initial;               /* the value when it is not given, for the help */
    const char* environment = nullptr; /* environment variable with the default value */
    bool is_answer = false;            /* reading ends here, as for --help: what else is on the line does not count */
    bool is_own = false;               /* not taken by the commands below, unlike all other options */
    bool is_required = false;
    bool is_repeatable = false; /* may be given more than once */
    bool is_given = false;
    std::vector<const Option*> needs;
    std::vector<const Option*> excludes;
    std::function<std::string(const std::string& value)> take; /* stores it, or returns why it does not fit */
};

struct Command {
    enum class Below { none, optional, required }; /* whether a command has to follow */

    std::string_view name;
    std::string_view summary;
    std::string_view old_name; /* names it too, but no help shows it; empty: it has none */
    Command* parent = nullptr; /* its options are taken as well */
    Below below = Below::none;
    std::function<void(Command&)> declare; /* adds all that follows, once the command has been named */
    std::function<void()> action;
    std::deque<Option> words;
    std::deque<Option> options;
    std::deque<Command> commands;

    Command& add(std::string_view command_name, std::string_view command_summary);
    /** "tessera slots reset" */
    [[nodiscard]] std::string path() const;
    [[nodiscard]] std::string help() const;
};

struct CommandLine {
    Command& command;
    const Option* answer; /* nullptr: do what the command does */
};

/**
 * Reads the words of a command line, stores what they give, and finds the command they name. Options may appear
 * before and after what they belong to: `--name value`, `--name=value`, `-n value`, `-nvalue`, `-ab` for flags;
 * after `--` everything is a word. An option's name is never treated as another option's value.
 * Where a line is wrong but holds --help, help is the answer.
 *
 * @throws Failure (usage) with the current command's help as its hint; stored values are then meaningless
 */
CommandLine read_command_line(Command& root, std::span<char* const> words);

#endif

// SPDX-License-Identifier: Apache-2.0
#include "console/command_line.h"

#include "console/failure.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr size_t help_column = 30;

std::string names_of(const Option& option) {
    const std::string letter = option.letter == '\0' ? "" : std::string{'-', option.letter, ','};
    return letter + std::string(option.name);
}

std::string list_of(std::string_view title, const std::vector<const Option*>& options) {
    std::string text = options.empty() ? "" : " (" + std::string(title);
    for (const Option* option : options) {
        text += " " + std::string(option->name);
    }
    return options.empty() ? text : text + ")";
}

std::string left_column(const Option& option) {
    std::string text = names_of(option);
    if (!option.type.empty() && option.name.starts_with('-')) {
        text += " " + std::string(option.type) + (option.initial.empty() ? "" : "=" + option.initial);
    }
    if (option.is_required && option.name.starts_with('-')) {
        text += " (required)";
    }
    if (option.environment != nullptr) {
        text += " (or $" + std::string(option.environment) + ")";
    }
    return text + list_of("needs", option.needs) + list_of("excludes", option.excludes);
}

std::string help_line(const std::string& left, std::string_view right) {
    std::string line = "  " + left;
    line +=
        line.size() < help_column ? std::string(help_column - line.size(), ' ') : "\n" + std::string(help_column, ' ');
    return line + std::string(right) + "\n";
}

std::string usage_line(const Command& command) {
    std::string text = "Usage: " + command.path() + " [OPTIONS]";
    for (const Option& word : command.words) {
        text += " " + std::string(word.name);
    }
    switch (command.below) {
    case Command::Below::required:
        return text + " COMMAND\n";
    case Command::Below::optional:
        return text + " [COMMAND]\n";
    default:
        return text + "\n";
    }
}

bool is_taken(const Option& option, const Command& owner, const Command& command) {
    return &owner == &command || !option.is_own;
}

/** Reads one command line, word by word. */
class Reader {
public:
    Reader(Command& root, std::span<char* const> words) : command_(&root), words_(words) {
        enter(root);
    }

    Command& command() {
        return *command_;
    }

    /** Returns the option that replaces the command's action, such as --help, if one is given. */
    const Option* read() {
        while (next_ < words_.size() && answer_ == nullptr) {
            const std::string word = words_[next_++];
            if (only_words_ || !word.starts_with('-') || word == "-") {
                take_word(word);
            } else if (word == "--") {
                only_words_ = true;
            } else if (word.starts_with("--")) {
                take_long(word);
            } else {
                take_letters(word);
            }
        }
        if (answer_ == nullptr) {
            check();
        }
        return answer_;
    }

private:
    [[nodiscard]] Failure wrong(const std::string& sentence) const {
        return {ExitCode::usage, sentence, command_->path() + " --help"};
    }

    static void enter(Command& command) {
        if (command.declare) {
            command.declare(command);
        }
    }

    /** The option of this letter or, where that is NUL, of this name. */
    Option* find(std::string_view name, char letter = '\0') {
        for (Command* command = command_; command != nullptr; command = command->parent) {
            for (Option& option : command->options) {
                const bool matches = letter == '\0' ? option.name == name : option.letter == letter;
                if (matches && is_taken(option, *command, *command_)) {
                    return &option;
                }
            }
        }
        return nullptr;
    }

    void take_word(const std::string& word) {
        if (command_->below != Command::Below::none) {
            enter_command(word);
            return;
        }
        if (taken_words_ == command_->words.size()) {
            throw wrong("unexpected argument: " + word);
        }
        store(command_->words[taken_words_++], word);
    }

    void enter_command(const std::string& name) {
        const auto found = std::ranges::find_if(command_->commands, [&](const Command& command) {
            return name == command.name || (name == command.old_name && !name.empty());
        });
        if (found == command_->commands.end()) {
            throw wrong("unknown command " + name);
        }
        command_ = &*found;
        enter(*command_);
    }

    void take_long(const std::string& word) {
        const size_t end = word.find('=');
        Option* option = find(std::string_view(word).substr(0, end));
        if (option == nullptr) {
            throw wrong("unknown option " + word.substr(0, end));
        }
        if (end != std::string::npos && option->type.empty()) {
            throw wrong(std::string(option->name) + " takes no value");
        }
        store(*option, option->type.empty()       ? ""
                       : end == std::string::npos ? next_value(*option)
                                                  : word.substr(end + 1));
    }

    /** "-v", "-qv", "-ofile" or "-o file". */
    void take_letters(const std::string& word) {
        for (size_t i = 1; i < word.size(); ++i) {
            Option* option = find({}, word[i]);
            if (option == nullptr) {
                throw wrong(std::string("unknown option -") + word[i]);
            }
            if (!option->type.empty()) {
                store(*option, i + 1 < word.size() ? word.substr(i + 1) : next_value(*option));
                return;
            }
            store(*option, "");
        }
    }

    std::string next_value(const Option& option) {
        const std::string_view word = next_ < words_.size() ? words_[next_] : "--";
        const bool is_option = word == "--" || find(word.substr(0, word.find('='))) != nullptr ||
                               (word.size() == 2 && word[0] == '-' && find({}, word[1]) != nullptr);
        if (is_option) {
            throw wrong(std::string(option.name) + " requires a value");
        }
        ++next_;
        return std::string(word);
    }

    void store(Option& option, const std::string& value) {
        if (option.is_given && !option.is_repeatable && !option.type.empty()) {
            throw wrong(std::string(option.name) + " is given more than once");
        }
        option.is_given = true;
        if (option.is_answer) {
            answer_ = &option;
            return;
        }
        if (const std::string problem = option.take(value); !problem.empty()) {
            throw wrong(std::string(option.name) + ": " + problem);
        }
    }

    /** Checks that need the whole line. */
    void check() {
        if (command_->below == Command::Below::required) {
            throw wrong("a command is required");
        }
        for (auto* options : {&command_->words, &command_->options}) {
            for (Option& option : *options) {
                take_environment(option);
                if (option.is_required && !option.is_given) {
                    throw wrong(std::string(option.name) + " is required");
                }
            }
        }
        for (const Option& option : command_->options) {
            check_company(option);
        }
    }

    void take_environment(Option& option) {
        const char* value = option.environment != nullptr ? std::getenv(option.environment) : nullptr;
        if (value != nullptr && *value != '\0' && !option.is_given) {
            store(option, value);
        }
    }

    void check_company(const Option& option) const {
        if (!option.is_given) {
            return;
        }
        for (const Option* other : option.needs) {
            if (!other->is_given) {
                throw wrong(std::string(option.name) + " requires " + std::string(other->name));
            }
        }
        for (const Option* other : option.excludes) {
            if (other->is_given) {
                throw wrong(std::string(option.name) + " cannot be combined with " + std::string(other->name));
            }
        }
    }

    Command* command_;
    std::span<char* const> words_;
    size_t next_ = 0;
    size_t taken_words_ = 0;
    const Option* answer_ = nullptr;
    bool only_words_ = false;
};

} // namespace

Command& Command::add(std::string_view command_name, std::string_view command_summary) {
    Command& command = commands.emplace_back();
    command.name = command_name;
    command.summary = command_summary;
    command.parent = this;
    below = below == Below::none ? Below::required : below;
    return command;
}

std::string Command::path() const {
    return (parent == nullptr ? "" : parent->path() + " ") + std::string(name);
}

std::string Command::help() const {
    std::string text = std::string(summary) + "\n" + usage_line(*this);
    text += words.empty() ? "" : "\nArguments:\n";
    for (const Option& word : words) {
        text += help_line(left_column(word), word.help);
    }
    text += "\nOptions:\n";
    for (const Command* command = this; command != nullptr; command = command->parent) {
        for (const Option& option : command->options) {
            text += is_taken(option, *command, *this) ? help_line(left_column(option), option.help) : "";
        }
    }
    text += commands.empty() ? "" : "\nCommands:\n";
    for (const Command& command : commands) {
        text += help_line(std::string(command.name), command.summary);
    }
    return text;
}

CommandLine read_command_line(Command& root, std::span<char* const> words) {
    Reader reader(root, words);
    try {
        const Option* answer = reader.read();
        return {reader.command(), answer};
    } catch (const Failure&) {
        const auto asks = [](std::string_view word) { return word == "--help" || word == "-h"; };
        if (std::ranges::none_of(words, asks)) {
            throw;
        }
        return {reader.command(), &*std::ranges::find(root.options, "--help", &Option::name)};
    }
}

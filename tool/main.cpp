// SPDX-License-Identifier: Apache-2.0
/** tessera: dispatches to the verbs and reports any error in one sentence. */
#include "verbs/verb.h"

#include <algorithm>
#include <csignal>
#include <span>
#include <string_view>
#include <utility>

namespace {

constexpr Verb verbs[] = {
    {"install", "Install a package into the update slot", declare_install},
    {"verify", "Check whether this board would accept a package; change nothing", declare_verify},
    {"pack", "Build a package from a description and images", declare_pack},
    {"package", "List, search, check or unpack a package", declare_package},
    {"confirm", "Mark the running slot as good", declare_confirm},
    {"rollback", "Boot the other slot next, if it is known to be good", declare_rollback},
    {"slots", "Show or change the A/B slots", declare_slots},
    {"status", "Show or change the stored update status", declare_status},
    {"board", "Show this board's properties, or check what it must supply", declare_board},
    {"partitions", "List the partitions", declare_partitions},
    {"digest", "Print the digest of a file or partition", declare_digest},
    {"compare", "Check whether two partitions hold the same bytes", declare_compare},
    {"version", "Compare versions, or read one from a file", declare_version},
    {"firmware", "Show the anti-rollback versions in a firmware image", declare_firmware, "versions"},
    {"efuse", "Show or raise the anti-rollback counters", declare_efuse},
    {"flashcmd", "Write a prepared flash command", declare_flashcmd},
};

constexpr char exit_table[] =
    "Exit status: 0 success; 1 failed, or not possible in this state; 2 usage error; 3 package refused;\n"
    "4 device failure; 130 interrupted";

/** An option that only prints something, such as --help. */
Option& add_answer(Command& root, char letter, std::string_view name, std::string_view help) {
    Option& option = root.options.emplace_back();
    option.letter = letter;
    option.name = name;
    option.help = help;
    option.is_answer = true;
    return option;
}

void declare_all(Command& root, Context& context) {
    root.name = "tessera";
    root.summary = "Update the A/B slots of an embedded board; show and repair the records that updates rely on";
    add_answer(root, 'h', "--help", "Print this help and exit");
    add_answer(root, '\0', "--version", "Print the version and exit").is_own = true;
    add_flag(root, "--json", context.json, "Print results and errors as JSON");
    add_flag(root, "-v,--verbose", context.verbose, "Print the library's log lines to stderr");
    for (const Verb& verb : verbs) {
        Command& command = root.add(verb.name, verb.summary);
        command.old_name = verb.old_name;
        command.declare = [&](Command& named) { verb.declare(named, context); };
    }
}

/** Whether an invalid command line requests JSON: its error then has to be JSON too. */
bool asks_for_json(std::span<char*> words) {
    std::string_view before;
    return std::any_of(words.begin(), words.end(), [&](std::string_view word) {
        const bool asks_for_progress = std::exchange(before, word) == "--progress" && word == "json";
        return asks_for_progress || word == "--json" || word == "--progress=json";
    });
}

/** Parses the command line and runs the verb. */
void run(Command& root, Context& context, std::span<char*> words) {
    try {
        const CommandLine line = read_command_line(root, words);
        if (line.answer != nullptr) {
            const bool is_help = line.answer->name == "--help";
            console::print(is_help ? line.command.help() + "\n" + exit_table : "tessera " TESSERA_VERSION);
            return;
        }
        line.command.action();
    } catch (const Failure&) {
        if (asks_for_json(words)) {
            console::speak_json();
        }
        throw;
    }
    if (context.json) {
        console::speak_json();
    }
    if (context.verbose) {
        console::be_verbose();
    }
    context.run();
}

ExitCode guarded_run(Context& context, int argc, char** argv) {
    try {
        Command root;
        declare_all(root, context);
        run(root, context, {argv + 1, static_cast<size_t>(std::max(argc, 1) - 1)});
        return ExitCode::ok;
    } catch (const Failure& failure) {
        console::report(failure);
        return failure.code;
    } catch (const std::bad_alloc&) {
        console::report(Failure(ExitCode::failed, "out of memory"));
    } catch (const std::exception& error) {
        console::report(Failure(ExitCode::failed, error.what()));
    }
    return ExitCode::failed;
}

} // namespace

int main(int argc, char** argv) {
    /* A closed pipe must not end an update half-way. */
    (void)std::signal(SIGPIPE, SIG_IGN);
    console::open();
    Context context;
    ExitCode code = guarded_run(context, argc, argv);
    if (!console::close() && code == ExitCode::ok) {
        code = ExitCode::failed;
        console::report(Failure(code, "cannot write the results", "", context.state));
    }
    return static_cast<int>(code);
}

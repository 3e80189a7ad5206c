/** tessera: dispatches to the verbs and turns whatever goes wrong into one plain sentence. */
#include "verb.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <csignal>
#include <span>
#include <sstream>
#include <string_view>
#include <utility>

namespace {

constexpr Verb verbs[] = {
    {"install", "Install a package into the update slot", declare_install},
    {"verify", "Check a package: its origin, its images, and that it lowers no version", declare_verify},
    {"pack", "Make a package out of a description and images", declare_pack},
    {"package", "List, search, check or unpack a package", declare_package},
    {"confirm", "Mark the running slot as good", declare_confirm},
    {"rollback", "Boot the other slot next, if it is known to be good", declare_rollback},
    {"slots", "Show or change the A/B slots", declare_slots},
    {"status", "Show or change the stored update status", declare_status},
    {"board", "Show what this board is, or check what it must supply", declare_board},
    {"partitions", "List the partitions", declare_partitions},
    {"digest", "Digest a file or partition", declare_digest},
    {"compare", "Tell whether two partitions hold the same bytes", declare_compare},
    {"version", "Compare versions, or read one from a file", declare_version},
    {"versions", "Show the anti-rollback versions in an image", declare_versions},
    {"efuse", "Show or raise the anti-rollback counters", declare_efuse},
    {"flashcmd", "Write a prepared flash command", declare_flashcmd},
};

constexpr char exit_table[] = "Exit status: 0 done; 1 refused or failed, or another command is at work; 2 usage;\n"
                              "3 the package is refused; 4 a device failed; 130 interrupted";

void add_common_options(CLI::App& app, Context& context) {
    app.add_flag("--json", context.json, "Print results and errors as JSON");
    app.add_flag("-v,--verbose", context.verbose, "Let the library's log lines through to stderr");
}

void declare_all(CLI::App& app, Context& context) {
    app.name("tessera");
    app.footer(exit_table);
    app.require_subcommand(1);
    app.set_version_flag("--version", "tessera " TESSERA_VERSION);
    add_common_options(app, context);
    for (const Verb& verb : verbs) {
        CLI::App* command = app.add_subcommand(verb.name, verb.summary);
        add_common_options(*command, context);
        verb.declare(*command, context);
    }
}

/** A sentence of the parser in the manner of the command: lower case, no full stop. */
std::string in_our_manner(std::string sentence) {
    while (!sentence.empty() && (sentence.back() == '.' || sentence.back() == '\n')) {
        sentence.pop_back();
    }
    const auto second = static_cast<unsigned char>(sentence.size() > 1 ? sentence[1] : 'A');
    const bool is_word = std::isupper(second) == 0 && std::isdigit(second) == 0;
    if (is_word) {
        sentence[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(sentence[0])));
    }
    return sentence;
}

/** For a command line that makes no sense: its error is to be read by whoever would have read the rest. */
bool asks_for_json(std::span<char*> words) {
    std::string_view before;
    return std::any_of(words.begin(), words.end(), [&](std::string_view word) {
        const bool asks_for_progress = std::exchange(before, word) == "--progress" && word == "json";
        return asks_for_progress || word == "--json" || word == "--progress=json";
    });
}

std::string usage_hint(const CLI::App& app) {
    const auto chosen = app.get_subcommands();
    return chosen.empty() ? "tessera --help" : "tessera " + chosen.front()->get_name() + " --help";
}

/** The parser misses a subcommand where it found an unknown word, and does not name the word. */
std::string sentence_for(const CLI::App& app, const CLI::ParseError& error) {
    const auto chosen = app.get_subcommands();
    const auto unknown = chosen.empty() ? app.remaining() : chosen.front()->remaining();
    const bool is_missing = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
    if (is_missing && !unknown.empty()) {
        return (unknown.front().starts_with('-') ? "there is no option " : "there is no command ") + unknown.front();
    }
    return in_our_manner(error.what());
}

/** Parses the command line and does what it says. */
void run(CLI::App& app, Context& context, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) { /* --help, --version */
        std::ostringstream text;
        app.exit(asked, text, text);
        console::print(text.str());
        return;
    } catch (const CLI::ParseError& error) {
        if (asks_for_json({argv, static_cast<size_t>(argc)})) {
            console::speak_json();
        }
        throw Failure(ExitCode::usage, sentence_for(app, error), usage_hint(app));
    }
    if (context.json) {
        console::speak_json();
    }
    if (context.verbose) {
        console::be_verbose();
    }
    context.run();
}

ExitCode guarded_run(int argc, char** argv) {
    Context context;
    try {
        CLI::App app("Updates an embedded board over its A/B slots, and shows and mends what an update relies on");
        declare_all(app, context);
        run(app, context, argc, argv);
        return ExitCode::ok;
    } catch (const Failure& failure) {
        console::report(failure);
        return failure.code;
    } catch (const std::bad_alloc&) {
        console::report(Failure(ExitCode::failed, "out of memory"));
    } catch (const std::exception& error) {
        console::report(Failure(ExitCode::failed, in_our_manner(error.what())));
    }
    return ExitCode::failed;
}

} // namespace

int main(int argc, char** argv) {
    /* A reader that goes away must not end an update half-way. */
    (void)std::signal(SIGPIPE, SIG_IGN);
    console::open();
    ExitCode code = guarded_run(argc, argv);
    if (!console::close() && code == ExitCode::ok) {
        code = ExitCode::failed;
        console::report(Failure(code, "cannot write the results"));
    }
    return static_cast<int>(code);
}

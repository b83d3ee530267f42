#include "CommandLine.h"

#include <cstdio>
#include <iostream>
#include <string>

#include "QuotedText.h"

namespace {

// The deepest subcommand the words chose.
const CLI::App* DeepestChosen(const CLI::App& app) {
    const CLI::App* at = &app;
    for (;;) {
        const std::vector<const CLI::App*> chosen = at->get_subcommands({});
        const CLI::App* next = nullptr;
        for (const CLI::App* sub : chosen) {
            if (sub->parsed()) next = sub;
        }
        if (next == nullptr) return at;
        at = next;
    }
}

std::string FullName(const CLI::App& app) {
    std::string name = app.get_name();
    for (const CLI::App* parent = app.get_parent(); parent != nullptr;
         parent = parent->get_parent()) {
        if (parent->get_parent() != nullptr) name = parent->get_name() + " " + name;
    }
    return name;
}

// "unknown command 'x'; ..." when `at` wants a subcommand and the first word left is none.
std::string UnknownCommand(const CLI::App& at, const std::vector<std::string>& words,
                           bool commandMissing) {
    const std::vector<const CLI::App*> subs = at.get_subcommands({});
    if (subs.empty()) return {};
    std::string word, option;
    for (const std::string& w : words) {
        if (!w.empty() && w[0] == '-' && option.empty()) option = w;
        if (!w.empty() && w[0] != '-') {
            word = w;
            break;
        }
    }
    std::string names;
    for (const CLI::App* sub : subs) {
        if (!names.empty()) names += ", ";
        names += sub->get_name();
    }
    const std::string where = at.get_parent() == nullptr ? "" : " of '" + FullName(at) + "'";
    if (word.empty()) {
        if (!commandMissing || at.get_require_subcommand_min() == 0) return {};
        const std::string who = at.get_parent() == nullptr ? "a command is needed"
                                                           : "'" + FullName(at) + "' needs a command";
        // An option nobody knows is the first thing to say, not hidden behind the command.
        const std::string unknown =
            option.empty() ? "" : "unknown option " + QuotedText(option) + "; ";
        return unknown + who + ": " + names;
    }
    return "unknown command " + QuotedText(word) + where + "; the commands" + where + " are " +
           names;
}

}  // namespace

std::optional<int> ParseCommandLine(CLI::App& app, int argc, const char* const* argv) {
    const std::string program = app.get_name();
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            // --help or --version: printed on standard output, which must take it.
            app.exit(e);
            std::cout.flush();
            if (!std::cout || std::fflush(stdout) != 0 || std::ferror(stdout)) {
                std::fprintf(stderr, "%s: cannot write standard output\n", program.c_str());
                return 1;
            }
            return 0;
        }
        const CLI::App* at = DeepestChosen(app);
        const bool missing = dynamic_cast<const CLI::RequiredError*>(&e) != nullptr;
        std::vector<std::string> words = at->remaining();
        if (words.empty()) words = app.remaining(true);
        std::string message = UnknownCommand(*at, words, missing);
        if (message.empty()) {
            message = EscapedText(e.what(), 200) + " (see " + program + " --help)";
        }
        std::fprintf(stderr, "%s: %s\n", program.c_str(), message.c_str());
        return 2;
    }
}

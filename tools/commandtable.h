// The tool's own description of itself: every subcommand with its arguments, options and (for the
// two shells) the commands it reads from standard input, and the exit statuses. The option parser,
// every --help text, the manual page and the bash completion are all made from these tables, so
// that none of them can say something the others do not.
//
// Plain constant data and functions on it: no state, no threads.
#ifndef TARN_TOOLS_COMMANDTABLE_H
#define TARN_TOOLS_COMMANDTABLE_H

#include <string>
#include <vector>

namespace tarncli {

struct OptionEntry {
    const char* name;       // with its dashes: "--count"
    char shortName;         // 'c' for -c, or 0 for none
    const char* valueName;  // "N" for an option that takes a value, nullptr for a flag
    const char* help;       // lines separated by '\n'
    const char* choices;    // the values it takes, blank-separated, for completion; nullptr: any
};

// One command of an interactive shell (tarn serve, tarn connect).
struct ShellCommandEntry {
    const char* usage;  // "set NAME VALUE"
    const char* help;   // one line
};

struct CommandEntry {
    const char* name;                      // "sub"
    const char* arguments;                 // "HOST PORT NAME...", "" for none
    const char* summary;                   // one line, for the list of commands
    const char* description;               // paragraphs separated by a blank line
    std::vector<OptionEntry> options;      // its own, in the order --help shows them
    std::vector<ShellCommandEntry> shell;  // what it reads from standard input, if anything
    const char* shellNotes;                // a paragraph after the shell commands, or nullptr
};

struct ExitStatusEntry {
    int status;
    const char* label;    // two words at most: "unknown host"
    const char* meaning;  // lines separated by '\n'
};

// Every subcommand, in the order the usage lists them.
const std::vector<CommandEntry>& commandTable();
// Null when there is no such subcommand.
const CommandEntry* findCommand(const std::string& name);
// The options every subcommand takes besides its own: --help, --version, --log-level.
const std::vector<OptionEntry>& commonOptions();
// A command's own options followed by the common ones.
std::vector<OptionEntry> allOptions(const CommandEntry& command);
const std::vector<ExitStatusEntry>& exitStatuses();

// "demo, serve, connect, call, sub, impair, version": every subcommand name.
std::string commandNames(const char* separator);

// The words and paragraphs shared by the help texts and the manual page.
extern const char kToolSummary[];      // one line: what tarn is
extern const char kTargetText[];       // how HOST and PORT may be written
extern const char kValueText[];        // the value syntax
extern const char kJsonErrorText[];    // where --json puts errors and help
extern const char kEnvironmentText[];  // TARN_LOG_LEVEL

// "-c, --count N", "    --tcp": the option as --help shows it in its first column.
std::string optionLabel(const OptionEntry& option);

// The full --help text of a subcommand, and of the tool itself (`tarn --help`).
std::string commandHelp(const CommandEntry& command);
std::string toolHelp();
// "sub NAME | unsub NAME | ...": the shell's commands on one line, for an unknown command.
std::string shellCommandList(const CommandEntry& command);
// The shell's commands as a help block, as its `help` command prints them.
std::string shellHelp(const CommandEntry& command);

}  // namespace tarncli

#endif  // TARN_TOOLS_COMMANDTABLE_H

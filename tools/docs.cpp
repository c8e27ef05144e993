#include "docs.h"

#include <cstring>

#include "commandtable.h"

namespace tarncli {

namespace {

// Text for roff: backslashes and dashes escaped, and a line that would begin with a control
// character ('.' or '\'') kept as text.
std::string roff(const std::string& text) {
    std::string out;
    bool lineStart = true;
    for (const char c : text) {
        if (lineStart && (c == '.' || c == '\'')) {
            out += "\\&";
        }
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else {
            out += c;
        }
        lineStart = c == '\n';
    }
    return out;
}

// Paragraphs separated by a blank line become .PP paragraphs.
std::string paragraphs(const char* text) {
    std::string out;
    std::string rest = text;
    for (;;) {
        const std::size_t gap = rest.find("\n\n");
        out += roff(rest.substr(0, gap)) + "\n";
        if (gap == std::string::npos) {
            return out;
        }
        out += ".PP\n";
        rest = rest.substr(gap + 2);
    }
}

std::string optionItem(const OptionEntry& option) {
    std::string label = "\\fB";
    if (option.shortName) {
        label += roff(std::string("-") + option.shortName) + "\\fR, \\fB";
    }
    label += roff(option.name) + "\\fR";
    if (option.valueName) {
        label += " \\fI" + roff(option.valueName) + "\\fR";
    }
    return ".TP\n" + label + "\n" + roff(option.help) + "\n";
}

std::string synopsis(const CommandEntry& command) {
    std::string line = ".B tarn " + roff(command.name) + "\n[\\fIOPTIONS\\fR]";
    if (*command.arguments) {
        line += " \\fI" + roff(command.arguments) + "\\fR";
    }
    return line + "\n";
}

std::string commandSection(const CommandEntry& command) {
    std::string out = ".SS \"tarn " + roff(command.name) + "\"\n";
    out += paragraphs(command.description);
    if (std::strstr(command.arguments, "HOST PORT")) {
        out += ".PP\n" + roff(kTargetText) + "\n";
    }
    for (const OptionEntry& option : command.options) {
        out += optionItem(option);
    }
    if (!command.shell.empty()) {
        out += ".PP\nCommands, one per line on standard input:\n";
        for (const ShellCommandEntry& line : command.shell) {
            out += ".TP\n\\fB" + roff(line.usage) + "\\fR\n" + roff(line.help) + "\n";
        }
        if (command.shellNotes) {
            out += ".PP\n" + roff(command.shellNotes) + "\n";
        }
    }
    return out;
}

// The words of every option of a command, for compgen.
std::string optionWords(const CommandEntry& command) {
    std::string words;
    for (const OptionEntry& option : allOptions(command)) {
        words += (words.empty() ? "" : " ") + std::string(option.name);
        if (option.shortName) {
            words += std::string(" -") + option.shortName;
        }
    }
    return words;
}

// The case arms that complete the value of an option: its choices, or nothing for a free value.
std::string valueArms(const CommandEntry& command) {
    std::string out;
    for (const OptionEntry& option : allOptions(command)) {
        if (!option.valueName) {
            continue;
        }
        std::string names = option.name;
        if (option.shortName) {
            names += std::string("|-") + option.shortName;
        }
        out += "                " + names + ")\n";
        if (option.choices) {
            out += "                    COMPREPLY=($(compgen -W \"" + std::string(option.choices) +
                   "\" -- \"$cur\"))\n";
        }
        out += "                    return ;;\n";
    }
    return out;
}

std::string commandArm(const CommandEntry& command) {
    std::string out = "        " + std::string(command.name) + ")\n";
    if (std::strcmp(command.name, "help") == 0) {
        out += "            if [[ $COMP_CWORD -eq 2 ]]; then\n";
        out += "                COMPREPLY=($(compgen -W \"" + commandNames(" ") + "\" -- \"$cur\"))\n";
        out += "            fi\n";
        out += "            return ;;\n";
        return out;
    }
    const std::string arms = valueArms(command);
    if (!arms.empty()) {
        out += "            case $prev in\n" + arms + "            esac\n";
    }
    out += "            if [[ $cur == -* ]]; then\n";
    out += "                COMPREPLY=($(compgen -W \"" + optionWords(command) + "\" -- \"$cur\"))\n";
    if (std::strstr(command.arguments, "HOST")) {
        out += "            else\n";
        out += "                COMPREPLY=($(compgen -A hostname -- \"$cur\"))\n";
    }
    out += "            fi\n";
    out += "            ;;\n";
    return out;
}

}  // namespace

std::string manPage() {
    std::string out;
    out += ".\\\" The manual page of tarn, made by tarn_docgen from the tool's command table.\n";
    out += ".TH TARN 1 \"\" \"libtarn\" \"User Commands\"\n";
    out += ".SH NAME\ntarn \\- libtarn's command\\-line tool\n";
    out += ".SH SYNOPSIS\n";
    for (const CommandEntry& command : commandTable()) {
        out += synopsis(command) + ".br\n";
    }
    out += ".SH DESCRIPTION\n" + roff(kToolSummary) + "\n.PP\n" + roff(kTargetText) + "\n.PP\n" +
           roff(kValueText) + "\n";
    out += ".SH COMMANDS\n";
    for (const CommandEntry& command : commandTable()) {
        out += commandSection(command);
    }
    out += ".SH COMMON OPTIONS\nEvery command takes these as well.\n";
    for (const OptionEntry& option : commonOptions()) {
        out += optionItem(option);
    }
    out += ".SH JSON OUTPUT\n" + roff(kJsonErrorText) + "\n";
    out += ".SH EXIT STATUS\n";
    for (const ExitStatusEntry& status : exitStatuses()) {
        out += ".TP\n\\fB" + std::to_string(status.status) + "\\fR\n" + roff(status.meaning) + "\n";
    }
    out += ".SH ENVIRONMENT\n" + roff(kEnvironmentText) + "\n";
    return out;
}

std::string bashCompletion() {
    std::string out;
    out += "# bash completion for tarn, made by tarn_docgen from the tool's command table.\n";
    out += "_tarn() {\n";
    out += "    local cur=${COMP_WORDS[COMP_CWORD]}\n";
    out += "    local prev=${COMP_WORDS[COMP_CWORD-1]}\n";
    out += "    COMPREPLY=()\n";
    out += "    if [[ $COMP_CWORD -eq 1 ]]; then\n";
    out += "        COMPREPLY=($(compgen -W \"" + commandNames(" ") +
           " --help -h --version -V\" -- \"$cur\"))\n";
    out += "        return\n";
    out += "    fi\n";
    out += "    case ${COMP_WORDS[1]} in\n";
    for (const CommandEntry& command : commandTable()) {
        out += commandArm(command);
    }
    out += "    esac\n";
    out += "}\n";
    out += "complete -F _tarn tarn\n";
    return out;
}

}  // namespace tarncli

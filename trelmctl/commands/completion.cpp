// completion.cpp - shell completion. The scripts only call `trelmctl complete`, which knows the commands and
// options and asks the host for its ports, targets and LUNs.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "command_line.h"
#include "commands.h"
#include "luns.h"
#include "ports.h"
#include "targets.h"
#include "text.h"

namespace trelmctl {
namespace {

using Words = std::vector<std::string>;

// The script splits the line itself, because bash splits a WWPN at its colons. If there is no candidate, bash
// completes file names.
constexpr std::string_view kBash = R"sh(_trelmctl() {
    local -a words
    read -ra words <<<"${COMP_LINE:0:COMP_POINT}"
    [[ ${COMP_LINE:0:COMP_POINT} != *[[:blank:]] ]] || words+=("")
    mapfile -t COMPREPLY < <("$1" complete -- "${words[@]:1}" 2>/dev/null)
}
complete -o default -F _trelmctl trelmctl
)sh";
// If zsh loads the file on demand, the file is the body of the function that it defines, so it must call that
// function the first time.
constexpr std::string_view kZsh = R"sh(#compdef trelmctl
_trelmctl() {
    local -a found
    found=(${(f)"$("${words[1]}" complete -- "${(@)words[2,CURRENT]}" 2>/dev/null)"})
    if (( $#found )); then compadd -a found; else _files; fi
}
if [[ ${funcstack[1]} == _trelmctl ]]; then _trelmctl "$@"; else compdef _trelmctl trelmctl; fi
)sh";
constexpr std::string_view kFish = R"sh(function __trelmctl_complete
    set -l words (commandline -opc) (commandline -ct)
    set -l found ($words[1] complete -- $words[2..] 2>/dev/null)
    if set -q found[1]
        printf '%s\n' $found
    else
        __fish_complete_path (commandline -ct)
    end
end
complete -c trelmctl -f -a '(__trelmctl_complete)'
)sh";

// ---- The words before the one to complete ----

struct Line {
    const Command* command = nullptr;
    Words arguments;     // without options and their values
    std::string awaits;  // the option of which the last word is the value; empty: none
    std::vector<OptionName> options = option_names("");
};

Line line_of(const Words& words) {
    Line line;
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.starts_with("-")) {
            const auto option = std::find_if(line.options.begin(), line.options.end(),
                                             [&](const OptionName& name) { return name.name == word; });
            if (option == line.options.end() || !option->takes_value) continue;
            if (i + 2 == words.size()) line.awaits = word;
            ++i;
        } else if (line.command == nullptr) {
            for (const Command& command : commands()) {
                if (command.name == word) line.command = &command;
            }
            if (line.command != nullptr) line.options = option_names(word);
        } else {
            line.arguments.push_back(word);
        }
    }
    return line;
}

// ---- Candidates for the word ----

Words port_names(bool with_virtual) {
    Words names;
    const LoadedHost host;
    for (uint32_t instance = 0; instance < host.port_count(); ++instance) {
        names.push_back(fmt::to_string(instance));
        const trelm::Adapter adapter = open_adapter(host, instance);
        for (const PortState& port : ask_ports(adapter)) {
            if (port.is_virtual() && !with_virtual) continue;
            if (port.is_virtual()) names.push_back(port_label(instance, port.npiv_index));
            if (port.info) names.push_back(field_text(port.info->HbaName));
        }
    }
    return names;
}

Words target_names(const std::string& port) {
    const LoadedHost host;
    const SelectedPort selected = select_port(host, *parse_port(port));
    Words names;
    for (const TRELM_TGT_INFO& target : list_targets(selected.adapter, selected.npiv_index).targets)
        names.push_back(fmt::to_string(number(target.ScsiTgtNum)));
    return names;
}

Words lun_names(const std::string& port, const std::string& target) {
    const LoadedHost host;
    const SelectedPort selected = select_port(host, *parse_port(port));
    Progress progress;
    Words names;
    const auto wanted = static_cast<uint32_t>(parse_number(target, TRELM_MAX_TARGETS - 1).value());
    for (const ListedLun& lun :
         list_luns(selected.adapter, selected.npiv_index, wanted, LunDetail::listed, progress))
        names.push_back(lun_text(lun.lun));
    return names;
}

Words command_names() {
    Words names;
    for (const Command& command : commands()) names.emplace_back(command.name);
    return names;
}

Words values_of(const Command& command, const std::string& option) {
    if (option == "--port") return port_names(false);
    if (option == "--state") return {"online", "link-down", "other", "failed"};
    if (option == "--format" && command.run == run_metrics) return {"openmetrics", "prometheus"};
    if (option == "--format") return {"dot", "svg", "mermaid"};
    return {};
}

Words arguments_of(const Line& line) {
    const std::size_t given = line.arguments.size();
    if (line.command->run == run_help) return command_names();
    if (line.command->run == run_completion) return {"bash", "zsh", "fish"};
    if (static_cast<std::size_t>(line.command->addressee) <= given) return {};
    if (given == 0) return port_names(true);
    if (given == 1) return target_names(line.arguments[0]);
    return lun_names(line.arguments[0], line.arguments[1]);
}

Words candidates(const Words& words) {
    const Line line = line_of(words);
    if (!words.empty() && line.awaits.empty() && words.back().starts_with("-")) {
        Words names;
        for (const OptionName& option : line.options) names.push_back(option.name);
        return names;
    }
    if (line.command == nullptr) return line.awaits.empty() ? command_names() : Words();
    return line.awaits.empty() ? arguments_of(line) : values_of(*line.command, line.awaits);
}

}  // namespace

void run_completion(const Options& options, Output& output) {
    output.print(options.shell == "bash" ? kBash : options.shell == "zsh" ? kZsh : kFish);
}

// A failure to complete a word must print nothing at the prompt.
void run_complete(const Options& options, Output& output) {
    Words found;
    try {
        found = candidates(options.words);
    } catch (const std::exception&) {
        output.end_failed();
    }
    for (const std::string& word : found) {
        if (options.words.empty() || word.starts_with(options.words.back())) output.print(word + "\n");
    }
}

}  // namespace trelmctl

#include "command_line.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>

#include "commands.h"
#include "deadline.h"
#include "files.h"
#include "option_values.h"
#include "requests.h"
#include "terminal.h"
#include "text.h"

namespace trelmctl {
namespace {

constexpr std::size_t kLeastCdb = 6;

// Options and arguments whose text is checked and stored by another function.
template <typename Take>
CLI::Option* add_value(CLI::App& command, const char* name, const char* type, const char* help, Take take) {
    return command.add_option_function<std::string>(name, take, help)->type_name(type);
}

// An empty value is most likely a variable of a script that is not set.
void add_text(CLI::App& command, const char* name, const char* type, const char* help, std::string& text) {
    add_value(command, name, type, help, [name, &text](const std::string& given) {
        if (given.empty()) refuse(name, given, "it is empty");
        text = given;
    });
}

void add_flag(CLI::App& command, const char* name, bool& flag, const char* help) {
    command.add_flag(name, flag, help)->disable_flag_override();
}

void add_addressee(CLI::App& command, Addressee addressee, Options& options) {
    if (addressee >= Addressee::port) {
        add_value(command, "PORT", "",
                  "Instance number, WWPN or host name (vmhba32); PORT/NPIV names a virtual port",
                  [&](const std::string& given) { options.port = port_value(given); })
            ->required();
    }
    if (addressee >= Addressee::target) {
        add_value(command, "TARGET", "", "Target number, as 'trelmctl targets' lists it",
                  [&](const std::string& given) {
                      options.target =
                          static_cast<uint32_t>(number_value("TARGET", given, 0, TRELM_MAX_TARGETS - 1));
                  })
            ->required();
    }
    if (addressee >= Addressee::lun) {
        add_value(
            command, "LUN", "",
            "LUN, as 'trelmctl luns' lists it; the upper half of a LUN of several levels is its extension",
            [&](const std::string& given) { options.lun = number_value("LUN", given, 0, UINT64_MAX); })
            ->required();
    }
}

void add_filter(CLI::App& command, Options& options) {
    add_value(command, "--port", "PORT", "Only this physical port",
              [&](const std::string& given) { options.filter.port = physical_port_value(given); });
    add_value(command, "--state", "STATE", "Only ports in this state: online, link-down, other or failed",
              [&](const std::string& given) { options.filter.state = state_value(given); });
    command.add_option("--driver", options.filter.driver, "Only ports that this driver serves")
        ->type_name("NAME");
}

void add_wide(CLI::App& command, Options& options) {
    add_flag(command, "-w,--wide", options.wide, "Ask each LUN for its name and block size, too");
}

void add_tree_options(CLI::App& command, Options& options) {
    add_filter(command, options);
    add_wide(command, options);
}

void add_topology_options(CLI::App& command, Options& options) {
    add_filter(command, options);
    add_value(command, "--format", "FORMAT", "dot (Graphviz), svg or mermaid",
              [&](const std::string& given) { options.drawing = drawing_value(given); });
}

void add_count(CLI::App& command, Options& options, const char* description) {
    add_value(command, "--count", "N", description, [&](const std::string& given) {
        options.samples = number_value("--count", given, 1, UINT32_MAX);
    });
}

void add_stats_options(CLI::App& command, Options& options) {
    add_value(command, "--watch", "SECONDS",
              "Show rates per second every SECONDS; with --json a document a line",
              [&](const std::string& given) { options.watch = seconds_value("--watch", given); });
    add_count(command, options, "End after N times");
}

void add_top_options(CLI::App& command, Options& options) {
    add_filter(command, options);
    add_value(command, "--every", "SECONDS", "Look every SECONDS (1)",
              [&](const std::string& given) { options.every = seconds_value("--every", given); });
    add_value(command, "--rescan", "SECONDS", "Look for new ports and FCFs every SECONDS (60)",
              [&](const std::string& given) { options.rescan = seconds_value("--rescan", given); });
}

void add_monitor_options(CLI::App& command, Options& options) {
    add_top_options(command, options);
    add_count(command, options, "End after N looks");
}

void add_scsi_options(CLI::App& command, Options& options) {
    command
        .add_option_function<std::vector<std::string>>(
            "CDB",
            [&](const std::vector<std::string>& words) {
                for (const std::string& word : words) append_cdb(options.cdb, word);
            },
            "Command descriptor block: 6 to 16 bytes in hexadecimal")
        ->type_name("");
    add_value(command, "--cdb-file", "FILE", "Take the CDB from FILE; remarks begin with #",
              [&](const std::string& given) { append_cdb_file(options.cdb, given); });
    add_value(command, "--in", "N", "Read N bytes; bytes that the device does not send are zero",
              [&](const std::string& given) {
                  options.data_in = static_cast<uint32_t>(number_value("--in", given, 0, kMostData));
              });
    add_text(command, "--out-file", "FILE", "Write the bytes read to FILE", options.out_file);
    command.add_option("--out", options.data_out, "Send the bytes of FILE (-: standard input)")
        ->type_name("FILE");
    add_flag(command, "--raw", options.raw, "Print the bytes read as they are");
}

void add_inquiry_options(CLI::App& command, Options& options) {
    add_value(command, "--page", "PAGE",
              "Vital product data page: its number in hexadecimal, or an abbreviation (di)",
              [&](const std::string& given) { options.page = page_value(given); });
}

void add_capacity_options(CLI::App& command, Options& options) {
    add_flag(command, "--16", options.sixteen, "Use READ CAPACITY(16) in any case");
}

void add_seconds(CLI::App& command, const char* name, std::chrono::duration<double>& seconds,
                 const char* help) {
    add_value(command, name, "SECONDS", help, [name, &seconds](const std::string& given) {
        seconds = std::chrono::duration<double>(seconds_value(name, given));
    });
}

void add_metrics_options(CLI::App& command, Options& options) {
    metrics::Settings& settings = options.metrics;
    add_value(command, "--format", "FORMAT",
              "openmetrics, or prometheus: the text format that text-file collectors take",
              [&](const std::string& given) { settings.format = metrics_format_value(given); });
    add_text(command, "--output", "FILE", "Replace FILE, for a text-file collector", settings.output);
    add_flag(command, "--luns", settings.sampling.luns, "Ask every LUN, too; takes about five commands each");
    add_seconds(command, "--deadline", settings.sampling.deadline,
                "Go on without ports that do not answer in this time (5)");
    add_text(command, "--listen", "ADDRESS",
             "Serve on ADDRESS:PORT, [IPV6]:PORT, :PORT (loopback) or unix:PATH until interrupted",
             settings.listen);
    add_text(command, "--web-config", "FILE",
             "Users and TLS of --listen, in the format of Prometheus' exporter toolkit", settings.web_config);
    add_seconds(command, "--reload", settings.sampling.reload,
                "Look for new ports and FCFs after this time when serving (300)");
    add_flag(command, "--list", settings.describe, "List the metrics that there are, as a Markdown table");
}

void add_help_options(CLI::App& command, Options& options) {
    command.add_option("COMMAND", options.topic, "The command to explain")->type_name("");
}

void add_completion_options(CLI::App& command, Options& options) {
    add_value(command, "SHELL", "", "bash, zsh or fish", [&](const std::string& given) {
        if (given != "bash" && given != "zsh" && given != "fish") refuse("SHELL", given, "bash, zsh or fish");
        options.shell = given;
    })->required();
}

struct OwnOptions {
    std::string_view command;
    void (*add)(CLI::App& command, Options& options);
};
constexpr std::array kOwnOptions{
    OwnOptions{"list", add_filter},
    OwnOptions{"luns", add_wide},
    OwnOptions{"tree", add_tree_options},
    OwnOptions{"topology", add_topology_options},
    OwnOptions{"stats", add_stats_options},
    OwnOptions{"scsi", add_scsi_options},
    OwnOptions{"inquiry", add_inquiry_options},
    OwnOptions{"capacity", add_capacity_options},
    OwnOptions{"metrics", add_metrics_options},
    OwnOptions{"top", add_top_options},
    OwnOptions{"monitor", add_monitor_options},
    OwnOptions{"help", add_help_options},
    OwnOptions{"completion", add_completion_options},
};

constexpr const char* kFooter =
    "PORT is an instance number, a WWPN or a host name (vmhba32); PORT/NPIV names the port with that NPIV "
    "index.\n"
    "Exit status: 0 done, 1 an operation failed, 2 wrong usage, 3 no FCoE port on this host.\n"
    "On a machine that is no ESXi host: trelm-hostsim run HOST.json -- trelmctl list";

// The parser of the command line with the options that it fills.
struct Parser {
    Parser() {
        app.name("trelmctl");
        app.footer(kFooter);
        app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
        app.add_flag_callback(
               "-V,--version", [] { throw CLI::CallForVersion({}, 0); }, "Show the version of the tool")
            ->disable_flag_override();
        app.require_subcommand(1);
        add_common(app);
        for (const Command& command : commands()) {
            CLI::App* sub = app.add_subcommand(command.name, command.help);
            add_common(*sub);
            add_addressee(*sub, command.addressee, options);
            for (const OwnOptions& own : kOwnOptions) {
                if (own.command == command.name) own.add(*sub, options);
            }
            sub->callback([this, &command] { options.command = &command; });
        }
    }

    void add_common(CLI::App& command) {
        add_flag(command, "--json", options.json, "Print one JSON document");
        add_flag(command, "-v,--verbose", options.verbose,
                 "Show each request to the library on standard error");
        add_value(command, "--timeout", "SECONDS", "Give up when the command takes longer",
                  [this](const std::string& given) { options.timeout = seconds_value("--timeout", given); });
    }

    // Null if there is no such command.
    const CLI::App* find(const std::string& command) const {
        const auto named =
            app.get_subcommands([&](const CLI::App* sub) { return sub->get_name() == command; });
        return named.empty() ? nullptr : named.front();
    }

    Options options;
    CLI::App app{"Shows and tries the FCoE ports of this host and the storage behind them."};
};

void check_metrics(const metrics::Settings& settings) {
    if (settings.listen.empty() && !settings.web_config.empty())
        wrong_usage("--web-config requires --listen");
    if (!settings.listen.empty() && (settings.format || !settings.output.empty()))
        wrong_usage("--listen excludes --format and --output: each client chooses its format");
}

// Checks that concern several options.
void check_together(const Options& options) {
    const bool reads = options.data_in > 0;
    if (options.samples && !options.watch && options.command->run == run_stats)
        wrong_usage("--count requires --watch");
    if (reads && !options.data_out.empty()) wrong_usage("--in and --out exclude each other");
    if (options.raw && !reads) wrong_usage("--raw requires --in");
    if (!options.out_file.empty() && !reads) wrong_usage("--out-file requires --in");
    if (options.json && options.raw) wrong_usage("--raw and --json exclude each other");
    check_metrics(options.metrics);
    const bool runs_on = options.command->run == run_top || options.command->run == run_monitor ||
                         !options.metrics.listen.empty();
    if (options.timeout && runs_on)
        wrong_usage("top, monitor and metrics --listen run until they are ended: they go without --timeout");
    if (options.json && options.command->run == run_metrics)
        wrong_usage("--json is not available for metrics; choose a format with --format");
    if (options.command->run != run_scsi) return;
    if (options.cdb.empty()) wrong_usage("CDB is missing");
    if (options.cdb.size() < kLeastCdb)
        wrong_usage(fmt::format("a command has at least {} bytes", kLeastCdb));
}

// The first missing argument of the command.
std::string missing_argument(const CLI::App& app) {
    const auto commands = app.get_subcommands();
    if (commands.empty()) return "no command was given";
    for (const CLI::Option* option : commands.front()->get_options()) {
        if (option->get_required() && option->count() == 0)
            return fmt::format("{} is missing", option->get_name());
    }
    return "an argument is missing";
}

// Words the errors of the parser.
std::string what_is_wrong(const CLI::App& app, const CLI::ParseError& error) {
    const auto left_over = app.remaining(true);
    if (!left_over.empty()) {
        const bool known = !app.get_subcommands().empty() && !left_over.front().starts_with("-");
        const std::string word = escaped(left_over.front());
        return known ? fmt::format("the argument \"{}\" is one too many", word)
                     : fmt::format("there is no command or option \"{}\"", word);
    }
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) return missing_argument(app);
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
        // The parser gives the name of the option only at the start of its text; a flag has no dashes there.
        const std::string text = error.what();
        const std::string name = escaped(text.substr(0, text.find_first_of(": ")));
        return name.starts_with("-") ? fmt::format("{} requires a value", name)
                                     : fmt::format("--{} takes no value", name);
    }
    return "an option or argument is not valid";
}

void show_text(const char* key, const std::string& text, Output& output) {
    if (output.json()) {
        output.document()[key] = text;
    } else {
        output.print(text);
    }
}

// `before` comes before the name in the usage line.
std::string fitted_help(const CLI::App& app, const std::string& before = "") {
    constexpr std::size_t kColumnOfDescriptions = 30;
    std::istringstream lines(app.help(before));
    std::string out;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t indent = line.starts_with("  ") ? kColumnOfDescriptions : 2;
        out += wrapped(line, Output::width(), indent) + "\n";
    }
    return out;
}

void take_effect(const Options& options) {
    if (options.verbose) show_requests();
    if (options.timeout) set_deadline(*options.timeout, options.json);
}

void run_tool_version(Output& output) {
    output.document()["tool_version"] = TRELMCTL_VERSION;
    if (!output.json()) output.print("trelmctl " TRELMCTL_VERSION "\n");
}

// The words are those of another command line, not options of this one.
std::optional<Options> words_to_complete(int argc, char** argv) {
    static constexpr Command kCommand{"complete", "", Addressee::none, run_complete};
    if (argc < 2 || std::strcmp(argv[1], kCommand.name) != 0) return std::nullopt;
    Options options;
    options.command = &kCommand;
    const int first = argc > 2 && std::strcmp(argv[2], "--") == 0 ? 3 : 2;
    options.words.assign(argv + first, argv + argc);
    return options;
}

}  // namespace

bool asks_for_json(int argc, char** argv) {
    if (words_to_complete(argc, argv)) return false;
    return std::any_of(argv + (argc > 0), argv + argc,
                       [](const char* word) { return std::strcmp(word, "--json") == 0; });
}

Options parse_options(int argc, char** argv, Output& output) {
    if (auto options = words_to_complete(argc, argv)) return *options;
    Parser parser;
    try {
        parser.app.parse(argc, argv);
        check_together(parser.options);
        take_effect(parser.options);
        return parser.options;
    } catch (const CLI::CallForHelp&) {
        const auto chosen = parser.app.get_subcommands();
        show_text(
            "help",
            fitted_help(chosen.empty() ? parser.app : *chosen.front(), chosen.empty() ? "" : "trelmctl"),
            output);
    } catch (const CLI::CallForVersion&) {
        run_tool_version(output);
    } catch (const CLI::ParseError& error) {
        wrong_usage(what_is_wrong(parser.app, error));
    }
    return {};
}

std::string help_text(const std::string& command) {
    const Parser parser;
    if (command.empty()) return fitted_help(parser.app);
    const CLI::App* found = parser.find(command);
    if (found == nullptr) refuse("COMMAND", command, "'trelmctl help' lists the commands");
    return fitted_help(*found, "trelmctl");
}

std::vector<OptionName> option_names(const std::string& command) {
    const Parser parser;
    const CLI::App* found = command.empty() ? &parser.app : parser.find(command);
    std::vector<OptionName> names;
    if (found == nullptr) return names;
    for (const CLI::Option* option : found->get_options()) {
        for (const std::string& name : option->get_lnames())
            names.push_back({"--" + name, option->get_items_expected_max() > 0});
        for (const std::string& name : option->get_snames())
            names.push_back({"-" + name, option->get_items_expected_max() > 0});
    }
    return names;
}

void run_help(const Options& options, Output& output) { show_text("help", help_text(options.topic), output); }

}  // namespace trelmctl

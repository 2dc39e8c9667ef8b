#include "options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <string_view>

#include "commands.h"
#include "text.h"

namespace trelmctl {
namespace {

constexpr double kMostSeconds = 86400;

[[noreturn]] void wrong_usage(std::string what) { throw CommandFailed(usage_failure(std::move(what))); }

// A wrong argument, with what would be right.
[[noreturn]] void refuse(std::string_view what, std::string_view given, std::string_view right) {
    wrong_usage(fmt::format("{} \"{}\" is not valid: {}", what, escaped(given), right));
}

template <typename Number>
Number checked_number(std::string_view what, std::string_view given, uint64_t most) {
    const auto value = parse_number(given, most);
    if (!value)
        refuse(what, given, fmt::format("a number from 0 to {} in decimal, or hexadecimal with 0x", most));
    return static_cast<Number>(*value);
}

void append_hex_word(std::vector<uint8_t>& bytes, const std::string& given) {
    constexpr std::string_view right = "hexadecimal bytes, apart (12 00 ...) or together (1200...)";
    std::string word = given.starts_with("0x") ? given.substr(2) : given;
    if (word.size() == 1) word.insert(0, "0");
    if (word.empty() || word.size() % 2 != 0) refuse("CDB", given, right);
    for (std::size_t i = 0; i < word.size(); i += 2) {
        const auto byte = parse_number("0x" + word.substr(i, 2), UINT8_MAX);
        if (!byte) refuse("CDB", given, right);
        bytes.push_back(static_cast<uint8_t>(*byte));
    }
}

void add_arguments(CLI::App& command, unsigned arguments, Options& options) {
    if (arguments & PORT) {
        command
            .add_option_function<std::string>(
                "PORT",
                [&options](const std::string& given) {
                    const auto port = parse_port(given);
                    if (!port)
                        refuse("PORT", given, "an instance number or a WWPN, then /NPIV for a virtual port");
                    options.port = *port;
                },
                "Instance number or WWPN; PORT/NPIV names the port with that NPIV index")
            ->required()
            ->type_name("");
    }
    if (arguments & TARGET) {
        command
            .add_option_function<std::string>(
                "TARGET",
                [&options](const std::string& given) {
                    options.target = checked_number<uint32_t>("TARGET", given, TRELM_MAX_TARGETS - 1);
                },
                "Target number, as 'trelmctl targets' lists it")
            ->required()
            ->type_name("");
    }
    if (arguments & LUN) {
        command
            .add_option_function<std::string>(
                "LUN",
                [&options](const std::string& given) {
                    options.lun = checked_number<uint64_t>("LUN", given, UINT64_MAX);
                },
                "LUN, as 'trelmctl luns' lists it; the upper half of a LUN of several levels is its "
                "extension")
            ->required()
            ->type_name("");
    }
}

void add_stats_options(CLI::App& command, Options& options) {
    command
        .add_option_function<std::string>(
            "--watch",
            [&options](const std::string& given) {
                char* end = nullptr;
                const double seconds = std::strtod(given.c_str(), &end);
                if (given.empty() || *end != 0 || !(seconds >= 0.01 && seconds <= kMostSeconds))
                    refuse("--watch", given, fmt::format("from 0.01 to {} seconds", kMostSeconds));
                options.watch = seconds;
            },
            "Show rates per second every SECONDS")
        ->type_name("SECONDS");
    command
        .add_option_function<std::string>(
            "--count",
            [&options](const std::string& given) {
                options.samples = checked_number<uint64_t>("--count", given, UINT32_MAX);
                if (options.samples == 0) refuse("--count", given, "at least 1");
            },
            "End after N times")
        ->type_name("N");
}

void add_scsi_options(CLI::App& command, Options& options) {
    command
        .add_option_function<std::vector<std::string>>(
            "CDB",
            [&options](const std::vector<std::string>& words) {
                for (const std::string& word : words) append_hex_word(options.cdb, word);
                if (options.cdb.size() > 16) refuse("CDB", words.back(), "a command has at most 16 bytes");
            },
            "Command descriptor block: up to 16 bytes in hexadecimal")
        ->required()
        ->type_name("");
    command
        .add_option_function<std::string>(
            "--in",
            [&options](const std::string& given) {
                options.data_in = checked_number<uint32_t>("--in", given, kMostData);
            },
            "Read N bytes; bytes that the device does not send are zero")
        ->type_name("N");
    command.add_option("--out", options.data_out, "Send the bytes of FILE (-: standard input)")
        ->type_name("FILE");
    command.add_flag("--raw", options.raw, "Print the bytes read as they are");
}

void add_inquiry_options(CLI::App& command, Options& options) {
    command
        .add_option_function<std::string>(
            "--page",
            [&options](const std::string& given) {
                const bool prefixed = given.starts_with("0x");
                const auto page = parse_number(prefixed ? given : "0x" + given, UINT8_MAX);
                if (!page)
                    refuse("--page", given, "a page number from 00 to ff in hexadecimal; 00 lists the pages");
                options.page = static_cast<uint8_t>(*page);
            },
            "Vital product data page, in hexadecimal")
        ->type_name("HEX");
}

void add_metrics_options(CLI::App& command, metrics::Settings& settings) {
    const auto seconds = [&command](const char* name, std::chrono::duration<double>& value, double least,
                                    const char* help) {
        command
            .add_option_function<std::string>(
                name,
                [name, least, &value](const std::string& given) {
                    char* end = nullptr;
                    const double number = std::strtod(given.c_str(), &end);
                    if (given.empty() || *end != 0 || !(number >= least && number <= kMostSeconds))
                        refuse(name, given, fmt::format("from {} to {} seconds", least, kMostSeconds));
                    value = std::chrono::duration<double>(number);
                },
                help)
            ->type_name("SECONDS");
    };
    command
        .add_option_function<std::string>(
            "--format",
            [&settings](const std::string& given) {
                if (given != "openmetrics" && given != "prometheus")
                    refuse("--format", given, "openmetrics or prometheus");
                settings.format =
                    given == "openmetrics" ? metrics::Format::openmetrics : metrics::Format::prometheus;
            },
            "openmetrics, or prometheus: the text format that text-file collectors take")
        ->type_name("FORMAT");
    command.add_option("--output", settings.output, "Replace FILE, for a text-file collector")
        ->type_name("FILE");
    command.add_flag("--luns", settings.sampling.luns, "Ask every LUN, too; takes three commands each");
    seconds("--deadline", settings.sampling.deadline, 0.01,
            "Go on without ports that do not answer in this time (5)");
    command.add_flag("--list", settings.describe, "List the metrics that there are, as a Markdown table");
}

void add_own_options(CLI::App& command, std::string_view name, Options& options) {
    if (name == "stats") add_stats_options(command, options);
    if (name == "scsi") add_scsi_options(command, options);
    if (name == "inquiry") add_inquiry_options(command, options);
    if (name == "metrics") add_metrics_options(command, options.metrics);
    if (name == "capacity") command.add_flag("--16", options.sixteen, "Use READ CAPACITY(16) in any case");
}

// What no single option can check.
void check_together(const Options& options) {
    const bool reads = options.data_in > 0;
    if (options.samples && !options.watch) wrong_usage("--count requires --watch");
    if (reads && !options.data_out.empty()) wrong_usage("--in and --out exclude each other");
    if (options.raw && !reads) wrong_usage("--raw requires --in");
    if (options.json && options.command != nullptr && options.command->run == run_metrics)
        wrong_usage("metrics are no JSON: --format says in which of their formats they are written");
    if (options.json && options.raw) wrong_usage("--raw and --json exclude each other");
    if (options.json && options.watch && !options.samples)
        wrong_usage("--watch with --json requires --count: a JSON document has an end");
}

void show_text(const char* key, const std::string& text, Output& output) {
    output.json() ? void(output.document()[key] = text) : output.print(text);
}

// The first argument of the command that is missing.
std::string missing_argument(const CLI::App& app) {
    const auto commands = app.get_subcommands();
    if (commands.empty()) return "no command was given";
    for (const CLI::Option* option : commands.front()->get_options()) {
        if (option->get_required() && option->count() == 0)
            return fmt::format("{} is missing", option->get_name());
    }
    return "an argument is missing";
}

// The parser's errors in the tool's own words.
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
        // The option's name is to be had only as the start of the text, without dashes where it is a flag.
        const std::string text = error.what();
        const std::string name = escaped(text.substr(0, text.find_first_of(": ")));
        return name.starts_with("-") ? fmt::format("{} requires a value", name)
                                     : fmt::format("--{} takes no value", name);
    }
    return "an option or argument is not valid";
}

}  // namespace

bool asks_for_json(int argc, char** argv) {
    return std::any_of(argv + (argc > 0), argv + argc,
                       [](const char* word) { return std::strcmp(word, "--json") == 0; });
}

Options parse_options(int argc, char** argv, Output& output) {
    Options options;
    CLI::App app{"Shows and tries the FCoE ports of this host and the storage behind them."};
    app.name("trelmctl");
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.footer(
        "PORT is an instance number or a WWPN; PORT/NPIV names the port with that NPIV index.\n"
        "Exit status: 0 done, 1 an operation failed, 2 wrong usage, 3 no FCoE port on this host.\n"
        "On a machine that is no ESXi host: trelm-hostsim run HOST.json -- trelmctl list");
    app.add_flag_callback(
           "--version", [] { throw CLI::CallForVersion({}, 0); }, "Show the version of the tool")
        ->disable_flag_override();
    app.require_subcommand(1);
    app.add_flag("--json", options.json, "Print one JSON document")->disable_flag_override();
    for (const Command& command : commands()) {
        CLI::App* sub = app.add_subcommand(command.name, command.help);
        sub->add_flag("--json", options.json, "Print one JSON document")->disable_flag_override();
        add_arguments(*sub, command.arguments, options);
        add_own_options(*sub, command.name, options);
        sub->callback([&options, &command] { options.command = &command; });
    }
    try {
        app.parse(argc, argv);
        check_together(options);
        return options;
    } catch (const CLI::CallForHelp&) {
        show_text("help", app.help(), output);
    } catch (const CLI::CallForVersion&) {
        show_text("tool_version", "trelmctl " TRELMCTL_VERSION "\n", output);
    } catch (const CLI::ParseError& error) {
        wrong_usage(what_is_wrong(app, error));
    }
    return {};
}

}  // namespace trelmctl

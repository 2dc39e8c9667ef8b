// metrics_test.cpp - `trelmctl metrics`: its output for a host in both formats, as the tool of Prometheus and
// the parser of its Python client read it.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <map>
#include <regex>
#include <set>

#include "support/programs.h"

namespace {

using namespace trelm::test;
using testing::HasSubstr;
using testing::IsSupersetOf;

const std::string kFolder = source_dir() + "/tests/metrics/";

class Metrics : public Programs {
  protected:
    ProgramResult metrics(const std::string& options,
                          const std::string& host = kFolder + "metrics_host.json") const {
        const std::string tool = binary_dir() + "/bin/trelmctl";
        return execute(Words{kLauncher, "run", host, "--", tool, "metrics"} + words_of(options));
    }
    ProgramResult filter(const std::string& program, const std::string& input) const {
        write("input", input);
        return execute({"/bin/sh", "-c", program + " < " + at("input")});
    }
};

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::set<std::string> matches(const std::string& text, const char* pattern) {
    const std::regex regex(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match)
        found.insert((*match)[1]);
    return found;
}

// A physical port of each native driver, a virtual port, distinct counters, LUNs of which one does not
// answer, and a port whose counters cannot be read.
TEST_F(Metrics, OfAHostMatchTheGoldenText) {
    const ProgramResult outcome = metrics("--luns");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("port 2"));
    const std::regex varying(R"((\ntrelm\w*_duration_seconds(?:\{[^}]*\})?) [^\n]*|(\{version=)[^,]*)");
    const std::string text = std::regex_replace(outcome.out, varying, "$1$2 *");
    if (std::getenv("TRELM_REFRESH_GOLDEN") != nullptr) std::ofstream(kFolder + "metrics.txt") << text;
    EXPECT_EQ(text, text_of(kFolder + "metrics.txt"));
}

TEST_F(Metrics, AreAllInTheTableOfTheDocumentationAndAllOfTheTableIsThere) {
    const std::string table = metrics("--list").out;
    EXPECT_THAT(text_of(source_dir() + "/docs/metrics.md"), HasSubstr("\n\n" + table + "\n"));

    std::map<std::string, std::set<std::string>> listed;
    for (const std::string& row : lines_of(table)) {
        std::smatch cells;
        const std::regex columns(R"re(\| `(\w+)` \| [^|]* \| [^|]* \| ([^|]*) \|.*)re");
        if (std::regex_match(row, cells, columns)) listed[cells[1]] = matches(cells[2], R"((\w+))");
    }
    std::set<std::string> written;
    for (const std::string& line : lines_of(metrics("--luns --format prometheus").out)) {
        if (line.starts_with("#")) continue;
        const std::string name = line.substr(0, line.find_first_of("{ "));
        written.insert(name);
        EXPECT_THAT(listed[name], IsSupersetOf(matches(line, R"re((\w+)=")re"))) << line;
    }
    for (const auto& [name, labels] : listed) EXPECT_TRUE(written.contains(name)) << name;
}

TEST_F(Metrics, PassThePrometheusToolAndAStrictParserInSilence) {
    const ProgramResult checked = filter("promtool check metrics", metrics("--luns --format prometheus").out);
    EXPECT_EQ(checked.status, 0);
    EXPECT_EQ(checked.out, "");
    EXPECT_EQ(checked.errors, "");

    const ProgramResult parsed = filter(
        "/usr/bin/python3 -c 'import sys; from prometheus_client.openmetrics import parser; "
        "print(len(list(parser.text_fd_to_metric_families(sys.stdin))))'",
        metrics("--luns").out);
    EXPECT_EQ(parsed.errors, "");
    EXPECT_EQ(parsed.out, std::to_string(matches(metrics("--list").out, R"(\| `(\w+)`)").size()) + "\n");
}

TEST_F(Metrics, ReplaceAFileWholeAndNothingThatIsNoFile) {
    const std::string lab = source_dir() + "/hostsim/hosts/lab.json";
    write("trelm.prom", "old");
    EXPECT_EQ(metrics("--output " + at("trelm.prom"), lab).status, 0);
    EXPECT_THAT(text_of(at("trelm.prom")), HasSubstr("# TYPE trelm_rx_frames_total counter\n"));
    struct stat file {};
    ASSERT_EQ(stat(at("trelm.prom").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0644u);

    ASSERT_EQ(symlink("trelm.prom", at("link").c_str()), 0);
    EXPECT_EQ(metrics("--output " + at("link"), lab).status, 1);
    EXPECT_TRUE(std::filesystem::is_symlink(at("link")));
    const ProgramResult absent = metrics("--output " + at("absent/file"), lab);
    EXPECT_EQ(absent.status, 1);
    EXPECT_THAT(absent.errors, HasSubstr("writing the metrics"));
    const std::filesystem::directory_iterator left(at(""));
    EXPECT_EQ(std::count_if(begin(left), end(left),
                            [](const auto& entry) {
                                return entry.path().filename().string().starts_with("trelm.prom");
                            }),
              1);
}

// Otherwise the file would keep its old values for ever.
TEST_F(Metrics, SayInTheFileThatTheLibraryCannotBeLoaded) {
    const std::string file = text_of(source_dir() + "/hostsim/hosts/lab.json");
    write("host.json",
          std::regex_replace(
              file, std::regex(R"("adapters":)"),
              R"("faults": [{"operation": "init", "count": "always", "errno": "EIO"}], "adapters":)",
              std::regex_constants::format_first_only));
    write("trelm.prom", "old");
    EXPECT_EQ(metrics("--output " + at("trelm.prom"), at("host.json")).status, 3);
    EXPECT_THAT(text_of(at("trelm.prom")), HasSubstr("\ntrelm_library_loaded 0\n"));
}

}  // namespace

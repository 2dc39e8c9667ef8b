// host_file.cpp - from a text to a model in steps: JSON, fields, agreement between fields. A step runs only
// if the earlier ones found no mistake.
#include "host_file.h"

#include <fmt/format.h>

#include "field_reader.h"
#include "file_text.h"
#include "json_document.h"
#include "mistakes.h"

namespace hostsim {
namespace {

// Calls `visit` with each LUN and the JSON object that describes it.
template <typename Visit>
void for_each_lun(Port& port, const JsonValue& described, const std::string& at, const Visit& visit) {
    for (size_t t = 0; t < port.targets.size(); ++t) {
        Target& target = port.targets[t];
        for (size_t l = 0; l < target.luns.size(); ++l)
            visit(target.luns[l], described.find("targets")->children[t].find("luns")->children[l],
                  fmt::format("{}/targets/{}/luns/{}", at, t, l));
    }
}

template <typename Visit>
void for_each_lun(Model& model, const JsonValue& described, const Visit& visit) {
    for (size_t a = 0; a < model.adapters.size(); ++a) {
        auto& ports = model.adapters[a].ports;
        const JsonValue& adapter = described.find("adapters")->children[a];
        for (size_t p = 0; p < ports.size(); ++p) {
            const JsonValue& port = adapter.find("ports")->children[p];
            const std::string at = fmt::format("/adapters/{}/ports/{}", a, p);
            for_each_lun(ports[p], port, at, visit);
            for (size_t v = 0; v < ports[p].virtual_ports.size(); ++v)
                for_each_lun(ports[p].virtual_ports[v], port.find("virtual_ports")->children[v],
                             fmt::format("{}/virtual_ports/{}", at, v), visit);
        }
    }
}

// Converts capacities to blocks, and directories relative to the host file to absolute ones.
void complete_luns(Model& model, const JsonValue& described, const std::filesystem::path& base,
                   Mistakes& mistakes) {
    for_each_lun(model, described, [&](Lun& lun, const JsonValue& object, const std::string& at) {
        if (!lun.directory.empty())
            lun.directory = std::filesystem::absolute(base / lun.directory).lexically_normal();
        const JsonValue* const capacity = object.find("capacity");
        if (!capacity) return;
        if (lun.block_count % lun.block_size != 0)
            mistakes.add(capacity->begin, at + "/capacity",
                         fmt::format("{} bytes are no whole number of blocks of {} bytes", lun.block_count,
                                     lun.block_size));
        lun.block_count /= lun.block_size;
    });
}

// The place of the value that a JSON pointer names, or of the nearest value above it.
size_t place_of(const JsonValue& root, std::string_view pointer) {
    const JsonValue* value = &root;
    while (!pointer.empty()) {
        pointer.remove_prefix(1);
        const std::string_view token = pointer.substr(0, pointer.find('/'));
        pointer.remove_prefix(token.size());
        const JsonValue* next = value->find(token);
        if (value->kind == JsonValue::Kind::array) next = &value->children[std::stoul(std::string(token))];
        if (!next) break;
        value = next;
    }
    return value->begin;
}

}  // namespace

Model parse_host(std::string_view text, const std::string& name, const std::filesystem::path& directory,
                 std::vector<std::string>* warnings) {
    Mistakes mistakes(name, text);
    const JsonValue document = parse_json(text, mistakes);
    mistakes.raise();
    Model model;
    if (document.kind == JsonValue::Kind::object)
        read_record(host_table(), document, "", &model, text, mistakes);
    else
        mistakes.add(document.begin, "", "a host file is an object {…}");
    mistakes.raise();
    complete_luns(model, document, directory, mistakes);
    mistakes.raise();
    for (const ModelProblem& problem : find_problems(model, Mistakes::kShown + 1)) {
        const size_t place = place_of(document, problem.pointer);
        if (problem.severity == ModelProblem::Severity::error)
            mistakes.add(place, problem.pointer, problem.reason);
        else if (warnings)
            warnings->push_back(mistakes.line(place, problem.pointer, problem.reason));
    }
    mistakes.raise();
    return model;
}

Model read_host_file(const std::filesystem::path& path, std::vector<std::string>* warnings) {
    return parse_host(file_text(path), path.string(), path.parent_path(), warnings);
}

}  // namespace hostsim

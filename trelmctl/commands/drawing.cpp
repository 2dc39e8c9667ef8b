#include "drawing.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "replaced.h"

namespace trelmctl {
namespace {

struct Look {
    std::string_view words;
    std::string_view fill;
    std::string_view line;
};
constexpr std::array kLooks{Look{"good", "#dff0d8", "#3c763d"}, Look{"degraded", "#fcf2cc", "#8a6d3b"},
                            Look{"failed", "#f8d7da", "#a94442"}};

const Look& look(Health health) { return kLooks[static_cast<std::size_t>(health)]; }

std::vector<std::string> lines_of(const TopologyNode& node) {
    std::vector<std::string> lines = node.lines;
    if (!node.state.empty()) lines.push_back(node.state);
    return lines;
}

constexpr std::array<Replacement, 2> kDotEscapes{{{'\\', "\\\\"}, {'"', "\\\""}}};
// Entities of Mermaid begin with '#', so that character is replaced too.
constexpr std::array<Replacement, 4> kMermaidEscapes{
    {{'#', "#35;"}, {'"', "#quot;"}, {'<', "#lt;"}, {'>', "#gt;"}}};

template <typename Escapes>
std::string joined(const TopologyNode& node, std::string_view separator, const Escapes& escapes) {
    std::string out;
    for (const std::string& line : lines_of(node))
        out += fmt::format("{}{}", out.empty() ? "" : separator, replaced(line, escapes));
    return out;
}

std::string dot(const Topology& topology) {
    std::string out =
        "digraph topology {\n    rankdir=LR;\n    node [shape=box, style=filled, fontname=\"sans-serif\"];\n";
    for (std::size_t i = 0; i < topology.nodes().size(); ++i) {
        const TopologyNode& node = topology.nodes()[i];
        out += fmt::format("    n{} [label=\"{}\", fillcolor=\"{}\", color=\"{}\"];\n", i,
                           joined(node, "\\n", kDotEscapes), look(node.health).fill, look(node.health).line);
    }
    for (const TopologyEdge& edge : topology.edges())
        out += fmt::format("    n{} -> n{};\n", edge.from, edge.to);
    return out + "}\n";
}

std::string mermaid(const Topology& topology) {
    std::string out = "graph LR\n";
    for (std::size_t i = 0; i < topology.nodes().size(); ++i) {
        const TopologyNode& node = topology.nodes()[i];
        out += fmt::format("    n{}[\"{}\"]:::{}\n", i, joined(node, "<br/>", kMermaidEscapes),
                           look(node.health).words);
    }
    for (const TopologyEdge& edge : topology.edges())
        out += fmt::format("    n{} --> n{}\n", edge.from, edge.to);
    for (const Look& each : kLooks)
        out += fmt::format("    classDef {} fill:{},stroke:{}\n", each.words, each.fill, each.line);
    return out;
}

// ---- The picture ----

constexpr int kBoxWidth = 190;
constexpr int kLineHeight = 15;
constexpr int kPadding = 8;
constexpr int kGapAcross = 60;
constexpr int kGapDown = 14;
constexpr std::size_t kLayers = static_cast<std::size_t>(Layer::lun) + 1;

struct Box {
    int x = 0, y = 0, height = 0;

    int middle() const { return y + height / 2; }
};

struct Layout {
    std::vector<Box> boxes;
    int width = 0, height = 0;
};

int height_of(const TopologyNode& node) {
    return 2 * kPadding + static_cast<int>(lines_of(node).size()) * kLineHeight;
}

// Lays out a column for each layer that has nodes, centred vertically.
Layout layout_of(const Topology& topology) {
    std::array<int, kLayers> heights{};
    for (const TopologyNode& node : topology.nodes())
        heights[static_cast<std::size_t>(node.layer)] += height_of(node) + kGapDown;
    Layout layout;
    layout.height = *std::max_element(heights.begin(), heights.end()) + kGapDown;
    std::array<Box, kLayers> next{};
    int x = kGapDown;
    for (std::size_t layer = 0; layer < kLayers; ++layer) {
        next[layer] = {x, (layout.height - heights[layer] + kGapDown) / 2, 0};
        if (heights[layer] > 0) x += kBoxWidth + kGapAcross;
    }
    layout.width = x - kGapAcross + kGapDown;
    for (const TopologyNode& node : topology.nodes()) {
        Box& box = next[static_cast<std::size_t>(node.layer)];
        box.height = height_of(node);
        layout.boxes.push_back(box);
        box.y += box.height + kGapDown;
    }
    return layout;
}

std::string drawn_box(const TopologyNode& node, const Box& box) {
    const Look& colours = look(node.health);
    std::string out = fmt::format(
        "<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" rx=\"4\" fill=\"{}\" stroke=\"{}\"/>\n", box.x,
        box.y, kBoxWidth, box.height, colours.fill, colours.line);
    int y = box.y + kPadding + kLineHeight - 4;
    for (const std::string& line : lines_of(node)) {
        out += fmt::format("<text x=\"{}\" y=\"{}\">{}</text>\n", box.x + kPadding, y,
                           replaced(line, kMarkupEscapes));
        y += kLineHeight;
    }
    return out;
}

std::string svg(const Topology& topology) {
    const Layout layout = layout_of(topology);
    std::string out = fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} {1}\" "
        "font-family=\"sans-serif\" font-size=\"11\">\n<rect width=\"{0}\" height=\"{1}\" "
        "fill=\"#ffffff\"/>\n",
        layout.width, layout.height);
    for (const TopologyEdge& edge : topology.edges()) {
        const Box& from = layout.boxes[edge.from];
        const Box& to = layout.boxes[edge.to];
        const int start = from.x + kBoxWidth;
        out += fmt::format("<path d=\"M{} {} C{} {} {} {} {} {}\" fill=\"none\" stroke=\"#777777\"/>\n",
                           start, from.middle(), start + kGapAcross / 2, from.middle(), to.x - kGapAcross / 2,
                           to.middle(), to.x, to.middle());
    }
    for (std::size_t i = 0; i < layout.boxes.size(); ++i)
        out += drawn_box(topology.nodes()[i], layout.boxes[i]);
    return out + "</svg>\n";
}

}  // namespace

std::string_view health_words(Health health) { return look(health).words; }

std::string drawing_of(const Topology& topology, DrawingFormat format) {
    switch (format) {
        case DrawingFormat::svg:
            return svg(topology);
        case DrawingFormat::mermaid:
            return mermaid(topology);
        case DrawingFormat::dot:
            break;
    }
    return dot(topology);
}

}  // namespace trelmctl

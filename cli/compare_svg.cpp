#include "cli/compare_svg.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "cli/format_text.h"

namespace tevrin {

namespace {

// Layout in SVG user units (pixels at 100 %).
constexpr int kMargin = 20;
constexpr int kLabelWidth = 40;  // row labels left of each panel
constexpr int kCellWidth = 46;
constexpr int kPanelGap = 22;
constexpr int kGridTop = 112;
constexpr int kGridHeight = 640;  // rows share this height, within the limits below
constexpr int kMinCellHeight = 3;
constexpr int kMaxCellHeight = 24;
constexpr int kLegendWidth = 190;
constexpr int kBarHeight = 240;

const char* const kColumnWords[kSummaryColumns] = {"attn", "ffn", "norm", "all"};
const char* const kColumnNames[kSummaryColumns] = {"attention", "feed-forward", "norm", "all"};

// Light to dark; the scale runs linearly between these colours, equally spaced.
constexpr std::array<std::array<int, 3>, 5> kRamp = {{
    {255, 247, 188},
    {254, 196, 79},
    {244, 109, 67},
    {178, 24, 43},
    {63, 10, 70},
}};
const char* const kIdenticalColour = "#cfe3f4";
const char* const kEmptyColour = "#d0d0d0";

// Bytes of the well-formed UTF-8 sequence that starts at `at`, or 0.
size_t utf8_length(const std::string& text, size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    const size_t length = lead < 0x80                   ? 1
                          : lead >= 0xc2 && lead < 0xe0 ? 2
                          : lead >= 0xe0 && lead < 0xf0 ? 3
                          : lead >= 0xf0 && lead < 0xf5 ? 4
                                                        : 0;
    if (length == 0 || at + length > text.size()) {
        return 0;
    }
    for (size_t k = 1; k < length; ++k) {
        if ((static_cast<unsigned char>(text[at + k]) & 0xc0) != 0x80) {
            return 0;
        }
    }
    // No overlong forms, no surrogates, nothing beyond U+10FFFF.
    const auto second = static_cast<unsigned char>(length > 1 ? text[at + 1] : 0);
    if ((lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f) ||
        (lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second > 0x8f)) {
        return 0;
    }
    return length;
}

// Text for an XML document: markup characters escaped, control bytes and bytes
// that are not UTF-8 (a file name may hold any) shown as '?'.
std::string xml_text(const std::string& text) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        const size_t length = utf8_length(text, at);
        const char c = text[at];
        if (length > 1) {
            out.append(text, at, length);
        } else if (length == 0 || static_cast<unsigned char>(c) < 0x20) {
            out += '?';
        } else if (c == '&') {
            out += "&amp;";
        } else if (c == '<') {
            out += "&lt;";
        } else if (c == '>') {
            out += "&gt;";
        } else if (c == '"') {
            out += "&quot;";
        } else {
            out += c;
        }
        at += std::max<size_t>(length, 1);
    }
    return out;
}

// The file name of a path, cut to about 30 characters at a character boundary.
std::string base_name(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.size() <= 30) {
        return name;
    }
    size_t cut = 27;
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xc0) == 0x80) {
        --cut;
    }
    return name.substr(0, cut) + "...";
}

std::string ramp_colour(double t) {
    t = std::clamp(t, 0.0, 1.0) * double(kRamp.size() - 1);
    const size_t i = std::min(size_t(t), kRamp.size() - 2);
    const double f = t - double(i);
    int rgb[3];
    for (int k = 0; k < 3; ++k) {
        rgb[k] = int(
            std::lround(kRamp[i][size_t(k)] + f * (kRamp[i + 1][size_t(k)] - kRamp[i][size_t(k)])));
    }
    return text_of("#%02x%02x%02x", rgb[0], rgb[1], rgb[2]);
}

std::string cell_colour(const FigureMean& mean, const LogScale& scale) {
    if (mean.params == 0) {
        return kEmptyColour;
    }
    const double gap = 1.0 - mean.cosine;
    if (gap <= 0.0) {
        return kIdenticalColour;
    }
    return ramp_colour((std::log10(gap) - scale.low) / double(scale.high - scale.low));
}

std::string layer_name(int32_t layer) {
    return layer >= 0 ? std::to_string(layer) : "rest";
}

// Labels every `step` rows, at least 20 px apart, so a tall picture stays calm.
int32_t label_step(int cell_height) {
    for (int32_t step : {1, 2, 5, 10, 20, 50, 100, 200, 500}) {
        if (step * cell_height >= 20) {
            return step;
        }
    }
    return 1000;
}

struct Layout {
    int cell_height = 0;
    int rest_gap = 0;  // extra space above the "rest" row
    int panel_width = kLabelWidth + kSummaryColumns * kCellWidth;
    int width = 0;
    int height = 0;
};

int row_top(const Layout& layout, const Comparison& c, size_t row) {
    const bool rest = c.layers[row].layer < 0;
    return kGridTop + int(row) * layout.cell_height + (rest ? layout.rest_gap : 0);
}

void add_panel(std::string& svg, const Comparison& c, const Layout& layout, const LogScale& scale,
               size_t donor) {
    const int left = kMargin + int(donor) * (layout.panel_width + kPanelGap);
    const int grid_left = left + kLabelWidth;
    svg += text_of(
        "<g class=\"panel\">\n<text x=\"%d\" y=\"%d\" class=\"panel-title\">%zu: %s</text>\n",
        grid_left, kGridTop - 30, donor + 1, xml_text(base_name(c.paths[donor + 1])).c_str());
    for (int32_t col = 0; col < kSummaryColumns; ++col) {
        svg +=
            text_of("<text x=\"%d\" y=\"%d\" class=\"column\">%s</text>\n",
                    grid_left + col * kCellWidth + kCellWidth / 2, kGridTop - 8, kColumnWords[col]);
    }
    const int32_t step = label_step(layout.cell_height);
    for (size_t row = 0; row < c.layers.size(); ++row) {
        const LayerSummary& layer = c.layers[row];
        const int top = row_top(layout, c, row);
        if (layer.layer < 0 || layer.layer % step == 0) {
            svg += text_of("<text x=\"%d\" y=\"%.1f\" class=\"row\">%s</text>\n", grid_left - 5,
                           top + layout.cell_height / 2.0 + 3.5, layer_name(layer.layer).c_str());
        }
        for (int32_t col = 0; col < kSummaryColumns; ++col) {
            const FigureMean& mean = layer.donors[donor][size_t(col)];
            std::string tip = "layer " + layer_name(layer.layer) + ", " + kColumnNames[col];
            tip += mean.params == 0 ? ": no tensor"
                                    : text_of(": 1 - cosine %.3g, cosine %.6f, distance %.4g",
                                              1.0 - mean.cosine, mean.cosine, mean.distance);
            svg += text_of(
                "<rect class=\"cell\" x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" "
                "fill=\"%s\"><title>%s</title></rect>\n",
                grid_left + col * kCellWidth, top, kCellWidth, layout.cell_height,
                cell_colour(mean, scale).c_str(), tip.c_str());
        }
    }
    svg += "</g>\n";
}

void add_legend(std::string& svg, const Layout& layout, const LogScale& scale, size_t donors) {
    const int left = kMargin + int(donors) * (layout.panel_width + kPanelGap) + 10;
    const int top = kGridTop;
    svg +=
        "<g class=\"legend\">\n<defs><linearGradient id=\"ramp\" x1=\"0\" y1=\"1\" x2=\"0\" "
        "y2=\"0\">\n";
    for (size_t i = 0; i < kRamp.size(); ++i) {
        svg += text_of("<stop offset=\"%.2f\" stop-color=\"%s\"/>\n",
                       double(i) / double(kRamp.size() - 1),
                       ramp_colour(double(i) / double(kRamp.size() - 1)).c_str());
    }
    svg += "</linearGradient></defs>\n";
    svg += text_of("<text x=\"%d\" y=\"%d\" class=\"legend-title\">1 - cosine</text>\n", left,
                   top - 30);
    svg += text_of(
        "<text x=\"%d\" y=\"%d\" class=\"note\">log scale, ticks a factor 10 apart</text>\n", left,
        top - 14);
    svg += text_of(
        "<rect x=\"%d\" y=\"%d\" width=\"18\" height=\"%d\" fill=\"url(#ramp)\" "
        "stroke=\"#666\" stroke-width=\"0.5\"/>\n",
        left, top, kBarHeight);
    const int32_t decades = scale.high - scale.low;
    const int32_t tick_step = decades > 8 ? 2 : 1;
    for (int32_t d = scale.low; d <= scale.high; d += tick_step) {
        const double y = top + kBarHeight - double(d - scale.low) / decades * kBarHeight;
        svg += text_of(
            "<line x1=\"%d\" y1=\"%.1f\" x2=\"%d\" y2=\"%.1f\" stroke=\"#333\"/>"
            "<text x=\"%d\" y=\"%.1f\" class=\"tick\">%s</text>\n",
            left + 18, y, left + 23, y, left + 27, y + 4,
            d == 0 ? "1" : text_of("1e%d", d).c_str());
    }
    int y = top + kBarHeight + 24;
    svg += text_of(
        "<text x=\"%d\" y=\"%d\" class=\"note\">below 1e%d: lightest; above %s: "
        "darkest</text>\n",
        left, y, scale.low, scale.high == 0 ? "1" : text_of("1e%d", scale.high).c_str());
    const std::pair<const char*, const char*> swatches[] = {
        {kIdenticalColour, "identical (exactly 0)"}, {kEmptyColour, "no tensor compared"}};
    for (const auto& [colour, words] : swatches) {
        y += 22;
        svg += text_of(
            "<rect x=\"%d\" y=\"%d\" width=\"18\" height=\"14\" fill=\"%s\" stroke=\"#666\" "
            "stroke-width=\"0.5\"/><text x=\"%d\" y=\"%d\" class=\"note\">%s</text>\n",
            left, y - 11, colour, left + 26, y, words);
    }
    y += 34;
    const char* const lines[] = {"Each cell: the mean over the", "group's tensors, weighted by",
                                 "parameters. Darker: further", "from the reference."};
    for (const char* line : lines) {
        svg += text_of("<text x=\"%d\" y=\"%d\" class=\"note\">%s</text>\n", left, y, line);
        y += 15;
    }
    svg += "</g>\n";
}

}  // namespace

LogScale svg_log_scale(const Comparison& c) {
    double smallest = 0.0, largest = 0.0;
    for (const LayerSummary& layer : c.layers) {
        for (const SummaryRow& row : layer.donors) {
            for (const FigureMean& mean : row) {
                const double gap = 1.0 - mean.cosine;
                if (mean.params > 0 && gap > 0.0) {
                    smallest = smallest == 0.0 ? gap : std::min(smallest, gap);
                    largest = std::max(largest, gap);
                }
            }
        }
    }
    LogScale scale;
    if (largest > 0.0) {
        scale.low = std::max(-12, int32_t(std::floor(std::log10(smallest))));
        // 1 - cosine runs up to 2; from 1 on the sources are unrelated, and all of
        // that range takes the darkest colour.
        const int32_t top = std::min(0, int32_t(std::ceil(std::log10(largest))));
        scale.high = std::max(scale.low + 1, top);
    }
    return scale;
}

std::string compare_svg(const Comparison& c) {
    const size_t donors = c.paths.size() - 1;
    Layout layout;
    const int rows = std::max<int>(1, int(c.layers.size()));
    layout.cell_height = std::clamp(kGridHeight / rows, kMinCellHeight, kMaxCellHeight);
    layout.rest_gap = std::max(4, layout.cell_height / 2);
    layout.width = 2 * kMargin + int(donors) * (layout.panel_width + kPanelGap) + kLegendWidth;
    layout.height = std::max(kGridTop + rows * layout.cell_height + layout.rest_gap + 50,
                             kGridTop + kBarHeight + 180);
    const LogScale scale = svg_log_scale(c);

    std::string svg = text_of(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
        "viewBox=\"0 0 %d %d\" font-family=\"sans-serif\">\n",
        layout.width, layout.height, layout.width, layout.height);
    svg +=
        "<style>text{fill:#222}.title{font-size:18px;font-weight:bold}.subtitle{font-size:12px}"
        ".panel-title{font-size:13px;font-weight:bold}.column{font-size:11px;text-anchor:middle}"
        ".row{font-size:10px;text-anchor:end}.tick{font-size:11px}.legend-title{font-size:13px;"
        "font-weight:bold}.note{font-size:11px}.cell{stroke:#fff;stroke-width:0.4}</style>\n";
    svg += "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n";
    svg += text_of(
        "<text x=\"%d\" y=\"30\" class=\"title\">Where the sources differ from the "
        "reference</text>\n",
        kMargin);
    svg += text_of(
        "<text x=\"%d\" y=\"50\" class=\"subtitle\">reference: %s. Layers down, roles "
        "across, one panel per source; colour: 1 - cosine, log scale.</text>\n",
        kMargin, xml_text(base_name(c.paths[0])).c_str());
    for (size_t d = 0; d < donors; ++d) {
        add_panel(svg, c, layout, scale, d);
    }
    add_legend(svg, layout, scale, donors);
    svg += "</svg>\n";
    return svg;
}

}  // namespace tevrin

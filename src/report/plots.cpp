#include "report/plots.h"

#include <cairo-pdf.h>
#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>

#include "util/error_stop.h"
#include "util/logger.h"

namespace krel {

namespace {

struct colour {
    double r, g, b;
};
constexpr colour ink{0.1, 0.1, 0.1};
constexpr colour chrom_dark{0.11, 0.27, 0.53};
constexpr colour chrom_light{0.47, 0.66, 0.87};
constexpr colour accent{0.80, 0.15, 0.12};
constexpr colour geno_colour{0.11, 0.35, 0.70};
constexpr colour other_colour{0.88, 0.45, 0.05};

void set(cairo_t* cr, colour c) { cairo_set_source_rgb(cr, c.r, c.g, c.b); }

// The plotting area in device units and the data range it shows.
struct frame {
    double left, top, width, height;
    double x0, x1, y0, y1;
    // Above ybreak the y axis turns logarithmic in the top part of the
    // frame, so that a few huge -log10 p do not flatten all the others.
    double ybreak = std::numeric_limits<double>::infinity();
    static constexpr double linear_share = 0.75;
    double x(double v) const { return left + (v - x0) / (x1 - x0) * width; }
    double y(double v) const {
        if (!(ybreak < y1)) return top + height - (v - y0) / (y1 - y0) * height;
        if (v <= ybreak) return top + height - (v - y0) / (ybreak - y0) * height * linear_share;
        return top + height * (1.0 - linear_share) * (1.0 - std::log(v / ybreak) / std::log(y1 / ybreak));
    }
};

// The break of the y axis for values up to top: none while the largest
// value is of the order of the threshold.
double y_break(double top, double threshold) {
    const double at = std::ceil(std::max(2.0 * threshold, 20.0) / 5.0) * 5.0;
    return top > 2.5 * at ? at : std::numeric_limits<double>::infinity();
}

enum class align { start, middle, end };

void text(cairo_t* cr, double x, double y, const std::string& s, align h, double size, double angle = 0.0,
          bool bold = false) {
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, size);
    cairo_text_extents_t e;
    cairo_text_extents(cr, s.c_str(), &e);
    const double dx = h == align::start ? 0.0 : h == align::middle ? -e.x_advance / 2 : -e.x_advance;
    cairo_save(cr);
    cairo_translate(cr, x, y);
    cairo_rotate(cr, angle);
    // y is the middle of the capital letters.
    cairo_move_to(cr, dx, size * 0.36);
    cairo_show_text(cr, s.c_str());
    cairo_restore(cr);
}

double text_width(cairo_t* cr, const std::string& s, double size);

// A white patch behind a label that may lie over points or lines.
void backing(cairo_t* cr, double x, double y, double width, double size) {
    cairo_save(cr);
    cairo_set_source_rgba(cr, 1, 1, 1, 0.85);
    cairo_rectangle(cr, x - 4, y - size * 0.75, width + 8, size * 1.5);
    cairo_fill(cr);
    cairo_restore(cr);
}

double text_width(cairo_t* cr, const std::string& s, double size) {
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, size);
    cairo_text_extents_t e;
    cairo_text_extents(cr, s.c_str(), &e);
    return e.x_advance;
}

std::string tick_text(double v, double step) {
    char buf[32];
    const int decimals = step >= 1.0 ? 0 : static_cast<int>(std::ceil(-std::log10(step) - 1e-9));
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

// About n round steps over [lo, hi].
std::vector<double> ticks(double lo, double hi, int n, double& step) {
    const double raw = (hi - lo) / std::max(n, 1);
    const double mag = std::pow(10.0, std::floor(std::log10(raw)));
    const double f = raw / mag;
    step = (f < 1.5 ? 1.0 : f < 3.5 ? 2.0 : f < 7.5 ? 5.0 : 10.0) * mag;
    std::vector<double> out;
    for (double v = std::ceil(lo / step - 1e-9) * step; v <= hi + step * 1e-9; v += step)
        out.push_back(std::abs(v) < step * 1e-9 ? 0.0 : v);
    return out;
}

void title_and_labels(cairo_t* cr, const frame& f, const std::string& title, const std::string& xlabel,
                      const std::string& ylabel) {
    set(cr, ink);
    text(cr, f.left + f.width / 2, f.top / 2, title, align::middle, 20, 0.0, true);
    text(cr, f.left + f.width / 2, f.top + f.height + 52, xlabel, align::middle, 16);
    text(cr, f.left - 62, f.top + f.height / 2, ylabel, align::middle, 16, -M_PI / 2);
}

void box(cairo_t* cr, const frame& f) {
    set(cr, ink);
    cairo_set_line_width(cr, 1.2);
    cairo_rectangle(cr, f.left, f.top, f.width, f.height);
    cairo_stroke(cr);
}

void y_axis(cairo_t* cr, const frame& f) {
    double step = 1.0;
    set(cr, ink);
    cairo_set_line_width(cr, 1.0);
    const bool broken = f.ybreak < f.y1;
    std::vector<double> at = ticks(f.y0, broken ? f.ybreak : f.y1, broken ? 6 : 8, step);
    std::vector<std::string> labels;
    for (const double v : at) labels.push_back(tick_text(v, step));
    if (broken) {
        // Powers of ten above the break, and the break itself.
        // Decades far enough apart for their labels.
        const double first = std::ceil(std::log10(f.ybreak * 1.5));
        const double decades = std::log10(f.y1) - first + 1;
        const double room = f.height * (1.0 - frame::linear_share);
        const double every = std::max(1.0, std::ceil(decades * 18.0 / room));
        for (double p = std::pow(10.0, first); p <= f.y1; p *= std::pow(10.0, every)) {
            if (f.y(f.ybreak) - f.y(p) < 16) continue;
            at.push_back(p);
            char buf[32];
            std::snprintf(buf, sizeof buf, p < 1e6 ? "%.0f" : "%.0e", p);
            labels.push_back(buf);
        }
        const double yy = f.y(f.ybreak);
        cairo_save(cr);
        cairo_set_source_rgb(cr, 0.6, 0.6, 0.6);
        const double dash[] = {2.0, 3.0};
        cairo_set_dash(cr, dash, 2, 0);
        cairo_move_to(cr, f.left, yy);
        cairo_line_to(cr, f.left + f.width, yy);
        cairo_stroke(cr);
        cairo_restore(cr);
        text(cr, f.left + 6, yy - 10, "log scale above", align::start, 11);
    }
    for (std::size_t k = 0; k < at.size(); ++k) {
        const double yy = f.y(at[k]);
        cairo_move_to(cr, f.left - 6, yy);
        cairo_line_to(cr, f.left, yy);
        cairo_stroke(cr);
        text(cr, f.left - 10, yy, labels[k], align::end, 13);
    }
}

void x_axis(cairo_t* cr, const frame& f) {
    double step = 1.0;
    set(cr, ink);
    cairo_set_line_width(cr, 1.0);
    for (const double v : ticks(f.x0, f.x1, 8, step)) {
        const double xx = f.x(v);
        cairo_move_to(cr, xx, f.top + f.height);
        cairo_line_to(cr, xx, f.top + f.height + 6);
        cairo_stroke(cr);
        text(cr, xx, f.top + f.height + 20, tick_text(v, step), align::middle, 13);
    }
}

// One mark per cell of `cell` pixels: points that would cover each other
// are drawn once.
class occupancy {
public:
    occupancy(int width, int height, double cell)
        : cell_(cell),
          nx_(static_cast<std::int64_t>(width / cell) + 2),
          ny_(static_cast<std::int64_t>(height / cell) + 2),
          taken_(static_cast<std::size_t>(nx_ * ny_), false) {}
    bool take(double x, double y) {
        const auto i = std::clamp<std::int64_t>(static_cast<std::int64_t>(x / cell_), 0, nx_ - 1);
        const auto j = std::clamp<std::int64_t>(static_cast<std::int64_t>(y / cell_), 0, ny_ - 1);
        auto ref = taken_[static_cast<std::size_t>(j * nx_ + i)];
        if (ref) return false;
        ref = true;
        return true;
    }

private:
    double cell_;
    std::int64_t nx_, ny_;
    std::vector<bool> taken_;
};

void check(cairo_status_t status, const std::string& file) {
    if (status == CAIRO_STATUS_SUCCESS) return;
    global_logger().log_io_error("Cannot write the plot " + file + ": " + cairo_status_to_string(status), "report",
                                 procedure_at("render"));
    throw error_stop();
}

// Draws the same picture into <stem>.png and <stem>.pdf.
void render(const std::string& stem, int width, int height, const std::function<void(cairo_t*)>& draw) {
    {
        cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
        cairo_t* cr = cairo_create(surface);
        draw(cr);
        cairo_destroy(cr);
        const cairo_status_t status = cairo_surface_write_to_png(surface, (stem + ".png").c_str());
        cairo_surface_destroy(surface);
        check(status, stem + ".png");
    }
    {
        cairo_surface_t* surface = cairo_pdf_surface_create((stem + ".pdf").c_str(), width, height);
        cairo_t* cr = cairo_create(surface);
        draw(cr);
        cairo_destroy(cr);
        cairo_surface_finish(surface);
        const cairo_status_t status = cairo_surface_status(surface);
        cairo_surface_destroy(surface);
        check(status, stem + ".pdf");
    }
}

void background(cairo_t* cr) {
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
}

void no_data(cairo_t* cr, const frame& f, const std::string& what) {
    set(cr, ink);
    text(cr, f.left + f.width / 2, f.top + f.height / 2, what, align::middle, 16);
}

}  // namespace

double genomic_inflation(const std::vector<snp_test>& tests) {
    std::vector<double> chi2;
    for (const snp_test& s : tests)
        if (s.informative && std::isfinite(s.z)) chi2.push_back(s.z * s.z);
    if (chi2.empty()) return std::numeric_limits<double>::quiet_NaN();
    const std::size_t n = chi2.size(), mid = n / 2;
    std::nth_element(chi2.begin(), chi2.begin() + static_cast<std::ptrdiff_t>(mid), chi2.end());
    double median = chi2[mid];
    if (n % 2 == 0) median = (median + *std::max_element(chi2.begin(), chi2.begin() + static_cast<std::ptrdiff_t>(mid))) / 2;
    // Median of a chi-square with one degree of freedom.
    return median / 0.45493642311957283;
}

void plot_manhattan(const std::string& stem, const std::vector<snp_annotation>& snps,
                    const std::vector<snp_test>& tests, const std::string& title) {
    // Chromosomes in the order of the map, each from its first to its last position.
    std::vector<std::string> order;
    std::map<std::string, std::pair<std::int64_t, std::int64_t>> span;
    std::map<std::string, std::size_t> index;
    const std::size_t n = std::min(snps.size(), tests.size());
    std::vector<std::size_t> chrom_of(n);
    std::int64_t informative = 0;
    double top = 0.0;
    for (std::size_t j = 0; j < n; ++j) {
        const auto [it, added] = span.try_emplace(snps[j].chrom, snps[j].pos, snps[j].pos);
        if (added) {
            index[snps[j].chrom] = order.size();
            order.push_back(snps[j].chrom);
        }
        chrom_of[j] = index[snps[j].chrom];
        it->second.first = std::min(it->second.first, snps[j].pos);
        it->second.second = std::max(it->second.second, snps[j].pos);
        if (tests[j].informative) {
            ++informative;
            top = std::max(top, tests[j].log10_p);
        }
    }
    double total = 0.0;
    for (const auto& c : order) total += static_cast<double>(span[c].second - span[c].first) + 1.0;
    const double gap = std::max(1.0, total * 0.01);
    std::vector<double> offset(order.size());
    double at = 0.0;
    for (std::size_t k = 0; k < order.size(); ++k) {
        const auto& c = order[k];
        offset[k] = at - static_cast<double>(span[c].first);
        at += static_cast<double>(span[c].second - span[c].first) + 1.0 + gap;
    }
    const double threshold = informative > 0 ? -std::log10(0.05 / static_cast<double>(informative)) : 0.0;
    const bool mapped = !(order.size() == 1 && order.front() == "NA");
    frame f{90, 60, manhattan_width - 120.0, manhattan_height - 150.0, -gap / 2, std::max(at - gap / 2, 1.0),
            0.0, std::max({top, threshold, 1.0}) * 1.08};
    f.ybreak = y_break(f.y1, threshold);
    // Room above the highest point on the logarithmic part too.
    if (f.ybreak < f.y1) f.y1 = f.ybreak * std::pow(top / f.ybreak, 1.08);

    render(stem, manhattan_width, manhattan_height, [&](cairo_t* cr) {
        background(cr);
        title_and_labels(cr, f, title, mapped ? "Chromosome" : "SNP number", "-log10(p)");
        y_axis(cr, f);
        if (informative == 0) no_data(cr, f, "No SNP with information");
        // Points above p = 0.01 are many and alike: a coarser grid thins them.
        occupancy fine(manhattan_width, manhattan_height, 1.0), coarse(manhattan_width, manhattan_height, 2.5);
        // One path for each of the two colours.
        for (std::size_t colour_of = 0; colour_of < 2; ++colour_of) {
            set(cr, colour_of == 0 ? chrom_dark : chrom_light);
            cairo_new_path(cr);
            for (std::size_t j = 0; j < n; ++j) {
                if (chrom_of[j] % 2 != colour_of || !tests[j].informative) continue;
                const double px = f.x(offset[chrom_of[j]] + static_cast<double>(snps[j].pos));
                const double py = f.y(tests[j].log10_p);
                if (!(tests[j].log10_p >= 2.0 ? fine : coarse).take(px, py)) continue;
                cairo_new_sub_path(cr);
                cairo_arc(cr, px, py, 2.2, 0, 2 * M_PI);
            }
            cairo_fill(cr);
        }
        // Chromosome names under their middles, left out where they would collide.
        set(cr, ink);
        double last_end = -1e9;
        for (std::size_t c = 0; c < order.size(); ++c) {
            const auto& name = order[c];
            const double mid = f.x(offset[c] + (span[name].first + span[name].second) / 2.0);
            const double w = text_width(cr, name, 13);
            if (!mapped) break;
            if (mid - w / 2 < last_end + 6) continue;
            text(cr, mid, f.top + f.height + 20, name, align::middle, 13);
            last_end = mid + w / 2;
        }
        if (!mapped) x_axis(cr, f);
        if (informative > 0) {
            set(cr, accent);
            cairo_set_line_width(cr, 1.5);
            const double dash[] = {8.0, 5.0};
            cairo_set_dash(cr, dash, 2, 0);
            cairo_move_to(cr, f.left, f.y(threshold));
            cairo_line_to(cr, f.left + f.width, f.y(threshold));
            cairo_stroke(cr);
            cairo_set_dash(cr, nullptr, 0, 0);
            char label[96];
            std::snprintf(label, sizeof label, "p = 0.05 / %lld SNPs (-log10 p = %.2f)",
                          static_cast<long long>(informative), threshold);
            const double w = text_width(cr, label, 13);
            backing(cr, f.left + f.width - 8 - w, f.y(threshold) - 12, w, 13);
            text(cr, f.left + f.width - 8, f.y(threshold) - 12, label, align::end, 13);
        }
        box(cr, f);
    });
}

void plot_qq(const std::string& stem, const std::vector<snp_test>& tests, double lambda, const std::string& title) {
    std::vector<double> observed;
    for (const snp_test& s : tests)
        if (s.informative) observed.push_back(s.log10_p);
    std::sort(observed.begin(), observed.end(), std::greater<>());
    const auto n = static_cast<double>(observed.size());
    const double emax = observed.empty() ? 1.0 : -std::log10(0.5 / n);
    const double omax = observed.empty() ? 1.0 : std::max(observed.front(), 1.0);
    frame f{90, 60, qq_width - 120.0, qq_height - 150.0, 0.0, emax * 1.05, 0.0, std::max(omax, emax) * 1.05};
    f.ybreak = y_break(f.y1, emax);
    if (f.ybreak < f.y1) f.y1 = f.ybreak * std::pow(omax / f.ybreak, 1.08);

    render(stem, qq_width, qq_height, [&](cairo_t* cr) {
        background(cr);
        title_and_labels(cr, f, title, "Expected -log10(p)", "Observed -log10(p)");
        x_axis(cr, f);
        y_axis(cr, f);
        cairo_save(cr);
        cairo_rectangle(cr, f.left, f.top, f.width, f.height);
        cairo_clip(cr);
        set(cr, accent);
        cairo_set_line_width(cr, 1.2);
        cairo_move_to(cr, f.x(0), f.y(0));
        const double d = std::min(f.x1, f.y1);
        cairo_line_to(cr, f.x(d), f.y(d));
        cairo_stroke(cr);
        cairo_restore(cr);
        if (observed.empty()) no_data(cr, f, "No SNP with information");
        occupancy grid(qq_width, qq_height, 2.0);
        set(cr, chrom_dark);
        cairo_new_path(cr);
        for (std::size_t i = 0; i < observed.size(); ++i) {
            const double e = -std::log10((static_cast<double>(i) + 0.5) / n);
            const double px = f.x(e), py = f.y(observed[i]);
            if (!grid.take(px, py)) continue;
            cairo_new_sub_path(cr);
            cairo_arc(cr, px, py, 2.2, 0, 2 * M_PI);
        }
        cairo_fill(cr);
        char label[64];
        std::snprintf(label, sizeof label, "\u03bb = %.4f", lambda);
        set(cr, ink);
        text(cr, f.left + 16, f.top + 22, label, align::start, 18);
        box(cr, f);
    });
}

void plot_reliability_distribution(const std::string& stem, const reliability_groups& g, const std::string& title) {
    constexpr int bins = 50;
    struct series {
        const std::vector<double>* values;
        std::string name;
        colour c;
        bool dashed;
        std::vector<double> share;
    };
    // Pedigree reliabilities dashed, genomic solid, in the same curve and legend.
    const auto stroke_style = [](cairo_t* cr, const series& s) {
        set(cr, s.c);
        cairo_set_line_width(cr, 2.0);
        const double dash[] = {7.0, 4.0};
        cairo_set_dash(cr, dash, s.dashed ? 2 : 0, 0);
    };
    std::vector<series> all = {{&g.pedigree_genotyped, "Genotyped, pedigree", geno_colour, true, {}},
                               {&g.genomic_genotyped, "Genotyped, genomic", geno_colour, false, {}},
                               {&g.pedigree_other, "Not genotyped, pedigree", other_colour, true, {}},
                               {&g.genomic_other, "Not genotyped, genomic", other_colour, false, {}}};
    double top = 0.0;
    for (series& s : all) {
        s.share.assign(bins, 0.0);
        std::int64_t n = 0;
        for (const double v : *s.values) {
            if (!std::isfinite(v)) continue;
            // Values outside [0, 1] go to the end classes.
            const int b = std::clamp(static_cast<int>(std::floor(v * bins)), 0, bins - 1);
            s.share[b] += 1.0;
            ++n;
        }
        for (double& x : s.share) x = n > 0 ? 100.0 * x / static_cast<double>(n) : 0.0;
        s.name += " (n = " + std::to_string(n) + ")";
        if (n > 0) top = std::max(top, *std::max_element(s.share.begin(), s.share.end()));
    }
    const frame f{90, 60, distribution_width - 120.0, distribution_height - 150.0, 0.0, 1.0, 0.0,
                  std::max(top, 1.0) * 1.1};
    render(stem, distribution_width, distribution_height, [&](cairo_t* cr) {
        background(cr);
        title_and_labels(cr, f, title, "Reliability", "Animals of the group (%)");
        x_axis(cr, f);
        y_axis(cr, f);
        double legend_w = 0.0;
        int shown = 0;
        for (const series& s : all)
            if (!s.values->empty()) {
                legend_w = std::max(legend_w, text_width(cr, s.name, 14));
                ++shown;
            }
        double legend_y = f.top + 24;
        for (const series& s : all) {
            if (s.values->empty()) continue;
            stroke_style(cr, s);
            cairo_move_to(cr, f.x(0), f.y(0));
            for (int b = 0; b < bins; ++b) {
                cairo_line_to(cr, f.x(static_cast<double>(b) / bins), f.y(s.share[b]));
                cairo_line_to(cr, f.x(static_cast<double>(b + 1) / bins), f.y(s.share[b]));
            }
            cairo_line_to(cr, f.x(1), f.y(0));
            cairo_stroke(cr);
            cairo_set_dash(cr, nullptr, 0, 0);
        }
        if (shown > 0) {
            cairo_set_source_rgba(cr, 1, 1, 1, 0.85);
            cairo_rectangle(cr, f.left + 10, f.top + 10, legend_w + 70, 24.0 * shown + 4);
            cairo_fill(cr);
        }
        for (const series& s : all) {
            if (s.values->empty()) continue;
            stroke_style(cr, s);
            cairo_move_to(cr, f.left + 20, legend_y);
            cairo_line_to(cr, f.left + 60, legend_y);
            cairo_stroke(cr);
            cairo_set_dash(cr, nullptr, 0, 0);
            set(cr, ink);
            text(cr, f.left + 70, legend_y, s.name, align::start, 14);
            legend_y += 24;
        }
        box(cr, f);
    });
}

void plot_reliability_scatter(const std::string& stem, const reliability_groups& g, const std::string& title) {
    constexpr int cells = 100;
    std::vector<std::int64_t> count(cells * cells, 0);
    std::int64_t most = 0;
    const std::size_t n = std::min(g.pedigree_genotyped.size(), g.genomic_genotyped.size());
    for (std::size_t k = 0; k < n; ++k) {
        const double x = g.pedigree_genotyped[k], y = g.genomic_genotyped[k];
        if (!std::isfinite(x) || !std::isfinite(y)) continue;
        const int i = std::clamp(static_cast<int>(std::floor(x * cells)), 0, cells - 1);
        const int j = std::clamp(static_cast<int>(std::floor(y * cells)), 0, cells - 1);
        most = std::max(most, ++count[static_cast<std::size_t>(j * cells + i)]);
    }
    const frame f{90, 60, scatter_width - 200.0, scatter_height - 150.0, 0.0, 1.0, 0.0, 1.0};
    // Light to dark with the logarithm of the count.
    auto ramp = [](double t) { return colour{0.85 - 0.80 * t, 0.90 - 0.65 * t, 0.98 - 0.45 * t}; };
    auto shade = [&](std::int64_t c) {
        return ramp(most > 1 ? std::log(static_cast<double>(c)) / std::log(static_cast<double>(most)) : 1.0);
    };
    render(stem, scatter_width, scatter_height, [&](cairo_t* cr) {
        background(cr);
        title_and_labels(cr, f, title, "Pedigree reliability", "Genomic reliability");
        x_axis(cr, f);
        y_axis(cr, f);
        const double w = f.width / cells, h = f.height / cells;
        for (int j = 0; j < cells; ++j)
            for (int i = 0; i < cells; ++i) {
                const std::int64_t c = count[static_cast<std::size_t>(j * cells + i)];
                if (c == 0) continue;
                set(cr, shade(c));
                cairo_rectangle(cr, f.x(static_cast<double>(i) / cells), f.y(static_cast<double>(j + 1) / cells), w, h);
                cairo_fill(cr);
            }
        set(cr, accent);
        cairo_set_line_width(cr, 1.0);
        const double dash[] = {6.0, 4.0};
        cairo_set_dash(cr, dash, 2, 0);
        cairo_move_to(cr, f.x(0), f.y(0));
        cairo_line_to(cr, f.x(1), f.y(1));
        cairo_stroke(cr);
        cairo_set_dash(cr, nullptr, 0, 0);
        if (most == 0) no_data(cr, f, "No genotyped animal");
        box(cr, f);
        // Colour key: animals per cell.
        const double kx = f.left + f.width + 30, ky = f.top + 30, kh = 200;
        for (int s = 0; s < 100; ++s) {
            set(cr, ramp(s / 99.0));
            cairo_rectangle(cr, kx, ky + kh - (s + 1) * kh / 100, 20, kh / 100 + 0.5);
            cairo_fill(cr);
        }
        set(cr, ink);
        text(cr, kx, ky - 16, "Animals", align::start, 13);
        text(cr, kx + 26, ky + kh - 4, "1", align::start, 12);
        text(cr, kx + 26, ky + 4, std::to_string(std::max<std::int64_t>(most, 1)), align::start, 12);
        text(cr, kx, ky + kh + 20, "(log scale)", align::start, 11);
    });
}

}  // namespace krel

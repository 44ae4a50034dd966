#include "app/command_line.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <fstream>
#include <limits>
#include <ostream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "app/run_header.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"

namespace krel {

namespace {

using namespace std::string_view_literals;

constexpr std::array<option_row, 30> table = {{
    {"--blocks", "", "", false, "-9", "", 1, "",
     "Number of consecutive SNPs considered for building the coefficient matrix of SNPBLUP"},
    {"--gen", "", "", true, "none", "", 1, "", "Name of the genotype file"},
    {"--freq", "", "", true, "none", "", 1, "", "Name of the allele frequency file"},
    {"--beta", "", "", false, "0.05d0", "", 1, "", "Value for beta"},
    {"--ped", "", "", true, "none", "", 1, "", "Name of the pedigree file"},
    {"--pev", "", "", false, "none", "", 1, "--mrel", "Name of the PEV file"},
    {"--mrel", "", "", false, "none", "", 1, "--pev", "Name of the REL file (Tarnelo format)"},
    {"--rvcv", "", "", false, "none", "", 1, "--h2", "Name of the residual (co)variances file"},
    {"--gvcv", "", "", false, "none", "", 1, "", "Name of the genetic (co)variances file"},
    {"--svcv", "", "", false, "none", "", 1, "--h2", "Name of the SNP (co)variances file"},
    {"--h2", "", "", false, "none", "", 1, "--rvcv",
     "Name of the heritability file. Residual variances will be recomputed if genetic "
     "(co)variances are provided."},
    {"--effect", "", "", true, "-1", "", 1, "", "Value for effect"},
    {"--inbfile", "--ifile", "", false, "none", "store", 1, "",
     "Name of the inbreeding coefficient file"},
    {"--noinb", "", "", false, ".true.", "store_false", 0, "",
     "To NOT consider inbreeding for computing ERC, PEV, and REL"},
    {"--noscreen", "", "", false, ".false.", "store_true", 0, "",
     "To not print the output to the screen"},
    {"--verbose", "-vb", "", false, ".false.", "store_true", 0, "",
     "To print additional output (to stdout and files)"},
    {"--save_pec", "--pec", "", false, ".false.", "store_true", 0, "", "To save PEC in a file"},
    {"--scale_snp_var", "--ssv", "", false, ".false.", "store_true", 0, "",
     "To scale SNP variances by (1-beta)"},
    {"--edc-adjust-factor", "--edc-adjf", "krel", false, "1.d0", "", 1, "",
     "EDC adjustment factor for DGV reliabilities"},
    {"--pev-adjust-factor", "--pev-adjf", "krel", false, "1.d0", "", 1, "",
     "PEV adjustment factor for DGV reliabilities"},
    {"--pheno", "", "krel", false, "none", "", 1, "", "Name of the file with phenotyped animals"},
    {"--ref", "", "krel", false, "none", "", 1, "",
     "Name of the file with reference genotyped animals"},
    {"--only-geno", "", "krel", false, ".false.", "store_true", 0, "",
     "To compute REL for genotyped animals only"},
    {"--gwas", "", "", false, "none -1", "store", 2, "",
     "To compute P-values of SNP effects using quorda solution files. value#1 is the name of the "
     "file with SNP effects. value#2 is the ID of the SNP effect in the file value#1."},
    {"--mgwas", "", "", false, "none -1", "store", 2, "--gwas",
     "To compute P-values of SNP effects using Tarnelo solution files. value#1 is the name of the "
     "file with SNP effects. value#2 is the ID of the SNP effect in the file value#1."},
    {"--method", "-m", "krel", false, "mkl", "store", 1, "",
     "Approach to compute the matrix ZRZ. Possile options: mkl, low_mem."},
    {"--save_erc", "--erc", "krel", false, ".false.", "store_true", 0, "", "To save ERC in a file"},
    {"--ungeno_tm", "", "krel", false, ".false.", "store_true", 0, "",
     "To approximate genomic REL for ungenotyped animals by using the Tier and Meyer algorithm"},
    {"--plots", "", "", false, ".false.", "store_true", 0, "",
     "To draw plots of the results (PNG and PDF) into the working directory"},
    {"--groups-as-unknown", "", "krel", false, ".false.", "store_true", 0, "",
     "To treat genetic groups as unknown parents in the exact inverse, as inbreeding and the "
     "Tier and Meyer algorithm do"},
}};

struct group_row {
    std::string_view name;
    std::string_view description;
};
constexpr std::array<group_row, 2> groups = {{
    {"krel", "To approximate genomic reliabilities from pedigree-based reliabilities"},
    {"gwas", "To compute p-values from Pedigree REL (or PEV) and genotypes"},
}};

// CLI11 names a single-dash option by one letter only; such abbreviations
// are turned into the full switch before parsing.
bool cli11_nameable(std::string_view abbreviation) {
    return abbreviation.starts_with("--") || abbreviation.size() == 2;
}

bool rewritten_before_parsing(const option_row& row) {
    return !row.abbreviation.empty() && !cli11_nameable(row.abbreviation);
}

struct markdown_request {};

// The kind of value an option takes, for the help text.
std::string value_name(const option_row& row) {
    if (row.nargs == 2) return "FILE EFFECT";
    if (row.default_value == "none") return "FILE";
    std::int32_t i = 0;
    double r = 0.0;
    if (read_integer_list_directed(row.default_value, i)) return "INT";
    if (read_real_list_directed(row.default_value, r)) return "REAL";
    return "WORD";
}

class table_formatter : public CLI::Formatter {
public:
    std::string make_option_name(const CLI::Option* opt, bool is_positional) const override {
        std::string name = CLI::Formatter::make_option_name(opt, is_positional);
        for (const auto& row : table) {
            if (rewritten_before_parsing(row) && opt->check_lname(std::string(row.switch_name.substr(2))))
                return std::string(row.abbreviation) + "," + name;
        }
        return name;
    }
};

// First item of a list-directed record.

bool parse_logical(std::string_view text, bool& value) {
    std::string t = to_lower(trim(text));
    if (!t.empty() && t[0] == '.') t.erase(0, 1);
    if (t.starts_with("t")) { value = true; return true; }
    if (t.starts_with("f")) { value = false; return true; }
    return false;
}

std::vector<std::string> split_blanks(std::string_view text) {
    std::vector<std::string> out;
    std::istringstream in{std::string(text)};
    std::string word;
    while (in >> word) out.push_back(word);
    return out;
}

}  // namespace

std::span<const option_row> option_table() { return table; }

std::string cut_text_value(std::string_view value) {
    if (value.size() > cla_text_length) value = value.substr(0, cla_text_length);
    const auto e = value.find_last_not_of(' ');
    return e == std::string_view::npos ? std::string() : std::string(value.substr(0, e + 1));
}



bool read_integer_i4(std::string_view text, std::int32_t& value) {
    std::string field(text.substr(0, std::min<std::size_t>(4, text.size())));
    field.erase(std::remove_if(field.begin(), field.end(),
                               [](char c) { return c == ' ' || c == '\t'; }),
                field.end());
    if (field.empty()) {
        value = 0;
        return true;
    }
    std::string_view f = field;
    bool negative = false;
    if (f[0] == '+' || f[0] == '-') {
        negative = f[0] == '-';
        f.remove_prefix(1);
    }
    if (f.empty() || !std::all_of(f.begin(), f.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    std::int32_t v = 0;
    std::from_chars(f.data(), f.data() + f.size(), v);
    value = negative ? -v : v;
    return true;
}

struct command_line::impl {
    std::ostream& unit;
    CLI::App app;
    std::array<CLI::App*, groups.size()> group_apps{};
    std::array<CLI::Option*, table.size()> options{};
    std::vector<std::string> ignored;

    explicit impl(std::ostream& u)
        : unit(u), app(std::string(program_description), to_lower(program_word)) {
        app.formatter(std::make_shared<table_formatter>());
        app.set_help_flag("-h,--help", "Print this help message");
        app.set_version_flag("--version", "krel version " + std::string(program_version),
                             "Print version");
        app.add_flag_callback("--markdown", [] { throw markdown_request{}; },
                              "Save this help message in a Markdown file")
            ->trigger_on_parse();
        app.allow_extras();
        for (std::size_t g = 0; g < groups.size(); ++g) {
            CLI::App* sub =
                app.add_subcommand(std::string(groups[g].name), std::string(groups[g].description));
            sub->fallthrough();
            sub->allow_extras();
            group_apps[g] = sub;
        }
        // No limit on the number of groups: a limit would let CLI11 swallow the
        // second group word as an ignored extra instead of refusing the pair.
        group_apps[0]->excludes(group_apps[1]);
        for (std::size_t k = 0; k < table.size(); ++k) {
            const option_row& row = table[k];
            CLI::App* owner = row.group.empty() ? &app : group_app(row.group);
            std::string name(row.switch_name);
            if (!row.abbreviation.empty() && cli11_nameable(row.abbreviation))
                name = std::string(row.abbreviation) + "," + name;
            CLI::Option* opt = nullptr;
            if (row.nargs == 0) {
                opt = owner->add_flag(name)->description(std::string(row.help));
            } else {
                opt = owner->add_option(name)
                          ->description(std::string(row.help))
                          ->expected(row.nargs)
                          ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
                          ->default_str(std::string(row.default_value));
                opt->type_name(value_name(row));
            }
            if (row.required) opt->required();
            options[k] = opt;
        }
    }

    CLI::App* group_app(std::string_view name) const {
        for (std::size_t g = 0; g < groups.size(); ++g)
            if (groups[g].name == name) return group_apps[g];
        return nullptr;
    }

    // Index of the option read back under `switch_name` (or its
    // abbreviation) in `group`, or -1.
    int find(std::string_view switch_name, std::string_view group) const {
        for (std::size_t k = 0; k < table.size(); ++k) {
            const option_row& row = table[k];
            if (row.group != group) continue;
            if (row.switch_name == switch_name || row.abbreviation == switch_name)
                return static_cast<int>(k);
        }
        return -1;
    }

    bool given(std::size_t k) const { return options[k]->count() > 0; }

    // What CLI11 leaves to the caller: the exact value count of an option
    // that takes several (it accepts fewer at the end of the line), and the
    // one-sided exclusions, reported from the side that declares them.
    void check_after_parse() const {
        for (std::size_t k = 0; k < table.size(); ++k) {
            if (table[k].nargs > 1 && given(k) &&
                options[k]->results().size() != static_cast<std::size_t>(table[k].nargs))
                throw CLI::ArgumentMismatch(std::string(table[k].switch_name), table[k].nargs,
                                            options[k]->results().size());
        }
        for (std::size_t k = 0; k < table.size(); ++k) {
            if (table[k].excludes.empty() || !given(k)) continue;
            const int other = find(table[k].excludes, table[k].group);
            if (other >= 0 && given(static_cast<std::size_t>(other)))
                throw CLI::ExcludesError(std::string(table[k].switch_name),
                                         std::string(table[k].excludes));
        }
    }

    std::vector<std::string> values(std::size_t k) const {
        if (!given(k)) {
            std::vector<std::string> v = split_blanks(table[k].default_value);
            if (v.empty()) v.emplace_back();
            return v;
        }
        return options[k]->results();
    }
};

command_line::command_line(std::ostream& unit) : impl_(std::make_unique<impl>(unit)) {}
command_line::~command_line() = default;

int command_line::parse(const std::vector<std::string>& args) {
    std::vector<std::string> reversed;
    reversed.reserve(args.size());
    for (auto it = args.rbegin(); it != args.rend(); ++it) {
        std::string arg = *it;
        for (const auto& row : table)
            if (rewritten_before_parsing(row) && arg == row.abbreviation)
                arg = std::string(row.switch_name);
        reversed.push_back(std::move(arg));
    }
    CLI::App& app = impl_->app;
    std::ostream& unit = impl_->unit;
    try {
        app.parse(reversed);
        impl_->check_after_parse();
    } catch (const markdown_request&) {
        const std::string file = to_lower(program_word) + ".md";
        std::ofstream out(file, std::ios::out | std::ios::trunc);
        out << markdown();
        unit << (out ? "Help saved in " + file : "Cannot write the file " + file) << '\n';
        unit.flush();
        return out ? parse_served_markdown : parse_error;
    } catch (const CLI::CallForHelp& e) {
        app.exit(e, unit, unit);
        unit.flush();
        return parse_served_help;
    } catch (const CLI::CallForAllHelp& e) {
        app.exit(e, unit, unit);
        unit.flush();
        return parse_served_help;
    } catch (const CLI::CallForVersion& e) {
        app.exit(e, unit, unit);
        unit.flush();
        return parse_served_version;
    } catch (const CLI::ParseError& e) {
        app.exit(e, unit, unit);
        unit.flush();
        return e.get_exit_code() > 0 ? e.get_exit_code() : parse_error;
    }
    impl_->ignored = app.remaining(true);
    return parse_ok;
}

int command_line::get_cla(std::string_view switch_name, std::string& value,
                          std::string_view group) const {
    const int k = impl_->find(switch_name, group);
    if (k < 0) return cla_error_no_such_switch;
    const auto v = impl_->values(static_cast<std::size_t>(k));
    if (v.size() != 1) return cla_error_value_count;
    value = cut_text_value(v.front());
    return 0;
}

int command_line::get_cla(std::string_view switch_name, std::int32_t& value,
                          std::string_view group) const {
    std::string text;
    if (const int err = get_cla(switch_name, text, group); err != 0) return err;
    return read_integer_list_directed(text, value) ? 0 : cla_error_conversion;
}

int command_line::get_cla(std::string_view switch_name, double& value,
                          std::string_view group) const {
    std::string text;
    if (const int err = get_cla(switch_name, text, group); err != 0) return err;
    return read_real_list_directed(text, value) ? 0 : cla_error_conversion;
}

int command_line::get_cla(std::string_view switch_name, bool& value, std::string_view group) const {
    const int k = impl_->find(switch_name, group);
    if (k < 0) return cla_error_no_such_switch;
    const option_row& row = table[static_cast<std::size_t>(k)];
    if (row.nargs == 0 && impl_->given(static_cast<std::size_t>(k))) {
        value = row.action != "store_false";
        return 0;
    }
    const auto v = impl_->values(static_cast<std::size_t>(k));
    if (v.size() != 1) return cla_error_value_count;
    return parse_logical(v.front(), value) ? 0 : cla_error_conversion;
}

int command_line::get_cla_list(std::string_view switch_name, std::vector<std::string>& values,
                               std::string_view group) const {
    const int k = impl_->find(switch_name, group);
    if (k < 0) return cla_error_no_such_switch;
    values.clear();
    for (const auto& v : impl_->values(static_cast<std::size_t>(k)))
        values.push_back(cut_text_value(v));
    return 0;
}

bool command_line::is_called_group(std::string_view group) const {
    const CLI::App* sub = impl_->group_app(group);
    return sub != nullptr && sub->parsed();
}

const std::vector<std::string>& command_line::ignored_arguments() const { return impl_->ignored; }

void check_option_values(const run_options& opts) {
    std::string problem;
    if (opts.effect < 1 || opts.effect > max_effect_number)
        problem = "--effect must give the number of the animal effect, from 1 to " + std::to_string(max_effect_number) +
                  ", not " + std::to_string(opts.effect);
    else if (!(opts.beta >= 0.0 && opts.beta <= 1.0))
        problem = "--beta must lie between 0 and 1, not " + realtochar(opts.beta, "(g0.6)");
    if (problem.empty()) return;
    global_logger().log_error(problem);
    throw error_stop();
}

std::string command_line::usage() const { return impl_->app.help(); }

std::string command_line::markdown() const {
    std::ostringstream md;
    const std::string prog = to_lower(program_word);
    md << "# " << prog << "\n\n" << program_description << "\n\n";
    md << "Version: " << program_version << "\n\n";
    md << "## Usage\n\n```\n" << prog << " [common options] {";
    for (std::size_t g = 0; g < groups.size(); ++g)
        md << (g ? " | " : "") << groups[g].name << " [" << groups[g].name << " options]";
    md << "}\n```\n\nCommon options may stand before or after the group word; the groups are "
          "mutually exclusive.\n";
    auto section = [&](std::string_view group, std::string_view title) {
        md << "\n## " << title << "\n\n";
        bool any = false;
        for (const auto& row : table) {
            if (row.group != group) continue;
            if (!any)
                md << "| Switch | Abbreviation | Required | Default | Values | Excludes | Help |\n"
                      "|---|---|---|---|---|---|---|\n";
            any = true;
            md << "| `" << row.switch_name << "` | "
               << (row.abbreviation.empty() ? "" : "`" + std::string(row.abbreviation) + "`")
               << " | " << (row.required ? "yes" : "no") << " | `" << row.default_value
               << "` | " << row.nargs << " | "
               << (row.excludes.empty() ? "" : "`" + std::string(row.excludes) + "`") << " | "
               << row.help << " |\n";
        }
        if (!any) md << "No options of its own.\n";
    };
    section("", "Common options");
    for (const auto& g : groups)
        section(g.name, "Group `" + std::string(g.name) + "`: " + std::string(g.description));
    md << "\n## Built-in switches\n\n| Switch | Help |\n|---|---|\n"
          "| `-h`, `--help` | Print this help message |\n"
          "| `--version` | Print version |\n"
          "| `--markdown` | Save this help message in a Markdown file |\n";
    return md.str();
}

}  // namespace krel

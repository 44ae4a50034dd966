#include "inputs/genotypes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "inputs/plink_reader.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"

namespace krel {

namespace {

constexpr std::string_view module_name = "modstructure";

[[noreturn]] void stop_with_error(const std::string& message, const std::string& procedure) {
    global_logger().log_error(message, module_name, procedure);
    throw error_stop();
}

// Number of blank-separated fields in the first `limit` characters of line.
std::int32_t count_fields(std::string_view line, std::size_t limit) {
    line = line.substr(0, std::min(limit, line.size()));
    std::int32_t fields = 0;
    bool in_field = false;
    for (char c : line) {
        const bool blank = is_blank(c);
        if (!blank && !in_field) ++fields;
        in_field = !blank;
    }
    return fields;
}

std::string_view trim_right(std::string_view line) {
    while (!line.empty() && is_blank(line.back())) line.remove_suffix(1);
    return line;
}

// Records of a text genotype file: every line that holds a value.
std::int32_t count_records(line_reader& in) {
    std::string line;
    std::int32_t n = 0;
    while (in.next_record(line)) ++n;
    return n;
}

void open_or_stop(const line_reader& in, const std::string& file, const std::string& procedure) {
    if (in.is_open()) return;
    global_logger().log_io_error("The following file does not exist: " + file, module_name, procedure);
    throw error_stop();
}

void check_identity(std::int32_t identity, std::int32_t maxid, std::int64_t line,
                    const std::string& file, const std::string& procedure) {
    if (identity < 1 || identity > maxid)
        stop_with_error("The identity " + inttochar(identity) + " on line " +
                            inttochar(static_cast<std::int64_t>(line)) + " of " + file +
                            " is not a pedigree level between 1 and " + inttochar(maxid),
                        procedure);
}

std::string line_of(std::int64_t line, const std::string& file) {
    return "line " + inttochar(line) + " of " + file;
}

// One row per animal: a level met on an earlier line would leave that
// line's row without an animal.
void map_identity(covariable_type& cov, std::vector<std::int64_t>& row_lines, std::int32_t identity,
                  std::int32_t row, std::int64_t line, const std::string& file, const std::string& procedure) {
    std::int32_t& mapped = cov.idmap[static_cast<std::size_t>(identity)];
    if (mapped != 0)
        stop_with_error("The level " + inttochar(identity) + " on " + line_of(line, file) +
                            " was already given on line " + inttochar(row_lines[static_cast<std::size_t>(mapped - 1)]),
                        procedure);
    mapped = row;
    row_lines[static_cast<std::size_t>(row - 1)] = line;
}

// Text genotypes hold no code for a missing genotype: an allele count is 0, 1 or 2.
[[noreturn]] void stop_at_genotype(std::string_view value, std::int32_t snp, std::int64_t line,
                                   const std::string& file, const std::string& procedure) {
    stop_with_error("The genotype '" + std::string(value) + "' of SNP " + inttochar(snp) + " on " +
                        line_of(line, file) +
                        " is not 0, 1 or 2 (text genotypes have no code for a missing genotype)",
                    procedure);
}

[[noreturn]] void stop_at_identity(std::string_view value, std::int64_t line, const std::string& file,
                                   const std::string& procedure) {
    stop_with_error("The identity '" + std::string(value) + "' on " + line_of(line, file) + " is not an integer",
                    procedure);
}

void log_counts(std::int32_t ngeno, std::int32_t nsnp) {
    global_logger().log_message("Number of genotypes : " + inttochar(ngeno));
    global_logger().log_message("Number of snps      : " + inttochar(nsnp));
}

// The SNP count found in a file against the one the caller expects.
void settle_snp_count(std::int32_t found, std::int32_t& nsnp, const std::string& file,
                      const std::string& procedure) {
    if (nsnp < 1) {
        nsnp = found;
    } else if (nsnp != found) {
        stop_with_error("The expected number of SNPs does not match with the number of SNPs in " +
                            std::string(trim(file)),
                        procedure);
    }
    if (nsnp < 1) stop_with_error("No SNPs on the first line of " + file, procedure);
}

// The decimal number at text[pos..]; pos moves behind it.
bool take_number(std::string_view text, std::size_t& pos, std::int64_t& value) {
    const std::size_t start = pos;
    value = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
        value = value * 10 + (text[pos] - '0');
        if (value > 100000000) return false;
        ++pos;
    }
    return pos > start;
}

bool take(std::string_view text, std::size_t& pos, std::string_view word) {
    if (text.substr(pos, word.size()) != word) return false;
    pos += word.size();
    return true;
}

struct genotype_format {
    std::int64_t identity_width = 0;
    std::int64_t skip = 0;
    std::int64_t digits = 0;
};

// The numbers of "(iWW,BBx,NNNNNi1)" or "(iWW,BBx,GGGG(KKKKKi1),NNNNNi1)".
bool parse_genotype_format(std::string_view f, genotype_format& out) {
    std::size_t pos = 0;
    std::int64_t groups = 0, group_size = 0, rest = 0;
    if (!take(f, pos, "(i") || !take_number(f, pos, out.identity_width) || !take(f, pos, ",") ||
        !take_number(f, pos, out.skip) || !take(f, pos, "x,") || !take_number(f, pos, rest))
        return false;
    if (take(f, pos, "(")) {
        groups = rest;
        if (!take_number(f, pos, group_size) || !take(f, pos, "i1),") || !take_number(f, pos, rest))
            return false;
    }
    if (!take(f, pos, "i1)") || pos != f.size()) return false;
    out.digits = groups * group_size + rest;
    return true;
}

// An integer in a field of fixed width: blanks are ignored, an empty field is 0.
bool read_integer_field(std::string_view field, std::int32_t& value) {
    char digits[32];
    std::size_t n = 0;
    for (char c : field) {
        if (is_blank(c)) continue;
        if (n == sizeof digits) return false;
        digits[n++] = c;
    }
    if (n == 0) {
        value = 0;
        return true;
    }
    return parse_integer(std::string_view(digits, n), value);
}

}  // namespace

// ---------------------------------------------------------------------------
// int8_matrix

int8_matrix::int8_matrix(const int8_matrix& other) {
    if (other.allocated_) {
        allocate(other.rows_, other.cols_);
        if (other.size()) std::memcpy(data_, other.data_, other.size());
    }
}

int8_matrix& int8_matrix::operator=(const int8_matrix& other) {
    if (this != &other) {
        int8_matrix copy(other);
        *this = std::move(copy);
    }
    return *this;
}

int8_matrix::int8_matrix(int8_matrix&& other) noexcept
    : buffer_(std::move(other.buffer_)),
      data_(std::exchange(other.data_, nullptr)),
      allocated_(std::exchange(other.allocated_, false)),
      rows_(std::exchange(other.rows_, 0)),
      cols_(std::exchange(other.cols_, 0)) {}

int8_matrix& int8_matrix::operator=(int8_matrix&& other) noexcept {
    if (this != &other) {
        buffer_ = std::move(other.buffer_);
        data_ = std::exchange(other.data_, nullptr);
        allocated_ = std::exchange(other.allocated_, false);
        rows_ = std::exchange(other.rows_, 0);
        cols_ = std::exchange(other.cols_, 0);
    }
    return *this;
}

void int8_matrix::allocate(index_type rows, index_type cols) {
    deallocate();
    if (rows < 0 || cols < 0) throw std::length_error("int8_matrix: negative dimension");
    buffer_ = large_buffer(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols));
    data_ = static_cast<std::int8_t*>(buffer_.data());
    rows_ = rows;
    cols_ = cols;
    allocated_ = true;
}

void int8_matrix::deallocate() noexcept {
    buffer_ = large_buffer();
    data_ = nullptr;
    allocated_ = false;
    rows_ = cols_ = 0;
}

// ---------------------------------------------------------------------------
// covariable_type

double covariable_type::memory() const noexcept {
    const double bytes = static_cast<double>(ival.size()) + 8.0 * static_cast<double>(val.size()) +
                         4.0 * static_cast<double>(idmap.size());
    return bytes / 1048576.0;
}

void covariable_type::allocreal(std::int32_t n1, std::int32_t n2) {
    nsnp = n1;
    ncol = n2;
    val.resize(n1, n2);
}

void covariable_type::allocint(std::int32_t n1, std::int32_t n2) {
    nsnp = n1;
    ncol = n2;
    ival.allocate(n1, n2);
}

void covariable_type::finalize() noexcept {
    nsnp = ncol = ngeno = 0;
    std::vector<std::int32_t>().swap(idmap);
    ival.deallocate();
    val = dmatrix();
}

// ---------------------------------------------------------------------------
// Readers

void readgenotype(const std::string& file, const std::string& freqfile, std::int32_t maxid,
                  std::int32_t& nsnp, std::int32_t& ngeno, covariable_type& cov, bool& isplink) {
    cov.finalize();
    nsnp = -1;
    ngeno = -1;
    isplink = false;

    const std::string_view name = trim(file);
    const auto dot = name.rfind('.');
    const std::string_view extension = dot == std::string_view::npos ? std::string_view() : name.substr(dot);
    if (extension == ".bed") {
        global_logger().log_message("Genotype file: Plink bed format!");
        readcovariable_plinkbed_bin(file, freqfile, maxid, nsnp, ngeno, cov);
        isplink = true;
    } else {
        read_centeredgenocov_ascii(file, maxid, nsnp, ngeno, cov);
    }
    // For PLINK data ncol counts bytes per SNP, so the figure is not the size
    // of the packed array; it is the one the program has always reported.
    const double megabytes =
        (8.0 * static_cast<double>(cov.nsnp) + 4.0) * static_cast<double>(cov.ncol) / 1048576.0;
    global_logger().log_message("Memory (Mb) needed for cov   : " + realtochar(megabytes, "(f0.2)"));
}

void read_centeredgenocov_ascii(const std::string& file, std::int32_t maxid, std::int32_t& nsnp,
                                std::int32_t& ngeno, covariable_type& cov) {
    const std::string procedure = procedure_at("read_centeredgenocov_ascii");
    std::int32_t fields = 0;
    {
        line_reader in(file);
        open_or_stop(in, file, procedure);
        std::string line;
        if (!in.next(line)) stop_with_error("No genotypes in " + file, procedure);
        fields = count_fields(line, first_line_length);
    }
    if (fields == 2) {
        global_logger().log_message("Genotype file: no space delimiter!");
        read_genocov_nodelimiter(file, maxid, nsnp, ngeno, cov);
    } else {
        global_logger().log_message("Genotype file: space delimiter!");
        read_genocov_spacedelimiter(file, maxid, nsnp, ngeno, cov);
    }
}

void read_genocov_spacedelimiter(const std::string& file, std::int32_t maxid, std::int32_t& nsnp,
                                 std::int32_t& ngeno, covariable_type& cov) {
    const std::string procedure = procedure_at("read_genocov_spacedelimiter");
    cov.finalize();
    line_reader in(file);
    open_or_stop(in, file, procedure);
    ngeno = count_records(in);
    in.rewind();

    std::string line;
    if (!in.next(line)) stop_with_error("No genotypes in " + file, procedure);
    if (line.size() > first_line_length)
        global_logger().log_warning("The first line of " + file + " is longer than " +
                                        inttochar(static_cast<std::int64_t>(first_line_length)) +
                                        " characters; only the SNPs within them are read",
                                    module_name, procedure);
    settle_snp_count(count_fields(line, first_line_length) - 1, nsnp, file, procedure);
    in.rewind();

    log_counts(ngeno, nsnp);
    cov.val.resize(nsnp, ngeno);
    cov.idmap.assign(static_cast<std::size_t>(std::max(maxid, 0)) + 1, 0);
    cov.nsnp = nsnp;
    cov.ncol = ngeno;
    cov.ngeno = ngeno;

    // Every record counted above is an animal whose weight the SNP model
    // expects: a record that cannot be read stops the run rather than
    // leaving a column without its animal. The first record tells the
    // coding: whole numbers only there make a file of allele counts, in
    // which every value is 0, 1 or 2; otherwise the values are centred
    // genotypes or covariables, taken as they stand.
    std::vector<std::string_view> items;
    std::vector<std::int64_t> row_lines(static_cast<std::size_t>(ngeno), 0);
    bool allele_counts = false;
    for (std::int32_t r = 1; r <= ngeno; ++r) {
        if (!in.next_record(line)) break;
        const std::int64_t at = in.line_number();
        split_items(line, items);
        std::int32_t identity = 0;
        if (!parse_integer(items[0], identity)) stop_at_identity(items[0], at, file, procedure);
        if (items.size() < static_cast<std::size_t>(nsnp) + 1)
            stop_with_error("Fewer than " + inttochar(nsnp) + " SNPs on " + line_of(at, file), procedure);
        double* column = cov.val.column(r);
        for (std::int32_t s = 0; s < nsnp; ++s) {
            const std::string_view item = items[static_cast<std::size_t>(s) + 1];
            double& g = column[s];
            if (parse_real(item, g) && std::isfinite(g)) continue;
            if (allele_counts) stop_at_genotype(item, s + 1, at, file, procedure);
            stop_with_error("The value '" + std::string(item) + "' of SNP " + inttochar(s + 1) + " on " +
                                line_of(at, file) + " is not a finite number",
                            procedure);
        }
        if (r == 1) allele_counts = std::all_of(column, column + nsnp, [](double g) { return g == std::round(g); });
        for (std::int32_t s = 0; s < nsnp && allele_counts; ++s)
            if (!(column[s] == 0.0 || column[s] == 1.0 || column[s] == 2.0))
                stop_at_genotype(items[static_cast<std::size_t>(s) + 1], s + 1, at, file, procedure);
        check_identity(identity, maxid, at, file, procedure);
        map_identity(cov, row_lines, identity, r, at, file, procedure);
    }
}

void read_genocov_nodelimiter(const std::string& file, std::int32_t maxid, std::int32_t& nsnp,
                              std::int32_t& ngeno, covariable_type& cov) {
    const std::string procedure = procedure_at("read_genocov_nodelimiter");
    cov.finalize();
    line_reader in(file);
    open_or_stop(in, file, procedure);
    ngeno = count_records(in);
    in.rewind();

    auto checked_line = [&](std::string& line) {
        const std::string_view content = trim_right(line);
        if (content.size() > nodelimiter_line_length)
            stop_with_error("More than " + inttochar(static_cast<std::int64_t>(nodelimiter_line_length)) +
                                " characters on line " + inttochar(static_cast<std::int64_t>(in.line_number())) +
                                " of " + file,
                            procedure);
        return content;
    };

    std::string line;
    if (!in.next(line)) stop_with_error("No genotypes in " + file, procedure);
    std::array<std::int32_t, 3> counts{};
    {
        const std::string_view content = checked_line(line);
        count_spaces(content, counts);
        settle_snp_count(static_cast<std::int32_t>(content.size()) - (counts[0] + counts[1] + counts[2]),
                         nsnp, file, procedure);
    }
    in.rewind();

    log_counts(ngeno, nsnp);
    cov.val.resize(nsnp, ngeno);
    cov.idmap.assign(static_cast<std::size_t>(std::max(maxid, 0)) + 1, 0);
    cov.nsnp = nsnp;
    cov.ncol = ngeno;
    cov.ngeno = ngeno;

    std::vector<std::int32_t> work(static_cast<std::size_t>(nsnp));
    std::vector<std::int64_t> row_lines(static_cast<std::size_t>(ngeno), 0);
    for (std::int32_t r = 1; r <= ngeno; ++r) {
        if (!in.next_record(line)) break;
        const std::string_view content = checked_line(line);
        // Derived for every line: the identity column may differ in width.
        const std::string format = derive_format_statement(nsnp, content);
        count_spaces(content, counts);
        if (counts[0] + counts[1] > 99 || counts[2] > 99)
            stop_with_error("The identity or the blanks behind it take more than 99 columns on line " +
                                inttochar(static_cast<std::int64_t>(in.line_number())) + " of " + file,
                            procedure);
        const std::size_t digits = content.size() - static_cast<std::size_t>(counts[0] + counts[1] + counts[2]);
        if (digits < static_cast<std::size_t>(nsnp))
            stop_with_error("Fewer than " + inttochar(nsnp) + " SNPs on line " +
                                inttochar(static_cast<std::int64_t>(in.line_number())) + " of " + file,
                            procedure);
        std::int32_t identity = 0;
        const std::int64_t at = in.line_number();
        if (!read_genotype_line(format, content, identity, work)) {
            // Either the identity or a genotype is no digit: name which.
            const std::size_t id_end = static_cast<std::size_t>(counts[0] + counts[1]);
            std::int32_t ignored = 0;
            if (!parse_integer(trim(content.substr(0, id_end)), ignored))
                stop_at_identity(trim(content.substr(0, id_end)), at, file, procedure);
            const std::size_t first = id_end + static_cast<std::size_t>(counts[2]);
            for (std::int32_t s = 0; s < nsnp; ++s) {
                const char c = content[first + static_cast<std::size_t>(s)];
                if (c < '0' || c > '9') stop_at_genotype(std::string_view(&c, 1), s + 1, at, file, procedure);
            }
            stop_with_error("Line " + inttochar(at) + " of " + file + " cannot be read", procedure);
        }
        check_identity(identity, maxid, at, file, procedure);
        double* column = cov.val.column(r);
        for (std::int32_t s = 0; s < nsnp; ++s) {
            const std::int32_t g = work[static_cast<std::size_t>(s)];
            if (g > 2) {
                const char digit = static_cast<char>('0' + g);
                stop_at_genotype(std::string_view(&digit, 1), s + 1, at, file, procedure);
            }
            column[s] = static_cast<double>(g);
        }
        map_identity(cov, row_lines, identity, r, at, file, procedure);
    }
}

void readcovariable_plinkbed_bin(const std::string& file, const std::string& freqfile,
                                 std::int32_t maxid, std::int32_t& nsnp, std::int32_t& ngeno,
                                 covariable_type& cov) {
    cov.finalize();
    std::int32_t nbytes = 0, nind = 0, maxfam = 0;
    plinkreadbed(file, freqfile, maxid, cov.nsnp, nbytes, nind, maxfam, cov.ival, cov.idmap, cov.val);
    cov.ncol = nbytes;
    cov.ngeno = nind;
    nsnp = cov.nsnp;
    ngeno = cov.ngeno;
    global_logger().log_message("Number of genotypes : " + inttochar(ngeno));
    global_logger().log_message("Maximum ID          : " + inttochar(maxfam));
    global_logger().log_message("Number of snps      : " + inttochar(nsnp));
}

// ---------------------------------------------------------------------------
// The layout without spaces

void count_spaces(std::string_view line, std::array<std::int32_t, 3>& counts) {
    line = line.substr(0, std::min(line.size(), nodelimiter_line_length));
    // Positions behind the line are blanks and change nothing below.
    int transitions = 0;
    bool previous_blank = true;
    for (char c : line) {
        const bool blank = is_blank(c);
        if (previous_blank && !blank) ++transitions;
        previous_blank = blank;
    }
    if (transitions != 2) {
        std::cout << " Problem reading genotypes without spaces between columns.\n"
                  << " The file should contain one separate column with IDs, followed by genotypes.\n"
                  << ' ' << trim_right(line) << std::endl;
        throw error_stop();
    }

    // 1 leading blanks, 2 identity, 3 blanks behind it, 9 genotypes and beyond.
    std::int32_t c1 = 0, c2 = 0, c3 = 0;
    int state = 0;
    for (char c : line) {
        if (is_blank(c))
            state = state < 2 ? 1 : (state <= 3 ? 3 : 9);
        else
            state = state <= 2 ? 2 : 9;
        c1 += state == 1;
        c2 += state == 2;
        c3 += state == 3;
    }
    if (c1 > 1) {
        // Leading blanks belong to the identity's field; the sum is kept.
        c2 += c1 - 1;
        c1 = 1;
    }
    counts = {c1, c2, c3};
}

std::string derive_format_statement(std::int32_t nsnp, std::string_view line) {
    std::array<std::int32_t, 3> counts{};
    count_spaces(line, counts);
    auto zero_filled = [](std::int64_t value, int width) { return inttochar(value, "(i" + std::to_string(width) + "." + std::to_string(width) + ")"); };
    std::string format = "(i" + zero_filled(counts[0] + counts[1], 2) + "," + zero_filled(counts[2], 2) + "x,";
    if (nsnp <= format_group_snps)
        format += zero_filled(nsnp, 5) + "i1)";
    else
        format += zero_filled(nsnp / format_group_snps, 4) + "(" + std::to_string(format_group_snps) +
                  "i1)," + zero_filled(nsnp % format_group_snps, 5) + "i1)";
    return format;
}

bool read_genotype_line(std::string_view format, std::string_view line, std::int32_t& identity,
                        std::vector<std::int32_t>& genotypes) {
    genotype_format f;
    if (!parse_genotype_format(format, f)) return false;
    const std::size_t id_width = static_cast<std::size_t>(f.identity_width);
    if (!read_integer_field(line.substr(0, std::min(id_width, line.size())), identity)) return false;
    const std::size_t first = id_width + static_cast<std::size_t>(f.skip);
    const std::size_t digits = static_cast<std::size_t>(f.digits);
    if (line.size() < first + digits) return false;
    genotypes.resize(digits);
    const char* p = line.data() + first;
    for (std::size_t s = 0; s < digits; ++s) {
        const char c = p[s];
        if (c < '0' || c > '9') return false;
        genotypes[s] = c - '0';
    }
    return true;
}

}  // namespace krel

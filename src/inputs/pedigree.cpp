#include "inputs/pedigree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <vector>

#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"
#include "util/run_timer.h"

namespace krel {

namespace {

constexpr const char* module_name = "modpedigree";

struct ped_record {
    std::int32_t id, sire, dam;
};

// What one piece of a pedigree file gave: its records up to the first one
// that does not read as three integers (reading ends there, silently), or
// the text of a record whose numbers no pedigree can hold.
struct piece_result {
    std::vector<ped_record> records;
    bool stopped = false;
    std::size_t stop_offset = 0;  // where the record that ended the reading starts
    std::string bad_record;
};

// One integer item of a record that is known to end in a line feed, so
// that the scans need no bounds: the same rules as parse_int_item.
inline bool fast_int_item(const char*& p, std::int64_t& value) {
    while (*p == ' ' || *p == '\t' || *p == '\r') ++p;
    if (*p == ',') {
        ++p;
        while (*p == ' ' || *p == '\t' || *p == '\r') ++p;
    }
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    const char* first = p;
    std::uint64_t v = 0;
    for (unsigned d; (d = static_cast<unsigned>(*p - '0')) < 10u; ++p) v = v * 10 + d;
    const auto digits = p - first;
    if (digits == 0 || digits > 18) return false;
    const char c = *p;
    if (!(c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == ',' || c == '/')) return false;
    if (c == ',') ++p;
    value = negative ? -static_cast<std::int64_t>(v) : static_cast<std::int64_t>(v);
    return true;
}

// Parses whole lines: text ends with a line feed.
void parse_piece(std::string_view text, piece_result& out) {
    const char* p = text.data();
    const char* end = p + text.size();
    while (p < end) {
        const char* line = p;
        while (*p == ' ' || *p == '\t' || *p == '\r') ++p;
        if (*p == '\n') {  // blank records are skipped
            ++p;
            continue;
        }
        std::int64_t v[3];
        for (auto& x : v)
            if (!fast_int_item(p, x)) {
                out.stopped = true;
                out.stop_offset = static_cast<std::size_t>(line - text.data());
                return;
            }
        // A carriage return alone ends a record as well, as old Mac files have it.
        while (*p != '\n' && *p != '\r') ++p;
        if (v[0] < 1 || v[1] < 0 || v[2] < 0 || v[0] > std::numeric_limits<std::int32_t>::max() ||
            v[1] > std::numeric_limits<std::int32_t>::max() || v[2] > std::numeric_limits<std::int32_t>::max()) {
            out.bad_record.assign(line, static_cast<std::size_t>(p - line));
            return;
        }
        ++p;
        out.records.push_back(
            {static_cast<std::int32_t>(v[0]), static_cast<std::int32_t>(v[1]), static_cast<std::int32_t>(v[2])});
    }
}

// The text and the number of the line that starts at byte `offset` of the
// file; lines end at a line feed or at a carriage return alone. Only for a
// warning: the file is read again up to there.
std::pair<std::int64_t, std::string> line_at(const std::string& file, std::uint64_t offset) {
    std::ifstream in(file, std::ios::binary);
    std::int64_t line = 1;
    char previous = 0;
    std::vector<char> block(std::size_t{1} << 20);
    for (std::uint64_t left = offset; left > 0 && in;) {
        in.read(block.data(), static_cast<std::streamsize>(std::min<std::uint64_t>(left, block.size())));
        const auto got = static_cast<std::size_t>(in.gcount());
        if (got == 0) break;
        for (std::size_t k = 0; k < got; previous = block[k++])
            if (block[k] == '\n' || previous == '\r') ++line;  // a carriage return ends a line only when alone
        left -= got;
    }
    if (previous == '\r') ++line;
    std::string text;
    for (char c; in.get(c) && c != '\n' && c != '\r' && text.size() < 200;) text += c;
    return {line, text};
}

[[noreturn]] void pedigree_error(const std::string& message, const char* routine) {
    global_logger().log_error(message, module_name, procedure_at(routine));
    throw error_stop();
}

// Hands the records of a pedigree file to sink, batch by batch in file
// order, up to the first record that does not read as three integers. The
// file is read in chunks that the threads parse in pieces; the buffers are
// reused, so memory does not grow with the file.
template <typename Sink>
void stream_pedigree(const std::string& file, const char* routine, Sink&& sink) {
    const int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0) {
        global_logger().log_io_error("Cannot open the pedigree file " + file + ": " + std::strerror(errno), module_name,
                                     procedure_at(routine));
        throw error_stop();
    }
    struct closer {
        int fd;
        ~closer() { ::close(fd); }
    } guard{fd};
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    constexpr std::size_t chunk = std::size_t{16} << 20;
    // A small file gets a buffer of its own size rather than a whole chunk.
    struct stat st {};
    const std::size_t first = ::fstat(fd, &st) == 0 && st.st_size >= 0
                                  ? std::min(chunk, static_cast<std::size_t>(st.st_size) + 1)
                                  : chunk;
    std::vector<char> buffer(std::max<std::size_t>(first, 4096));
    std::size_t left = 0;  // bytes of an unfinished line carried over
    const std::size_t threads = std::min<std::size_t>(64, static_cast<std::size_t>(omp_get_max_threads()));
    std::vector<piece_result> results(threads);
    std::size_t bounds[65];
    bool at_end = false;
    std::uint64_t chunk_start = 0;  // file offset of buffer[0]
    bool first_chunk = true;
    while (!at_end) {
        if (buffer.size() - left < std::min(chunk, buffer.size()) / 2) buffer.resize(buffer.size() * 2);  // a very long line
        const ssize_t got = ::read(fd, buffer.data() + left, buffer.size() - left);
        if (got < 0) {
            global_logger().log_io_error("Cannot read the pedigree file " + file + ": " + std::strerror(errno),
                                         module_name, procedure_at(routine));
            throw error_stop();
        }
        at_end = got == 0;
        std::size_t size = left + static_cast<std::size_t>(got);
        // The parser stops at line feeds only: a last line gets one.
        if (at_end && size > 0 && buffer[size - 1] != '\n') {
            if (size == buffer.size()) buffer.push_back('\n');
            else buffer[size] = '\n';
            ++size;
        }
        std::size_t cut = size;
        if (!at_end) {
            const auto nl = std::string_view(buffer.data(), size).rfind('\n');
            cut = nl == std::string_view::npos ? 0 : nl + 1;
        }
        std::string_view text(buffer.data(), cut);
        if (first_chunk && cut > 0) {
            skip_utf8_bom(text);
            first_chunk = false;
        }
        const std::size_t pieces = split_at_lines(text, threads, bounds);
#pragma omp parallel for schedule(static, 1)
        for (std::size_t k = 0; k < pieces; ++k) {
            results[k].records.clear();
            results[k].stopped = false;
            parse_piece(text.substr(bounds[k], bounds[k + 1] - bounds[k]), results[k]);
        }
        for (std::size_t k = 0; k < pieces; ++k) {
            sink(results[k].records);
            if (!results[k].bad_record.empty())
                pedigree_error("The pedigree file " + file +
                                   " holds a record whose identity is not positive or whose parent is negative: \"" +
                                   std::string(trim(results[k].bad_record)) + "\"",
                               routine);
            if (results[k].stopped) {
                const std::uint64_t at = chunk_start + static_cast<std::uint64_t>(text.data() - buffer.data()) +
                                         bounds[k] + results[k].stop_offset;
                const auto [line, record] = line_at(file, at);
                global_logger().log_warning(
                    "The pedigree file " + file + " is read up to line " + std::to_string(line - 1) + " only: line " +
                        std::to_string(line) + " does not read as three integers (\"" + printable_excerpt(record) +
                        "\"), and the lines from there on are ignored",
                    module_name, procedure_at(routine));
                return;
            }
        }
        left = size - cut;
        std::memmove(buffer.data(), buffer.data() + cut, left);
        chunk_start += cut;
    }
}

}  // namespace

void pedigree_type::finalise() { *this = pedigree_type(); }

void pedigree_type::allocate(std::int32_t nlevels, std::int32_t groups) {
    nlevels_ = std::max(nlevels, 0);
    nupg = groups;
    ped_.assign(2 * (static_cast<std::size_t>(nlevels_) + 1), 0);
}

void pedigree_type::readpedigree_nomax(const std::string& file) {
    finalise();
    pedfile = file;
    std::int32_t maxall = 0, maxid = 0;
    // The parents go straight into place, in file order, so that the last
    // record of an identity holds; the array grows with the highest level.
    // Reserving the most a file of this size could need costs address space
    // only: pages are touched as levels appear.
    std::error_code ec;
    const auto bytes = std::filesystem::file_size(file, ec);
    if (!ec) ped_.reserve(std::min<std::uintmax_t>(bytes / 3 + 2, std::uintmax_t{1} << 32));
    // Every level is an animal or group named somewhere in the file, so a
    // record brings at most three new ones. A level far above that is an
    // identity from another numbering (a registration number, say); taking
    // it as a level would size every array of the run by it. The bound from
    // the file size (a record takes at least six bytes) stops such a level
    // before anything is sized by it; the count of records decides at the end.
    const auto level_limit = [](std::uintmax_t records) {
        return std::min<std::uintmax_t>(3 * records + 1000, std::numeric_limits<std::int32_t>::max());
    };
    const auto too_high = [&](std::int64_t level, std::uintmax_t records) {
        pedigree_error("The pedigree file " + file + " names level " + std::to_string(level) + ", more than its " +
                           std::to_string(records) +
                           " records can number: levels must number the animals and groups from 1 without large gaps",
                       "readpedigree_nomax");
    };
    const std::uintmax_t most_records = ec ? std::numeric_limits<std::int32_t>::max() : (bytes + 1) / 6;
    std::uintmax_t records = 0;
    stream_pedigree(file, "readpedigree_nomax", [&](const std::vector<ped_record>& batch) {
        records += batch.size();
        for (const auto& r : batch) {
            const std::int32_t top = std::max({r.id, r.sire, r.dam});
            if (top > maxall) {
                if (static_cast<std::uintmax_t>(top) > level_limit(most_records)) too_high(top, records);
                maxall = top;
                ped_.resize(2 * (static_cast<std::size_t>(maxall) + 1), 0);
            }
            maxid = std::max(maxid, r.id);
            ped_[2 * static_cast<std::size_t>(r.id)] = r.sire;
            ped_[2 * static_cast<std::size_t>(r.id) + 1] = r.dam;
        }
    });
    if (static_cast<std::uintmax_t>(maxall) > level_limit(records)) too_high(maxall, records);
    nlevels_ = maxall;
    nupg = maxall - maxid;
    ped_.resize(2 * (static_cast<std::size_t>(maxall) + 1), 0);
    warn_unused_groups();
}

void pedigree_type::warn_unused_groups() const {
    // Groups are the levels above the highest identity: a file read only
    // in part, or animals numbered above their groups, makes groups of
    // animals, which then are parents of no one or stand behind animals
    // that have records of their own.
    if (nupg <= 0) return;
    const std::int32_t first = nreal() + 1;
    std::vector<char> used(static_cast<std::size_t>(nupg), 0);
    for (std::int32_t i = 1; i <= nlevels_; ++i)
        for (const std::int32_t p : {sire(i), dam(i)})
            if (p >= first) used[static_cast<std::size_t>(p - first)] = 1;
    const auto unused = std::count(used.begin(), used.end(), 0);
    if (unused == 0) return;
    global_logger().log_warning("The pedigree file " + pedfile.value_or("") + " gives " + inttochar(nupg) +
                                    " genetic groups (levels " + inttochar(first) + " to " + inttochar(nlevels_) +
                                    "), of which " + std::to_string(unused) +
                                    " are parents of no animal: groups must be numbered above all animals, and "
                                    "levels above the highest animal that no record names still count as groups",
                                module_name, procedure_at("readpedigree_nomax"));
}

void pedigree_type::readpedigree_max(const std::string& file, std::int32_t nlevels, std::int32_t groups) {
    finalise();
    pedfile = file;
    allocate(nlevels, groups);
    std::int64_t group_records = 0;
    stream_pedigree(file, "readpedigree_max", [&](const std::vector<ped_record>& batch) {
        for (const auto& r : batch) {
            if (r.id > nlevels_ || r.sire > nlevels_ || r.dam > nlevels_)
                pedigree_error("The pedigree file " + file + " names level " +
                                   std::to_string(std::max({r.id, r.sire, r.dam})) + ", above the " +
                                   std::to_string(nlevels_) + " levels expected",
                               "readpedigree_max");
            group_records += r.id > nreal();
            ped(1, r.id) = r.sire;
            ped(2, r.id) = r.dam;
        }
    });
    // A group stands for unknown parents; a record of its own tells of a
    // numbering that puts animals among the groups.
    if (group_records > 0)
        global_logger().log_warning("The pedigree file " + file + " gives " + std::to_string(group_records) +
                                        " records to genetic groups (levels above " + inttochar(nreal()) +
                                        "): groups stand for unknown parents and have no records of their own",
                                    module_name, procedure_at("readpedigree_max"));
    warn_unused_groups();
}

void pedigree_type::readmetarel(const std::string& file, std::int32_t effect) {
    ismeta = true;
    if (nupg < 1) pedigree_error("Number of metafounders <= 0 (internal error)", "readmetarel");
    const std::int32_t nr = nreal();
    global_logger().log_message("Effect " + inttochar(effect) + "\nNumber of metafounders    : " + inttochar(nupg) +
                                "\nNumber of real individuals: " + inttochar(nr) +
                                "\nName of the file          : " + std::string(trim(file)));
    metarel.resize(nupg, nupg);
    record_reader in;
    if (!in.open(file)) {
        global_logger().log_io_error("Cannot open the file " + file, module_name, procedure_at("readmetarel"));
        throw error_stop();
    }
    std::string_view record;
    while (in.next(record)) {
        if (blank_record(record)) continue;
        item_cursor items(record);
        std::int32_t i = 0, j = 0;
        double value = 0.0;
        if (!items.next_int(i) || !items.next_int(j) || !items.next_real(value)) break;
        if (i <= nr || j <= nr || i > nlevels_ || j > nlevels_)
            pedigree_error("The metafounder file " + file + " names level " + std::to_string(i <= nr || i > nlevels_ ? i : j) +
                               ", which is no metafounder (levels " + std::to_string(nr + 1) + " to " +
                               std::to_string(nlevels_) + ")",
                           "readmetarel");
        metarel(i - nr, j - nr) = value;
        metarel(j - nr, i - nr) = value;
    }
}

void pedigree_type::getorder(std::vector<std::int32_t>& order, std::vector<std::int32_t>* inverse,
                             std::optional<std::int32_t> n_opt, std::optional<std::int32_t> groups) const {
    auto& log = global_logger();
    log.log_message("Start to find the order from old to young");
    wtime clock;
    const std::int32_t n = n_opt.value_or(nlevels_);
    const std::int32_t g = groups.value_or(nupg);
    order.assign(static_cast<std::size_t>(n) + 1, 0);
    std::vector<std::int32_t> pos(static_cast<std::size_t>(n) + 1, 0);
    for (std::int32_t k = 1; k <= g; ++k) pos[n - g + k] = k;
    std::int32_t c = g;
    const std::int32_t firstgroup = n - g + 1;

    // Depth-first post-order without recursion: a level is numbered after its
    // sire's ancestry and then its dam's. A level on the path being walked is
    // marked -1, so meeting it again means the pedigree has a loop.
    std::vector<std::int32_t> path;
    auto open_level = [&](std::int32_t x) -> bool {
        if (x == 0 || x >= firstgroup || pos[x] > 0) return false;
        if (pos[x] < 0)
            pedigree_error("The pedigree has a loop: level " + std::to_string(x) + " is its own ancestor",
                           "getorder");
        pos[x] = -1;
        path.push_back(x);
        return true;
    };
    for (std::int32_t i = 1; i <= n - g; ++i) {
        if (!open_level(i)) continue;
        while (!path.empty()) {
            const std::int32_t x = path.back();
            if (open_level(sire(x))) continue;
            if (open_level(dam(x))) continue;
            path.pop_back();
            pos[x] = ++c;
        }
    }
    for (std::int32_t i = 1; i <= n; ++i) order[pos[i]] = i;
    if (inverse) *inverse = std::move(pos);
    log.log_message("Find order from old to young - Wall clock time (s): " + realtochar(clock.elapsed(), "(f0.3)"));
}

void pedigree_type::getlap(std::vector<std::int32_t>& lap) const {
    std::vector<std::int32_t> order;
    getorder(order);
    auto& log = global_logger();
    log.log_message("Start to compute the longest ancestral path for each individual");
    wtime clock;
    lap.assign(static_cast<std::size_t>(nlevels_) + 1, 0);
    for (std::int32_t p = 1; p <= nlevels_; ++p) {
        const std::int32_t id = order[p], s = sire(id), d = dam(id);
        if (s == 0 && d > 0)
            lap[id] = lap[d] + 1;
        else if (s > 0 && d == 0)
            lap[id] = lap[s] + 1;
        else if (s > 0 && d > 0)
            lap[id] = std::max(lap[s], lap[d]) + 1;
    }
    log.log_message("Compute LAP - Wall clock time (s): " + realtochar(clock.elapsed(), "(f0.3)"));
}

void pedigree_type::getancestors(std::span<const std::int32_t> ids, std::vector<std::int32_t>& ancestors) const {
    const std::int32_t firstgroup = nreal() + 1;
    std::vector<char> seen(static_cast<std::size_t>(nlevels_) + 1, 0);
    std::vector<std::int32_t> stack;
    auto visit = [&](std::int32_t x) {
        if (x > 0 && x < firstgroup && !seen[x]) {
            seen[x] = 1;
            stack.push_back(x);
        }
    };
    // Only the set matters: the result is listed in ascending order.
    for (std::int32_t x : ids) {
        visit(x);
        while (!stack.empty()) {
            const std::int32_t y = stack.back();
            stack.pop_back();
            visit(sire(y));
            visit(dam(y));
        }
    }
    ancestors.clear();
    for (std::int32_t x = 1; x <= nlevels_; ++x)
        if (seen[x]) ancestors.push_back(x);
}

void pedigree_type::getdescendants(std::span<const std::int32_t> ids, std::vector<std::int32_t>& descendants) const {
    std::vector<std::int32_t> order;
    getorder(order);
    std::vector<char> marked(static_cast<std::size_t>(nlevels_) + 1, 0);
    for (std::int32_t x : ids) marked[x] = 1;
    for (std::int32_t p = 1; p <= nlevels_; ++p) {
        const std::int32_t id = order[p], s = sire(id), d = dam(id);
        if ((s != 0 && marked[s]) || (d != 0 && marked[d])) marked[id] = 1;
    }
    descendants.clear();
    for (std::int32_t x = 1; x <= nlevels_; ++x)
        if (marked[x]) descendants.push_back(x);
}

void pedigree_type::compute_pa(dmatrix& pa, std::span<const char> known) const {
    std::vector<std::int32_t> order;
    getorder(order);
    const auto m = pa.cols();
    for (std::int32_t p = 1; p <= nlevels_; ++p) {
        const std::int32_t id = order[p];
        if (known[id]) continue;
        const std::int32_t s = sire(id), d = dam(id);
        for (dmatrix::index_type j = 1; j <= m; ++j) {
            double v = 0.0;
            if (s > 0) v += pa(s, j);
            if (d > 0) v += pa(d, j);
            pa(id, j) = v * 0.5;
        }
    }
}

void pedigree_type::print_pedigree(const std::optional<std::string>& prefix) const {
    const std::string head = prefix.value_or("");
    {
        std::ofstream out(head + "pedigree.snpblup");
        for (std::int32_t i = 1; i <= nlevels_; ++i)
            out << list_directed(sire(i)) << list_directed(dam(i)) << '\n';
    }
    if (has_inbreeding()) {
        std::ofstream out(head + "inbreeding.snpblup");
        const auto n = static_cast<std::int32_t>(inb.size()) - 1;  // inb[0] is not used
        for (std::int32_t i = 1; i <= n; ++i)
            out << list_directed(i) << list_directed(inb[i]) << '\n';
    }
}

std::string pedigree_type::printstats_pedigree() const {
    std::string s = "Number of levels (max ID)         : " + inttochar(nlevels_) +
                    "\nNumber of (real) animals          : " + inttochar(nreal()) +
                    "\nNumber of declared genetic groups : " + inttochar(nupg);
    if (has_inbreeding()) {
        double lo = std::numeric_limits<double>::max(), hi = -std::numeric_limits<double>::max(), sum = 0.0;
        const std::int32_t nr = nreal();
        for (std::int32_t i = 1; i <= nr; ++i) {
            lo = std::min(lo, inb[i]);
            hi = std::max(hi, inb[i]);
            sum += inb[i];
        }
        s += "\nMinimum inbreeding                : " + realtochar(lo, "(f0.3)") +
             "\nAverage inbreeding                : " + realtochar(sum / nr, "(f0.3)") +
             "\nMaximum inbreeding                : " + realtochar(hi, "(f0.3)");
    }
    return s;
}

}  // namespace krel

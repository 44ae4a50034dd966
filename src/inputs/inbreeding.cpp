#include "inputs/inbreeding.h"

#include <cblas.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "inputs/pedigree.h"
#include "util/dense_linear_algebra.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"
#include "util/run_timer.h"

namespace krel {

namespace {

constexpr const char* module_name = "modpedigree";

// Up to this many metafounders the products with their matrix are plain
// loops; beyond it BLAS pays for its call.
constexpr std::int32_t max_loop_columns = 200;

// I/O status numbers as the Fortran runtime reported them in earlier
// versions of the program, so that cache warnings read as they always did.
constexpr int iostat_end = -1;
constexpr int iostat_bad_value = 5010;

[[noreturn]] void inbreeding_error(const std::string& message, const char* routine) {
    global_logger().log_error(message, module_name, procedure_at(routine));
    throw error_stop();
}

void progress_line(std::int32_t i) {
    if (i % 1000000 == 0) std::cout << inttochar(i, "(5x,i0,' animals treated')") << '\n';
}

// f with indices 0..n+1, old content released first so that the two never
// coexist; f[0] = -1 makes an unknown parent a founder in the formula for D.
void allocate_f(std::vector<double>& f, std::int32_t n) {
    std::vector<double>().swap(f);
    f.assign(static_cast<std::size_t>(n) + 2, 0.0);
    f[0] = -1.0;
}

double mendelian_variance(const std::vector<double>& f, std::int32_t s, std::int32_t d) {
    return 0.5 - 0.25 * (f[s] + f[d]);
}

// Adds r to l[x] and puts x into the descending list behind entry k (or
// further down), where it belongs. Returns the entry behind which x stands,
// the place to go on from for a lower parent.
std::int32_t add_to_row(std::int32_t k, std::int32_t x, double r, std::vector<double>& l,
                        std::vector<std::int32_t>& link) {
    while (link[k] > x) k = link[k];
    l[x] += r;
    if (link[k] != x) {
        link[x] = link[k];
        link[k] = x;
    }
    return k;
}

// The walk shared by both variants of Meuwissen and Luo: the row of T of
// animal i, ancestor by ancestor from young to old. Levels up to `kept`
// (metafounders) are left in l and add nothing to the sum.
double meuwluo_walk(const tmpped_type& tmpped, std::int32_t i, std::int32_t kept, std::vector<double>& l,
                    const std::vector<double>& d, std::vector<std::int32_t>& link) {
    double fi = -1.0;
    l[i] = 1.0;
    std::int32_t j = i;
    while (j != 0) {
        const std::int32_t s = tmpped.sire(j), dm = tmpped.dam(j);
        const std::int32_t hi = std::max(s, dm), lo = std::min(s, dm);
        const double r = 0.5 * l[j];
        if (hi > 0) {
            const std::int32_t k = add_to_row(j, hi, r, l, link);
            if (lo > 0) add_to_row(k, lo, r, l, link);
        }
        if (j > kept) {
            fi = std::fma(l[j], l[j] * d[j], fi);
            l[j] = 0.0;
        }
        const std::int32_t next = link[j];
        link[j] = 0;
        j = next;
    }
    return fi;
}

// ---------------------------------------------------------------- Sargolzaei

// The method of Sargolzaei et al. on the reduced pedigree of parents: one
// column of A per sire, traced up to his ancestors and down to his mates, and
// the coefficients of all his progeny from it. Sires are taken in ascending
// position, the progeny of each in ascending position, as a stable sort of
// the positions by sire gives them.
//
// The tracing visits only what can change. The backward pass takes the
// ancestors of the sire from young to old (a heap gives them in the order of
// a loop from the sire's reduced identity down), and the forward pass
// evaluates the column only at the mates and their ancestors, each entry from
// its parents as a loop upwards would. Every value that reaches a coefficient
// is formed by the same operations in the same order as by full loops over
// the reduced identities, so results agree to the bit; entries the full
// loops would clear without having changed them are left alone. D of a
// parent is formed when it is needed, from coefficients that are final by
// then, rather than for every position ahead of each sire.
//
// Without metafounders the column is cleared only up to the sire's last mate,
// m, as the program always did: a parent first met as a dam and later used
// as a sire has its reduced identity above m, and what its tracing left above
// m stays in the column for later tracings ("stale" entries below).
class sargolzaei_tracer {
public:
    sargolzaei_tracer(const tmpped_type& tmpped, std::int32_t n, std::int32_t nmeta, const dmatrix* metarel)
        : ped_(tmpped), n_(n), g_(nmeta), metarel_(metarel) {}

    void run(std::vector<double>& f);

private:
    // A parent of the reduced pedigree with its entry of the column. The
    // top bit of `sire` marks an entry whose forward value is in l, the top
    // bit of `dam` one queued for the backward pass; reduced identities stay
    // below 2^31.
    struct node {
        std::uint32_t sire = 0, dam = 0;
        double l = 0.0;
    };
    static constexpr std::uint32_t mark = 0x80000000u;
    static constexpr std::uint32_t id_bits = 0x7fffffffu;
    static constexpr std::int32_t prefetch_distance = 8;

    // The progeny of one sire: progeny_[first..next group's first).
    struct sire_group {
        std::int32_t first, r, m;  // m: his last mate, lastmate(r)
    };
    struct offspring {
        std::int32_t position, dam;  // dam as reduced identity
    };

    void reduce();
    double mendelian(std::int32_t t) const {
        const std::int32_t p = pos_[t];
        return mendelian_variance(*f_, ped_.sire(p), ped_.dam(p));
    }
    void trace_sire(std::int32_t r);
    void gamma_times_block();
    double forward_value(std::int32_t x, std::int32_t lowest);
    void clear_column(std::int32_t m);
    void touch(std::int32_t t) { touched_.push_back(t); }

    const tmpped_type& ped_;
    const std::int32_t n_;
    const std::int32_t g_;  // metafounders (reduced identities 1..g), 0 without
    const dmatrix* metarel_;
    std::vector<double>* f_ = nullptr;

    std::vector<node> node_;          // by reduced identity; entry 0 is the unknown parent
    std::vector<std::int32_t> pos_;   // reduced identity -> position
    std::vector<sire_group> groups_;  // by ascending sire position, closed by a sentinel
    std::vector<offspring> progeny_;
    std::int32_t sireless_ = 0;       // positions without a sire, first in the sorted order
    std::int32_t fs_ = 1;             // first reduced identity with a parent

    std::vector<std::int32_t> touched_, stale_, stack_, heap_;
    std::vector<double> w_;
};

void sargolzaei_tracer::reduce() {
    // Reduced identities in the order parents are met, going through the
    // positions: a parent's parents are always met before it.
    std::vector<std::int32_t> rid(static_cast<std::size_t>(n_) + 2, 0);
    std::int32_t nparents = 0;
    for (std::int32_t x : ped_.entries().first(2 * static_cast<std::size_t>(n_)))
        if (x > g_ && rid[x] == 0) {
            rid[x] = -1;
            ++nparents;
        }
    const std::int32_t nred = g_ + nparents;
    node_.assign(static_cast<std::size_t>(nred) + 2, node{});
    pos_.assign(static_cast<std::size_t>(nred) + 2, 0);
    std::vector<std::uint8_t> first_as_sire(static_cast<std::size_t>(nred) + 2, 0);

    // Metafounders keep their position as reduced identity: the block 1..g
    // of the column is then indexed as metarel is.
    std::int32_t k = g_ + 1;
    auto meet = [&](std::int32_t x) {
        if (rid[x] != 0) return false;
        if (x <= g_) {
            rid[x] = x;
            pos_[x] = x;
        } else {
            rid[x] = k;
            pos_[k] = x;
            node_[k].sire = static_cast<std::uint32_t>(rid[ped_.sire(x)]);
            node_[k].dam = static_cast<std::uint32_t>(rid[ped_.dam(x)]);
            ++k;
        }
        return true;
    };
    for (std::int32_t i = 1; i <= n_; ++i) {
        rid[i] = 0;  // clears the parent flag before i is met as a parent
        const std::int32_t s = ped_.sire(i), d = ped_.dam(i);
        if (s > 0 && meet(s)) first_as_sire[rid[s]] = 1;
        if (d > 0) meet(d);
    }

    // The stable sort by sire, as groups of progeny: a counting sort over
    // the sires' reduced identities, laid out in ascending sire position.
    std::vector<std::int32_t> start(static_cast<std::size_t>(nred) + 2, 0);
    sireless_ = 0;
    for (std::int32_t i = 1; i <= n_; ++i) {
        const std::int32_t s = ped_.sire(i);
        if (s == 0)
            ++sireless_;
        else
            ++start[rid[s]];
    }
    groups_.clear();
    std::int32_t slot = 0;
    for (std::int32_t s = 1; s <= n_; ++s) {
        const std::int32_t r = rid[s];
        if (r <= 0 || start[r] == 0) continue;
        groups_.push_back({slot, r, first_as_sire[r] ? r : 0});
        const std::int32_t count = start[r];
        start[r] = slot;
        slot += count;
    }
    groups_.push_back({slot, 0, 0});
    std::vector<std::uint8_t>().swap(first_as_sire);
    progeny_.assign(static_cast<std::size_t>(slot), offspring{});
    for (std::int32_t i = 1; i <= n_; ++i) {
        const std::int32_t s = ped_.sire(i);
        if (s != 0) progeny_[start[rid[s]]++] = {i, rid[ped_.dam(i)]};
    }
    std::vector<std::int32_t>().swap(start);
    std::vector<std::int32_t>().swap(rid);
    for (std::size_t q = 0; q + 1 < groups_.size(); ++q)
        for (std::int32_t e = groups_[q].first; e < groups_[q + 1].first; ++e)
            groups_[q].m = std::max(groups_[q].m, progeny_[e].dam);

    fs_ = 1;
    if (g_ == 0)
        for (std::int32_t t = 1; t <= nred; ++t)
            if (node_[t].sire > 0 || node_[t].dam > 0) {
                fs_ = t;
                break;
            }
}

void sargolzaei_tracer::run(std::vector<double>& f) {
    reduce();
    allocate_f(f, n_);
    f_ = &f;
    for (std::int32_t k = 1; k <= g_; ++k) f[k] = (*metarel_)(k, k) - 1.0;
    // Animals without a sire keep 0 (metafounders their own value); the
    // progress lines fall where a loop over the sorted positions puts them.
    for (std::int32_t i = 1000000; i <= sireless_; i += 1000000) progress_line(i);

    for (std::size_t q = 0; q + 1 < groups_.size(); ++q) {
        const auto [first, r, m] = groups_[q];
        progress_line(sireless_ + first + 1);
        trace_sire(r);
        // Below the lowest entry the tracing wrote, the column is zero; below
        // the first reduced identity with parents (or the metafounders),
        // nothing changes it going up.
        std::int32_t lowest = touched_.empty() ? 1 : *std::min_element(touched_.begin(), touched_.end());
        lowest = std::max(lowest, g_ > 0 ? g_ + 1 : fs_);
        const std::int32_t end = groups_[q + 1].first;
        for (std::int32_t e = first; e < end; ++e) {
            // The mates are scattered over the reduced pedigree: their entries
            // are fetched a few mates ahead.
            if (e + prefetch_distance < end) __builtin_prefetch(&node_[progeny_[e + prefetch_distance].dam]);
            f[progeny_[e].position] = 0.5 * forward_value(progeny_[e].dam, lowest);
        }
        clear_column(m);
    }
    f[0] = 0.0;
    f_ = nullptr;
}

// Backward pass: l = D T' e_r over the ancestors of r (without metafounders),
// or T' e_r followed by D on the animals and Gamma on the metafounder block.
// Afterwards touched_ lists every entry written that may be non-zero.
void sargolzaei_tracer::trace_sire(std::int32_t r) {
    touched_.clear();
    heap_.clear();
    const std::int32_t lowest = g_ > 0 ? 1 : fs_;
    auto enqueue = [&](std::int32_t t) {
        if (t >= lowest && !(node_[t].dam & mark)) {
            node_[t].dam |= mark;
            heap_.push_back(t);
            std::push_heap(heap_.begin(), heap_.end());
        }
    };
    node_[r].l = 1.0;
    touch(r);
    enqueue(r);
    for (std::int32_t t : stale_) {
        touch(t);
        if (t <= r) enqueue(t);
    }
    // Highest reduced identity first: every entry has received all it gets
    // from its offspring before it passes its own share on.
    while (!heap_.empty()) {
        std::pop_heap(heap_.begin(), heap_.end());
        const std::int32_t t = heap_.back();
        heap_.pop_back();
        node& nt = node_[t];
        if (!(nt.l > 0.0)) continue;
        const auto p1 = static_cast<std::int32_t>(nt.sire & id_bits);
        const auto p2 = static_cast<std::int32_t>(nt.dam & id_bits);
        node_[p1].l += 0.5 * nt.l;
        node_[p2].l += 0.5 * nt.l;
        // D of a metafounder would be 1: the metafounder block is for Gamma.
        // Nothing reads l(t) of the backward pass again, so D comes at once
        // also where the method applies it after the whole backward pass.
        if (t > g_) nt.l = nt.l * mendelian(t);
        if (p1 > 0) {
            touch(p1);
            enqueue(p1);
        }
        if (p2 > 0) {
            touch(p2);
            enqueue(p2);
        }
    }
    node_[0].l = 0.0;
    if (g_ > 0) gamma_times_block();
}

void sargolzaei_tracer::gamma_times_block() {
    const dmatrix& gamma = *metarel_;
    w_.assign(static_cast<std::size_t>(g_), 0.0);
    if (g_ <= max_loop_columns) {
        for (std::int32_t k = 1; k <= g_; ++k) {
            const double lk = node_[k].l;
            const double* col = gamma.column(k);
            for (std::int32_t c = 0; c < g_; ++c) w_[c] += col[c] * lk;
        }
    } else {
        std::vector<double> block(static_cast<std::size_t>(g_));
        for (std::int32_t k = 1; k <= g_; ++k) block[k - 1] = node_[k].l;
        cblas_dgemv(CblasColMajor, CblasNoTrans, g_, g_, 1.0, gamma.data(), g_, block.data(), 1, 0.0, w_.data(), 1);
    }
    for (std::int32_t k = 1; k <= g_; ++k) {
        node_[k].l = w_[k - 1];
        if (w_[k - 1] != 0.0) touch(k);
    }
}

// The forward value of the column at x: l(x) after a loop t = fs..m of
// l(t) += 0.5 (l(sire) + l(dam)). Entries below `lowest` hold their final
// value already.
double sargolzaei_tracer::forward_value(std::int32_t x, std::int32_t lowest) {
    auto pending = [&](std::int32_t t) { return t >= lowest && !(node_[t].sire & mark); };
    if (!pending(x)) return node_[x].l;
    stack_.clear();
    stack_.push_back(x);
    while (!stack_.empty()) {
        const std::int32_t t = stack_.back();
        node& nt = node_[t];
        const auto p1 = static_cast<std::int32_t>(nt.sire & id_bits);
        const auto p2 = static_cast<std::int32_t>(nt.dam & id_bits);
        __builtin_prefetch(&node_[p2]);
        if (pending(p1)) {
            stack_.push_back(p1);
            continue;
        }
        if (pending(p2)) {
            stack_.push_back(p2);
            continue;
        }
        nt.l = std::fma(0.5, node_[p1].l + node_[p2].l, nt.l);
        nt.sire |= mark;
        touch(t);
        stack_.pop_back();
    }
    return node_[x].l;
}

// The column is cleared up to m (all of it with metafounders); without
// metafounders, what lies above m is kept for the next tracings.
void sargolzaei_tracer::clear_column(std::int32_t m) {
    node_[0].l = 0.0;
    std::vector<std::int32_t> kept;
    for (std::int32_t t : touched_) {
        node& nt = node_[t];
        nt.sire &= id_bits;
        nt.dam &= id_bits;
        if (g_ > 0 || t <= m) {
            nt.l = 0.0;
        } else if (nt.l != 0.0) {
            kept.push_back(t);
        }
    }
    if (g_ > 0)
        for (std::int32_t k = 1; k <= g_; ++k) node_[k].l = 0.0;
    std::sort(kept.begin(), kept.end());
    kept.erase(std::unique(kept.begin(), kept.end()), kept.end());
    stale_ = std::move(kept);
}

}  // namespace

// ------------------------------------------------------- Meuwissen and Luo

void meuwluo(const tmpped_type& tmpped, std::int32_t i, std::int32_t /*n*/, std::vector<double>& f,
             std::vector<double>& l, std::vector<double>& d, std::vector<std::int32_t>& link) {
    const std::int32_t s = tmpped.sire(i), dm = tmpped.dam(i);
    d[i] = mendelian_variance(f, s, dm);
    if (s == 0 || dm == 0) {
        f[i] = 0.0;
        return;
    }
    f[i] = meuwluo_walk(tmpped, i, 0, l, d, link);
}

void meuwluo_meta(const tmpped_type& tmpped, std::int32_t i, std::int32_t /*n*/, std::vector<double>& f,
                  std::vector<double>& l, std::vector<double>& d, std::vector<std::int32_t>& link,
                  std::int32_t nupg, const dmatrix& chol) {
    const std::int32_t s = tmpped.sire(i), dm = tmpped.dam(i);
    if (s == 0 || dm == 0) inbreeding_error("Metafounder (=0) not defined.\nCheck your pedigree", "meuwluo_meta");
    d[i] = mendelian_variance(f, s, dm);
    const double fi = meuwluo_walk(tmpped, i, nupg, l, d, link);
    // The metafounder part: l' Gamma l = |C' l|^2 over the block 1..g.
    double q = 0.0;
    if (nupg <= max_loop_columns) {
        for (std::int32_t c = 1; c <= nupg; ++c) {
            const double* col = chol.column(c);
            double v = 0.0;
            for (std::int32_t k = c; k <= nupg; ++k) v += col[k - 1] * l[k];
            q += v * v;
        }
    } else {
        std::vector<double> v(static_cast<std::size_t>(nupg));
        cblas_dgemv(CblasColMajor, CblasTrans, nupg, nupg, 1.0, chol.data(), nupg, l.data() + 1, 1, 0.0, v.data(),
                    1);
        for (double x : v) q += x * x;
    }
    f[i] = q + fi;
    std::fill(l.begin() + 1, l.begin() + 1 + nupg, 0.0);
}

void compute_f_meuwissen_and_luo(tmpped_type& tmpped, std::int32_t n, std::int32_t nupg, std::vector<double>& f) {
    const std::int32_t g = std::max(nupg, 0);
    if (g > 0)
        for (std::int32_t& x : tmpped.entries())
            if (x <= g) x = 0;
    allocate_f(f, n);
    std::vector<double> l(static_cast<std::size_t>(n) + 1, 0.0), d(static_cast<std::size_t>(n) + 1, 0.0);
    std::vector<std::int32_t> link(static_cast<std::size_t>(n) + 1, 0);
    for (std::int32_t i = g + 1; i <= n; ++i) {
        progress_line(i);
        meuwluo(tmpped, i, n, f, l, d, link);
    }
    f[0] = 0.0;
}

void compute_f_meuwissen_and_luo_meta(const tmpped_type& tmpped, std::int32_t n, std::int32_t nupg,
                                      const dmatrix& metarel, std::vector<double>& f) {
    const std::int32_t g = std::max(nupg, 0);
    // C with Gamma = C C'; chols8 mirrors the factor into the upper triangle,
    // which is cleared so that the product with C' can read whole columns.
    dmatrix chol = metarel;
    chols8(chol);
    for (std::int32_t c = 2; c <= g; ++c)
        for (std::int32_t k = 1; k < c; ++k) chol(k, c) = 0.0;
    allocate_f(f, n);
    for (std::int32_t k = 1; k <= g; ++k) f[k] = metarel(k, k) - 1.0;
    std::vector<double> l(static_cast<std::size_t>(n) + 1, 0.0), d(static_cast<std::size_t>(n) + 1, 0.0);
    std::vector<std::int32_t> link(static_cast<std::size_t>(n) + 1, 0);
    for (std::int32_t i = g + 1; i <= n; ++i) {
        progress_line(i);
        meuwluo_meta(tmpped, i, n, f, l, d, link, g, chol);
    }
    f[0] = 0.0;
}

void compute_f_sargolzaei_etal(tmpped_type& tmpped, std::int32_t n, std::int32_t nupg, std::vector<double>& f) {
    const std::int32_t g = std::max(nupg, 0);
    if (g > 0 && n > 0)
        for (std::int32_t& x : tmpped.entries())
            if (x <= g) x = 0;
    sargolzaei_tracer(tmpped, n, 0, nullptr).run(f);
}

void compute_f_sargolzaei_etal_meta(const tmpped_type& tmpped, std::int32_t n, std::int32_t nupg,
                                    const dmatrix& metarel, std::vector<double>& f) {
    sargolzaei_tracer(tmpped, n, std::max(nupg, 0), &metarel).run(f);
}

// ------------------------------------------------------------ the pedigree

std::int32_t pedigree_type::checkval() const {
    // Unsigned sums wrap as the 32-bit hash always has.
    const std::int32_t n = nlength();
    std::uint32_t hash = static_cast<std::uint32_t>(n);
    for (std::int32_t i = 1; i <= std::min(100, n); ++i) hash += static_cast<std::uint32_t>(sire(i));
    for (std::int32_t i = std::max(1, n - 100); i <= n; ++i) hash += static_cast<std::uint32_t>(dam(i));
    return static_cast<std::int32_t>(hash);
}

namespace {

// One free-form record of the cache or of an inbreeding file: level and
// value. Blank records are skipped; false at the end of the file or on a
// record that does not read, with the I/O status in io.
bool read_level_value(record_reader& in, std::int32_t& level, double& value, int& io, std::string_view& record) {
    do {
        if (!in.next(record)) {
            io = iostat_end;
            return false;
        }
    } while (blank_record(record));
    item_cursor items(record);
    if (!items.next_int(level) || !items.next_real(value)) {
        io = iostat_bad_value;
        return false;
    }
    io = 0;
    return true;
}

void check_level(std::int32_t level, std::int32_t n, const std::string& file, const char* routine) {
    if (level < 1 || level > n)
        inbreeding_error("The file " + file + " gives an inbreeding coefficient to level " + inttochar(level) +
                             ", outside the pedigree's levels 1 to " + inttochar(n),
                         routine);
}

// An inbreeding coefficient is a probability, and 1 + F scales the genetic
// variance of the animal: a value outside [0, 1) would turn its PEV and
// reliability into nonsense or NaN.
void check_coefficient(double value, std::int32_t level, const record_reader& in, std::string_view record,
                       const char* routine, const char* advice = "") {
    if (value >= 0.0 && value < 1.0) return;
    item_cursor items(record);
    std::string_view written;
    items.next_word(written);
    items.next_word(written);
    inbreeding_error("The file " + in.file() + " gives level " + inttochar(level) + " the inbreeding coefficient " +
                         printable_excerpt(written) + " at line " + std::to_string(in.line_number()) +
                         ", outside [0, 1)" + advice,
                     routine);
}

// "(i0,1x,f0.6)" for the cache, written fast: the same text as
// inttochar and realtochar give.
void append_cache_line(std::string& out, std::int32_t level, double value) {
    char buf[400];
    char* p = std::to_chars(buf, buf + sizeof buf, level).ptr;
    *p++ = ' ';
    if (!std::isfinite(value)) {
        out.append(buf, p);
        out += realtochar(value, "(f0.6)");
    } else {
        if (std::signbit(value)) *p++ = '-';
        char* digits = p;
        p = std::to_chars(p, buf + sizeof buf, std::fabs(value), std::chars_format::fixed, 6).ptr;
        if (digits[0] == '0' && digits[1] == '.') {
            // Minimal width: no zero before the point.
            std::copy(digits + 1, p, digits);
            --p;
        }
        out.append(buf, p);
    }
    out += '\n';
}

}  // namespace

void pedigree_type::computeinbreeding_ped(const std::optional<std::string>& outdir) {
    auto& log = global_logger();
    wtime clock;
    log.log_message("Start computation of inbreeding");
    const std::int32_t n = nlength();
    std::int32_t g = nupg;
    if (g < 0) {
        log.log_error("Number of UPGs < 0 (internal error)", module_name, procedure_at("computeinbreeding_ped"));
        g = 0;  // no group can be indexed below position 1
    }
    std::vector<double>().swap(inb);
    inb.assign(static_cast<std::size_t>(n) + 1, 0.0);
    bool exists = false;

    if (pedfile) {
        const std::string cache = *pedfile + ".inb";
        log.log_debug("Check whether if the file " + cache + " exists, and read it if it is the case");
        std::error_code ec;
        exists = std::filesystem::exists(cache, ec);
        if (exists) {
            record_reader in;
            if (!in.open(cache)) {
                log.log_io_error("Cannot open the file " + cache, module_name, procedure_at("computeinbreeding_ped"));
                throw error_stop();
            }
            // The magic token is read but not compared: the hash and the
            // number of lines decide.
            int io = 0;
            std::int32_t stored = 0;
            std::string_view record;
            bool found = false;
            while (!found && in.next(record)) found = !blank_record(record);
            if (!found) {
                io = iostat_end;
            } else {
                item_cursor items(record);
                std::string_view magic;
                if (!items.next_word(magic) || !items.next_int(stored)) io = iostat_bad_value;
            }
            const std::int32_t hash = checkval();
            std::int32_t k = 0;
            if (io == 0 && hash == stored) {
                for (; k < n; ++k) {
                    std::int32_t level = 0;
                    double value = 0.0;
                    std::string_view line;
                    if (!read_level_value(in, level, value, io, line)) break;
                    check_level(level, n, cache, "computeinbreeding_ped");
                    check_coefficient(value, level, in, line, "computeinbreeding_ped",
                                      "; remove the file to have the coefficients computed afresh");
                    inb[level] = value;
                }
                if (k == n) {
                    log.log_message("Inbreeding coefficients read from " + cache +
                                    " - Wall clock time (s): " + realtochar(clock.elapsed(), "(f0.3)"));
                    return;
                }
                std::fill(inb.begin(), inb.end(), 0.0);
            }
            log.log_warning("The file " + cache +
                            " exists, but is incorrect (magic number or number of lines)\nio = " + inttochar(io) +
                            "\nhash: " + inttochar(stored) + " vs " + inttochar(hash));
        }
    }

    // The zeros are not needed while the coefficients are computed; the
    // array comes back once the work arrays are gone, which keeps the peak
    // lower by one real per level.
    std::vector<double>().swap(inb);

    log.log_message("1. Get the order from old to young...");
    std::vector<std::int32_t> order, inverse;
    getorder(order, &inverse, n, g);

    log.log_message("2. Creates temporary pedigree...");
    tmpped_type tmpped(n);
    for (std::int32_t p = g + 1; p <= n; ++p) {
        const std::int32_t id = order[p], s = sire(id), d = dam(id);
        if (s != 0) tmpped(1, p) = inverse[s];
        if (d != 0) tmpped(2, p) = inverse[d];
    }
    std::vector<std::int32_t>().swap(inverse);

    std::vector<double> f;
    std::int32_t c = g;
    if (inbmethod == 1 && !ismeta) {
        log.log_message("3. Computes inbreeding coefficients using Meuwissen and Luo (1993)...");
        compute_f_meuwissen_and_luo(tmpped, n, g, f);
    } else if (inbmethod == 1) {
        log.log_message("3. Computes inbreeding coefficients using Meuwissen and Luo (1993) AND with metafounders...");
        compute_f_meuwissen_and_luo_meta(tmpped, n, g, metarel, f);
        c = 0;
    } else if (inbmethod == 2 && !ismeta) {
        log.log_message("3. Computes inbreeding coefficients using Sargolzaei et al. (2005)...");
        compute_f_sargolzaei_etal(tmpped, n, g, f);
    } else if (inbmethod == 2) {
        log.log_message("3. Computes inbreeding coefficients using Sargolzaei et al. (2005) AND with metafounders...");
        compute_f_sargolzaei_etal_meta(tmpped, n, g, metarel, f);
        c = 0;
    } else {
        inbreeding_error("Request of a method to compute inbreeding coefficients that is not implemented",
                         "computeinbreeding_ped");
    }
    tmpped.release();

    inb.assign(static_cast<std::size_t>(n) + 1, 0.0);
    for (std::int32_t p = c + 1; p <= n; ++p) inb[order[p]] = f[p];
    std::vector<double>().swap(f);
    std::vector<std::int32_t>().swap(order);
    log.log_message("Computation of inbreeding coefficients - Wall clock time (s): " +
                    realtochar(clock.elapsed(), "(f0.3)"));

    // A cache that exists but failed the check stays as it is: the warning
    // comes back until the user removes the file.
    if (exists || !pedfile) return;

    clock.start();
    const std::string name = *pedfile + (ismeta ? "_meta" : "") + ".inb";
    const std::string file = outdir ? outputfile(*outdir, name) : name;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (!out) {
        log.log_io_error("Cannot write the inbreeding file " + file, module_name,
                         procedure_at("computeinbreeding_ped"));
        throw error_stop();
    }
    std::string text = "# " + inttochar(checkval()) + "\n";
    for (std::int32_t i = 1; i <= n; ++i) {
        append_cache_line(text, i, inb[i]);
        if (text.size() > (1u << 20)) {
            out.write(text.data(), static_cast<std::streamsize>(text.size()));
            text.clear();
        }
    }
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) {
        log.log_io_error("Cannot write the inbreeding file " + file, module_name,
                         procedure_at("computeinbreeding_ped"));
        throw error_stop();
    }
    log.log_message("Inbreeding coefficients saved in " + name +
                    " - Wall clock time (s): " + realtochar(clock.elapsed(), "(f0.3)"));
}

void pedigree_type::readinbreeding(const std::string& file) {
    const std::int32_t n = nlength();
    std::vector<double>().swap(inb);
    inb.assign(static_cast<std::size_t>(n) + 1, 0.0);
    record_reader in;
    if (!in.open(file)) {
        global_logger().log_io_error("Cannot open the inbreeding file " + file, module_name,
                                     procedure_at("readinbreeding"));
        throw error_stop();
    }
    std::int32_t c = 0;
    std::int32_t level = 0;
    double value = 0.0;
    int io = 0;
    // Comment lines ("#" first) are allowed only among the first ten data
    // lines; a failed read there goes on with the records after it.
    std::string_view record;
    while (c < 10 && in.next(record)) {
        if (blank_record(record)) continue;
        item_cursor items(record);
        std::string_view first;
        if (!items.next_word(first)) break;
        if (first.front() == '#') continue;
        item_cursor values(record);
        if (!values.next_int(level) || !values.next_real(value)) {
            // Among the first lines a record that does not read is passed over.
            global_logger().log_warning("The file " + file + ": line " + std::to_string(in.line_number()) +
                                        " does not read as a level and an inbreeding coefficient (\"" +
                                        printable_excerpt(record) + "\") and is passed over");
            break;
        }
        check_level(level, n, file, "readinbreeding");
        check_coefficient(value, level, in, record, "readinbreeding");
        ++c;
        inb[level] = value;
    }
    // From here a comment, like any record that does not read, ends the file.
    while (read_level_value(in, level, value, io, record)) {
        check_level(level, n, file, "readinbreeding");
        check_coefficient(value, level, in, record, "readinbreeding");
        ++c;
        inb[level] = value;
    }
    if (io == iostat_bad_value) warn_reading_stopped(in, record);
    global_logger().log_message("Number of inbreeding coefficients read from " + file + ": " + inttochar(c));
}

}  // namespace krel

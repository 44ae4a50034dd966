#include "sim_files.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "sim_random.h"

namespace krelsim {

namespace {

[[noreturn]] void fail(const std::filesystem::path& file, const char* what) {
    throw std::runtime_error(fmt::format("cannot {} {}: {}", what, file.string(), std::strerror(errno)));
}

std::FILE* open_out(const std::filesystem::path& file) {
    std::FILE* f = std::fopen(file.c_str(), "wb");
    if (!f) fail(file, "write");
    return f;
}

// Levels of the fixed effect that the solution files carry besides the
// animal or SNP effect, so that readers must skip records of other effects.
constexpr std::int64_t other_levels = 20;

}  // namespace

text_writer::text_writer(const std::filesystem::path& file) : file_(file), f_(open_out(file)) {}

text_writer::~text_writer() {
    if (f_) std::fclose(f_);
}

void text_writer::flush() {
    if (!buffer_.size()) return;
    if (std::fwrite(buffer_.data(), 1, buffer_.size(), f_) != buffer_.size()) fail(file_, "write");
    buffer_.clear();
}

void text_writer::close() {
    flush();
    std::FILE* f = f_;
    f_ = nullptr;
    if (std::fclose(f) != 0) fail(file_, "write");
}

double allele_counts::frequency(std::int64_t j) const {
    const std::int64_t seen = individuals - missing[j];
    return seen > 0 ? static_cast<double>(2 * hom2[j] + het[j]) / static_cast<double>(2 * seen) : 0.0;
}

plink_writer::plink_writer(const std::filesystem::path& bed, std::int64_t nsnp, std::int64_t individuals, bool keep)
    : file_(bed), f_(open_out(bed)), nbytes_((individuals + 3) / 4), keep_(keep) {
    const unsigned char magic[3] = {0x6C, 0x1B, 0x01};
    if (std::fwrite(magic, 1, 3, f_) != 3) fail(file_, "write");
    counts_.individuals = individuals;
    counts_.hom2.assign(nsnp, 0);
    counts_.het.assign(nsnp, 0);
    counts_.missing.assign(nsnp, 0);
    if (keep_) kept_.resize(static_cast<std::size_t>(nsnp) * nbytes_);
}

void plink_writer::add(std::int64_t first, std::int64_t count, const std::uint8_t* codes) {
    if (first != next_) throw std::logic_error("SNP chunks out of order");
    const std::size_t size = static_cast<std::size_t>(count) * nbytes_;
    if (size && std::fwrite(codes, 1, size, f_) != size) fail(file_, "write");
    if (keep_) std::copy(codes, codes + size, kept_.begin() + first * nbytes_);
    // Bit counting as on the packed bytes: low bit set is 01 or 11, high bit
    // set is 10 or 11; padding (00) counts nowhere.
    for (std::int64_t j = 0; j < count; ++j) {
        std::int64_t low = 0, high = 0, both = 0;
        const std::uint8_t* x = codes + j * nbytes_;
        for (std::int64_t b = 0; b < nbytes_; ++b) {
            const unsigned l = x[b] & 0x55u, h = (x[b] >> 1) & 0x55u;
            low += std::popcount(l);
            high += std::popcount(h);
            both += std::popcount(l & h);
        }
        counts_.hom2[first + j] = both;
        counts_.het[first + j] = high - both;
        counts_.missing[first + j] = low - both;
    }
    next_ = first + count;
}

void plink_writer::close() {
    std::FILE* f = f_;
    f_ = nullptr;
    if (std::fclose(f) != 0) fail(file_, "write");
}

void write_pedigree(const std::filesystem::path& file, const sim_pedigree& ped) {
    text_writer w(file);
    for (auto i : ped.by_level()) {
        if (!ped.recorded[i]) continue;
        w.print("{} {} {} {}\n", ped.level[i], ped.parent_level(i, 0), ped.parent_level(i, 1), 2000 + ped.year[i]);
    }
    w.close();
}

void write_metafounders(const std::filesystem::path& file, const sim_pedigree& ped, const sim_settings& s) {
    // A shared 0.1 plus a positive diagonal: positive definite for any count.
    text_writer w(file);
    for (std::int64_t k = 0; k < ped.groups; ++k) {
        const double own = 0.2 + 0.3 * rng(key(s.seed, stream_metafounder, k)).uniform();
        for (std::int64_t l = 0; l <= k; ++l)
            w.print("{} {} {:.6f}\n", ped.n + 1 + k, ped.n + 1 + l, 0.1 + (k == l ? own : 0.0));
    }
    w.close();
}

void write_fam(const std::filesystem::path& file, const sim_pedigree& ped, const std::vector<std::int32_t>& genotyped) {
    text_writer w(file);
    for (auto i : genotyped) {
        // Parents only when they are animals: PLINK knows no genetic groups.
        const auto s = ped.sire[i] == unknown_parent ? 0 : ped.level[ped.sire[i]];
        const auto d = ped.dam[i] == unknown_parent ? 0 : ped.level[ped.dam[i]];
        w.print("{0} {0} {1} {2} {3} -9\n", ped.level[i], s, d, ped.male[i] ? 1 : 2);
    }
    w.close();
}

void write_bim(const std::filesystem::path& file, const snp_map& map, const sim_settings& s) {
    static const char* const pairs[][2] = {{"A", "G"}, {"C", "T"}, {"A", "C"}, {"G", "T"}};
    text_writer w(file);
    for (std::int64_t c = 0; c < map.chromosomes(); ++c) {
        const std::int64_t m = map.chrom_start[c + 1] - map.chrom_start[c];
        const double step = map.morgans[c] / static_cast<double>(m);
        for (std::int64_t k = 0; k < m; ++k) {
            const std::int64_t j = map.chrom_start[c] + k;
            const auto* alleles = pairs[key(s.seed, stream_snp_map, j, 3) % 4];
            w.print("{} snp{} {:.4f} {} {} {}\n", c + 1, j + 1, 100.0 * step * static_cast<double>(k),
                    std::llround(1.0e8 * step * static_cast<double>(k + 1)), alleles[0], alleles[1]);
        }
    }
    w.close();
}

void write_frequencies(const std::filesystem::path& file, const std::vector<double>& freq) {
    text_writer w(file);
    for (std::size_t j = 0; j < freq.size(); ++j) w.print("{} {}\n", j + 1, freq[j]);
    w.close();
}

void write_text_genotypes(const std::filesystem::path& spaced, const std::filesystem::path& nospace,
                          const sim_pedigree& ped, const std::vector<std::int32_t>& genotyped,
                          const plink_writer& plink, const std::vector<double>& freq, bool centred) {
    const std::int64_t nsnp = static_cast<std::int64_t>(freq.size());
    const std::int64_t nbytes = plink.nbytes();
    const auto& codes = plink.codes();
    std::vector<int> imputed(nsnp);
    for (std::int64_t j = 0; j < nsnp; ++j) imputed[j] = static_cast<int>(std::lround(2.0 * freq[j]));
    // Identities right-aligned to the widest one: shorter ones get leading blanks.
    const int width = static_cast<int>(fmt::formatted_size("{}", ped.n));

    text_writer ws(spaced), wn(nospace);
    // Sixty-four bytes of a SNP are one cache line: 256 animals at a time.
    constexpr std::int64_t block = 64;
    std::vector<std::int8_t> g(static_cast<std::size_t>(block) * 4 * nsnp);
    for (std::int64_t b0 = 0; b0 < nbytes; b0 += block) {
        const std::int64_t b1 = std::min(nbytes, b0 + block);
        for (std::int64_t j = 0; j < nsnp; ++j)
            for (std::int64_t b = b0; b < b1; ++b) {
                const std::uint8_t x = codes[j * nbytes + b];
                for (int q = 0; q < 4; ++q) {
                    const int code = (x >> (2 * q)) & 3;
                    g[((b - b0) * 4 + q) * nsnp + j] = static_cast<std::int8_t>(code == 1 ? -1 : (code == 0 ? 0 : code - 1));
                }
            }
        const std::int64_t last = std::min<std::int64_t>(static_cast<std::int64_t>(genotyped.size()), b1 * 4);
        for (std::int64_t k = b0 * 4; k < last; ++k) {
            const std::int8_t* row = &g[(k - b0 * 4) * nsnp];
            const auto id = ped.level[genotyped[k]];
            ws.print("{}", id);
            wn.print("{:>{}} ", id, width);
            for (std::int64_t j = 0; j < nsnp; ++j) {
                const int v = row[j] < 0 ? imputed[j] : row[j];
                wn.put(static_cast<char>('0' + v));
                if (centred)
                    ws.print(" {:.6f}", row[j] < 0 ? 0.0 : row[j] - 2.0 * freq[j]);
                else {
                    ws.put(' ');
                    ws.put(static_cast<char>('0' + v));
                }
            }
            ws.put('\n');
            wn.put('\n');
        }
    }
    ws.close();
    wn.close();
}

double sum_2pq(const std::vector<double>& freq) {
    double sum = 0.0;
    for (double p : freq) sum += 2.0 * p * (1.0 - p);
    return sum;
}

void write_variances(const std::filesystem::path& dir, const sim_variances& v, const std::vector<double>& freq) {
    const int nt = static_cast<int>(v.traits);
    text_writer h(dir / "heritability.txt");
    for (int t = 0; t < nt; ++t) h.print("{:.4f}\n", v.h2[t]);
    h.close();
    // One row of the lower triangle on each record.
    text_writer g(dir / "genetic_vcv.txt");
    for (int t = 0; t < nt; ++t) {
        for (int u = 0; u <= t; ++u) g.print("{}{}", u ? " " : "", v.genetic[t][u]);
        g.put('\n');
    }
    g.close();
    // Residuals: class, row, then that row of the lower triangle.
    text_writer r(dir / "residual_vcv.txt");
    for (int t = 0; t < nt; ++t) {
        r.print("1 {}", t + 1);
        for (int u = 0; u <= t; ++u) r.print(" {}", v.residual[t][u]);
        r.put('\n');
    }
    r.close();
    // SNP (co)variances: genetic (co)variances spread over the SNPs' 2pq.
    const double d = sum_2pq(freq);
    text_writer sv(dir / "snp_vcv.txt");
    for (int t = 0; t < nt; ++t) {
        for (int u = 0; u <= t; ++u) sv.print("{}{:.10e}", u ? " " : "", d > 0 ? v.genetic[t][u] / d : 0.0);
        sv.put('\n');
    }
    sv.close();
}

void write_pev_rel(const std::filesystem::path& pev, const std::filesystem::path& rel, const sim_pedigree& ped,
                   const sim_variances& v, const sim_reliabilities& r, const sim_settings& s) {
    const auto order = ped.by_level();
    text_writer wp(pev);
    for (int t = 0; t < v.traits; ++t) {
        const double g = v.genetic[t][t];
        for (auto i : order)
            wp.print("{} {} {} {} {:.8g}\n", t + 1, s.effect, ped.level[i], ped.level[i], g * (1.0 - r.rel[t][i]));
        for (std::int64_t k = 1; k <= other_levels; ++k)
            wp.print("{} {} {} {} {:.8g}\n", t + 1, s.other_effect(), k, k,
                     0.05 * g * (1.0 + rng(key(s.seed, stream_effects, k, t)).uniform()));
    }
    wp.close();
    text_writer wr(rel);
    for (auto i : order) {
        int records = 0;
        for (int t = 0; t < v.traits; ++t) records += r.records[t][i];
        wr.print("{} {} {}", ped.level[i], ped.level[i], records);
        for (int t = 0; t < v.traits; ++t) wr.print(" {:.6f}", r.rel[t][i]);
        wr.put('\n');
    }
    wr.close();
}

void write_snp_solutions(const std::filesystem::path& five, const std::filesystem::path& six, const snp_map& map,
                         const sim_variances& v, const std::vector<double>& freq, const sim_settings& s) {
    const std::int64_t nsnp = map.nsnp;
    const double d = sum_2pq(freq);
    const std::int64_t qtl_every = 500;  // about one SNP in 500 has a large effect
    text_writer w5(five), w6(six);
    w6.print("trait type level effect solution stderr\n");
    for (int t = 0; t < v.traits; ++t) {
        const double sd = std::sqrt(d > 0 ? v.genetic[t][t] / d : v.genetic[t][t]);
        for (std::int64_t k = 1; k <= other_levels; ++k) {
            const double b = 10.0 * rng(key(s.seed, stream_effects, k, 10 + t)).normal();
            w5.print("{} {} {} {} {:.8g}\n", t + 1, s.other_effect(), k, k, b);
            w6.print("{} 1 {} {} {:.8g} {:.4g}\n", t + 1, k, s.other_effect(), b, 1.0);
        }
        for (std::int64_t j = 0; j < nsnp; ++j) {
            rng r(key(s.seed, stream_effects, j, 100 + t));
            const bool varies = freq[j] > 0.0 && freq[j] < 1.0;
            double b = varies ? 0.3 * sd * r.normal() : 0.0;
            if (varies && r.below(qtl_every) == 0) b += 8.0 * sd * r.normal();
            w5.print("{} {} {} {} {:.8g}\n", t + 1, s.snp_effect, j + 1, j + 1, b);
            w6.print("{} 1 {} {} {:.8g} {:.4g}\n", t + 1, j + 1, s.snp_effect, b, 0.5 * sd);
        }
    }
    w5.close();
    w6.close();
}

}  // namespace krelsim

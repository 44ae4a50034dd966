#include "sim_genotypes.h"

#include <algorithm>
#include <cmath>

#include "sim_random.h"

namespace krelsim {

namespace {

constexpr std::int64_t pool_size = 128;   // ancestral haplotypes
constexpr std::int64_t pool_segment = 2;  // words (of 64 SNPs) a founder copies from one pool haplotype

}  // namespace

snp_map make_snp_map(const sim_settings& s) {
    snp_map m;
    m.nsnp = s.snps;
    const std::int64_t nc = s.chromosomes;
    m.chrom_start.resize(nc + 1);
    for (std::int64_t c = 0; c <= nc; ++c) m.chrom_start[c] = c * s.snps / nc;
    m.morgans.resize(nc);
    for (std::int64_t c = 0; c < nc; ++c) m.morgans[c] = 0.6 + 0.9 * rng(key(s.seed, stream_snp_map, c, 1)).uniform();
    m.base_freq.resize(s.snps);
    for (std::int64_t j = 0; j < s.snps; ++j) {
        rng r(key(s.seed, stream_snp_map, j, 2));
        const bool flip = r.chance(0.5);
        if (r.chance(s.monomorphic)) {
            m.base_freq[j] = flip ? 1.0 : 0.0;
        } else {
            const double minor = 0.03 + 0.47 * r.uniform();
            m.base_freq[j] = flip ? 1.0 - minor : minor;
        }
    }
    return m;
}

void meiosis_masks(int start, const std::vector<std::int64_t>& crossovers, std::int64_t w0, std::int64_t w1,
                   std::uint64_t* mask) {
    auto x = crossovers.begin();
    int parity = start;
    for (std::int64_t w = w0; w < w1; ++w) {
        const std::int64_t first = w * 64;
        while (x != crossovers.end() && *x <= first) {
            parity ^= 1;
            ++x;
        }
        std::uint64_t m = parity ? ~std::uint64_t{0} : 0;
        for (auto y = x; y != crossovers.end() && *y < first + 64; ++y) m ^= ~std::uint64_t{0} << (*y - first);
        mask[w - w0] = m;
    }
}

void simulate_genotypes(const sim_pedigree& ped, const std::vector<std::int32_t>& genotyped,
                        const snp_map& map, const sim_settings& s, const chunk_sink& sink,
                        std::size_t memory_budget) {
    const std::int64_t n = ped.n;
    const std::int64_t ng = static_cast<std::int64_t>(genotyped.size());
    const std::int64_t nbytes = (ng + 3) / 4;

    // The animals to follow: the genotyped ones and all their ancestors, in
    // birth order so that parents come first.
    std::vector<std::int32_t> slot(n, -1);
    for (auto g : genotyped) slot[g] = 0;
    for (std::int64_t i = n - 1; i >= 0; --i) {
        if (slot[i] < 0) continue;
        if (ped.sire[i] != unknown_parent) slot[ped.sire[i]] = 0;
        if (ped.dam[i] != unknown_parent) slot[ped.dam[i]] = 0;
    }
    std::vector<std::int32_t> followed;
    for (std::int64_t i = 0; i < n; ++i)
        if (slot[i] >= 0) {
            slot[i] = static_cast<std::int32_t>(followed.size());
            followed.push_back(static_cast<std::int32_t>(i));
        }
    // Cohorts can be dropped in parallel: parents are at least a year older.
    std::vector<std::size_t> cohort_start{0};
    for (std::size_t k = 1; k < followed.size(); ++k)
        if (ped.year[followed[k]] != ped.year[followed[k - 1]]) cohort_start.push_back(k);
    cohort_start.push_back(followed.size());

    const std::int64_t nf = static_cast<std::int64_t>(followed.size());
    const std::size_t per_word = std::max<std::size_t>(1, static_cast<std::size_t>(nf) * 2 * 8);
    const std::int64_t chunk_words =
        std::clamp<std::int64_t>(static_cast<std::int64_t>(memory_budget / per_word) / pool_segment * pool_segment,
                                 pool_segment, 16);

    std::vector<std::uint64_t> hap;
    std::vector<std::uint64_t> pool;
    std::vector<std::uint8_t> codes;

    for (std::int64_t c = 0; c < map.chromosomes(); ++c) {
        const std::int64_t a = map.chrom_start[c];
        const std::int64_t m = map.chrom_start[c + 1] - a;
        const std::int64_t words = (m + 63) / 64;
        for (std::int64_t w0 = 0; w0 < words; w0 += chunk_words) {
            const std::int64_t w1 = std::min(words, w0 + chunk_words);
            const std::int64_t cw = w1 - w0;
            const std::int64_t first_snp = a + w0 * 64;
            const std::int64_t count = std::min(m, w1 * 64) - w0 * 64;

            pool.assign(pool_size * cw, 0);
#pragma omp parallel for schedule(static)
            for (std::int64_t k = 0; k < pool_size; ++k)
                for (std::int64_t j = 0; j < count; ++j)
                    if (to_unit(key(s.seed, stream_pool, k, first_snp + j)) < map.base_freq[first_snp + j])
                        pool[k * cw + j / 64] |= std::uint64_t{1} << (j % 64);

            hap.assign(static_cast<std::size_t>(nf) * 2 * cw, 0);
            for (std::size_t b = 0; b + 1 < cohort_start.size(); ++b) {
#pragma omp parallel
                {
                    std::vector<std::int64_t> crossovers;
                    std::vector<std::uint64_t> mask(cw);
#pragma omp for schedule(static)
                    for (std::size_t k = cohort_start[b]; k < cohort_start[b + 1]; ++k) {
                        const std::int64_t i = followed[k];
                        for (int side = 0; side < 2; ++side) {
                            std::uint64_t* out = &hap[(k * 2 + side) * cw];
                            const std::int32_t p = side == 0 ? ped.sire[i] : ped.dam[i];
                            if (p == unknown_parent) {
                                for (std::int64_t w = w0; w < w1; ++w) {
                                    const auto src = key(s.seed, stream_founder, i * 2 + side, c, w / pool_segment) %
                                                     static_cast<std::uint64_t>(pool_size);
                                    out[w - w0] = pool[src * cw + (w - w0)];
                                }
                                continue;
                            }
                            rng r(key(s.seed, stream_meiosis, i * 2 + side, c));
                            const int start = static_cast<int>(r.next() & 1);
                            const int nx = r.poisson(map.morgans[c]);
                            crossovers.clear();
                            if (m > 1)
                                for (int x = 0; x < nx; ++x) crossovers.push_back(1 + static_cast<std::int64_t>(r.below(m - 1)));
                            std::sort(crossovers.begin(), crossovers.end());
                            meiosis_masks(start, crossovers, w0, w1, mask.data());
                            const std::uint64_t* h0 = &hap[(static_cast<std::size_t>(slot[p]) * 2) * cw];
                            const std::uint64_t* h1 = h0 + cw;
                            for (std::int64_t w = 0; w < cw; ++w) out[w] = (h0[w] & ~mask[w]) | (h1[w] & mask[w]);
                        }
                    }
                }
            }

            // Pack four animals a byte, SNP-major; padding bits stay 00.
            codes.assign(static_cast<std::size_t>(count) * nbytes, 0);
#pragma omp parallel for schedule(static)
            for (std::int64_t byte = 0; byte < nbytes; ++byte) {
                for (std::int64_t q = 0; q < 4 && byte * 4 + q < ng; ++q) {
                    const std::size_t k = slot[genotyped[byte * 4 + q]];
                    const std::uint64_t* h0 = &hap[k * 2 * cw];
                    const std::uint64_t* h1 = h0 + cw;
                    for (std::int64_t j = 0; j < count; ++j) {
                        const int g = static_cast<int>((h0[j / 64] >> (j % 64)) & 1) +
                                      static_cast<int>((h1[j / 64] >> (j % 64)) & 1);
                        codes[j * nbytes + byte] |= static_cast<std::uint8_t>(plink_code(g) << (2 * q));
                    }
                }
            }
            // Missing genotypes at geometric gaps, SNP by SNP; one genotype of
            // each SNP is always kept so that every SNP has a frequency.
            if (s.missing > 0.0 && ng > 0) {
#pragma omp parallel for schedule(static)
                for (std::int64_t j = 0; j < count; ++j) {
                    rng r(key(s.seed, stream_missing, first_snp + j));
                    std::int64_t marked = 0;
                    for (std::uint64_t k = r.geometric(s.missing); k < static_cast<std::uint64_t>(ng);
                         k += 1 + r.geometric(s.missing)) {
                        if (marked == ng - 1) break;
                        std::uint8_t& byte = codes[j * nbytes + k / 4];
                        const int shift = 2 * static_cast<int>(k % 4);
                        byte = static_cast<std::uint8_t>((byte & ~(3u << shift)) | (1u << shift));
                        ++marked;
                    }
                }
            }
            sink(first_snp, count, codes.data());
        }
    }
}

}  // namespace krelsim

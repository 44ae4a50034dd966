#pragma once
// Genotypes by gene dropping: founder gametes are mosaics of a small pool of
// ancestral haplotypes (which gives linkage disequilibrium), and every meiosis
// recombines the parent's two haplotypes at Poisson crossovers along each
// chromosome, so that relatives share segments. Only the genotyped animals
// and their ancestors are followed, one chunk of SNPs at a time; the memory
// is that of one chunk of haplotypes, never animals x SNPs.
#include <cstdint>
#include <functional>
#include <vector>

#include "sim_pedigree.h"
#include "sim_settings.h"

namespace krelsim {

struct snp_map {
    std::int64_t nsnp = 0;
    std::vector<std::int64_t> chrom_start;  // first SNP of each chromosome, plus the end
    std::vector<double> morgans;            // length of each chromosome
    std::vector<double> base_freq;          // frequency of the second allele in the ancestral pool

    std::int64_t chromosomes() const { return static_cast<std::int64_t>(morgans.size()); }
};

snp_map make_snp_map(const sim_settings& s);

// Called for consecutive chunks of SNPs, in SNP order: `codes` holds `count`
// SNPs of `nbytes` bytes each, in PLINK's SNP-major 2-bit coding.
using chunk_sink = std::function<void(std::int64_t first, std::int64_t count, const std::uint8_t* codes)>;

// Gene drops along the pedigree and hands the genotypes of `genotyped` (in
// that order) to `sink`. `memory_budget` bounds the haplotype buffer in bytes.
void simulate_genotypes(const sim_pedigree& ped, const std::vector<std::int32_t>& genotyped,
                        const snp_map& map, const sim_settings& s, const chunk_sink& sink,
                        std::size_t memory_budget = std::size_t{256} << 20);

// Mask of the SNPs that come from the parent's second haplotype, for the 64-SNP
// words [w0, w1) of a chromosome; `crossovers` are sorted SNP indices within the
// chromosome at which the source switches, `start` the source of SNP 0.
void meiosis_masks(int start, const std::vector<std::int64_t>& crossovers, std::int64_t w0, std::int64_t w1,
                   std::uint64_t* mask);

// The 2-bit code of an allele count (0, 1, 2); 1 (binary 01) is missing.
inline std::uint8_t plink_code(int count) { return count == 0 ? 0 : (count == 1 ? 2 : 3); }

}  // namespace krelsim

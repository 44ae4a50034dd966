// krel-simulate: writes a complete, reproducible input set for krel.
#include <omp.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim_files.h"
#include "sim_genotypes.h"
#include "sim_pedigree.h"
#include "sim_reliability.h"
#include "sim_settings.h"

namespace fs = std::filesystem;
using namespace krelsim;

namespace {

// The settings as a command line that makes the same data set (the output
// directory aside), so that the manifest does not depend on where it lies.
std::string canonical_command(const sim_settings& s) {
    std::string c = fmt::format(
        "krel-simulate --seed {} --animals {} --genotyped {} --snps {} --chromosomes {} --years {} --traits {} "
        "--groups {} --missing {} --monomorphic {} --shuffle {} --unknown-sire {} --unknown-dam {} "
        "--sire-share {} --max-sires {} --effect {} --snp-effect {} --plink-name {}",
        s.seed, s.animals, s.genotyped, s.snps, s.chromosomes, s.years, s.traits, s.groups, s.missing,
        s.monomorphic, s.shuffle, s.unknown_sire, s.unknown_dam, s.sire_share, s.max_sires, s.effect, s.snp_effect,
        s.plink_name);
    if (s.metafounders) c += " --metafounders";
    if (s.text) c += " --text";
    if (s.centred_text) c += " --centred-text";
    return c;
}

struct summary {
    std::int64_t records = 0, parent_only = 0, inverted = 0, monomorphic = 0, missing = 0;
};

void write_manifest(const fs::path& file, const sim_settings& s, const sim_pedigree& ped, const summary& sum,
                    const std::vector<std::string>& files) {
    text_writer w(file);
    const std::string bed = s.plink_name + ".bed";
    const std::string base = fmt::format("--ped pedigree.txt --effect {}", s.effect);
    w.print("# krel data set made by krel-simulate\n");
    w.print("generator: {}\n", canonical_command(s));
    w.print("seed: {}\n", s.seed);
    w.print("animals: {}\n", ped.n);
    w.print("pedigree records: {}\n", sum.records);
    w.print("animals only as parents: {}\n", sum.parent_only);
    w.print("offspring with a lower level than a parent: {}\n", sum.inverted);
    w.print("{}: {}", s.metafounders ? "metafounders" : "genetic groups", ped.groups);
    if (ped.groups > 0) w.print(" (levels {} to {})", ped.n + 1, ped.n + ped.groups);
    w.put('\n');
    w.print("birth years: {}\n", ped.years);
    w.print("genotyped animals: {}\n", s.genotyped);
    w.print("SNPs: {} on {} chromosomes\n", s.snps, s.chromosomes);
    w.print("monomorphic SNPs: {}\n", sum.monomorphic);
    w.print("missing genotypes: {}\n", sum.missing);
    w.print("traits: {}\n", s.traits);
    w.print("effects: animal {}, SNP {}, other {}\n", s.effect, s.snp_effect, s.other_effect());
    w.print("files:");
    for (const auto& f : files) w.print(" {}", f);
    w.print("\n\n# krel command lines, run in this directory\n");
    w.print("krel krel {} --gen {} --freq compute --h2 heritability.txt --gvcv genetic_vcv.txt --pev pev.txt\n",
            base, bed);
    w.print("krel krel {} --gen {} --freq frequencies.txt --h2 heritability.txt --gvcv genetic_vcv.txt "
            "--mrel rel.txt\n", base, bed);
    w.print("krel krel {} --gen {} --freq compute --rvcv residual_vcv.txt --gvcv genetic_vcv.txt --pev pev.txt "
            "--gwas snp_solutions.txt {}\n", base, bed, s.snp_effect);
    w.print("krel gwas {} --gen {} --freq compute --rvcv residual_vcv.txt --gvcv genetic_vcv.txt "
            "--svcv snp_vcv.txt --pev pev.txt --gwas snp_solutions.txt {}\n", base, bed, s.snp_effect);
    w.print("krel gwas {} --gen {} --freq compute --rvcv residual_vcv.txt --gvcv genetic_vcv.txt "
            "--svcv snp_vcv.txt --pev pev.txt --mgwas snp_solutions_tarnelo.txt {}\n", base, bed, s.snp_effect);
    if (s.text) {
        w.print("krel krel {} --gen genotypes_nospace.txt --freq frequencies.txt --h2 heritability.txt "
                "--gvcv genetic_vcv.txt --pev pev.txt\n", base);
        w.print("krel krel {} --gen genotypes_spaced.txt --freq frequencies.txt --h2 heritability.txt "
                "--gvcv genetic_vcv.txt --pev pev.txt\n", base);
    }
    w.close();
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
    sim_settings s;
    CLI::App app{"krel-simulate: writes a reproducible synthetic input set for krel into a directory."};
    app.add_option("--out", s.out, "Output directory (created if needed)")->required();
    app.add_option("--seed", s.seed, "Seed; the same seed and sizes give the same files");
    app.add_option("--animals", s.animals, "Real animals in the pedigree");
    app.add_option("--genotyped", s.genotyped, "Genotyped animals");
    app.add_option("--snps", s.snps, "SNPs");
    app.add_option("--chromosomes", s.chromosomes, "Chromosomes (0: from the SNP count)");
    app.add_option("--years", s.years, "Birth years (0: from the animal count)");
    app.add_option("--traits", s.traits, "Traits, 1 or 2");
    app.add_option("--groups", s.groups, "Genetic groups for unknown parents");
    app.add_flag("--metafounders", s.metafounders, "The groups are metafounders: write metafounders.txt");
    app.add_option("--missing", s.missing, "Share of missing genotypes");
    app.add_option("--monomorphic", s.monomorphic, "Share of monomorphic SNPs");
    app.add_option("--shuffle", s.shuffle, "Share of animals whose levels are permuted");
    app.add_option("--unknown-sire", s.unknown_sire, "Share of animals with an unknown sire");
    app.add_option("--unknown-dam", s.unknown_dam, "Share of animals with an unknown dam");
    app.add_option("--sire-share", s.sire_share, "Share of the males of a cohort kept as sires");
    app.add_option("--max-sires", s.max_sires, "Most sires kept from one cohort");
    app.add_flag("--text", s.text, "Also write text genotypes in both layouts");
    app.add_flag("--centred-text", s.centred_text, "Spaced text genotypes hold g - 2p (missing 0)");
    app.add_option("--effect", s.effect, "Number of the animal effect in the solution files");
    app.add_option("--snp-effect", s.snp_effect, "Number of the SNP effect (0: animal effect + 1)");
    app.add_option("--plink-name", s.plink_name, "Base name of the PLINK fileset");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    const auto t0 = std::chrono::steady_clock::now();
    try {
        s.check();
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "krel-simulate: %s\n", e.what());
        return 2;
    }
    try {
        std::error_code ec;
        fs::create_directories(s.out, ec);
        if (ec) throw std::runtime_error(fmt::format("cannot create {}: {}", s.out.string(), ec.message()));
        std::vector<std::string> files;
        auto out = [&](const std::string& name) {
            files.push_back(name);
            return s.out / name;
        };

        const sim_pedigree ped = simulate_pedigree(s);
        summary sum;
        for (std::int64_t i = 0; i < ped.n; ++i) {
            sum.records += ped.recorded[i];
            sum.parent_only += !ped.recorded[i];
            for (int side = 0; side < 2; ++side) {
                const auto p = side == 0 ? ped.sire[i] : ped.dam[i];
                if (ped.recorded[i] && p != unknown_parent && ped.level[p] > ped.level[i]) {
                    ++sum.inverted;
                    break;
                }
            }
        }
        write_pedigree(out("pedigree.txt"), ped);
        if (s.metafounders) write_metafounders(out("metafounders.txt"), ped, s);
        const double t_ped = seconds_since(t0);

        const sim_variances v(s.traits);
        const sim_reliabilities rel = simulate_reliabilities(ped, v, s);
        write_pev_rel(out("pev.txt"), out("rel.txt"), ped, v, rel, s);
        const double t_rel = seconds_since(t0);

        const auto genotyped = select_genotyped(ped, s);
        const snp_map map = make_snp_map(s);
        plink_writer plink(out(s.plink_name + ".bed"), s.snps, s.genotyped, s.text);
        simulate_genotypes(ped, genotyped, map, s,
                           [&](std::int64_t first, std::int64_t count, const std::uint8_t* codes) {
                               plink.add(first, count, codes);
                           });
        plink.close();
        write_bim(out(s.plink_name + ".bim"), map, s);
        write_fam(out(s.plink_name + ".fam"), ped, genotyped);
        std::vector<double> freq(s.snps);
        for (std::int64_t j = 0; j < s.snps; ++j) {
            // Without genotyped animals the ancestral frequencies stand in.
            freq[j] = s.genotyped > 0 ? plink.counts().frequency(j) : map.base_freq[j];
            sum.monomorphic += freq[j] == 0.0 || freq[j] == 1.0;
            sum.missing += plink.counts().missing[j];
        }
        write_frequencies(out("frequencies.txt"), freq);
        const double t_geno = seconds_since(t0);
        if (s.text) {
            if (s.snps + 12 > 100000)
                std::fprintf(stderr, "krel-simulate: warning: lines without spaces are longer than 100000 characters\n");
            write_text_genotypes(out("genotypes_spaced.txt"), out("genotypes_nospace.txt"), ped, genotyped, plink,
                                 freq, s.centred_text);
        }
        write_variances(s.out, v, freq);
        for (const char* f : {"heritability.txt", "genetic_vcv.txt", "residual_vcv.txt", "snp_vcv.txt"})
            files.emplace_back(f);
        write_snp_solutions(out("snp_solutions.txt"), out("snp_solutions_tarnelo.txt"), map, v, freq, s);
        write_manifest(s.out / "manifest.txt", s, ped, sum, files);
        std::printf("krel-simulate: %lld animals, %lld genotyped, %lld SNPs written to %s in %.1f s "
                    "(pedigree %.1f s, reliabilities %.1f s, genotypes %.1f s; %d threads)\n",
                    static_cast<long long>(s.animals), static_cast<long long>(s.genotyped),
                    static_cast<long long>(s.snps), s.out.c_str(), seconds_since(t0), t_ped, t_rel - t_ped,
                    t_geno - t_rel, omp_get_max_threads());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "krel-simulate: %s\n", e.what());
        return 1;
    }
    return 0;
}

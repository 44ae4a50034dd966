#include "inputs/plink_reader.h"

#include <emmintrin.h>
#include <fcntl.h>
#include <omp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "inputs/frequency_file.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/freeform.h"
#include "util/logger.h"
#include "util/numeric_helpers.h"

namespace krel {

namespace {

constexpr std::string_view module_name = "modplink";
// SNPs transposed at a time while the .bed is read: the file is read
// sequentially and ival written in runs of this many bytes.
constexpr std::int64_t bed_block = 16;
const std::string magic("\x6C\x1B\x01", 3);

[[noreturn]] void stop_with_error(const std::string& message, const std::string& procedure) {
    global_logger().log_error(message, module_name, procedure);
    throw error_stop();
}

[[noreturn]] void stop_with_io_error(const std::string& message, const std::string& procedure) {
    global_logger().log_io_error(message, module_name, procedure);
    throw error_stop();
}

decode_table make_decode_table() {
    decode_table t{};
    for (int b = 0; b < 256; ++b)
        for (int k = 0; k < 4; ++k) t[static_cast<std::size_t>(b)][static_cast<std::size_t>(k)] = pgeno[static_cast<std::size_t>((b >> (2 * k)) & 3)];
    return t;
}

// A file mapped for reading, whole: the .bed is read straight from the
// page cache, without a copy into a buffer of the program's own.
class mapped_file {
public:
    explicit mapped_file(const std::string& file) {
        const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        struct stat st {};
        if (::fstat(fd, &st) == 0) {
            if (st.st_size == 0) {
                opened_ = true;
            } else {
                void* p = ::mmap(nullptr, static_cast<std::size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
                if (p != MAP_FAILED) {
                    data_ = static_cast<const std::uint8_t*>(p);
                    size_ = static_cast<std::size_t>(st.st_size);
                    ::madvise(p, size_, MADV_SEQUENTIAL);
                    opened_ = true;
                }
            }
        }
        ::close(fd);
    }
    ~mapped_file() {
        if (data_) ::munmap(const_cast<std::uint8_t*>(data_), size_);
    }
    mapped_file(const mapped_file&) = delete;
    mapped_file& operator=(const mapped_file&) = delete;

    bool opened() const { return opened_; }
    const std::uint8_t* data() const { return data_; }
    std::size_t size() const { return data_ ? size_ : 0; }

    // Drops the pages wholly inside [from, to) from the process: read once,
    // they would otherwise count as its memory until the file is closed.
    void release(std::size_t from, std::size_t to) const {
        const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        from = (from + page - 1) / page * page;
        to = to / page * page;
        if (data_ && to > from) ::madvise(const_cast<std::uint8_t*>(data_) + from, to - from, MADV_DONTNEED);
    }

private:
    const std::uint8_t* data_ = nullptr;
    std::size_t size_ = 0;
    bool opened_ = false;
};

// The bits of a SNP row's last byte that hold individuals. Writers are
// meant to zero the rest, but readers ignore them, and so must we: counted,
// they would shift the frequencies of every SNP without a word.
std::uint8_t last_byte_mask(std::int64_t individuals) {
    const int used = static_cast<int>(individuals % 4);
    return used == 0 ? std::uint8_t{0xFF} : static_cast<std::uint8_t>((1u << (2 * used)) - 1);
}

// Genotypes of one SNP row of the file with the low bit set (01, 11), with
// the high bit set (10, 11) and with both (11), by population count. The
// padding of the last byte counts as 00, which is never counted directly.
__attribute__((target_clones("popcnt", "default")))
void count_row(const std::uint8_t* row, std::int64_t nbytes, std::uint8_t last_mask, std::int64_t* counts) {
    constexpr std::uint64_t even = 0x5555555555555555ULL;
    std::int64_t low = 0, high = 0, both = 0;
    std::int64_t b = 0;
    for (; b + 8 < nbytes; b += 8) {
        std::uint64_t x;
        std::memcpy(&x, row + b, 8);
        const std::uint64_t lo = x & even, hi = (x >> 1) & even;
        low += __builtin_popcountll(lo);
        high += __builtin_popcountll(hi);
        both += __builtin_popcountll(lo & hi);
    }
    for (; b < nbytes; ++b) {
        const unsigned x = b + 1 == nbytes ? row[b] & last_mask : row[b];
        const unsigned lo = x & 0x55u, hi = (x >> 1) & 0x55u;
        low += __builtin_popcount(lo);
        high += __builtin_popcount(hi);
        both += __builtin_popcount(lo & hi);
    }
    counts[0] = low;
    counts[1] = high;
    counts[2] = both;
}

// The frequency of the allele coded 2 from the three counts of a SNP.
double frequency_from_counts(std::int64_t nind, std::int64_t low, std::int64_t high, std::int64_t both) {
    const std::int64_t hom2 = both;
    const std::int64_t het = high - both;
    const std::int64_t missing = low - both;
    // Padding codes are 00 and fall into the first homozygote, which is
    // never counted directly.
    return std::fma(2.0, static_cast<double>(hom2), static_cast<double>(het)) /
           (2.0 * static_cast<double>(nind - missing));
}

// Contiguous share [first, last) of count items for the calling thread.
void thread_share(std::int64_t count, std::int64_t& first, std::int64_t& last) {
    const std::int64_t threads = omp_get_num_threads(), t = omp_get_thread_num();
    first = count * t / threads;
    last = count * (t + 1) / threads;
}

// The first item of every record of a .fam: the pedigree level of each
// individual, in file order, and the line it stands on.
struct fam_record {
    std::int32_t level;
    std::int64_t line;
};

std::vector<fam_record> read_fam_levels(const std::string& fam, const std::string& procedure) {
    line_reader in(fam);
    if (!in.is_open()) stop_with_io_error("The following file does not exist: " + fam, procedure);
    std::vector<fam_record> levels;
    std::string line;
    while (in.next_record(line)) {
        std::int32_t level = 0;
        if (!parse_integer(first_item(line), level))
            stop_with_error("The first item on line " + inttochar(static_cast<std::int64_t>(in.line_number())) +
                                " of " + fam + " is not an integer pedigree level",
                            procedure);
        levels.push_back({level, in.line_number()});
    }
    if (levels.empty()) stop_with_error("No individuals in " + fam, procedure);
    return levels;
}

// Records of a .bim, one a SNP. The chromosome code is only a name here:
// X, Y, MT or chrX count like any other.
std::int32_t count_bim_records(const std::string& bim, const std::string& procedure) {
    line_reader in(bim);
    if (!in.is_open()) stop_with_io_error("The following file does not exist: " + bim, procedure);
    std::int32_t n = 0;
    std::string line;
    while (in.next_record(line)) ++n;
    if (n == 0) stop_with_error("No SNPs in " + bim, procedure);
    return n;
}

// Stores bytes [b0, b0 + 16) of 16 SNP rows (row q at rows + q * stride) at
// dst[(b0 + c) * ld + q]: a 16 x 16 byte transpose in four rounds of
// interleaving, each of which rotates the bits of (row, column) by one.
void transpose16x16(const std::uint8_t* rows, std::int64_t stride, std::int8_t* dst, std::int64_t ld) {
    __m128i a[16], t[16];
    for (int q = 0; q < 16; ++q)
        a[q] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows + q * stride));
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 8; ++i) {
            t[2 * i] = _mm_unpacklo_epi8(a[i], a[i + 8]);
            t[2 * i + 1] = _mm_unpackhi_epi8(a[i], a[i + 8]);
        }
        std::copy(t, t + 16, a);
    }
    for (int c = 0; c < 16; ++c) _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + c * ld), a[c]);
}

// SNP rows [s0, s0 + count) of the file, row q at rows + q * nbytes, into
// ival: byte b of SNP s to ival(s, b).
void store_block(const std::uint8_t* rows, std::int64_t count, std::int64_t nbytes, std::int64_t s0,
                 int8_matrix& ival) {
    const std::int64_t ld = ival.ld();
    std::int8_t* base = ival.data() + s0;
    std::int64_t b = 0;
    if (count == bed_block)
        for (; b + 16 <= nbytes; b += 16) transpose16x16(rows + b, nbytes, base + b * ld, ld);
    for (; b < nbytes; ++b)
        for (std::int64_t q = 0; q < count; ++q) base[b * ld + q] = static_cast<std::int8_t>(rows[q * nbytes + b]);
}

void read_frequency_file(const std::string& freqfile, const std::string& bed, dmatrix& val,
                         const std::string& procedure) {
    if (!file_exists(freqfile)) stop_with_io_error("The following file does not exist: " + freqfile, procedure);
    line_reader in(freqfile);
    const std::int64_t nsnp = val.rows();
    std::int64_t read = 0;
    std::string line;
    std::vector<std::string_view> items;
    std::int64_t ignored = 0;
    while (read < nsnp && in.next_record(line)) {
        split_items(line, items);
        if (items.size() < 2 || !parse_integer(items[0], ignored) || !parse_real(items[1], val(read + 1, 1)))
            break;
        check_frequency(val(read + 1, 1), items[1], in.line_number(), freqfile, module_name, procedure);
        ++read;
    }
    if (read < nsnp)
        stop_with_error("The number of SNPs in " + std::string(trim(bed)) + " and " +
                            std::string(trim(freqfile)) + " are not the same.",
                        procedure);
}

}  // namespace

const decode_table& pdecode_i1_wp() {
    static const decode_table table = make_decode_table();
    return table;
}

const decode_table& pdecode_i1_real8() {
    static const decode_table table = make_decode_table();
    return table;
}

void check_plinkfiles(const std::string& prefix) {
    for (const char* extension : {".bed", ".bim", ".fam"}) {
        const std::string name = prefix + extension;
        if (!file_exists(name))
            stop_with_io_error("The following file does not exist: " + name, procedure_at("check_plinkfiles"));
    }
}

void plinkreadbed(const std::string& file, const std::string& freqfile,
                  std::optional<std::int32_t> maxid, std::int32_t& nsnp, std::int32_t& nbytes,
                  std::int32_t& nind, std::int32_t& maxfam, int8_matrix& ival,
                  std::vector<std::int32_t>& idmap, dmatrix& val) {
    const std::string procedure = procedure_at("plinkreadbed");
    const std::string name(trim(file));
    const auto dot = name.rfind('.');
    const std::string prefix = dot == std::string::npos ? name : name.substr(0, dot);
    check_plinkfiles(prefix);
    const std::string bed = prefix + ".bed";
    const std::string fam = prefix + ".fam";

    const std::vector<fam_record> levels = read_fam_levels(fam, procedure);
    maxfam = -1;
    for (const fam_record& f : levels) maxfam = std::max(maxfam, f.level);
    const std::int64_t individuals = static_cast<std::int64_t>(levels.size());
    const std::string bim = prefix + ".bim";
    const std::int64_t snps = count_bim_records(bim, procedure);

    const mapped_file in(bed);
    if (!in.opened()) stop_with_io_error("Unexpected while reading " + bed, procedure);
    if (in.size() < 3 || std::string(reinterpret_cast<const char*>(in.data()), 3) != magic)
        stop_with_error("The following file is not a Plink SNP-major bed file: " + bed, procedure);

    const std::int64_t bytes = individuals / 4 + (individuals % 4 != 0 ? 1 : 0);
    // The three files describe one matrix: a .bim a line short or a .bed
    // cut or with bytes to spare would shift or drop SNPs without a sign.
    const auto genotype_bytes = static_cast<std::uint64_t>(in.size() - 3);
    const auto needed = static_cast<std::uint64_t>(snps) * static_cast<std::uint64_t>(bytes);
    if (genotype_bytes != needed)
        stop_with_error(bed + " holds " + std::to_string(genotype_bytes) + " bytes of genotypes, but the " +
                            inttochar(snps) + " SNPs of " + bim + " and the " + inttochar(individuals) +
                            " individuals of " + fam + " need " + std::to_string(needed) + " (" +
                            inttochar(bytes) + " bytes a SNP)",
                        procedure);

    ival.allocate(snps, bytes);
    const std::int32_t idsize = maxid && *maxid > 0 ? *maxid : maxfam;
    idmap.assign(static_cast<std::size_t>(std::max(idsize, 0)) + 1, 0);
    for (std::size_t r = 0; r < levels.size(); ++r) {
        const auto [level, line] = levels[r];
        if (level < 1 || level > idsize)
            stop_with_error("The identity " + inttochar(level) + " in " + fam +
                                " is not a pedigree level between 1 and " + inttochar(idsize),
                            procedure);
        std::int32_t& row = idmap[static_cast<std::size_t>(level)];
        // One row per animal: a second row of the same level would have no animal.
        if (row != 0)
            stop_with_error("The level " + inttochar(level) + " on line " + inttochar(line) + " of " + fam +
                                " was already given on line " + inttochar(levels[static_cast<std::size_t>(row - 1)].line),
                            procedure);
        row = static_cast<std::int32_t>(r + 1);
    }
    nsnp = static_cast<std::int32_t>(snps);
    nind = static_cast<std::int32_t>(individuals);
    nbytes = static_cast<std::int32_t>(bytes);
    global_logger().log_message("\nEach SNP for all individuals requires " + inttochar(nbytes) + " bytes.");

    // Each thread transposes its own run of blocks, front to back, and owns
    // the rows of ival they fill. Genotype counts for the frequencies are
    // taken from the rows as they pass, while they are in the cache.
    const bool count = freqfile == "compute";
    std::vector<std::int64_t> counts(count ? static_cast<std::size_t>(3 * snps) : 0);
    const std::int64_t blocks = (snps + bed_block - 1) / bed_block;
    const std::uint8_t last_mask = last_byte_mask(individuals);
    constexpr std::size_t release_step = std::size_t{4} << 20;
#pragma omp parallel
    {
        std::int64_t k0 = 0, k1 = 0;
        thread_share(blocks, k0, k1);
        std::size_t released = static_cast<std::size_t>(3 + k0 * bed_block * bytes);
        for (std::int64_t block = k0; block < k1; ++block) {
            const std::int64_t s0 = block * bed_block;
            const std::int64_t count_snps = std::min(bed_block, snps - s0);
            const std::uint8_t* rows = in.data() + 3 + s0 * bytes;
            // Counted first: the rows then come from the cache for the transposition.
            if (count)
                for (std::int64_t q = 0; q < count_snps; ++q)
                    count_row(rows + q * bytes, bytes, last_mask, counts.data() + 3 * (s0 + q));
            store_block(rows, count_snps, bytes, s0, ival);
            std::int8_t* last_column = ival.data() + (bytes - 1) * ival.ld() + s0;
            for (std::int64_t q = 0; q < count_snps; ++q) last_column[q] &= static_cast<std::int8_t>(last_mask);
            const std::size_t done = static_cast<std::size_t>(3 + (s0 + count_snps) * bytes);
            if (done - released >= release_step || block + 1 == k1) {
                in.release(released, done);
                released = done;
            }
        }
    }

    val.resize(snps, 1);
    if (freqfile == "none") {
        // Centring then only sends missing genotypes to 0.
    } else if (freqfile == "compute") {
        // The counts of allelefreq_allsnp, taken from the file's rows.
        std::int64_t unobserved = 0, first_unobserved = 0;
        for (std::int64_t s = 0; s < snps; ++s) {
            const std::int64_t* c = counts.data() + 3 * s;
            val(s + 1, 1) = frequency_from_counts(individuals, c[0], c[1], c[2]);
            if (std::isnan(val(s + 1, 1)) && unobserved++ == 0) first_unobserved = s + 1;
        }
        // A SNP missing in every animal has no frequency to count (0 / 0),
        // and that one value would spread to every result of the run.
        if (unobserved > 0)
            stop_with_error("The genotypes of " + inttochar(unobserved) + " SNP(s) in " + name +
                                " are missing in every animal (the first is SNP " + inttochar(first_unobserved) +
                                "), so no allele frequency can be computed for them: remove them or give "
                                "the frequencies in a file",
                            procedure);
    } else {
        read_frequency_file(freqfile, bed, val, procedure);
    }
}

void allelefreq_allsnp(std::span<double> freq, const int8_matrix& ival, std::int64_t nind) {
    allelefreq_allsnp(freq.data(), ival.data(), ival.ld(), static_cast<std::int64_t>(freq.size()), nind);
}

namespace {

// Adds the codes of one byte column of SNPs to 8-bit counters: genotypes
// with the low bit set (01, 11), with the high bit set (10, 11) and with
// both (11). Written for the compiler's vectoriser, and compiled for the
// vector widths a processor may offer.
__attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
void count_column(const std::uint8_t* __restrict x, std::size_t n, std::uint8_t* __restrict low,
                  std::uint8_t* __restrict high, std::uint8_t* __restrict both) {
    for (std::size_t s = 0; s < n; ++s) {
        const std::uint8_t lo = x[s] & 0x55u;
        const std::uint8_t hi = (x[s] >> 1) & 0x55u;
        const std::uint8_t lh = lo & hi;
        // Bit counts of bytes whose set bits are all even.
        const std::uint8_t pl = static_cast<std::uint8_t>((lo & 0x33u) + ((lo >> 2) & 0x33u));
        const std::uint8_t ph = static_cast<std::uint8_t>((hi & 0x33u) + ((hi >> 2) & 0x33u));
        const std::uint8_t pb = static_cast<std::uint8_t>((lh & 0x33u) + ((lh >> 2) & 0x33u));
        low[s] = static_cast<std::uint8_t>(low[s] + (pl & 0x0Fu) + (pl >> 4));
        high[s] = static_cast<std::uint8_t>(high[s] + (ph & 0x0Fu) + (ph >> 4));
        both[s] = static_cast<std::uint8_t>(both[s] + (pb & 0x0Fu) + (pb >> 4));
    }
}

}  // namespace

void allelefreq_allsnp(double* freq, const std::int8_t* ival, std::int64_t ld, std::int64_t nsnp,
                       std::int64_t nind) {
    const std::int64_t nbytes = (nind + 3) / 4;
    // Counts are gathered a byte column at a time, which walks ival in
    // storage order, in 8-bit counters that cannot overflow within 63
    // columns of at most 4 each; each thread counts its own run of SNPs.
    constexpr std::int64_t columns_per_pass = 63;
    constexpr std::size_t segment = 4096;  // SNPs counted together
    // Per thread: three 64-bit and three 8-bit counters per SNP of a segment.
    const std::size_t per_thread = 3 * segment * (sizeof(std::int64_t) + 1);
    std::vector<unsigned char> work(static_cast<std::size_t>(omp_get_max_threads()) * per_thread);
#pragma omp parallel
    {
        std::int64_t first = 0, last = 0;
        thread_share(nsnp, first, last);
        unsigned char* mine = work.data() + static_cast<std::size_t>(omp_get_thread_num()) * per_thread;
        auto* low = reinterpret_cast<std::int64_t*>(mine);
        std::int64_t* high = low + segment;
        std::int64_t* both = high + segment;
        auto* low8 = reinterpret_cast<std::uint8_t*>(both + segment);
        std::uint8_t* high8 = low8 + segment;
        std::uint8_t* both8 = high8 + segment;
        for (std::int64_t seg = first; seg < last; seg += static_cast<std::int64_t>(segment)) {
            const std::size_t n = static_cast<std::size_t>(std::min(last - seg, static_cast<std::int64_t>(segment)));
            std::fill(low, low + n, 0);
            std::fill(high, high + n, 0);
            std::fill(both, both + n, 0);
            for (std::int64_t b0 = 0; b0 < nbytes; b0 += columns_per_pass) {
                const std::int64_t b1 = std::min(nbytes, b0 + columns_per_pass);
                std::fill(low8, low8 + n, 0);
                std::fill(high8, high8 + n, 0);
                std::fill(both8, both8 + n, 0);
                for (std::int64_t b = b0; b < b1; ++b)
                    count_column(reinterpret_cast<const std::uint8_t*>(ival + b * ld + seg), n, low8, high8, both8);
                for (std::size_t s = 0; s < n; ++s) {
                    low[s] += low8[s];
                    high[s] += high8[s];
                    both[s] += both8[s];
                }
            }
            for (std::size_t s = 0; s < n; ++s)
                freq[seg + static_cast<std::int64_t>(s)] = frequency_from_counts(nind, low[s], high[s], both[s]);
        }
    }
}

void keepindividuals(const int8_matrix& ival, std::span<const std::int32_t> idmap,
                     std::span<const std::int32_t> keep, int8_matrix& ivalnew,
                     std::vector<std::int32_t>& idmapnew) {
    const std::string procedure = procedure_at("keepindividuals");
    const std::int64_t nkeep = static_cast<std::int64_t>(keep.size());
    idmapnew.assign(idmap.size(), 0);
    for (std::int64_t k = 0; k < nkeep; ++k) {
        const std::int32_t level = keep[static_cast<std::size_t>(k)];
        if (level < 1 || static_cast<std::size_t>(level) >= idmap.size())
            stop_with_error("The level " + inttochar(level) + " to keep is not a pedigree level between 1 and " +
                                inttochar(static_cast<std::int64_t>(idmap.size()) - 1),
                            procedure);
        if (idmapnew[static_cast<std::size_t>(level)] != 0)
            stop_with_error("The level " + inttochar(level) + " is listed twice among the individuals to keep",
                            procedure);
        idmapnew[static_cast<std::size_t>(level)] = static_cast<std::int32_t>(k + 1);
    }

    // Old row of each new row.
    std::vector<std::int64_t> rank(static_cast<std::size_t>(nkeep), 0);
    for (std::size_t i = 1; i < idmap.size(); ++i)
        if (idmap[i] != 0 && idmapnew[i] != 0) rank[static_cast<std::size_t>(idmapnew[i] - 1)] = idmap[i];
    const std::int64_t old_rows = 4 * ival.cols();
    for (std::int64_t k = 0; k < nkeep; ++k) {
        const std::int64_t o = rank[static_cast<std::size_t>(k)];
        if (o < 1 || o > old_rows)
            stop_with_error("The individual of level " + inttochar(keep[static_cast<std::size_t>(k)]) +
                                " to keep has no genotypes",
                            procedure);
    }

    const std::int64_t nsnp = ival.rows();
    const std::int64_t nbytesnew = (nkeep + 3) / 4;
    ivalnew.allocate(nsnp, nbytesnew);
    for (std::int64_t nb = 0; nb < nbytesnew; ++nb) {
        std::uint8_t* __restrict dst = reinterpret_cast<std::uint8_t*>(ivalnew.data() + nb * nsnp);
        for (int q = 0; q < 4 && 4 * nb + q < nkeep; ++q) {
            const std::int64_t o = rank[static_cast<std::size_t>(4 * nb + q)] - 1;
            const std::uint8_t* __restrict src = reinterpret_cast<const std::uint8_t*>(ival.data() + (o / 4) * ival.ld());
            const int from = static_cast<int>(2 * (o % 4));
            const int to = 2 * q;
            for (std::int64_t s = 0; s < nsnp; ++s)
                dst[s] = static_cast<std::uint8_t>(dst[s] | (((src[s] >> from) & 3u) << to));
        }
    }
}

void decompress_bed_snpmajor_real8(const int8_matrix& ival, std::span<const double> freq,
                                   std::int64_t nind, dmatrix& z) {
    const std::int64_t nsnp = ival.rows();
    z.resize(nsnp, nind);
    decompress_bed_snpmajor_real8(ival.data(), ival.ld(), nsnp, freq.data(), nind, z.data(), std::max<std::int64_t>(nsnp, 1));
}

void decompress_bed_snpmajor_real8(const std::int8_t* ival, std::int64_t ld, std::int64_t nsnp,
                                   const double* freq, std::int64_t nind, double* z,
                                   std::int64_t ldz) {
    const decode_table& table = pdecode_i1_real8();
    const std::int64_t nbytes = (nind + 3) / 4;
    for (std::int64_t b = 0; b < nbytes; ++b) {
        const std::int8_t* column = ival + b * ld;
        const int present = static_cast<int>(std::min<std::int64_t>(4, nind - 4 * b));
        for (int q = 0; q < present; ++q) {
            double* out = z + (4 * b + q) * ldz;
            for (std::int64_t s = 0; s < nsnp; ++s) {
                const double g = table[static_cast<std::uint8_t>(column[s])][static_cast<std::size_t>(q)];
                const double p = freq[s];
                out[s] = g < 3.0 ? (g - p) - p : 0.0;
            }
        }
    }
}

}  // namespace krel

#include <gtest/gtest.h>

#include <sstream>

#include "app/command_line.h"
#include "app/run_drivers.h"

namespace krel {
namespace {

const std::vector<std::string> required = {"--gen", "g.txt", "--freq", "f.txt",
                                           "--ped", "p.txt", "--effect", "2"};

std::vector<std::string> with_required(std::vector<std::string> args) {
    args.insert(args.end(), required.begin(), required.end());
    return args;
}

struct parsed {
    int status;
    std::string text;
};

parsed parse(command_line& cli, std::ostringstream& unit, const std::vector<std::string>& args) {
    const int status = cli.parse(args);
    return {status, unit.str()};
}

TEST(CommandLine, CommonOptionsBeforeOrAfterTheGroupWordAndDefaults) {
    std::vector<std::string> before = required;
    before.insert(before.begin(), {"--beta", "0.2"});
    before.push_back("krel");
    for (const auto& args : {with_required({"krel", "--beta", "0.2"}), before}) {
        std::ostringstream unit;
        command_line cli(unit);
        ASSERT_EQ(cli.parse(args), parse_ok) << unit.str();
        EXPECT_TRUE(cli.is_called_group("krel"));
        EXPECT_FALSE(cli.is_called_group("gwas"));
        const run_options o = read_common_options(cli);
        EXPECT_DOUBLE_EQ(o.beta, 0.2);
        EXPECT_EQ(o.effect, 2);
        // The defaults, written in Fortran notation in the option table.
        EXPECT_EQ(o.blocks, -9);
        EXPECT_EQ(o.gwas_effect, -1);
        EXPECT_TRUE(o.use_inbreeding);
        const krel_group_options k = read_krel_options(cli);
        EXPECT_DOUBLE_EQ(k.pev_adjust_factor, 1.0);
        EXPECT_EQ(k.method, 1);
    }
}

TEST(CommandLine, AbbreviationsAndSwitches) {
    std::ostringstream unit;
    command_line cli(unit);
    ASSERT_EQ(cli.parse(with_required({"--noinb", "-vb", "--pec", "--ssv", "--ifile", "inb.txt",
                                       "krel", "--erc", "-m", "low_mem", "--edc-adjf", "0.5",
                                       "--only-geno", "--ungeno_tm"})),
              parse_ok)
        << unit.str();
    bool v = false;
    EXPECT_EQ(cli.get_cla("--verbose", v), 0);
    EXPECT_TRUE(v);
    const run_options o = read_common_options(cli);
    EXPECT_FALSE(o.use_inbreeding);
    EXPECT_TRUE(o.save_pec);
    EXPECT_TRUE(o.scale_snp_var);
    EXPECT_EQ(o.inbfile, "inb.txt");
    const krel_group_options k = read_krel_options(cli);
    EXPECT_TRUE(k.save_erc);
    EXPECT_TRUE(k.only_geno);
    EXPECT_TRUE(k.ungeno_tm);
    EXPECT_EQ(k.method, 2);
    EXPECT_DOUBLE_EQ(k.edc_adjust_factor, 0.5);
}

TEST(CommandLine, GroupOptionsAreReadOnlyWithTheirGroup) {
    std::ostringstream unit;
    command_line cli(unit);
    ASSERT_EQ(cli.parse(with_required({"krel", "--pheno", "ph.txt"})), parse_ok);
    std::string value;
    EXPECT_EQ(cli.get_cla("--pheno", value), cla_error_no_such_switch);
    EXPECT_EQ(cli.get_cla("--pheno", value, "krel"), 0);
    EXPECT_EQ(value, "ph.txt");
    EXPECT_EQ(cli.get_cla("--gen", value, "krel"), cla_error_no_such_switch);
}

TEST(CommandLine, ExclusionsAreOneSidedInTheReport) {
    struct exclusion_case {
        std::vector<std::string> extra;
        std::string message;  // empty: accepted
    };
    const std::vector<exclusion_case> cases = {
        {{"--gwas", "a", "1", "--mgwas", "b", "2"}, "--mgwas excludes --gwas"},
        {{"--mgwas", "b", "2", "--gwas", "a", "1"}, "--mgwas excludes --gwas"},
        {{"--h2", "h", "--svcv", "s"}, "--svcv excludes --h2"},
        {{"--h2", "h", "--rvcv", "r"}, "--rvcv excludes --h2"},
        {{"--pev", "p", "--mrel", "r"}, "--pev excludes --mrel"},
        {{"--h2", "h", "--gvcv", "g"}, ""},
        {{"--gwas", "a", "1"}, ""},
    };
    for (const auto& c : cases) {
        std::ostringstream unit;
        command_line cli(unit);
        std::vector<std::string> args = with_required({"krel"});
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        const auto r = parse(cli, unit, args);
        if (c.message.empty()) {
            EXPECT_EQ(r.status, parse_ok) << r.text;
        } else {
            EXPECT_GT(r.status, 0) << c.message;
            EXPECT_NE(r.text.find(c.message), std::string::npos) << r.text;
        }
    }
}

TEST(CommandLine, ParserFailures) {
    const std::vector<std::vector<std::string>> bad = {
        {"krel", "--gen", "g", "--freq", "f", "--effect", "1"},  // --ped missing
        with_required({"krel", "gwas"}),                          // both groups
        with_required({"gwas", "krel"}),
        [] {  // two values wanted
            auto a = with_required({"krel"});
            a.insert(a.end(), {"--gwas", "onlyfile"});
            return a;
        }(),
    };
    for (const auto& args : bad) {
        std::ostringstream unit;
        command_line cli(unit);
        const auto r = parse(cli, unit, args);
        EXPECT_GT(r.status, 0) << r.text;
        EXPECT_FALSE(r.text.empty());
    }
}

TEST(CommandLine, UnknownArgumentsAreIgnored) {
    std::ostringstream unit;
    command_line cli(unit);
    // An option of the group krel given to gwas is unknown there.
    ASSERT_EQ(cli.parse(with_required({"gwas", "--noscreenX", "stray", "--pheno", "x"})), parse_ok)
        << unit.str();
    const auto& ignored = cli.ignored_arguments();
    for (const char* word : {"--noscreenX", "stray", "--pheno"})
        EXPECT_NE(std::find(ignored.begin(), ignored.end(), word), ignored.end()) << word;
}

TEST(ListDirectedReading, RealsAndIntegers) {
    for (const auto& [text, value] : std::vector<std::pair<const char*, double>>{
             {"0.05d0", 0.05}, {"1.d0", 1.0}, {" -2.5D-2 ", -0.025}, {"1.5+2", 150.0}, {"+.5,7", 0.5}, {"3", 3.0}}) {
        double v = 0;
        EXPECT_TRUE(read_real_list_directed(text, v)) << text;
        EXPECT_DOUBLE_EQ(v, value) << text;
    }
    double r = 0;
    for (const char* bad : {"", "  ", "abc", "1.5x", "e5", "--1"}) EXPECT_FALSE(read_real_list_directed(bad, r)) << bad;
    std::int32_t v = 0;
    EXPECT_TRUE(read_integer_list_directed("+12,3", v));
    EXPECT_EQ(v, 12);
    for (const char* bad : {"", "1.5", "x", "99999999999"}) EXPECT_FALSE(read_integer_list_directed(bad, v)) << bad;
    // Four columns only, blanks ignored, as the solution effects are read.
    for (const auto& [text, value] : std::vector<std::pair<const char*, std::int32_t>>{
             {"12345", 1234}, {"1 2", 12}, {"-1", -1}, {"", 0}}) {
        EXPECT_TRUE(read_integer_i4(text, v)) << text;
        EXPECT_EQ(v, value) << text;
    }
    EXPECT_FALSE(read_integer_i4("1.5", v));
}

TEST(RunDrivers, NoscreenPrescan) {
    EXPECT_TRUE(prescan_noscreen({"krel", "--noscreen"}));
    EXPECT_TRUE(prescan_noscreen({" --noscreen "}));
    EXPECT_FALSE(prescan_noscreen({"--noscreenX"}));
    // Only the first 30 characters of an argument are looked at.
    EXPECT_TRUE(prescan_noscreen({"--noscreen" + std::string(20, ' ') + "tail"}));
    EXPECT_FALSE(prescan_noscreen({}));
}

TEST(RunDrivers, MethodWordsAndInverseChoice) {
    EXPECT_EQ(method_from_word("low_mem"), 2);
    EXPECT_EQ(method_from_word("LOW_MEM"), 1);
    EXPECT_FALSE(use_tier_meyer(1000000, false));
    EXPECT_TRUE(use_tier_meyer(1000001, false));
    EXPECT_TRUE(use_tier_meyer(10, true));
}

}  // namespace
}  // namespace krel

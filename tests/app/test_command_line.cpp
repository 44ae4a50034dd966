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

TEST(CommandLine, CommonOptionsBeforeOrAfterTheGroupWord) {
    for (const auto& args :
         {with_required({"krel", "--beta", "0.2"}),
          [] {
              std::vector<std::string> a = required;
              a.insert(a.begin(), {"--beta", "0.2"});
              a.push_back("krel");
              return a;
          }()}) {
        std::ostringstream unit;
        command_line cli(unit);
        ASSERT_EQ(cli.parse(args), parse_ok) << unit.str();
        EXPECT_TRUE(cli.is_called_group("krel"));
        EXPECT_FALSE(cli.is_called_group("gwas"));
        double beta = 0;
        EXPECT_EQ(cli.get_cla("--beta", beta), 0);
        EXPECT_DOUBLE_EQ(beta, 0.2);
        std::int32_t effect = 0;
        EXPECT_EQ(cli.get_cla("--effect", effect), 0);
        EXPECT_EQ(effect, 2);
    }
}

TEST(CommandLine, DefaultsAreReadInFortranNotation) {
    std::ostringstream unit;
    command_line cli(unit);
    ASSERT_EQ(cli.parse(with_required({"krel"})), parse_ok);
    const run_options o = read_common_options(cli);
    EXPECT_DOUBLE_EQ(o.beta, 0.05);
    EXPECT_EQ(o.blocks, -9);
    EXPECT_EQ(o.pevfile, "none");
    EXPECT_TRUE(o.use_inbreeding);
    EXPECT_EQ(o.gwas_file, "none");
    EXPECT_EQ(o.gwas_effect, -1);
    EXPECT_EQ(o.mgwas_effect, -1);
    const krel_group_options k = read_krel_options(cli);
    EXPECT_DOUBLE_EQ(k.edc_adjust_factor, 1.0);
    EXPECT_DOUBLE_EQ(k.pev_adjust_factor, 1.0);
    EXPECT_EQ(k.method, 1);
    EXPECT_FALSE(k.only_geno);
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

TEST(CommandLine, TextValuesAreCutAt128Characters) {
    const std::string long_name = std::string(128, 'a') + "b";
    std::ostringstream unit;
    command_line cli(unit);
    std::vector<std::string> args = {"krel", "--gen", long_name, "--freq", "f",
                                     "--ped", "p",    "--effect", "1"};
    ASSERT_EQ(cli.parse(args), parse_ok);
    std::string gen;
    ASSERT_EQ(cli.get_cla("--gen", gen), 0);
    EXPECT_EQ(gen, std::string(128, 'a'));
    EXPECT_EQ(cut_text_value("abc   "), "abc");
}

TEST(CommandLine, SolutionEffectReadFromFourColumns) {
    std::ostringstream unit;
    command_line cli(unit);
    ASSERT_EQ(cli.parse(with_required({"gwas", "--gwas", "sol.txt", "12345"})), parse_ok);
    const run_options o = read_common_options(cli);
    EXPECT_EQ(o.gwas_file, "sol.txt");
    EXPECT_EQ(o.gwas_effect, 1234);
}

TEST(CommandLine, NumbersThatDoNotReadGiveAnErrorCode) {
    std::ostringstream unit;
    command_line cli(unit);
    ASSERT_EQ(cli.parse(with_required({"krel", "--blocks", "1.5", "--beta", "x"})), parse_ok);
    std::int32_t blocks = 0;
    double beta = 0;
    EXPECT_EQ(cli.get_cla("--blocks", blocks), cla_error_conversion);
    EXPECT_EQ(cli.get_cla("--beta", beta), cla_error_conversion);
}

TEST(CommandLine, HelpVersionAndMarkdownAreServed) {
    {
        std::ostringstream unit;
        command_line cli(unit);
        EXPECT_EQ(cli.parse({"--help"}), parse_served_help);
        for (const char* word : {"--gen", "-vb", "--ifile", "krel", "gwas"})
            EXPECT_NE(unit.str().find(word), std::string::npos) << word;
    }
    {
        std::ostringstream unit;
        command_line cli(unit);
        EXPECT_EQ(cli.parse({"--version"}), parse_served_version);
        EXPECT_NE(unit.str().find("v1.19.13-0-g59ec9e7"), std::string::npos);
    }
    std::ostringstream unit;
    command_line cli(unit);
    const std::string md = cli.markdown();
    for (const char* word : {"`--mgwas`", "`--gwas`", "`-vb`", "Group `krel`", "`--markdown`"})
        EXPECT_NE(md.find(word), std::string::npos) << word;
}

TEST(ListDirectedReading, Reals) {
    double v = 0;
    EXPECT_TRUE(read_real_list_directed("0.05d0", v));
    EXPECT_DOUBLE_EQ(v, 0.05);
    EXPECT_TRUE(read_real_list_directed("1.d0", v));
    EXPECT_DOUBLE_EQ(v, 1.0);
    EXPECT_TRUE(read_real_list_directed(" -2.5D-2 ", v));
    EXPECT_DOUBLE_EQ(v, -0.025);
    EXPECT_TRUE(read_real_list_directed("1.5+2", v));
    EXPECT_DOUBLE_EQ(v, 150.0);
    EXPECT_TRUE(read_real_list_directed("+.5,7", v));
    EXPECT_DOUBLE_EQ(v, 0.5);
    EXPECT_TRUE(read_real_list_directed("3", v));
    EXPECT_DOUBLE_EQ(v, 3.0);
    for (const char* bad : {"", "  ", "abc", "1.5x", "e5", "--1"})
        EXPECT_FALSE(read_real_list_directed(bad, v)) << bad;
}

TEST(ListDirectedReading, Integers) {
    std::int32_t v = 0;
    EXPECT_TRUE(read_integer_list_directed(" -9 ", v));
    EXPECT_EQ(v, -9);
    EXPECT_TRUE(read_integer_list_directed("+12,3", v));
    EXPECT_EQ(v, 12);
    for (const char* bad : {"", "1.5", "x", "99999999999"})
        EXPECT_FALSE(read_integer_list_directed(bad, v)) << bad;

    EXPECT_TRUE(read_integer_i4("12345", v));
    EXPECT_EQ(v, 1234);
    EXPECT_TRUE(read_integer_i4("1 2", v));
    EXPECT_EQ(v, 12);
    EXPECT_TRUE(read_integer_i4("-1", v));
    EXPECT_EQ(v, -1);
    EXPECT_TRUE(read_integer_i4("", v));
    EXPECT_EQ(v, 0);
    EXPECT_FALSE(read_integer_i4("1.5", v));
    EXPECT_FALSE(read_integer_i4("ab", v));
}

TEST(RunDrivers, NoscreenPrescan) {
    EXPECT_TRUE(prescan_noscreen({"krel", "--noscreen"}));
    EXPECT_TRUE(prescan_noscreen({"--noscreen", "krel"}));
    EXPECT_TRUE(prescan_noscreen({" --noscreen "}));
    EXPECT_FALSE(prescan_noscreen({"--noscreenX"}));
    EXPECT_FALSE(prescan_noscreen({"--noscree"}));
    // Only the first 30 characters of an argument are looked at.
    EXPECT_TRUE(prescan_noscreen({"--noscreen" + std::string(20, ' ') + "tail"}));
    EXPECT_FALSE(prescan_noscreen({}));
}

TEST(RunDrivers, MethodWordsAndInverseChoice) {
    EXPECT_EQ(method_from_word("mkl"), 1);
    EXPECT_EQ(method_from_word("low_mem"), 2);
    EXPECT_EQ(method_from_word("LOW_MEM"), 1);
    EXPECT_EQ(method_from_word("anything"), 1);
    EXPECT_FALSE(use_tier_meyer(1000000, false));
    EXPECT_TRUE(use_tier_meyer(1000001, false));
    EXPECT_TRUE(use_tier_meyer(10, true));
}

}  // namespace
}  // namespace krel

// Command lines taken by rows: spellings, values, complaints, help.
#include "util/cli.h"

#include <gtest/gtest.h>

#include <string>

struct taken {
    bool json = false;
    bool short_flag = false;
    const char *file = nullptr;
    const char *name = nullptr;
    int number = -1;
    uint64_t large = 0;
    int choice = 0;
    std::string even; // what the function was given
    std::vector<const char *> operands;
};
static taken g_taken;

static bool take_even(const char *word)
{
    g_taken.even = word;
    return g_taken.even.size() % 2 == 0;
}

static constexpr cli_kind NUMBER = {
    .word = "N", .lacking = "lacks its number", .bad = "not 1 to 9", .smallest = 1, .largest = 9};
static constexpr cli_kind LARGE = {.word = "N", .lacking = "lacks its number", .bad = "too large"};
static constexpr cli_kind CHOICE = {.again = "contradicts"};
static constexpr cli_kind NAME = {.word = "NAME", .lacking = "which name?", .may_be_empty = false};
static constexpr cli_kind EVEN = {.word = "EVEN", .lacking = "lacks it", .bad = "odd"};

static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &g_taken.file},
    {"--json", CLI_FLAG, &g_taken.json},
    {"-f", CLI_FLAG, &g_taken.short_flag},
    {"-n", NUMBER, &g_taken.number},
    {"--large", LARGE, &g_taken.large},
    {"--left", CHOICE, cli_choice{&g_taken.choice, 1}},
    {"--right", CHOICE, cli_choice{&g_taken.choice, 2}},
    {"--name", NAME, &g_taken.name},
    {"--even", EVEN, take_even},
    {"WORD", {.word = "WORD"}, &g_taken.operands},
};

static outcome run_nothing()
{
    return {};
}

static constexpr cli_command with_words = {"words", "takes words", run_nothing, rows,
                                           "Usage: tool words [WORD...]\n\nTakes words.\n"};
static constexpr cli_command with_options = {
    "options", "takes none", run_nothing, std::span(rows).first(5),
    "Usage: tool options [-cfg FILE]\n           [-f]\n\nTakes none.\n"};

static constexpr cli_option one_row[] = {
    {"FILE", {.word = "FILE", .lacking = "which file?", .again = "one only"}, &g_taken.file}};
static constexpr cli_command with_one = {"one", "takes one", run_nothing, one_row,
                                         "Usage: tool one FILE\n\nTakes one.\n"};

static constexpr cli_option hyphen_row[] = {
    {"FILE", {.word = "FILE", .again = "one only", .may_be_hyphen = true}, &g_taken.file}};
static constexpr cli_command with_hyphen = {"hyphen", "takes -", run_nothing, hyphen_row,
                                            "Usage: tool hyphen [FILE | -]\n\nTakes it.\n"};

// What is said of the words, without the line that says where help is; "" when all are taken.
static std::string scan(const cli_command &command, std::vector<std::string> words)
{
    g_taken = {};
    tell_as("tool");
    std::vector<char *> argv = {const_cast<char *>(command.name)};
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStderr();
    const outcome done = cli_scan(command, static_cast<int>(argv.size()) - 1, argv.data());
    const std::string err = testing::internal::GetCapturedStderr();
    const std::string help = "\nTry \"tool --help\".\n";
    if (done)
        return err.empty() ? "" : "taken, and said " + err;
    if (done.kind() != OUTCOME_USAGE || !err.starts_with("tool: ") || !err.ends_with(help))
        return "not a complaint: " + err;
    // Words of the command line end with the call.
    g_taken.file = g_taken.name = nullptr;
    g_taken.operands.clear();
    return err.substr(6, err.size() - 6 - help.size());
}

TEST(Cli, NamesAreTakenWithOneHyphenOrTwo)
{
    for (const char *json : {"--json", "-json"}) {
        EXPECT_EQ(scan(with_words, {json}), "");
        EXPECT_TRUE(g_taken.json) << json;
    }
    EXPECT_EQ(scan(with_words, {"-f", "--n", "5"}), "");
    EXPECT_TRUE(g_taken.short_flag);
    EXPECT_EQ(g_taken.number, 5);
}

TEST(Cli, ValuesStandBehindTheNameOrBehindEquals)
{
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"-n", "7"}, {"-n=7"}, {"--n=7"}, {"-n", "3", "-n", "7"}}) {
        EXPECT_EQ(scan(with_words, words), "");
        EXPECT_EQ(g_taken.number, 7);
    }
    EXPECT_EQ(scan(with_words, {"--even", "--json"}), "");
    EXPECT_EQ(g_taken.even, "--json") << "a value may look like an option";
    EXPECT_FALSE(g_taken.json);
    EXPECT_EQ(scan(with_words, {"--even=a=b!"}), "");
    EXPECT_EQ(g_taken.even, "a=b!");
    EXPECT_EQ(scan(with_words, {"--even", ""}), "");
}

TEST(Cli, FirstWrongWordIsComplainedAbout)
{
    const std::pair<std::vector<std::string>, const char *> table[] = {
        {{"--bogus"}, "unknown option: --bogus"},
        {{"--bogus", "--worse"}, "unknown option: --bogus"},
        {{"x", "-y", "--bogus"}, "unknown option: -y"},
        {{"---json"}, "unknown option: ---json"},
        {{"--js"}, "unknown option: --js"},
        {{"--lar", "1"}, "unknown option: --lar"},
        {{"--lar"}, "unknown option: --lar"},
        {{"--l"}, "unknown option: --l"},
        {{"-n5"}, "unknown option: -n5"},
        {{"-fn", "5"}, "unknown option: -fn"},
        {{"--json=1"}, "unknown option: --json=1"},
        {{"-=x"}, "unknown option: -=x"},
        {{"-:"}, "unknown option: -:"},
        {{"-:x", "y"}, "unknown option: -:x"},
        {{"-"}, "unknown option: -"},
        {{"-5"}, "unknown option: -5"},
        {{"-cfg"}, "option lacks its file name: -cfg"},
        {{"--json", "-n"}, "lacks its number: -n"},
        {{"-n", "0"}, "not 1 to 9: 0"},
        {{"-n", "10"}, "not 1 to 9: 10"},
        {{"-n", "-1"}, "not 1 to 9: -1"},
        {{"-n", ""}, "not 1 to 9: "},
        {{"-n", "5x"}, "not 1 to 9: 5x"},
        {{"-n", " 5"}, "not 1 to 9:  5"},
        {{"-n", "+5"}, "not 1 to 9: +5"},
        {{"-n", "99999999999"}, "not 1 to 9: 99999999999"},
        {{"--large", "18446744073709551616"}, "too large: 18446744073709551616"},
        {{"--large", "-1"}, "too large: -1"},
        {{"--left", "--right"}, "contradicts: --right"},
        {{"--name"}, "which name?: --name"},
        {{"--name", ""}, "which name?: --name"},
        {{"--even", "odd"}, "odd: odd"},
    };
    for (const auto &[words, complaint] : table)
        EXPECT_EQ(scan(with_words, words), complaint);
    EXPECT_EQ(scan(with_options, {"word"}), "unexpected word: word");
    EXPECT_EQ(scan(with_options, {"-"}), "unknown option: -");
}

TEST(Cli, NumbersReachTheEndsOfTheirRange)
{
    for (const int number : {1, 9}) {
        EXPECT_EQ(scan(with_words, {"-n", std::to_string(number)}), "");
        EXPECT_EQ(g_taken.number, number);
    }
    EXPECT_EQ(scan(with_words, {"--large", "18446744073709551615"}), "");
    EXPECT_EQ(g_taken.large, UINT64_MAX);
}

TEST(Cli, ChoicesMayBeRepeated)
{
    EXPECT_EQ(scan(with_words, {"--right", "--right"}), "");
    EXPECT_EQ(g_taken.choice, 2);
}

static size_t words_taken(std::vector<std::string> words)
{
    EXPECT_EQ(scan(with_words, std::move(words)), "");
    return g_taken.operands.size();
}

TEST(Cli, OperandsStandAnywhere)
{
    EXPECT_EQ(words_taken({}), 0u);
    EXPECT_EQ(words_taken({"a", "--json", "b", "", "-n", "1"}), 3u);
    EXPECT_EQ(g_taken.number, 1);
    EXPECT_EQ(words_taken({"a", "--", "--json", "-x"}), 3u);
    EXPECT_FALSE(g_taken.json) << "behind -- there are operands only";
}

TEST(Cli, OneOperandIsNeitherNoneNorTwo)
{
    EXPECT_EQ(scan(with_one, {}), "which file?: one");
    EXPECT_EQ(scan(with_one, {"a", "b"}), "one only: b");
    EXPECT_EQ(scan(with_one, {"--", "a", "b"}), "one only: b");
    EXPECT_EQ(scan(with_one, {"-"}), "unknown option: -");
    EXPECT_EQ(scan(with_one, {"a"}), "");
    EXPECT_EQ(scan(with_hyphen, {}), "");
    EXPECT_EQ(scan(with_hyphen, {"-"}), "");
    EXPECT_EQ(scan(with_hyphen, {"-", "-"}), "one only: -");
    EXPECT_EQ(scan(with_hyphen, {"-x"}), "unknown option: -x");
}

static constexpr const cli_command *commands[] = {&with_words, &with_options};
static constexpr cli_program tool = {"tool", "1.2", "Takes all sorts.", commands};

TEST(Cli, HelpOfTheProgramIsMadeOfItsRows)
{
    EXPECT_EQ(cli_help(tool), "Usage: tool words [WORD...]\n"
                              "       tool options [-cfg FILE]\n"
                              "           [-f]\n"
                              "       tool -h | --help | --version\n"
                              "\n"
                              "Takes all sorts.\n"
                              "\n"
                              "  words    takes words\n"
                              "  options  takes none\n"
                              "\n"
                              "\"tool words --help\" and so on say more.\n");
}

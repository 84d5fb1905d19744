// The C library's scan hands out words in the order of the command line, so that the first
// wrong one is complained about.  It takes abbreviations, too, which are refused here: what
// an abbreviation means would change with each new option.
#include "util/cli.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <string_view>

// What the scan gives for a row is its index behind this, apart from its own characters.
static constexpr int FIRST_ROW = 256;
static constexpr int OPERAND = 1; // as the C library has it

static bool is_option(const cli_option &row)
{
    return row.name[0] == '-';
}

static std::string_view without_hyphens(std::string_view word)
{
    const size_t hyphens = word.find_first_not_of('-');
    return word.substr(std::min<size_t>(hyphens, 2));
}

// Whether the word names the row in full, with or without "=" and a value.
static bool names(std::string_view word, const cli_option &row)
{
    const std::string_view name = without_hyphens(word);
    return name.substr(0, name.find('=')) == without_hyphens(row.name);
}

template <typename Number>
static bool take_number(Number &target, std::string_view word, const cli_kind &kind)
{
    Number number = 0;
    const auto [end, code] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (code != std::errc() || end != word.data() + word.size() || number < 0 ||
        static_cast<uint64_t>(number) < kind.smallest ||
        static_cast<uint64_t>(number) > kind.largest)
        return false;
    target = number;
    return true;
}

// Puts a value where the row says; the complaint about it, null for none.
struct value_taker {
    const cli_kind &kind;
    const char *word;

    const char *operator()(bool *target) const
    {
        *target = true;
        return nullptr;
    }
    const char *operator()(const char **target) const
    {
        if (kind.again != nullptr && *target != nullptr)
            return kind.again;
        *target = word;
        return nullptr;
    }
    const char *operator()(std::vector<const char *> *target) const
    {
        target->push_back(word);
        return nullptr;
    }
    const char *operator()(int *target) const
    {
        return take_number(*target, word, kind) ? nullptr : kind.bad;
    }
    const char *operator()(uint64_t *target) const
    {
        return take_number(*target, word, kind) ? nullptr : kind.bad;
    }
    const char *operator()(const cli_choice &choice) const
    {
        if (*choice.target != 0 && *choice.target != choice.value)
            return kind.again;
        *choice.target = choice.value;
        return nullptr;
    }
    const char *operator()(bool (*take)(const char *word)) const
    {
        return take(word) ? nullptr : kind.bad;
    }
};

static outcome take_value(const cli_option &row, const char *value)
{
    const char *const complaint = std::visit(value_taker{row.kind, value}, row.target);
    return complaint == nullptr ? outcome()
                                : cli_usage(complaint, value != nullptr ? value : row.name);
}

// The value is null when there is none.
static outcome take_option(const cli_option &row, const char *word, const char *value)
{
    if (!names(word, row))
        return cli_usage("unknown option", word);
    const bool wanted = row.kind.word != nullptr && !row.kind.may_be_left_out;
    if (wanted && (value == nullptr || (*value == '\0' && !row.kind.may_be_empty)))
        return cli_usage(row.kind.lacking, word);
    return take_value(row, value);
}

static outcome take_operand(const cli_option *row, const char *word)
{
    if (strcmp(word, "-") == 0 && (row == nullptr || !row->kind.may_be_hyphen))
        return cli_usage("unknown option", word);
    if (row == nullptr)
        return cli_usage("unexpected word", word);
    return take_value(*row, word);
}

static const cli_option *operand_of(const cli_command &command)
{
    const auto found = std::find_if_not(command.options.begin(), command.options.end(), is_option);
    return found == command.options.end() ? nullptr : &*found;
}

// Whether the operand has to be given, and was not.
static bool lacks(const cli_option &operand)
{
    if (operand.kind.lacking == nullptr)
        return false;
    if (const auto *const one = std::get_if<const char **>(&operand.target))
        return **one == nullptr || (***one == '\0' && !operand.kind.may_be_empty);
    return std::get<std::vector<const char *> *>(operand.target)->empty();
}

static std::vector<option> rows_for_scan(const cli_command &command)
{
    std::vector<option> rows;
    for (const cli_option &row : command.options) {
        if (is_option(row))
            rows.push_back({without_hyphens(row.name).data(),
                            row.kind.word == nullptr   ? no_argument
                            : row.kind.may_be_left_out ? optional_argument
                                                       : required_argument,
                            nullptr, FIRST_ROW + static_cast<int>(rows.size())});
    }
    rows.push_back({});
    return rows;
}

outcome cli_scan(const cli_command &command, int argc, char **argv)
{
    const std::vector<option> rows = rows_for_scan(command);
    const cli_option *const operand = operand_of(command);
    optind = 0; // begins anew
    opterr = 0;
    for (;;) {
        const char *const word = argv[std::max(optind, 1)];
        const int found = getopt_long_only(argc, argv, "-:", rows.data(), nullptr);
        if (found == -1)
            break;
        const int named = found == ':' ? optopt : found;
        outcome done;
        if (found == OPERAND)
            done = take_operand(operand, word);
        else if (named < FIRST_ROW)
            done = cli_usage("unknown option", word);
        else
            done = take_option(command.options[static_cast<size_t>(named - FIRST_ROW)], word,
                               found == ':' ? nullptr : optarg);
        if (!done)
            return done;
    }
    for (; optind < argc; optind++) {
        if (outcome done = take_operand(operand, argv[optind]); !done)
            return done;
    }
    if (operand != nullptr && lacks(*operand))
        return cli_usage(operand->kind.lacking, command.name);
    return {};
}

// The lines of a subcommand's help behind "Usage: ", up to the empty line.
static std::string synopsis(const cli_command &command)
{
    const std::string_view help = command.help;
    const size_t begin = strlen("Usage: ");
    return std::string(help.substr(begin, help.find("\n\n") + 1 - begin));
}

std::string cli_help(const cli_program &program)
{
    const std::string name = program.name;
    std::string text;
    size_t width = 0;
    for (const cli_command *command : program.commands) {
        text += (text.empty() ? "Usage: " : "       ") + synopsis(*command);
        width = std::max(width, strlen(command->name));
    }
    text += "       " + name + " -h | --help | --version\n\n" + program.about + "\n\n";
    for (const cli_command *command : program.commands)
        text += "  " + std::string(command->name) +
                std::string(width + 2 - strlen(command->name), ' ') + command->summary + "\n";
    return text + "\n\"" + name + " " + program.commands.front()->name +
           " --help\" and so on say more.\n";
}

outcome cli_usage(const char *text, const char *word)
{
    tell("%s: %s", text, word);
    (void)fprintf(stderr, "Try \"%s --help\".\n", told_as()); // as tell
    return OUTCOME_USAGE;
}

outcome cli_output_failed()
{
    return outcome_failed("writing standard output: %s", strerror(errno));
}

// Also where it stands behind an option that takes a value: who asks for help gets it;
// behind "--" nobody asks.
static bool asks_help(int argc, char **argv)
{
    for (int i = 0; i < argc && strcmp(argv[i], "--") != 0; i++) {
        for (const char *word : {"--help", "-help", "-h"}) {
            if (strcmp(argv[i], word) == 0)
                return true;
        }
    }
    return false;
}

static bool asks_version(const char *word)
{
    return strcmp(word, "--version") == 0 || strcmp(word, "-version") == 0;
}

// argv[0] is the command's name.
static outcome run(const cli_command &command, int argc, char **argv)
{
    if (asks_help(argc - 1, argv + 1)) {
        fputs(command.help, stdout);
        return {};
    }
    outcome done = cli_scan(command, argc, argv);
    return done ? command.run() : std::move(done);
}

static outcome run(const cli_program &program, const cli_command *&chosen, int argc, char **argv)
{
    if (argc < 2) {
        fputs(cli_help(program).c_str(), stderr);
        return OUTCOME_USAGE;
    }
    for (const cli_command *command : program.commands) {
        if (strcmp(argv[1], command->name) == 0) {
            chosen = command;
            return run(*command, argc - 1, argv + 1);
        }
    }
    if (asks_help(1, argv + 1)) {
        fputs(cli_help(program).c_str(), stdout);
        return {};
    }
    if (asks_version(argv[1])) {
        printf("%s %s\n", program.name, program.version);
        return {};
    }
    return cli_usage(argv[1][0] == '-' ? "unknown option" : "unknown subcommand", argv[1]);
}

// Brings standard output to its end.  chosen: the subcommand, or null.
static int end(const cli_command *chosen, const outcome &done)
{
    const auto status_of =
        chosen != nullptr && chosen->status != nullptr ? chosen->status : outcome_exit_status;
    const int status = status_of(done);
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return status;
    return status_of(cli_output_failed());
}

int cli_main(const cli_program &program, int argc, char **argv)
{
    tell_as(program.name);
    const cli_command *chosen = nullptr;
    const outcome done = run(program, chosen, argc, argv);
    return end(chosen, done);
}

int cli_main(const cli_command &command, const char *version, int argc, char **argv)
{
    tell_as(command.name);
    if (argc == 2 && asks_version(argv[1])) {
        printf("%s %s\n", command.name, version);
        return end(nullptr, {});
    }
    return end(&command, run(command, argc, argv));
}

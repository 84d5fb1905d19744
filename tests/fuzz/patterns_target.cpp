// Dataset patterns, against the definition: what is accepted and why not, the stored form, and
// what it matches.
//
// An input is a pattern, a database's name and a dataset's name, each to the next zero.
#include "capture/capinfo.h"
#include "capture/dsetpat.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"

#include <algorithm>
#include <cstdlib>

// ---- the definition

static bool is_letter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '@';
}

static bool is_one_of(char c, const char *set)
{
    return c != '\0' && std::string_view(set).find(c) != std::string_view::npos;
}

// The message that refuses a part, by what may stand behind its first letter; empty: none does.
static std::string part_error(std::string_view part, const char *later, const char *name)
{
    for (size_t i = 0; i < part.size(); i++) {
        if (is_letter(part[i]) || (i > 0 && is_one_of(part[i], later)))
            continue;
        if (is_one_of(part[i], later))
            return std::string(name) + " name must begin with letter in -dset paramter.\n";
        std::string lower = name;
        lower[0] = 'd';
        return "Invalid character in " + lower + " name in -dset parameter.\n";
    }
    return "";
}

static std::string expected_error(std::string_view pattern)
{
    const size_t colon = pattern.find(':');
    const std::string error = part_error(pattern.substr(0, colon), "0123456789.-", "Database");
    if (!error.empty() || colon == pattern.npos)
        return error;
    const std::string_view dataset = pattern.substr(colon + 1);
    const std::string other = part_error(dataset, "0123456789+-*/?'#%&", "Dataset");
    if (!other.empty())
        return other;
    return dataset.size() > 16 ? "Dataset name too long in -dset parameter.\n" : "";
}

static char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

static std::string upper(std::string text)
{
    for (char &c : text)
        c = upper(c);
    return text;
}

static std::string expected_form(const std::string &pattern)
{
    const size_t colon = pattern.rfind(':');
    if (colon == pattern.npos)
        return "@:" + upper(pattern);
    return (colon == 0 ? "@" : "") + upper(pattern) + (colon + 1 == pattern.size() ? "@" : "");
}

// All places at once where the subject can be with the pattern so far.
static bool matches(std::string_view pattern, std::string_view subject)
{
    std::vector<bool> at(subject.size() + 1, false);
    at[0] = true;
    for (const char c : pattern) {
        std::vector<bool> next(at.size(), false);
        for (size_t i = 0; i < at.size(); i++) {
            if (c == '@' && at[i])
                std::fill(next.begin() + static_cast<std::ptrdiff_t>(i), next.end(), true);
            else if (at[i] && i < subject.size() && upper(subject[i]) == upper(c))
                next[i + 1] = true;
        }
        at = next;
    }
    return at.back();
}

static std::string take_text(std::string_view &rest)
{
    const std::string text(rest.substr(0, rest.find('\0')));
    rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    return text;
}

static void run(std::string_view input)
{
    const std::string pattern = take_text(input);
    const std::string database = take_text(input);
    const std::string dataset = take_text(input);
    if (std::count(pattern.begin(), pattern.end(), '@') > 4)
        return; // matching takes a time that grows with a power of their number

    const fuzz_said said = fuzz_listen([&] { return dset_valid(pattern.c_str()); });
    fuzz_equal(said.err, expected_error(pattern), pattern.c_str());
    fuzz_equal(said.status == 0, said.err.empty(), "refused without a message");

    const std::string subject = database + ":" + dataset;
    fuzz_equal(patmatches(pattern.c_str(), subject.c_str()) != 0, matches(pattern, subject),
               "a match of any pattern");
    if (said.status != 0)
        return;
    char *const stored = copy_dset_parm(pattern.c_str());
    const std::string form = stored;
    free(stored);
    fuzz_equal(form, expected_form(pattern), "the stored form");
    char *pats[] = {const_cast<char *>(form.c_str())}; // only read
    capfil file = {};
    file.npats = 1;
    file.pats = pats;
    fuzz_equal(find_dset(&file, database.c_str(), dataset.c_str()) != 0,
               matches(form, database.substr(0, 256) + ":" + dataset.substr(0, 16)),
               "a dataset of a file");
}

static std::vector<std::string> seeds()
{
    using namespace std::string_literals;
    return {"cust\0ORDERS\0CUST"s,
            "orders:cust\0orders\0Cust"s,
            "@.CUST@\0X\0A.CUSTOMER"s,
            "orders:\0ORDERS2\0ANY"s,
            ":a+b\0\0A+B"s,
            "1DB:X\0D\0X"s,
            "DB:@BCDEFGHIJKLMNOP\0DB\0ABCDEFGHIJKLMNOPQ"s,
            ":\0\0"s,
            "a@b@c:@x@\0aab-c\0yxz"s};
}

static std::vector<std::string> words()
{
    return {"@", ":", "@@", ":@", "@:", "+", "?"};
}

constinit const fuzz_target fuzz_patterns = {
    .name = "patterns", .longest = 400, .run = run, .seeds = seeds, .words = words};

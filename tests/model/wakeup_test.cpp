// Locks, wait list and wake-ups in every order and with every kill: wakeup.pml gone through by
// spin.  And the same model with one rule broken, where spin has to find what goes wrong.
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <cctype>
#include <gtest/gtest.h>
#include <set>

struct search_row {
    const char *name;
    std::vector<std::string> options;
    const char *found; // beginning of the assertion that does not hold; null for none
    bool long_form = false;
};

static void PrintTo(const search_row &row, std::ostream *out)
{
    *out << row.name;
}

class WakeupModel : public testing::TestWithParam<search_row> {
  protected:
    const std::string model = KESTRO_SOURCE_DIR "/tests/model/wakeup.pml";
    tempdir dir;

    void SetUp() override
    {
        if (run_program({"/usr/bin/env", "spin", "-V"}).status != 0)
            GTEST_SKIP() << "spin is missing: Debian package spin";
        if (GetParam().long_form && getenv("KESTRO_MODEL_LONG") == nullptr)
            GTEST_SKIP() << "in the long form: scripts/test --long wakeup";
    }

    // What the search through all states prints.
    std::string search() const
    {
        run_setup here;
        here.directory = dir.path();
        std::vector<std::string> words = {"/usr/bin/env", "spin", "-a"};
        for (const std::string &option : GetParam().options)
            words.push_back("-D" + option);
        words.push_back(model);
        run_result run = run_program(words, here);
        if (run.status != 0)
            return "spin: " + run.out + run.err;
        // Without the reductions that rest on assumptions about the model.  The compiler takes
        // longer to optimize a short search than that takes.
        run = run_program({MODEL_C_COMPILER, "-w", GetParam().long_form ? "-O2" : "-O0", "-DSAFETY",
                           "-DNOREDUCE", "-DCOLLAPSE", "-o", "pan", "pan.c"},
                          here);
        if (run.status != 0)
            return "compiler: " + run.out + run.err;
        run = run_program({dir.file("pan"), "-m100000", "-n"}, here);
        return run.out + run.err;
    }
};

// The number before the words.
static std::string number_before(const std::string &text, const std::string &words)
{
    const size_t at = text.find(words);
    if (at == std::string::npos)
        return "?";
    size_t begin = at;
    while (begin > 0 && isdigit(static_cast<unsigned char>(text[begin - 1])) != 0)
        begin--;
    return text.substr(begin, at - begin);
}

TEST_P(WakeupModel, HoldsInEveryStateAndFailsWithEachFault)
{
    const std::string out = search();
    if (GetParam().found != nullptr) {
        EXPECT_NE(out.find("errors: 1"), std::string::npos) << out;
        EXPECT_NE(out.find(std::string("assertion violated ") + GetParam().found),
                  std::string::npos)
            << out;
        return;
    }
    EXPECT_NE(out.find("errors: 0"), std::string::npos) << out;
    EXPECT_EQ(out.find("not completed"), std::string::npos) << out;
    EXPECT_EQ(out.find("max search depth too small"), std::string::npos) << out;
    printf("%s states\n", number_before(out, " states, stored").c_str());
}

// A record lies there, and a reader sleeps though no datagram was lost.
static const char *const SLEEPS = "(file.records==0)";
// The same, for more than a whole round.
static const char *const SLEEPS_ON = "((file.records==0)||(data[file.first]!=passed[u]))";
// A reader waits for writers though all have closed the file.
static const char *const ALONE = "(writer_lives|| !(ends[u]))";
// The same for writers that were killed, for more than a whole round.
static const char *const ALONE_ON = "((writer_lives|| !(ends[u]))|| !(alone[u]))";
// Somebody holds the common lock, and nothing goes on.
static const char *const STUCK = "(common_lock==0)";
// Who has the file open is not registered.
static const char *const UNREGISTERED = "(( !(open[u])||(u>2))||(((file.readers>>slot_of[u])&1)";
// The area counts a record that is not there.
static const char *const NO_DATA = "(took!=0)";
// A record is given once more.
static const char *const TWICE = "(q_len(sequence)>0)";

static const search_row SEARCHES[] = {
    {"WritersClose", {"RECORDS=2"}, nullptr},
    {"WritersStay", {"RECORDS=2", "STAYS"}, nullptr},
    {"RoundsEndAtAnyMoment", {"STAYS", "ROUNDS=1", "LIMITED=1", "PERSISTENT=2"}, nullptr},
    {"StrangersSend", {"STAYS", "STRANGER=1"}, nullptr},
    {"SomebodyIsKilled", {"KILLS=1", "LONG"}, nullptr},
    {"KilledTwiceAndBack", {"READERS=1", "LIVES=2", "KILLS=2", "LONG"}, nullptr},
    {"DatagramsAreLost", {"LOSSY", "STAYS", "RECORDS=2"}, nullptr},
    {"DatagramsAreLostByLimitedReads",
     {"READERS=1", "LOSSY", "LIVES=2", "KILLS=1", "STAYS", "RECORDS=2", "LIMITED=1"},
     nullptr},
    {"KilledWhereDatagramsAreLost", {"READERS=1", "LOSSY", "LIVES=2", "KILLS=1", "LONG"}, nullptr},
    {"KilledTwiceWhereDatagramsAreLost",
     {"READERS=1", "LOSSY", "LIVES=2", "KILLS=2", "LONG"},
     nullptr,
     true},
    {"TwoWriters", {"WRITERS=2"}, nullptr, true},
    {"TwoWritersStay", {"WRITERS=2", "STAYS", "LONG"}, nullptr, true},
    {"TwoWritersAndAKill", {"WRITERS=2", "READERS=1", "KILLS=1", "RECORDS=2"}, nullptr, true},
    {"KilledAndBack", {"LIVES=2", "KILLS=1", "LONG"}, nullptr, true},
    {"TwoAreKilled", {"KILLS=2", "STAYS", "RECORDS=2"}, nullptr, true},
    {"OneIsKilledWhereDatagramsAreLost", {"LOSSY", "KILLS=1", "LONG"}, nullptr, true},
};
INSTANTIATE_TEST_SUITE_P(Holds, WakeupModel, testing::ValuesIn(SEARCHES),
                         [](const auto &row) { return row.param.name; });

static const search_row FAULTS[] = {
    {"EntryAfterUnlocking", {"FAULT_ENTRY_AFTER_UNLOCKING", "STAYS"}, SLEEPS},
    {"EntryNotWritten", {"FAULT_ENTRY_NOT_WRITTEN", "STAYS"}, SLEEPS},
    {"BindsAfterUnlocking", {"FAULT_BINDS_AFTER_UNLOCKING", "STAYS"}, SLEEPS},
    {"WakesBeforeWriting", {"FAULT_WAKES_BEFORE_WRITING", "STAYS"}, SLEEPS},
    {"WakesAfterUnlocking", {"FAULT_WAKES_AFTER_UNLOCKING", "KILLS=1"}, SLEEPS},
    {"WakesOneReaderOnly", {"FAULT_WAKES_ONE", "KILLS=1"}, SLEEPS},
    {"NoLookBehindARound", {"FAULT_NO_LOOK_BEHIND_A_ROUND", "LOSSY", "STAYS"}, SLEEPS_ON},
    {"ClosesWithoutAWord", {"FAULT_SILENT_CLOSE"}, ALONE},
    {"NoPurgeInAWait", {"FAULT_NO_PURGE", "KILLS=1"}, ALONE_ON},
    {"WaitsWithTheLock", {"FAULT_WAITS_WITH_THE_LOCK"}, STUCK},
    {"PurgesTheOwnSlot", {"FAULT_OWN_SLOT"}, UNREGISTERED},
    {"SlotLockedLate", {"FAULT_SLOT_LOCKED_LATE"}, UNREGISTERED},
    {"NoCommonLock", {"FAULT_NO_LOCK"}, UNREGISTERED},
    {"CutsBeforeWriting", {"FAULT_CUTS_BEFORE_WRITING", "LONG", "KILLS=1"}, NO_DATA},
    {"CountsBeforeData", {"FAULT_COUNTS_BEFORE_DATA", "KILLS=1"}, NO_DATA},
    {"BelievesTheWakeUp", {"FAULT_BELIEVES_THE_WAKE_UP"}, TWICE},
};
INSTANTIATE_TEST_SUITE_P(Finds, WakeupModel, testing::ValuesIn(FAULTS),
                         [](const auto &row) { return row.param.name; });

// The words of a text that begin as the library's names do.
static std::set<std::string> library_names(const std::string &text)
{
    std::set<std::string> names;
    std::string word;
    for (const char c : text + " ") {
        if (isalnum(static_cast<unsigned char>(c)) != 0 || c == '_') {
            word += c;
            continue;
        }
        for (const char *prefix : {"tmf_", "tmfc_", "tmc_"})
            if (word.rfind(prefix, 0) == 0)
                names.insert(word);
        word.clear();
    }
    return names;
}

// Each fault has a row, and each function that a step is said to be is in the library.
TEST(WakeupModelText, NamesWhatIsThere)
{
    std::string model;
    for (const char *part : {"wakeup.pml", "wakeup_calls.pml", "wakeup_users.pml"})
        model += read_file(std::string(KESTRO_SOURCE_DIR "/tests/model/") + part);
    std::string library;
    std::set<std::string> files;
    for (const auto &entry : std::filesystem::directory_iterator(KESTRO_SOURCE_DIR "/msgfile")) {
        library += read_file(entry.path().string());
        files.insert(entry.path().stem().string());
    }
    const std::set<std::string> names = library_names(library);
    int functions = 0;
    for (const std::string &name : library_names(model)) {
        EXPECT_TRUE(names.count(name) == 1 || files.count(name) == 1) << name;
        functions += static_cast<int>(names.count(name));
    }
    EXPECT_GT(functions, 20);
    std::set<std::string> rows;
    for (const search_row &row : FAULTS)
        rows.insert(row.options.front());
    std::set<std::string> faults;
    for (size_t at = model.find("def FAULT_"); at != std::string::npos;
         at = model.find("def FAULT_", at + 1))
        faults.insert(model.substr(at + 4, model.find('\n', at) - at - 4));
    EXPECT_EQ(faults, rows);
}

// Each call of the message-file library with each of its system calls failing, doing half,
// and being the last one of its process: the code and its text are those that tmf.h
// promises, what was acknowledged is in the file once and in order, no slot stays taken, and
// both the handle, where it lives, and the next user go on.
#include "tests/calls/message_codes.h"
#include "tests/calls/message_world.h"

#include <gtest/gtest.h>
#include <regex>

// What a process is about to do with the file.
enum call_made {
    OPEN,
    WRITE,
    WRITE_MANY,
    READ,
    READ_KEEP,
    READ_BY_TIME,
    READ_MANY,
    READ_MANY_KEEP,
    REMOVE,
    GETINFO,
    CLOSE
};

static constexpr const char *call_names[] = {
    "tmf_fopen",      "tmf_fwrite",     "tmf_fwrite_many", "tmf_fread",   "tmf_fread", "tmf_freadx",
    "tmf_fread_many", "tmf_fread_many", "tmf_fremove",     "tmf_getinfo", "tmf_fclose"};

struct message_case {
    const char *name;
    call_made call;
    file_kind file;
    int mode = 0;
    bool proven = false; // the handle has written or read a record before
    bool waited = false; // a reader that is gone by now waits in slot 5
    bool fed = false;    // another process appends a record when the call waits
    bool beside = false; // another process has the file open for writing
    lengths before = {}; // records when the call has not been made
    lengths after = {};  // and when it has
    int got = 0;         // what an undisturbed read gives
};

static void PrintTo(const message_case &c, std::ostream *out)
{
    *out << c.name;
}

constexpr int WRITTEN = 3000; // by the call
constexpr int MANY[] = {500, 1, 2500};
constexpr int PROVING = 11; // before it
constexpr int FED = 55;     // by another process
constexpr int NEXT = 44;    // by the same handle, behind the call
constexpr int EXTRA = 77;   // by the next user

// What the process of a run puts down, in memory that the test has, too.
struct run_notes {
    std::atomic<bool> returned; // from the call
    std::atomic<bool> next_done;
    int code; // 0, a code, or the length of a record read
    int kept; // in the handle, or of a failed open
    char text[TMF_ERRMSG_SIZE];
    bool sound; // what was read is what was written
    int next;   // what the handle's next call gave
};

class MessageCalls : public ::testing::TestWithParam<message_case> {
  protected:
    message_world world;
    shared_memory<run_notes> notes;
    std::unique_ptr<other_user> beside;
    bool was_fed = false;

    tmf_handle *prepared() const
    {
        const message_case &c = GetParam();
        tmf_handle *h = tmf_fopen(world.path.c_str(), c.mode);
        if (h == nullptr)
            _exit(99);
        if (c.proven && (c.mode & TMF_MODE_READ) == 0 && !append(h, PROVING))
            _exit(98);
        if (c.proven && (c.mode & TMF_MODE_READ) != 0 && take(h, 0) <= 0)
            _exit(97);
        if (c.waited)
            world.enter_waiting_reader(h);
        return h;
    }

    static int make(call_made call, tmf_handle *h, bool *sound)
    {
        int32_t records = 0;
        switch (call) {
        case WRITE:
            return append_code(h, WRITTEN);
        case WRITE_MANY:
            return append_many(h, {std::begin(MANY), std::end(MANY)});
        case READ_MANY:
            return take_many(h, 2, 0, sound);
        case READ_MANY_KEEP:
            return take_many(h, 2, TMF_READ_KEEP, sound);
        case REMOVE:
            return tmf_fremove(h, 2);
        case READ:
            return take(h, 0, sound);
        case READ_KEEP:
            return take(h, TMF_READ_KEEP, sound);
        case READ_BY_TIME:
            return take_by_time(h, sound);
        case GETINFO:
            return tmf_getinfo(h, TMF_INFO_RECORDS, &records, 0);
        default:
            return tmf_fclose(h);
        }
    }

    // The process: the call, and then another one with the same handle.
    int live() const
    {
        const message_case &c = GetParam();
        tmf_handle *h = c.call == OPEN ? nullptr : prepared();
        run_notes &n = *notes;
        begin_counting();
        if (c.call == OPEN)
            h = tmf_fopen(world.path.c_str(), c.mode);
        else
            n.code = make(c.call, h, &n.sound);
        end_counting();
        if (c.call == CLOSE)
            h = nullptr;
        n.kept = tmf_geterrno(h);
        if (c.call == OPEN)
            n.code = h == nullptr ? n.kept : 0;
        tmf_geterrmsg(h, n.text);
        n.returned = true;
        if (h == nullptr)
            return 0;
        int32_t records = 0;
        n.next = (c.mode & TMF_MODE_READ) == 0 ? append_code(h, NEXT)
                                               : tmf_getinfo(h, TMF_INFO_RECORDS, &records, 0);
        n.next_done = true;
        return tmf_fclose(h) == 0 ? 0 : 96;
    }

    traced_run run(size_t number, blow what)
    {
        const message_case &c = GetParam();
        beside.reset();
        world.renew(c.file);
        if (c.beside)
            beside = std::make_unique<other_user>(world.path, 0);
        new (&*notes) run_notes{};
        was_fed = false;
        const auto feed = [&](const traced_call &call) {
            if (c.fed && !was_fed && call.is("poll"))
                was_fed = world.append_elsewhere(FED);
        };
        return run_traced({.directory = world.dir.path(),
                           .body = [this] { return live(); },
                           .between_marks = true,
                           .time_is_over = !c.fed,
                           .before_call = feed,
                           .struck = number,
                           .what = what});
    }

    // ---- what the run has left

    void look(const struck_call &struck, const traced_run &run)
    {
        if (!struck.what.kills()) {
            EXPECT_EQ(run.status, 0);
            ASSERT_TRUE(notes->returned);
            EXPECT_EQ(notes->next, 0) << "the handle does not go on";
            expect_right_answer(struck);
        }
        expect_next_user_goes_on();
    }

    int64_t own_slot() const
    {
        const message_case &c = GetParam();
        return c.call == OPEN ? world.slot_of(c.mode, c.beside) : 0;
    }

    void expect_right_answer(const struck_call &struck) const
    {
        const message_case &c = GetParam();
        const std::set<int> right = right_codes(call_names[c.call], struck, own_slot());
        const int result = std::min(notes->code, 0);
        EXPECT_TRUE(right.contains(result))
            << "code " << result << ", right were " << testing::PrintToString(right);
        if (notes->code > 0) {
            EXPECT_TRUE(notes->sound) << "a record that nobody wrote";
        }
        // These two keep no code, and the fault of a wait that is no failure is kept, too.
        if (result == 0 || c.call == CLOSE || c.call == GETINFO)
            return;
        EXPECT_EQ(notes->kept, result);
        EXPECT_EQ(notes->text, right_text(result, struck));
    }

    static bool takes()
    {
        const call_made call = GetParam().call;
        return call == READ || call == READ_BY_TIME || call == READ_MANY;
    }
    // Whether the call may not have been made, and whether it may have.
    bool may_be_unmade() const
    {
        if (!notes->returned)
            return true;
        const int code = notes->code;
        if (takes() || GetParam().call == REMOVE)
            return code < 0 && code != TMF_EUNLOCK && code != TMF_ETRUNCATE;
        return code != 0 && code != TMF_EUNLOCK && code != TMF_ESEND;
    }
    bool may_be_made() const
    {
        static const std::set<int> perhaps = {TMF_EUNLOCK,           TMF_ESEND,
                                              TMF_ETRUNCATE,         TMF_EWRITE_COMMON,
                                              TMF_EWRITE_COMMON_EOF, TMF_ESEEK_COMMON};
        if (!notes->returned || perhaps.contains(notes->code))
            return true;
        return takes() ? notes->code > 0 : notes->code == 0;
    }

    // The records that may be there, the next user's not counted.
    std::vector<lengths> possible() const
    {
        const message_case &c = GetParam();
        std::vector<lengths> all;
        if (may_be_unmade() || c.before == c.after)
            all.push_back(c.before);
        if (may_be_made())
            all.push_back(c.after);
        // A read that found nothing took nothing.
        if (c.fed && was_fed && (!notes->returned || notes->code <= 0))
            all.push_back({FED});
        for (lengths &records : all)
            if (notes->next_done && (c.mode & TMF_MODE_READ) == 0 && notes->next == 0)
                records.push_back(NEXT);
        return all;
    }

    void expect_next_user_goes_on()
    {
        const message_case &c = GetParam();
        const int others = c.beside ? 1 : 0;
        const message_facts facts = world.append_as_next_user(EXTRA);
        ASSERT_EQ(facts.code, 0) << "the next user cannot go on";
        EXPECT_EQ(facts.readers, 0) << "a reader's slot stays taken";
        EXPECT_EQ(facts.writers, 1 + others) << "a writer's slot stays taken";
        lengths found = world.all_records();
        ASSERT_FALSE(found.empty());
        EXPECT_EQ(found.back(), EXTRA);
        found.pop_back();
        EXPECT_THAT(possible(), testing::Contains(found));
        if (beside != nullptr) {
            EXPECT_EQ(beside->close(), 0);
        }
        EXPECT_EQ(world.faults(), 0);
    }
};

TEST_P(MessageCalls, KeepsWhatWasAcknowledged)
{
    const message_case &c = GetParam();
    if (can_trace()) {
        EXPECT_EQ(run(0, {}).status, 0);
        EXPECT_EQ(notes->code, c.got);
        expect_next_user_goes_on();
    }
    expect_survives_blows(
        {.name = std::string(call_names[c.call]) + " " + c.name,
         .run = [this](size_t number, blow what) { return run(number, what); },
         .look = [this](const struck_call &s, const traced_run &r) { look(s, r); }});
}

// clang-format off
static const message_case cases[] = {
    {.name = "WriterMakesTheFile", .call = OPEN, .file = NO_FILE},
    {.name = "ReaderMakesTheFile", .call = OPEN, .file = NO_FILE, .mode = 1},
    {.name = "MadeForAllUsers", .call = OPEN, .file = NO_FILE, .mode = 8},
    {.name = "AnEmptyFileAsWriter", .call = OPEN, .file = EMPTY_FILE},
    {.name = "Writer", .call = OPEN, .file = THREE_RECORDS, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "Reader", .call = OPEN, .file = THREE_RECORDS, .mode = 1, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "WriterAlone", .call = OPEN, .file = THREE_RECORDS, .mode = 2, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "ReaderAlone", .call = OPEN, .file = THREE_RECORDS, .mode = 3, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "CopyMode", .call = OPEN, .file = THREE_RECORDS, .mode = 7, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "WriterBesideAWriter", .call = OPEN, .file = THREE_RECORDS, .beside = true, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "ReaderBesideAWriter", .call = OPEN, .file = THREE_RECORDS, .mode = 1, .beside = true, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "WriterPurgesTheDead", .call = OPEN, .file = DEAD_USERS, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "ReaderPurgesTheDead", .call = OPEN, .file = DEAD_USERS, .mode = 1, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "FileOfTheOtherByteOrder", .call = OPEN, .file = TURNED_FILE, .before = {10, 300, 20}, .after = {10, 300, 20}},

    {.name = "FirstOfTheHandle", .call = WRITE, .file = THREE_RECORDS, .before = {10, 300, 20}, .after = {10, 300, 20, WRITTEN}},
    {.name = "IntoAnEmptyFile", .call = WRITE, .file = EMPTY_FILE, .before = {}, .after = {WRITTEN}},
    {.name = "LaterOne", .call = WRITE, .file = THREE_RECORDS, .proven = true, .before = {10, 300, 20, PROVING}, .after = {10, 300, 20, PROVING, WRITTEN}},
    {.name = "WakesAReader", .call = WRITE, .file = EMPTY_FILE, .waited = true, .before = {}, .after = {WRITTEN}},
    {.name = "BesideAWriter", .call = WRITE, .file = THREE_RECORDS, .proven = true, .beside = true, .before = {10, 300, 20, PROVING}, .after = {10, 300, 20, PROVING, WRITTEN}},
    {.name = "FirstOfTheHandle", .call = WRITE_MANY, .file = THREE_RECORDS, .before = {10, 300, 20}, .after = {10, 300, 20, MANY[0], MANY[1], MANY[2]}},
    {.name = "IntoAnEmptyFile", .call = WRITE_MANY, .file = EMPTY_FILE, .before = {}, .after = {MANY[0], MANY[1], MANY[2]}},
    {.name = "LaterOne", .call = WRITE_MANY, .file = THREE_RECORDS, .proven = true, .before = {10, 300, 20, PROVING}, .after = {10, 300, 20, PROVING, MANY[0], MANY[1], MANY[2]}},
    {.name = "WakesAReader", .call = WRITE_MANY, .file = EMPTY_FILE, .waited = true, .before = {}, .after = {MANY[0], MANY[1], MANY[2]}},
    {.name = "BesideAWriter", .call = WRITE_MANY, .file = THREE_RECORDS, .proven = true, .beside = true, .before = {10, 300, 20, PROVING}, .after = {10, 300, 20, PROVING, MANY[0], MANY[1], MANY[2]}},

    {.name = "FirstOfTheHandle", .call = READ, .file = THREE_RECORDS, .mode = 1, .before = {10, 300, 20}, .after = {300, 20}, .got = 10},
    {.name = "LaterOne", .call = READ, .file = THREE_RECORDS, .mode = 1, .proven = true, .before = {300, 20}, .after = {20}, .got = 300},
    {.name = "LastRecord", .call = READ, .file = ONE_RECORD, .mode = 1, .before = {10}, .after = {}, .got = 10},
    {.name = "LastRecordOfALongFile", .call = READ, .file = LONG_FILE, .mode = 1, .before = {10}, .after = {}, .got = 10},
    {.name = "Kept", .call = READ_KEEP, .file = THREE_RECORDS, .mode = 1, .before = {10, 300, 20}, .after = {10, 300, 20}, .got = 10},
    {.name = "CopyMode", .call = READ, .file = THREE_RECORDS, .mode = 7, .before = {10, 300, 20}, .after = {10, 300, 20}, .got = 10},
    {.name = "WaitsForARecord", .call = READ, .file = EMPTY_FILE, .mode = 1, .fed = true, .before = {}, .after = {}, .got = FED},
    {.name = "EndOfFile", .call = READ, .file = ONE_RECORD, .mode = 1, .proven = true, .before = {}, .after = {}},
    {.name = "TwoOfThem", .call = READ_MANY, .file = THREE_RECORDS, .mode = 1, .before = {10, 300, 20}, .after = {20}, .got = 2},
    {.name = "LaterOnes", .call = READ_MANY, .file = THREE_RECORDS, .mode = 1, .proven = true, .before = {300, 20}, .after = {}, .got = 2},
    {.name = "LastOfALongFile", .call = READ_MANY, .file = LONG_FILE, .mode = 1, .before = {10}, .after = {}, .got = 1},
    {.name = "CopyMode", .call = READ_MANY, .file = THREE_RECORDS, .mode = 7, .before = {10, 300, 20}, .after = {10, 300, 20}, .got = 2},
    {.name = "WaitsForRecords", .call = READ_MANY, .file = EMPTY_FILE, .mode = 1, .fed = true, .before = {}, .after = {}, .got = 1},
    {.name = "Kept", .call = READ_MANY_KEEP, .file = THREE_RECORDS, .mode = 1, .before = {10, 300, 20}, .after = {10, 300, 20}, .got = 2},
    {.name = "TwoOfThem", .call = REMOVE, .file = THREE_RECORDS, .mode = 3, .before = {10, 300, 20}, .after = {20}},
    {.name = "TheLast", .call = REMOVE, .file = THREE_RECORDS, .mode = 3, .proven = true, .before = {300, 20}, .after = {}},
    {.name = "ARecordIsThere", .call = READ_BY_TIME, .file = THREE_RECORDS, .mode = 1, .before = {10, 300, 20}, .after = {300, 20}, .got = 10},
    {.name = "TimeIsOver", .call = READ_BY_TIME, .file = EMPTY_FILE, .mode = 1, .before = {}, .after = {}},
    {.name = "TimeIsOverBesideAWriter", .call = READ_BY_TIME, .file = EMPTY_FILE, .mode = 1, .beside = true, .before = {}, .after = {}},

    {.name = "OfAWriter", .call = GETINFO, .file = THREE_RECORDS, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "OfAProvenWriter", .call = GETINFO, .file = THREE_RECORDS, .proven = true, .before = {10, 300, 20, PROVING}, .after = {10, 300, 20, PROVING}},
    {.name = "PurgesTheDead", .call = GETINFO, .file = THREE_RECORDS, .mode = 1, .waited = true, .beside = true, .before = {10, 300, 20}, .after = {10, 300, 20}},

    {.name = "Writer", .call = CLOSE, .file = THREE_RECORDS, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "ProvenWriter", .call = CLOSE, .file = THREE_RECORDS, .proven = true, .before = {10, 300, 20, PROVING}, .after = {10, 300, 20, PROVING}},
    {.name = "WriterWakesAReader", .call = CLOSE, .file = THREE_RECORDS, .waited = true, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "Reader", .call = CLOSE, .file = THREE_RECORDS, .mode = 1, .before = {10, 300, 20}, .after = {10, 300, 20}},
    {.name = "ProvenReader", .call = CLOSE, .file = THREE_RECORDS, .mode = 1, .proven = true, .before = {300, 20}, .after = {300, 20}},
    {.name = "ReaderAlone", .call = CLOSE, .file = THREE_RECORDS, .mode = 3, .before = {10, 300, 20}, .after = {10, 300, 20}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Calls, MessageCalls, ::testing::ValuesIn(cases), [](const auto &c) {
    return std::string(call_names[c.param.call]).substr(4) + c.param.name;
});

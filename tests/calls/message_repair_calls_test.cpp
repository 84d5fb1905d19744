// Checks and repairs of message files with each of their system calls failing, doing half and
// being the last one: a sound file is never called damaged, a file is as it was or repaired,
// a copy aside is whole and there before the file changes, and the next repair does the rest.
#include "tests/calls/message_codes.h"
#include "tests/calls/message_world.h"

#include <filesystem>
#include <gtest/gtest.h>

class MessageRepairCalls : public ::testing::Test {
  protected:
    struct run_notes {
        std::atomic<bool> returned;
        int code;
        char text[TMF_ERRMSG_SIZE];
        tmf_check_result result;
    };
    message_world world;
    std::string aside = world.dir.file("aside");
    std::string file;
    shared_memory<run_notes> notes;

    void SetUp() override
    {
        world.renew(THREE_RECORDS);
        file = read_file(world.path);
    }
    // The second of the three records is torn: its first length is another one.
    void damage()
    {
        file[4352 + 16] = 0x7F;
    }
    traced_run run(bool repair, size_t number, blow what) const
    {
        write_file(world.path, file);
        for (const std::string &name : {aside, aside + ".part"})
            std::filesystem::remove(name);
        new (&*notes) run_notes{};
        const auto body = [&] {
            run_notes &n = *notes;
            begin_counting();
            n.code = repair ? tmf_repair(world.path.c_str(), 0, aside.c_str(), &n.result)
                            : tmf_check(world.path.c_str(), &n.result);
            end_counting();
            tmf_geterrmsg(nullptr, n.text);
            n.returned = true;
            return 0;
        };
        return run_traced({.directory = world.dir.path(),
                           .body = body,
                           .between_marks = true,
                           .struck = number,
                           .what = what});
    }
    void expect_right_answer(const char *name, const struck_call &struck) const
    {
        ASSERT_TRUE(notes->returned);
        const std::set<int> right = right_codes(name, struck, 0);
        EXPECT_TRUE(right.contains(notes->code))
            << "code " << notes->code << ", right were " << testing::PrintToString(right);
        if (notes->code != 0) {
            EXPECT_EQ(notes->text, right_text(notes->code, struck));
        }
    }
    static lengths records_of(const std::string &path)
    {
        tmf_check_result result;
        EXPECT_EQ(tmf_check(path.c_str(), &result), 0);
        EXPECT_EQ(result.found, 0);
        return {result.records};
    }
};

TEST_F(MessageRepairCalls, ACheckOfASoundFileFindsNothing)
{
    expect_survives_blows(
        {.name = "tmf_check ASoundFile",
         .run = [this](size_t number, blow what) { return run(false, number, what); },
         .look =
             [this](const struck_call &struck, const traced_run &) {
                 EXPECT_EQ(read_file(world.path), file);
                 if (struck.what.kills())
                     return;
                 expect_right_answer("tmf_check", struck);
                 EXPECT_EQ(notes->result.found, 0);
                 // The lock is given up when all is known.
                 const bool at_end = struck.number > struck.undisturbed.calls.size() - 3;
                 EXPECT_EQ(notes->result.records, notes->code == 0 || at_end ? 3 : 0);
             }});
}

TEST_F(MessageRepairCalls, AFileWhoseBeginningIsLostIsKnown)
{
    file.replace(0, 4352, 4352, '\0');
    expect_survives_blows(
        {.name = "tmf_check AFileOfZeros",
         .run = [this](size_t number, blow what) { return run(false, number, what); },
         .look =
             [this](const struck_call &struck, const traced_run &) {
                 EXPECT_EQ(read_file(world.path), file);
                 if (struck.what.kills())
                     return;
                 expect_right_answer("tmf_check", struck);
                 if (notes->code == 0) {
                     EXPECT_EQ(notes->result.found, TMF_FOUND_ZEROS);
                 }
             }});
}

TEST_F(MessageRepairCalls, AFileWhoseMakerWasKilledBeforeItsSlotsIsSound)
{
    world.renew(EMPTY_FILE);
    const std::string cut = read_file(world.path).substr(0, 256);
    write_file(world.path, cut);
    tmf_check_result result;
    EXPECT_EQ(tmf_check(world.path.c_str(), &result), 0);
    EXPECT_EQ(result.found, 0);
    EXPECT_EQ(tmf_repair(world.path.c_str(), 0, nullptr, &result), 0);
    EXPECT_EQ(read_file(world.path), cut);
    EXPECT_EQ(world.append_as_next_user(20).code, 0);
    EXPECT_EQ(world.all_records(), lengths{20});
}

TEST_F(MessageRepairCalls, ARepairLeavesASoundFileAlone)
{
    expect_survives_blows(
        {.name = "tmf_repair ASoundFile",
         .run = [this](size_t number, blow what) { return run(true, number, what); },
         .look =
             [this](const struck_call &struck, const traced_run &) {
                 EXPECT_EQ(read_file(world.path), file);
                 EXPECT_FALSE(std::filesystem::exists(aside));
                 if (!struck.what.kills())
                     expect_right_answer("tmf_repair", struck);
             }});
}

TEST_F(MessageRepairCalls, ADamagedFileIsAsItWasOrRepaired)
{
    damage();
    const auto look = [this](const struck_call &struck, const traced_run &) {
        const bool copied = std::filesystem::exists(aside);
        EXPECT_TRUE(!copied || read_file(aside) == file);
        const bool untouched = read_file(world.path) == file;
        EXPECT_TRUE(untouched || copied);
        if (!struck.what.kills()) {
            expect_right_answer("tmf_repair", struck);
            const tmf_check_result &result = notes->result;
            // A changed file is told; a lock that could not be given up matters to nobody.
            EXPECT_TRUE(untouched || result.changed == 1 || notes->code == TMF_EUNLOCK);
            EXPECT_TRUE(result.aside != TMF_ASIDE_FAILED || untouched);
            if (notes->code == 0) {
                EXPECT_FALSE(untouched);
            }
        }
        const bool cut_area =
            struck.what.kind == BLOW_HALF && struck.call().offset == 0 && !untouched;
        if (!untouched && !cut_area) {
            EXPECT_EQ(records_of(world.path), lengths{1});
        }
        tmf_check_result result;
        EXPECT_EQ(tmf_repair(world.path.c_str(), 0, (aside + "2").c_str(), &result), 0);
        EXPECT_EQ(records_of(world.path), lengths{1});
        std::filesystem::remove(aside + "2");
    };
    if (can_trace()) {
        EXPECT_EQ(run(true, 0, {}).status, 0);
        EXPECT_EQ(notes->code, 0);
        EXPECT_EQ(records_of(world.path), lengths{1});
    }
    expect_survives_blows(
        {.name = "tmf_repair ATornRecord",
         .run = [this](size_t number, blow what) { return run(true, number, what); },
         .look = look});
}

// Every call of tmf.h is either struck at each of its system calls, or makes none.
#include "tests/calls/message_world.h"

#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>

static std::set<std::string> calls_of_header()
{
    const std::string header = read_file(KESTRO_SOURCE_DIR "/msgfile/tmf.h");
    static const std::regex prototype(R"(TMF_API [a-z_ ]+\*?(tmf_\w+)\()");
    std::set<std::string> calls;
    for (std::sregex_iterator at(header.begin(), header.end(), prototype), end; at != end; ++at)
        calls.insert((*at)[1]);
    return calls;
}

// The calls that the two tests beside this one strike.
static const std::set<std::string> struck = {
    "tmf_fopen",      "tmf_fclose",  "tmf_fwrite",  "tmf_fwrite_many", "tmf_fread", "tmf_freadx",
    "tmf_fread_many", "tmf_fremove", "tmf_getinfo", "tmf_check",       "tmf_repair"};

static const std::map<std::string, void (*)(tmf_handle *)> quiet = {
    {"tmf_finfo",
     [](tmf_handle *h) {
         int32_t end = 0;
         tmf_finfo(h, TMF_FINFO_RECORD_END, &end, sizeof(end));
     }},
    {"tmf_fflush", [](tmf_handle *h) { tmf_fflush(h); }},
    {"tmf_fctl", [](tmf_handle *h) { tmf_fctl(h, 1); }},
    {"tmf_geterrno", [](tmf_handle *h) { tmf_geterrno(h); }},
    {"tmf_geterrmsg",
     [](tmf_handle *h) {
         char text[TMF_ERRMSG_SIZE];
         tmf_geterrmsg(h, text);
     }},
    {"tmf_strerror", [](tmf_handle *) { tmf_strerror(TMF_EOPEN); }},
    {"tmf_clearerr", [](tmf_handle *h) { tmf_clearerr(h); }},
};

TEST(MessageApiCalls, EachCallIsStruckOrMakesNoSystemCall)
{
    std::set<std::string> known = struck;
    for (const auto &[name, call] : quiet)
        known.insert(name);
    EXPECT_EQ(known, calls_of_header());
}

TEST(MessageApiCalls, TheQuietOnesMakeNoSystemCall)
{
    if (!can_trace())
        GTEST_SKIP() << "processes cannot be traced here";
    const message_world world;
    for (const auto &[name, call] : quiet) {
        world.renew(THREE_RECORDS);
        const auto body = [&, made = call] {
            tmf_handle *h = tmf_fopen(world.path.c_str(), 0);
            begin_counting();
            made(h);
            end_counting();
            return tmf_fclose(h);
        };
        const traced_run run =
            run_traced({.directory = world.dir.path(), .body = body, .between_marks = true});
        EXPECT_EQ(run.status, 0);
        EXPECT_TRUE(run.calls.empty()) << name;
    }
}

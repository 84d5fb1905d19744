// docs/operations.md against the words, names and details of the program; its messages are
// looked for in messages_test.cpp.
#include "capture/settings.h"
#include "msgfile/tmf.h"
#include "tests/docs/source_text.h"
#include "tests/support/captured.h"
#include "tests/support/man_page.h"
#include "tests/support/markdown.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <regex>
#include <set>

static const char PAGE[] = "docs/operations.md";

// The result of reading the settings with one of them in the environment.
static int read_with(const char *name, const std::string &value)
{
    int rc = 0;
    setenv(name, value.c_str(), 1);
    (void)capture([&] { rc = read_capture_settings(); });
    unsetenv(name);
    return rc;
}

// The words of the table for a setting, "MS" in the place of a number.
static std::vector<std::string> words_of(const char *name)
{
    std::vector<std::string> words;
    for (const auto &row : md_find_table(md_page(PAGE), "`" + std::string(name) + "`").rows)
        words.push_back(md_code(row[0]).at(0));
    return words;
}

TEST(OperationsPage, WordsOfKestroTextAreTheProgramsAndNoOthers)
{
    std::set<int32_t> modes;
    for (const std::string &word : words_of("KESTRO_TEXT")) {
        EXPECT_EQ(read_with("KESTRO_TEXT", word), 0) << word;
        modes.insert(g_capture_settings.text);
    }
    EXPECT_THAT(modes, testing::ElementsAre(TEXT_TRUNCATE, TEXT_APPEND, TEXT_NEW));
}

TEST(OperationsPage, WordsOfKestroSyncAreTheProgramsAndNoOthers)
{
    std::set<int32_t> modes;
    for (const std::string &word : words_of("KESTRO_SYNC")) {
        EXPECT_EQ(read_with("KESTRO_SYNC", std::regex_replace(word, std::regex("MS"), "250")), 0)
            << word;
        modes.insert(g_capture_settings.sync);
    }
    EXPECT_THAT(modes, testing::ElementsAre(SYNC_IDLE, SYNC_INTERVAL, SYNC_RECORD, SYNC_OFF));
}

TEST(OperationsPage, WhatHoldsWithoutAWordIsTheRowThatSaysSo)
{
    for (const char *name : {"KESTRO_TEXT", "KESTRO_SYNC"}) {
        ASSERT_EQ(read_capture_settings(), 0);
        const capture_settings unset = g_capture_settings;
        for (const auto &row : md_find_table(md_page(PAGE), "`" + std::string(name) + "`").rows) {
            if (row[0].find("(not set)") == std::string::npos)
                continue;
            ASSERT_EQ(read_with(name, md_code(row[0]).at(0)), 0);
            EXPECT_EQ(g_capture_settings.text, unset.text) << name;
            EXPECT_EQ(g_capture_settings.sync, unset.sync) << name;
        }
    }
}

// The variables of the page's table.
static std::set<std::string> variables()
{
    std::set<std::string> listed;
    for (const auto &row : md_find_table(md_page(PAGE), "variable").rows) {
        for (const std::string &name : md_code(row[0]))
            listed.insert(name);
    }
    return listed;
}

TEST(OperationsPage, EnvironmentIsWhatTheSourcesRead)
{
    // Names stand in the call, or are handed to the two functions that read one by its name.
    static const std::regex variable(
        R"((?:getenv|environ\.get|number_of|value_of)\(\s*"([A-Z_]+)\")"
        R"(|"((?:KESTRO|FWUTIL)_[A-Z]+)\")");
    std::string text = source_text({"driver", "capture", "ascii", "fwutil", "util", "msgfile",
                                    "feed", "changes", "records", "tools"});
    text += read_file(KESTRO_SOURCE_DIR "/python/tmf.py");
    std::set<std::string> read;
    for (std::sregex_iterator at(text.begin(), text.end(), variable), end; at != end; ++at)
        read.insert((*at)[1].matched ? (*at)[1] : (*at)[2]);
    static const std::regex by_name(R"(getenv\([a-z])");
    EXPECT_EQ(std::distance(std::sregex_iterator(text.begin(), text.end(), by_name),
                            std::sregex_iterator()),
              2);
    // What the C library, the loader and the server's library read.
    for (const char *name :
         {"TZ", "LD_LIBRARY_PATH", "PGHOST", "PGPORT", "PGDATABASE", "PGUSER", "PGSERVICE"})
        read.insert(name);
    EXPECT_EQ(variables(), read);
}

TEST(OperationsPage, EnvironmentIsThatOfTheManualPages)
{
    std::set<std::string> shown;
    for (const auto &entry : std::filesystem::directory_iterator(KESTRO_SOURCE_DIR "/docs/man")) {
        const std::string page = read_file(entry.path().string());
        const std::string section = man_section(page, "ENVIRONMENT");
        for (const std::string &name : man_items(section, "Ev"))
            shown.insert(name);
        // None is named elsewhere only.
        static const std::regex named(R"(\n\.Ev ([A-Z_]+))");
        for (std::sregex_iterator at(page.begin(), page.end(), named), end; at != end; ++at)
            EXPECT_EQ(man_items(section, "Ev").count(at->str(1)), 1U)
                << entry.path() << ": " << at->str(1);
    }
    EXPECT_EQ(shown, variables());
    // Kestro's page has what Kestro reads.
    std::set<std::string> kestros = variables();
    for (const char *name : {"LIBTMF", "PGHOST", "PGPORT", "PGDATABASE", "PGUSER", "PGSERVICE"})
        kestros.erase(name);
    EXPECT_EQ(man_items(man_section(man_page("Kestro.1"), "ENVIRONMENT"), "Ev"), kestros);
}

// The statuses in the first cells of a table.
static std::set<std::string> statuses(const char *page, const char *head)
{
    static const std::regex status(R"(\b\d+( \+ n)?)");
    std::set<std::string> found;
    for (const auto &row : md_find_table(md_page(page), head).rows) {
        for (std::sregex_iterator at(row[0].begin(), row[0].end(), status), end; at != end; ++at)
            found.insert(at->str());
    }
    return found;
}

TEST(OperationsPage, ExitStatusesAreThoseOfTheManualPages)
{
    const auto shown = [](const char *page) {
        return man_items(man_section(man_page(page), "EXIT STATUS"), "");
    };
    EXPECT_EQ(shown("fwlog.1"), statuses("docs/fwlog.md", "status"));
    EXPECT_EQ(shown("tmf.1"), statuses("docs/tmf-tool.md", "status"));
    EXPECT_EQ(shown("fwlog-health.1"), statuses("docs/fwlog.md", "exit status"));
    static const std::regex status("(?:^|[:;,.]) ?(\\d+(?: \\+ n)?):? [a-z]");
    const auto told = [](const std::string &text) {
        std::set<std::string> found;
        for (std::sregex_iterator at(text.begin(), text.end(), status), end; at != end; ++at)
            found.insert(at->str(1));
        return found;
    };
    const std::string capread = md_page("docs/capread.md");
    const size_t at = capread.find("\nExit statuses: ") + 14;
    const std::string line = capread.substr(at, capread.find("\n\n", at) - at);
    EXPECT_EQ(shown("capread.1"), told(line));
    EXPECT_EQ(shown("Kestro.1"), told(md_section(md_page(PAGE), "Exit status").substr(1)));
}

// Whether a detail is the text of a code, with any text in the place of the system's part.
static bool is_code_text(const std::string &detail)
{
    static const std::string PART = "(system error)";
    for (int code = TMF_ESIGNAL; code < 0; code++) {
        const std::string text = tmf_strerror(code);
        const size_t at = text.find(PART);
        const size_t rest = at == std::string::npos ? 0 : text.size() - at - PART.size();
        if (at == std::string::npos
                ? detail == text
                : detail.size() >= at + rest && detail.compare(0, at, text, 0, at) == 0 &&
                      detail.compare(detail.size() - rest, rest, text, at + PART.size(), rest) == 0)
            return true;
    }
    return detail.rfind("Message file error #", 0) == 0;
}

TEST(OperationsPage, DetailsAreTextsOfCodes)
{
    for (const auto &row : md_find_table(md_page(PAGE), "detail").rows) {
        for (const std::string &detail : md_code(row[0]))
            EXPECT_TRUE(is_code_text(detail)) << detail;
    }
    EXPECT_FALSE(is_code_text("Error writing datum."));
    EXPECT_FALSE(is_code_text("Error opening"));
}

// docs/operations.md against the words, names and details of the program; its messages are
// looked for in messages_test.cpp.
#include "capture/settings.h"
#include "msgfile/tmf.h"
#include "tests/docs/source_text.h"
#include "tests/support/captured.h"
#include "tests/support/markdown.h"

#include <algorithm>
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

TEST(OperationsPage, EnvironmentIsWhatTheSourcesRead)
{
    static const std::regex variable("\"((KESTRO|FWUTIL)_[A-Z]+)\"");
    const std::string text = source_text({"driver", "capture", "ascii", "fwutil"});
    std::set<std::string> read;
    for (std::sregex_iterator at(text.begin(), text.end(), variable), end; at != end; ++at)
        read.insert((*at)[1]);
    std::set<std::string> listed;
    for (const auto &row : md_find_table(md_page(PAGE), "variable").rows) {
        const std::string name = md_code(row[0]).at(0);
        if (name.find("KESTRO_") == 0 || name.find("FWUTIL_") == 0)
            listed.insert(name);
    }
    EXPECT_EQ(listed, read);
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

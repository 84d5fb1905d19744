// docs/changes-as-data.md, whose commands are run section by section, each time in a new directory
// with the example's files and what the commands before the first section do there.
#ifndef TESTS_DOCS_CHANGES_PAGE_H
#define TESTS_DOCS_CHANGES_PAGE_H

#include "tests/docs/page_session.h"
#include "tests/support/markdown.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>
#include <utility>
#include <vector>

inline const char CHANGES_PAGE[] = "docs/changes-as-data.md";
inline const char CHANGES_PAGE_SERVER[] = "PostgreSQL"; // the section that needs a server

// What stands before the first section.
inline std::string changes_page_beginning()
{
    const std::string page = md_page(CHANGES_PAGE);
    return page.substr(0, page.find("\n## "));
}

class changes_page {
  public:
    changes_page()
    {
        for (const char *name : {"fwutil.cfg", "orders-changes.jsonl", "order-sums.cob",
                                 "payments.py", "new-orders.sh", "new-orders.py", "new-orders.c"})
            std::filesystem::copy(KESTRO_SOURCE_DIR "/examples/orders/" + std::string(name),
                                  dir.file(name));
        setup.directory = dir.path();
        setup.env = {{"PATH", KESTRO_BUILD_DIR "/bin:" + std::string(getenv("PATH"))},
                     {"TZ", "UTC"},
                     {"LC_ALL", "C.UTF-8"}};
        setup.unset = {"FWUTIL_CFG"};
        run(changes_page_beginning());
    }

    void run(const std::string &text)
    {
        for (const std::string &block : md_blocks(text))
            for (const page_command &command : page_commands(block))
                EXPECT_EQ(page_output(command, setup), command.output) << "$ " << command.command;
    }

    void run_section(const std::string &heading)
    {
        run(md_section(md_page(CHANGES_PAGE), heading));
    }

    tempdir dir;
    run_setup setup;
};

// A program that commands run, and its Debian package.
struct page_program {
    const char *name;
    const char *package;
};

// Why commands cannot be run; empty: they can.
inline std::string missing_program(const std::vector<page_program> &programs)
{
    for (const page_program &program : programs)
        if (run_program({"sh", "-c", std::string("command -v ") + program.name}).status != 0)
            return std::string("no program ") + program.name + " (Debian package " +
                   program.package + ")";
    return "";
}

#endif

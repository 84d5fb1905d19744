// The commands on README.md's first screen, as they stand there, with a live server behind the
// host that they name.
#include "tests/postgresql/pg_client.h"
#include "tests/postgresql/pg_server.h"
#include "tests/support/markdown.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <csignal>
#include <gmock/gmock.h>

using testing::HasSubstr;

TEST(ReadmePage, FirstScreenCapturesADatabaseThatNobodyPrepared)
{
    if (const std::string why = pg_server::missing(); !why.empty())
        GTEST_SKIP() << why;
    if (run_program({"jq", "--version"}).status != 0)
        GTEST_SKIP() << "no program jq (Debian package jq)";
    const int port = pg_server::free_port();
    const pg_server server({}, port);
    pg_client(server.conninfo()).run("CREATE DATABASE shop");
    pg_client shop(server.conninfo("shop"));
    shop.run(
        "CREATE TABLE customers (id int PRIMARY KEY, name text);"
        "CREATE TABLE orders (id int PRIMARY KEY, customer int, amount numeric(9,2), note text);"
        "INSERT INTO customers VALUES (1, 'Anna Berg'), (2, 'Ümit Öz')");

    const tempdir dir;
    run_setup setup;
    setup.directory = dir.path();
    setup.env = {{"PATH", KESTRO_BUILD_DIR "/bin:" + std::string(getenv("PATH"))},
                 {"LC_ALL", "C.UTF-8"},
                 {"PGHOSTADDR", "127.0.0.1"}, // of host db1, too
                 {"PGPORT", std::to_string(port)}};
    const std::string page = md_page("README.md");
    const std::string commands = md_find_block(page, "mkdir log");
    const std::string printed = md_find_block(page, "[\"r\",");
    const pid_t pid = start_program({"setsid", "sh", "-c", commands}, setup, dir.file("out"), "");

    const auto has = [&](const std::string &text) {
        return poll_until(
            [&] { return read_file(dir.file("out")).find(text) != std::string::npos; });
    };
    EXPECT_TRUE(has(printed.substr(0, printed.find("[\"c\""))));
    shop.run("INSERT INTO orders VALUES (1, 2, 25.90, 'by Friday')");
    shop.run("UPDATE orders SET amount = 27.50");
    shop.run("DELETE FROM orders");
    EXPECT_TRUE(has(printed)) << read_file(dir.file("out"));
    EXPECT_TRUE(poll_until([&] {
        const std::string text = read_file(dir.file("shop.txt"));
        return std::count(text.begin(), text.end(), '\n') == 5;
    })) << read_file(dir.file("shop.txt"));
    kill(-pid, SIGTERM);
    (void)wait_program(pid);
}

// Copying the directory to and fro; exec.
#include "tests/calls/program_calls.h"

#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

namespace fs = std::filesystem;

void program_world::keep() const
{
    fs::remove_all(whole_.file("kept"));
    fs::copy(dir_, whole_.file("kept"), fs::copy_options::recursive);
}

void program_world::renew() const
{
    for (const auto &entry : fs::directory_iterator(dir_))
        fs::remove_all(entry.path());
    fs::copy(whole_.file("kept"), dir_, fs::copy_options::recursive);
}

static void lead(int descriptor, const std::string &path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    if (fd < 0 || dup2(fd, descriptor) < 0)
        _exit(126);
    close(fd);
}

void program_world::redirect() const
{
    lead(STDOUT_FILENO, whole_.file("out"));
    lead(STDERR_FILENO, whole_.file("err"));
}

void program_world::become(const std::vector<std::string> &argv, const run_setup &setup) const
{
    redirect();
    for (const std::string &name : setup.unset)
        unsetenv(name.c_str());
    for (const auto &[name, value] : setup.env)
        setenv(name.c_str(), value.c_str(), 1);
    // The check for leaks does not work in a traced process.
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    if (chdir(dir_.c_str()) != 0)
        _exit(126);
    std::vector<char *> words;
    for (const std::string &word : argv)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    execv(words[0], words.data());
    _exit(127);
}

std::string program_world::out() const
{
    return read_file(whole_.file("out"));
}

std::string program_world::err() const
{
    return read_file(whole_.file("err"));
}

void expect_told(const struck_call &struck, const traced_run &run, const program_world &world)
{
    if (struck.what.kills() || run.status == 0)
        return;
    EXPECT_LT(run.status, 128) << "ended by a signal";
    EXPECT_NE(world.err(), "");
    if (struck.what.kind == BLOW_FAIL) {
        EXPECT_THAT(world.err(), testing::HasSubstr(strerror(struck.what.os_errno)));
    }
}

// What the tests of programs and logs share: a directory that comes back as it was, output
// that is no file of the directory, and a program as the body of a traced process.
#ifndef TESTS_CALLS_PROGRAM_CALLS_H
#define TESTS_CALLS_PROGRAM_CALLS_H

#include "tests/calls/call_matrix.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <string>
#include <vector>

class program_world {
  public:
    const std::string &path() const
    {
        return dir_;
    }
    std::string file(const std::string &name) const
    {
        return dir_ + "/" + name;
    }
    // What is there now is what renew() brings back.
    void keep() const;
    void renew() const;

    // For the body: standard output and error go where out() and err() find them.
    void redirect() const;
    // For the body: becomes the program, in the directory.
    [[noreturn]] void become(const std::vector<std::string> &argv, const run_setup &setup) const;
    // What the process said on standard output and standard error.
    std::string out() const;
    std::string err() const;

  private:
    tempdir whole_;
    std::string dir_ = (std::filesystem::create_directory(whole_.file("w")), whole_.file("w"));
};

// That a run which was given an error, and did not come through, has told why.
void expect_told(const struck_call &struck, const traced_run &run, const program_world &world);

#endif

// Two kinds of users on one message file: the pairs that can use a file at the
// same time, and what their tests share.
#ifndef TESTS_MSGPEER_PAIR_TEST_H
#define TESTS_MSGPEER_PAIR_TEST_H

#include "tests/msgpeer/file_bytes.h"
#include "tests/msgpeer/participant.h"
#include "tests/msgpeer/record_data.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

struct pair_of {
    const char *name;
    peer a;
    peer b;
};

inline std::string pair_name(const testing::TestParamInfo<pair_of> &info)
{
    return info.param.name;
}

// A test's files and ports.
struct test_files {
    tempdir dir;
    int next_port = own_ports();

    // Makes an empty message file whose first four readers wait on ports of this
    // test alone: a reader's first wait on a port that is taken goes unheard.
    std::string make(const std::string &name, bool big_endian)
    {
        const std::string path = dir.file(name);
        write_file(path, new_message_file(big_endian, next_port));
        next_port += 4;
        return path;
    }
};

class PairTest : public testing::TestWithParam<pair_of> {
  protected:
    void SetUp() override
    {
        for (const peer kind : {GetParam().a, GetParam().b}) {
            if (!missing_for(kind).empty())
                GTEST_SKIP() << missing_for(kind);
        }
    }
    std::string make(const std::string &name)
    {
        return files_.make(name, is_big_endian(GetParam().a));
    }
    std::string path(const std::string &name)
    {
        return files_.dir.file(name);
    }

    test_files files_;
};

// Whether the reader in this slot comes to wait: it is on the wait list, and on
// the port named there it can be woken.
inline bool comes_to_wait(const std::string &path, int slot)
{
    return poll_until([&] {
        const std::string file = read_file(path);
        const size_t port = AT_SIGNAL_PORTS + 2 * static_cast<size_t>(slot);
        return is_waiting(file, slot) && is_bound(be16_at(file, port));
    });
}

#endif

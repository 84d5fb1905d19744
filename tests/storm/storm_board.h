// Records of the message files of a storm, and the board in a shared file on which their writers
// and readers keep what they have written and taken.  A writer's number is given out once: a writer
// that is started again has another one.
#ifndef TESTS_STORM_STORM_BOARD_H
#define TESTS_STORM_STORM_BOARD_H

#include <atomic>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

struct mail {
    uint32_t writer;
    uint32_t sequence; // from 1 on
};

constexpr int LONGEST_MAIL = 5000;
constexpr uint32_t MAX_MAIL_WRITERS = 2000;
constexpr uint32_t MAX_MAIL_SEQUENCE = 20000; // of one writer; then it ends
constexpr int MAX_MAIL_READERS = 4;

// Most are short, some have more than a page.  The bytes follow from the numbers.
inline std::string mail_data(const mail &m)
{
    uint32_t mix = m.writer * 0x9E3779B1U ^ m.sequence * 0x85EBCA77U;
    mix ^= mix >> 15;
    const uint32_t longest = mix % 32 == 0 ? LONGEST_MAIL : 300;
    std::string data(sizeof m + (mix >> 5) % (longest - sizeof m + 1), '\0');
    memcpy(data.data(), &m, sizeof m);
    for (size_t i = sizeof m; i < data.size(); i++)
        data[i] = static_cast<char>(mix + i * 7);
    return data;
}

// False for data that is no such record, whole.
inline bool parse_mail(const std::string &data, mail &m)
{
    if (data.size() < sizeof m)
        return false;
    memcpy(&m, data.data(), sizeof m);
    return m.writer < MAX_MAIL_WRITERS && m.sequence >= 1 && m.sequence <= MAX_MAIL_SEQUENCE &&
           mail_data(m) == data;
}

struct mail_board {
    struct {
        std::atomic<uint32_t> tried;        // the newest record that was handed to the library
        std::atomic<uint32_t> acknowledged; // the newest whose call came back with 0
    } writers[MAX_MAIL_WRITERS];
    std::atomic<bool>
        in_read[MAX_MAIL_READERS]; // a reader's record may be taken, and not on the board
    std::atomic<uint32_t> faults;  // what a reader found wrong, told on its standard error
    std::atomic<uint8_t> deliveries[MAX_MAIL_WRITERS][MAX_MAIL_SEQUENCE + 1];
};

// The board in a file, which is made when it is not there.
class shared_board {
  public:
    explicit shared_board(const std::string &path)
    {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        void *at = MAP_FAILED;
        if (fd >= 0 && ftruncate(fd, sizeof(mail_board)) == 0)
            at = mmap(nullptr, sizeof(mail_board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (at == MAP_FAILED)
            throw std::runtime_error("no board " + path);
        board_ = static_cast<mail_board *>(at); // of zeros: what such atomics begin with
    }
    ~shared_board()
    {
        munmap(board_, sizeof(mail_board));
    }
    shared_board(const shared_board &) = delete;
    shared_board &operator=(const shared_board &) = delete;

    mail_board *operator->() const
    {
        return board_;
    }

  private:
    mail_board *board_;
};

#endif

// Users of message files: processes, messages and the board.
#include "tests/procs/message_workers.h"

#include "msgfile/tmf_layout.h"
#include "tests/support/run.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// ---- processes

deed opens(const std::string &path, int mode)
{
    return [path, mode](tmf_handle *&h) {
        h = tmf_fopen(path.c_str(), mode);
        return h != nullptr ? 0 : tmf_geterrno(nullptr);
    };
}

deed writes(const std::string &data)
{
    return [data](tmf_handle *&h) {
        return tmf_fwrite(h, data.data(), static_cast<int>(data.size()));
    };
}

deed reads(int flags)
{
    return [flags](tmf_handle *&h) {
        std::vector<char> buffer(TMF_MAX_DATA);
        return tmf_fread(h, buffer.data(), static_cast<int>(buffer.size()), flags);
    };
}

deed writes_batch(const std::vector<std::string> &records)
{
    return [records](tmf_handle *&h) {
        std::vector<tmf_item> items;
        items.reserve(records.size());
        for (const std::string &data : records)
            items.push_back({data.data(), static_cast<int>(data.size())});
        return tmf_fwrite_many(h, items.data(), static_cast<int>(items.size()));
    };
}

deed reads_batch(int count, int flags)
{
    return [count, flags](tmf_handle *&h) {
        std::vector<tmf_item> items(static_cast<size_t>(count));
        std::vector<char> buffer(TMF_MAX_DATA);
        return tmf_fread_many(h, items.data(), count, buffer.data(),
                              static_cast<int>(buffer.size()), flags);
    };
}

deed closes()
{
    return [](tmf_handle *&h) { return tmf_fclose(h); };
}

static std::vector<std::function<int()>> as_steps(const std::vector<deed> &deeds,
                                                  std::atomic<int> *ended)
{
    const auto h = std::make_shared<tmf_handle *>(nullptr);
    std::vector<std::function<int()>> steps;
    steps.reserve(deeds.size());
    for (const deed &step : deeds)
        steps.push_back([=] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            set_wait_style(WAIT_FOR_EVER);
            const int result = step(*h);
            (*ended)++;
            return result;
        });
    return steps;
}

user_process::user_process(const std::vector<deed> &steps) : process_(as_steps(steps, &*ended_))
{
}

int user_process::run()
{
    begin();
    return result();
}

void user_process::begin()
{
    begun_++;
    process_.start();
}

int user_process::result()
{
    if (!poll_until([&] { return has_ended() || ended_by() != 0; }))
        return NO_ANSWER;
    return has_ended() ? process_.result() : DIED;
}

bool user_process::has_ended() const
{
    return *ended_ == begun_;
}

int user_process::ended_by() const
{
    siginfo_t info = {};
    const int flags = WEXITED | WNOHANG | WNOWAIT;
    if (waitid(P_PID, static_cast<id_t>(pid()), &info, flags) != 0)
        return -1;
    if (info.si_pid == 0)
        return 0;
    return info.si_code == CLD_EXITED ? -1 : info.si_status;
}

void user_process::kill()
{
    process_.kill();
}

// ---- files

static bool can_bind(int type, int port, int *kept)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    here.sin_port = htons(static_cast<uint16_t>(port));
    const bool bound = bind(fd, reinterpret_cast<const sockaddr *>(&here), sizeof(here)) == 0;
    if (bound && kept != nullptr)
        *kept = fd;
    else
        close(fd);
    return bound;
}

// A block of ports, below those that the system gives out.  A TCP socket bound to
// the first one's number keeps other programs like this one away.
static int reserve_ports()
{
    constexpr int first = 20000;
    constexpr int blocks = 700;
    static int keeper = -1;
    for (int i = 0; i < blocks; i++) {
        const int base = first + (getpid() + i) % blocks * TMF_MAX_READERS;
        if (!can_bind(SOCK_STREAM, base, &keeper))
            continue;
        bool all = true;
        for (int port = base; port < base + TMF_MAX_READERS; port++)
            all = all && can_bind(SOCK_DGRAM, port, nullptr);
        if (all)
            return base;
        close(keeper);
    }
    throw std::runtime_error("no free UDP ports");
}

void make_message_file(const std::string &path)
{
    static const int base = reserve_ports();
    user_process maker({opens(path, 0), closes()});
    if (maker.run() != 0 || maker.run() != 0)
        throw std::runtime_error("cannot make " + path);
    unsigned char ports[TMF_MAX_READERS][2];
    for (int i = 0; i < TMF_MAX_READERS; i++) {
        ports[i][0] = static_cast<unsigned char>((base + i) >> 8);
        ports[i][1] = static_cast<unsigned char>(base + i);
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const bool written = pwrite(fd, ports, sizeof(ports), offsetof(tmf_common, signal_ports)) ==
                         ssize_t{sizeof(ports)};
    close(fd);
    if (!written)
        throw std::runtime_error("cannot write " + path);
}

// ---- messages

static uint32_t mixed(const message &m)
{
    uint32_t x = m.writer * 0x9E3779B1U ^ m.sequence * 0x85EBCA77U;
    x ^= x >> 15;
    x *= 0x2C1B3C6DU;
    return x ^ x >> 13;
}

// Most are short, some have a page or two.
static size_t message_length(uint32_t mix)
{
    const uint32_t longest = mix % 16 == 0 ? LONGEST_MESSAGE : 300;
    return sizeof(message) + (mix >> 4) % (longest - sizeof(message) + 1);
}

static void fill(char *at, size_t length, uint32_t mix)
{
    for (size_t i = sizeof(message); i < length; i++)
        at[i] = static_cast<char>(mix + i * 7);
}

std::string message_data(const message &m)
{
    const uint32_t mix = mixed(m);
    std::string data(message_length(mix), '\0');
    memcpy(data.data(), &m, sizeof(m));
    fill(data.data(), data.size(), mix);
    return data;
}

bool parse_message(const char *data, int length, message *m)
{
    if (length < int{sizeof(*m)})
        return false;
    memcpy(m, data, sizeof(*m));
    return message_data(*m) == std::string(data, static_cast<size_t>(length));
}

// ---- the board

int write_message(message_board &board, int worker, tmf_handle *h, const message &m)
{
    const std::string data = message_data(m);
    auto &me = board.workers[worker];
    me.in_library = true;
    const int code = tmf_fwrite(h, data.data(), static_cast<int>(data.size()));
    if (code == 0)
        board.acknowledged[m.writer] = m.sequence;
    me.in_library = false;
    me.progress++;
    return code;
}

static void raise_to(std::atomic<uint32_t> &value, uint32_t least)
{
    uint32_t now = value;
    while (now < least && !value.compare_exchange_weak(now, least))
        continue;
}

int read_message(message_board &board, int worker, tmf_handle *h, int flags, message *m)
{
    // What reads that ended before this one began have taken is older than what
    // it takes.
    static std::array<uint32_t, MAX_WRITERS> older;
    std::copy(std::begin(board.newest_read), std::end(board.newest_read), older.begin());

    static char buffer[TMF_MAX_DATA];
    auto &me = board.workers[worker];
    me.in_library = true;
    me.in_read = true;
    const int length = tmf_fread(h, buffer, LONGEST_MESSAGE, flags);
    int result = 0;
    if (length < 0) {
        fprintf(stderr, "reader %d: code %d\n", worker, length);
        result = length;
    } else if (length > 0) {
        result = 1;
        if (!parse_message(buffer, length, m) || m->writer >= MAX_WRITERS ||
            m->sequence > MAX_SEQUENCE) {
            fprintf(stderr, "reader %d: a record of %d bytes is no message\n", worker, length);
            result = -1;
        } else if (m->sequence <= older[m->writer]) {
            fprintf(stderr, "reader %d: record %u of writer %u behind %u\n", worker, m->sequence,
                    m->writer, older[m->writer]);
            result = -1;
        } else {
            board.deliveries[m->writer][m->sequence]++;
            raise_to(board.newest_read[m->writer], m->sequence);
        }
    }
    me.in_read = false;
    me.in_library = false;
    me.progress++;
    return result;
}

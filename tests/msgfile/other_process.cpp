// Forked processes that wait for their parent's word between steps.
#include "tests/msgfile/other_process.h"

#include "msgfile/tmf.h"
#include "tests/support/tempdir.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// send and recv, which no test plans to fail, carry the words.
[[noreturn]] static void run_steps(const std::vector<std::function<int()>> &steps, int socket)
{
    size_t next = 0;
    for (char word; recv(socket, &word, 1, 0) == 1 && next < steps.size(); next++) {
        const int result = steps[next]();
        send(socket, &result, sizeof(result), MSG_NOSIGNAL);
    }
    _exit(0); // without the parent's clean-up
}

other_process::other_process(const std::vector<std::function<int()>> &steps)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("no socket pair");
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("no process");
    if (pid_ == 0) {
        ::close(ends[0]); // so that the end of the parent is noticed
        run_steps(steps, ends[1]);
    }
    ::close(ends[1]);
    socket_ = ends[0];
}

other_process::~other_process()
{
    kill();
    ::close(socket_);
}

void other_process::start()
{
    if (send(socket_, "", 1, MSG_NOSIGNAL) != 1)
        throw std::runtime_error("the other process is gone");
}

int other_process::result()
{
    int result = 0;
    if (recv(socket_, &result, sizeof(result), 0) != ssize_t{sizeof(result)})
        throw std::runtime_error("the other process is gone");
    return result;
}

int other_process::run()
{
    start();
    return result();
}

void other_process::kill()
{
    if (pid_ < 0)
        return;
    ::kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR)
        continue; // a test's own signal
    pid_ = -1;
}

bool is_asleep(pid_t pid)
{
    // "pid (name) state ..."; the name may hold anything.
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    const size_t name_end = stat.rfind(')');
    return name_end != std::string::npos && stat.compare(name_end, 4, ") S ") == 0;
}

static std::vector<std::function<int()>> user_steps(const std::string &path, int mode)
{
    const auto h = std::make_shared<tmf_handle *>(nullptr);
    return {
        [=] {
            *h = tmf_fopen(path.c_str(), mode);
            return *h != nullptr ? 0 : tmf_geterrno(nullptr);
        },
        [=] { return tmf_fclose(*h); },
    };
}

other_user::other_user(const std::string &path, int mode) : other_process(user_steps(path, mode))
{
    const int code = run();
    if (code != 0)
        throw std::runtime_error("another process cannot open: " + std::to_string(code));
}

int open_elsewhere(const std::string &path, int mode)
{
    other_process user(user_steps(path, mode));
    const int code = user.run();
    return code != 0 ? code : user.run();
}

static int set_lock(int fd, short type, off_t offset, off_t length)
{
    struct flock range = {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = offset;
    range.l_len = length;
    return fcntl(fd, F_SETLK, &range);
}

static std::vector<std::function<int()>> lock_steps(const std::string &path, off_t offset,
                                                    off_t length)
{
    const auto fd = std::make_shared<int>(-1);
    return {
        [=] {
            *fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
            return set_lock(*fd, F_WRLCK, offset, length);
        },
        [=] { return set_lock(*fd, F_UNLCK, offset, length); },
    };
}

lock_holder::lock_holder(const std::string &path, off_t offset, off_t length)
    : other_process(lock_steps(path, offset, length))
{
    if (run() != 0)
        throw std::runtime_error("another process cannot lock");
}

pid_t holder_of(const std::string &path, off_t offset, off_t length)
{
    other_process prober({[=] {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        struct flock range = {};
        range.l_type = F_WRLCK;
        range.l_whence = SEEK_SET;
        range.l_start = offset;
        range.l_len = length;
        if (fd < 0 || fcntl(fd, F_GETLK, &range) != 0)
            return -1;
        return range.l_type == F_UNLCK ? 0 : range.l_pid;
    }});
    return prober.run();
}

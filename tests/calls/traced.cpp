// The tracer: one process, no threads, on x86-64.
#include "tests/calls/traced.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

// Closing these tells the tracer something, and does nothing.
constexpr int BEGIN_MARK = -1001;
constexpr int END_MARK = -1002;

void begin_counting()
{
    close(BEGIN_MARK);
}

void end_counting()
{
    close(END_MARK);
}

std::string traced_call::text() const
{
    std::string text = row->name;
    if (!file.empty())
        text += " " + file;
    if (row->length >= 0 || lock_type >= 0)
        text += " " + std::to_string(offset) + "+" + std::to_string(length);
    if (lock_type >= 0)
        text += command == F_GETLK ? " test" : lock_type == F_UNLCK ? " unlock" : " lock";
    return text;
}

std::vector<blow> traced_call::blows() const
{
    std::vector<blow> all = blows_of(*row);
    const bool opens = row->number == SYS_open || row->number == SYS_openat;
    std::erase_if(all, [&](const blow &b) {
        return (opens && !makes && (b.os_errno == ENOSPC || b.os_errno == EDQUOT)) ||
               (b.kind == BLOW_HALF && (moved < 2 || (is("sendto") && !stream))) ||
               (b.os_errno == ECONNRESET && !stream) ||
               (is("sendto") && stream && b.kind == BLOW_FAIL && b.os_errno != EINTR &&
                b.os_errno != ECONNRESET) || // a stream is sent to or lost
               (lock_type < 0 && row->number == SYS_fcntl && b.os_errno == ENOLCK);
    });
    return all;
}

call_place traced_run::place_of(size_t number) const
{
    const traced_call &call = calls[number - 1];
    call_place place = {call.row, call.file, 0};
    for (size_t i = 0; i < number; i++)
        place.nth += calls[i].row == call.row && calls[i].file == call.file;
    return place;
}

// ---- what the process has

using arguments = std::array<uint64_t, 6>;

static std::string link_of(pid_t pid, const std::string &name)
{
    char target[PATH_MAX];
    const std::string link = "/proc/" + std::to_string(pid) + "/" + name;
    const ssize_t length = readlink(link.c_str(), target, sizeof(target));
    return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

static std::string descriptor_of(pid_t pid, int fd)
{
    return fd < 0 ? "" : link_of(pid, "fd/" + std::to_string(fd));
}

// Bytes of its memory; as many as there are.
static std::string memory_of(pid_t pid, uint64_t at, size_t length)
{
    std::string bytes(length, '\0');
    iovec here = {bytes.data(), length};
    iovec there = {reinterpret_cast<void *>(at), length}; // NOLINT(performance-no-int-to-ptr)
    const ssize_t got = process_vm_readv(pid, &here, 1, &there, 1, 0);
    bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return bytes;
}

static std::string text_of(pid_t pid, uint64_t at)
{
    constexpr uint64_t page = 4096;
    std::string text;
    while (at != 0 && text.size() < PATH_MAX) {
        const std::string piece = memory_of(pid, at, page - at % page);
        const size_t end = piece.find('\0');
        text += piece.substr(0, end);
        if (end != std::string::npos || piece.empty())
            break;
        at += piece.size();
    }
    return text;
}

// Bytes of a descriptor's file from an offset on; as many as asked for where it has no size.
static int64_t bytes_there(pid_t pid, int fd, int64_t at, int64_t asked)
{
    struct stat about = {};
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
    if (stat(link.c_str(), &about) != 0 || !S_ISREG(about.st_mode))
        return asked;
    return std::clamp<int64_t>(about.st_size - at, 0, asked);
}

// A descriptor for the process's own socket; below 0 where there is none to be had.
static int socket_of(pid_t pid, int fd)
{
    const auto process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    const auto own = static_cast<int>(syscall(SYS_pidfd_getfd, process, fd, 0));
    close(process);
    return own;
}

static bool is_stream(pid_t pid, int fd)
{
    const int own = socket_of(pid, fd);
    int type = 0;
    socklen_t length = sizeof(type);
    const bool stream = own >= 0 && getsockopt(own, SOL_SOCKET, SO_TYPE, &type, &length) == 0 &&
                        type == SOCK_STREAM;
    close(own);
    return stream;
}

// Bytes that have come and were not read.
static int64_t bytes_come(pid_t pid, int fd)
{
    const int own = socket_of(pid, fd);
    int bytes = 0;
    if (own < 0 || ioctl(own, FIONREAD, &bytes) != 0)
        bytes = 0;
    close(own);
    return bytes;
}

static void lose_connection(pid_t pid, int fd)
{
    const int own = socket_of(pid, fd);
    (void)shutdown(own, SHUT_RDWR); // it may be lost already
    close(own);
}

static int64_t position_of(pid_t pid, int fd)
{
    std::ifstream info("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(fd));
    std::string word;
    int64_t position = 0;
    return info >> word >> position ? position : 0;
}

// The name below the directory; "." for itself, empty for one that is not below it.
static std::string below(const std::string &directory, const std::string &path)
{
    if (path == directory)
        return ".";
    return path.starts_with(directory + "/") ? path.substr(directory.size() + 1) : "";
}

static std::string file_of(pid_t pid, const std::string &directory, int fd)
{
    const std::string target = descriptor_of(pid, fd);
    return target.starts_with("socket:") ? "socket" : below(directory, target);
}

static std::string path_of(pid_t pid, const std::string &directory, const call_row &row,
                           const arguments &args)
{
    const std::string path = text_of(pid, args[static_cast<size_t>(row.arg)]);
    if (path.starts_with("/"))
        return below(directory, path);
    const int from =
        row.directory < 0 ? AT_FDCWD : static_cast<int>(args[static_cast<size_t>(row.directory)]);
    if (path.empty()) // the descriptor itself (AT_EMPTY_PATH)
        return from < 0 ? "" : file_of(pid, directory, from);
    const std::string start = from == AT_FDCWD ? link_of(pid, "cwd") : descriptor_of(pid, from);
    return below(directory, start + "/" + path);
}

static void describe_lock(pid_t pid, const arguments &args, traced_call *call)
{
    call->command = static_cast<long>(args[1]);
    if (call->command != F_SETLK && call->command != F_SETLKW && call->command != F_GETLK &&
        call->command != F_OFD_SETLK && call->command != F_OFD_SETLKW)
        return;
    struct flock range = {};
    const std::string bytes = memory_of(pid, args[2], sizeof(range));
    if (bytes.size() != sizeof(range))
        return;
    memcpy(&range, bytes.data(), sizeof(range));
    call->offset = range.l_start;
    if (range.l_whence == SEEK_CUR)
        call->offset += position_of(pid, static_cast<int>(args[0]));
    call->length = range.l_len;
    call->lock_type = range.l_type;
}

// False for a call that does not count.
static bool describe(pid_t pid, const std::string &directory, const call_row &row,
                     const arguments &args, traced_call *call)
{
    call->row = &row;
    const auto first = static_cast<int>(args[0]);
    switch (row.subject) {
    case OF_PATH:
        call->file = path_of(pid, directory, row, args);
        if (row.number == SYS_open || row.number == SYS_openat)
            call->makes = (args[static_cast<size_t>(row.arg) + 1] & O_CREAT) != 0;
        return !call->file.empty();
    case OF_SOCKET:
        return first == AF_INET || first == AF_INET6 || first == AF_UNIX;
    case OF_ANY:
        return true;
    default:
        break;
    }
    const auto fd = static_cast<int>(args[static_cast<size_t>(row.arg)]);
    call->file = file_of(pid, directory, fd);
    if (call->file.empty())
        return false;
    if (row.length >= 0) {
        call->length = static_cast<int64_t>(args[static_cast<size_t>(row.length)]);
        call->offset = row.offset >= 0 ? static_cast<int64_t>(args[static_cast<size_t>(row.offset)])
                                       : position_of(pid, fd);
    }
    call->moved = call->length;
    if (row.number == SYS_read || row.number == SYS_pread64)
        call->moved = bytes_there(pid, fd, call->offset, call->length);
    if (row.number == SYS_fcntl)
        describe_lock(pid, args, call);
    call->stream = call->file == "socket" && is_stream(pid, fd);
    return true;
}

// ---- changing a call

static user_regs_struct registers_of(pid_t pid)
{
    user_regs_struct registers = {};
    if (ptrace(PTRACE_GETREGS, pid, nullptr, &registers) != 0)
        throw std::runtime_error("no registers");
    return registers;
}

static void set_registers(pid_t pid, const user_regs_struct &registers)
{
    if (ptrace(PTRACE_SETREGS, pid, nullptr, &registers) != 0)
        throw std::runtime_error("registers cannot be set");
}

static void leave_out(pid_t pid)
{
    user_regs_struct registers = registers_of(pid);
    registers.orig_rax = static_cast<unsigned long long>(-1);
    set_registers(pid, registers);
}

static void set_argument(pid_t pid, int place, unsigned long long value)
{
    user_regs_struct registers = registers_of(pid);
    unsigned long long *const places[] = {&registers.rdi, &registers.rsi, &registers.rdx,
                                          &registers.r10, &registers.r8,  &registers.r9};
    *places[place] = value;
    set_registers(pid, registers);
}

static void give_error(pid_t pid, int os_errno)
{
    user_regs_struct registers = registers_of(pid);
    registers.rax = static_cast<unsigned long long>(-os_errno);
    set_registers(pid, registers);
}

// ---- following the process

class tracer {
  public:
    explicit tracer(const traced_setup &setup) : setup_(setup), counting_(!setup.between_marks)
    {
    }
    traced_run run()
    {
        start();
        follow();
        return run_;
    }

  private:
    const traced_setup &setup_;
    bool counting_;
    bool striking_ = false; // the process is inside the call that the blow falls on
    size_t alike_ = 0;      // calls of the kind and file of the place
    pid_t pid_ = 0;
    traced_run run_;

    void start()
    {
        pid_ = fork();
        if (pid_ < 0)
            throw std::runtime_error("no process");
        if (pid_ == 0) {
            alarm(300);
            if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
                _exit(125);
            raise(SIGSTOP);
            _exit(setup_.body());
        }
        int status = 0;
        if (waitpid(pid_, &status, 0) != pid_ || !WIFSTOPPED(status))
            throw std::runtime_error("a process cannot be traced");
        constexpr auto options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEEXEC;
        if (ptrace(PTRACE_SETOPTIONS, pid_, nullptr, options) != 0)
            throw std::runtime_error("a process cannot be traced");
    }

    void follow()
    {
        int signal_to_give = 0;
        for (;;) {
            // It may have been killed; then the wait tells.
            (void)ptrace(PTRACE_SYSCALL, pid_, nullptr, signal_to_give);
            signal_to_give = 0;
            int status = 0;
            if (waitpid(pid_, &status, 0) != pid_)
                throw std::runtime_error("the process is gone");
            if (!WIFSTOPPED(status)) {
                run_.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
                return;
            }
            const int what = WSTOPSIG(status);
            if (what == (SIGTRAP | 0x80))
                at_system_call();
            else if (status >> 16 == 0) // not the tracer's own stop at an exec
                signal_to_give = what;
        }
    }

    void at_system_call()
    {
        __ptrace_syscall_info info = {};
        if (ptrace(PTRACE_GET_SYSCALL_INFO, pid_, sizeof(info), &info) <= 0)
            return; // killed meanwhile
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            arguments args;
            std::copy(std::begin(info.entry.args), std::end(info.entry.args), args.begin());
            before(static_cast<long>(info.entry.nr), args);
        } else if (striking_) {
            striking_ = false;
            behind();
        }
    }

    void before(long number, const arguments &args)
    {
        const auto first = static_cast<int>(args[0]);
        if (number == SYS_close && (first == BEGIN_MARK || first == END_MARK))
            counting_ = first == BEGIN_MARK;
        const call_row *row = counting_ ? find_call_row(number) : nullptr;
        traced_call call;
        if (row == nullptr || !describe(pid_, setup_.directory, *row, args, &call))
            return;
        run_.calls.push_back(call);
        if (setup_.before_call)
            setup_.before_call(call);
        if (number == SYS_poll && setup_.time_is_over)
            set_argument(pid_, 2, 0);
        if (run_.calls.size() == setup_.struck || is_the_place(call))
            strike(call, first);
    }

    bool is_the_place(const traced_call &call)
    {
        const call_place &place = setup_.place;
        return call.row == place.row && call.file == place.file && ++alike_ == place.nth;
    }

    // Half of what there is to be read or written; of nothing, nothing is taken away.
    void halve(const traced_call &call, int fd) const
    {
        const bool takes = call.stream && call.is("recvfrom");
        const int64_t there = takes ? std::min(bytes_come(pid_, fd), call.moved) : call.moved;
        if (there > 1)
            set_argument(pid_, call.row->length, static_cast<unsigned long long>(there / 2));
    }

    void strike(const traced_call &call, int fd)
    {
        run_.struck = run_.calls.size();
        striking_ = true;
        switch (setup_.what.kind) {
        case BLOW_KILL_BEFORE:
            leave_out(pid_);
            kill(pid_, SIGKILL);
            break;
        case BLOW_FAIL:
            if (setup_.what.os_errno == ECONNRESET)
                lose_connection(pid_, fd);
            // A close frees the descriptor, whatever it gives, and a connect that a signal
            // interrupts goes on.
            if (!call.is("close") && !(call.is("connect") && setup_.what.os_errno == EINTR))
                leave_out(pid_);
            break;
        case BLOW_HALF:
            halve(call, fd);
            break;
        default:
            break;
        }
    }

    void behind()
    {
        if (setup_.what.kind == BLOW_FAIL)
            give_error(pid_, setup_.what.os_errno);
        else if (setup_.what.kind == BLOW_KILL_AFTER)
            kill(pid_, SIGKILL);
    }
};

traced_run run_traced(const traced_setup &setup)
{
    return tracer(setup).run();
}

bool can_trace()
{
    static const bool can = [] {
        try {
            return run_traced({.directory = "/", .body = [] { return 0; }}).status == 0;
        } catch (const std::runtime_error &) {
            return false;
        }
    }();
    return can;
}

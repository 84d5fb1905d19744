// Everything is in memory where TMPDIR is: a target makes and reads some dozens of small files a
// thousand times a second.
#include "tests/fuzz/work.h"

#include "tests/fuzz/target.h"
#include "tests/support/tempdir.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

// Of the sanitizers, where they are.
extern "C" [[gnu::weak]] void __sanitizer_set_report_fd(void *fd);

static void give_up(const char *what)
{
    perror(what);
    abort();
}

std::string fuzz_path(const std::string &name)
{
    static const tempdir directory;
    return directory.file(name);
}

void fuzz_put(const std::string &path, std::string_view bytes)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        give_up(path.c_str());
    close(fd);
}

std::string fuzz_get(const std::string &path)
{
    std::string bytes;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat about = {};
    if (fd < 0 || fstat(fd, &about) != 0)
        return bytes;
    bytes.resize(static_cast<size_t>(about.st_size));
    const ssize_t got = pread(fd, bytes.data(), bytes.size(), 0);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    close(fd);
    return bytes;
}

void fuzz_remove(const std::string &directory)
{
    std::error_code ignored; // it need not be there
    std::filesystem::remove_all(directory, ignored);
}

// ---- what is printed

// One of the two streams: where it went when the process began, and a file in memory.
struct stream {
    int fd;
    int before = -1;
    int memory = -1;
};
static stream streams[] = {{.fd = STDOUT_FILENO}, {.fd = STDERR_FILENO}};
static bool listening = false;

static void open_streams()
{
    for (stream &one : streams) {
        one.before = fcntl(one.fd, F_DUPFD_CLOEXEC, 10);
        one.memory = memfd_create("said", MFD_CLOEXEC);
        if (one.before < 0 || one.memory < 0)
            give_up("memfd_create");
    }
    // What they find is not to be lost with what the target prints.
    if (__sanitizer_set_report_fd != nullptr)
        __sanitizer_set_report_fd(
            reinterpret_cast<void *>(static_cast<intptr_t>(streams[1].before)));
}

static void begin_listening()
{
    static const bool once = (open_streams(), true);
    (void)once;
    fflush(stdout);
    for (const stream &one : streams)
        if (ftruncate(one.memory, 0) != 0 || lseek(one.memory, 0, SEEK_SET) != 0 ||
            dup2(one.memory, one.fd) < 0)
            give_up("standard streams");
    listening = true;
}

static void end_listening()
{
    if (!listening)
        return;
    listening = false;
    fflush(stdout);
    fflush(stderr);
    for (const stream &one : streams)
        (void)dup2(one.before, one.fd); // was there before
}

static std::string heard(const stream &one)
{
    struct stat about = {};
    if (fstat(one.memory, &about) != 0)
        give_up("fstat");
    std::string text(static_cast<size_t>(about.st_size), '\0');
    if (pread(one.memory, text.data(), text.size(), 0) != about.st_size)
        give_up("pread");
    return text;
}

fuzz_said fuzz_listen(const std::function<int()> &body)
{
    begin_listening();
    fuzz_said said;
    said.status = body();
    end_listening();
    said.out = heard(streams[0]);
    said.err = heard(streams[1]);
    return said;
}

void fuzz_failed(const std::string &what)
{
    end_listening();
    fprintf(stderr, "fuzz: %s\n", what.c_str());
    fflush(stderr);
    abort();
}

// ---- programs

using saved_option = std::function<void()>; // sets it as it was

template <typename T> static saved_option saved(T *target)
{
    return [target, value = *target] { *target = value; };
}

static std::vector<saved_option> save_options(const cli_command &command)
{
    std::vector<saved_option> all;
    for (const cli_option &option : command.options) {
        if (const auto *choice = std::get_if<cli_choice>(&option.target))
            all.push_back(saved(choice->target));
        else
            std::visit(
                [&all](const auto &target) {
                    using kind = std::decay_t<decltype(target)>;
                    if constexpr (!std::is_same_v<kind, cli_choice> &&
                                  !std::is_same_v<kind, bool (*)(const char *)>)
                        all.push_back(saved(target));
                },
                option.target);
    }
    return all;
}

void fuzz_reset_options(const cli_command &command)
{
    static std::map<const cli_command *, std::vector<saved_option>> known;
    const auto [at, is_new] = known.try_emplace(&command);
    if (is_new)
        at->second = save_options(command);
    for (const saved_option &option : at->second)
        option();
}

fuzz_said fuzz_call(const cli_program &program, std::vector<std::string> words)
{
    for (const cli_command *command : program.commands)
        fuzz_reset_options(*command); // of all: some share what they keep
    words.insert(words.begin(), program.name);
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return fuzz_listen(
        [&] { return cli_main(program, static_cast<int>(words.size()), argv.data()); });
}

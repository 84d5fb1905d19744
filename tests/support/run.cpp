// Running programs: fork and exec with redirected files, so that nothing the
// program prints can block it.
#include "tests/support/run.h"

#include "tests/support/tempdir.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

static void redirect(const std::string &path, int flags, int target)
{
    const int fd = open(path.c_str(), flags, 0666);
    if (fd < 0 || dup2(fd, target) < 0)
        _exit(126);
    close(fd);
}

static pid_t start_redirected(const std::vector<std::string> &argv, const run_setup &options,
                              const std::string &in, const std::string &out, const std::string &err)
{
    std::vector<char *> words;
    for (const std::string &word : argv)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);

    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    redirect(in, O_RDONLY, 0);
    redirect(out, O_WRONLY | O_CREAT | O_TRUNC, 1);
    redirect(err, O_WRONLY | O_CREAT | O_TRUNC, 2);
    for (const std::string &name : options.unset)
        unsetenv(name.c_str());
    for (const auto &[name, value] : options.env)
        setenv(name.c_str(), value.c_str(), 1);
    if (!options.directory.empty() && chdir(options.directory.c_str()) != 0)
        _exit(126);
    execvp(words[0], words.data());
    _exit(127);
}

int wait_program(pid_t pid)
{
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

run_result run_program(const std::vector<std::string> &argv, const run_setup &options)
{
    const tempdir dir;
    write_file(dir.file("in"), options.input);
    const pid_t pid =
        start_redirected(argv, options, dir.file("in"), dir.file("out"), dir.file("err"));
    run_result result;
    result.status = wait_program(pid);
    result.out = read_file(dir.file("out"));
    result.err = read_file(dir.file("err"));
    return result;
}

pid_t start_program(const std::vector<std::string> &argv, const run_setup &options,
                    const std::string &out_file, const std::string &err_file)
{
    return start_redirected(argv, options, "/dev/null", out_file.empty() ? "/dev/null" : out_file,
                            err_file.empty() ? "/dev/null" : err_file);
}

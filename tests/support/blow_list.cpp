// Lines that are appended to the file with one write each, so that those of several processes do
// not mix; a plan is looked for and written under a lock.
#include "tests/support/blow_list.h"

#include "tests/support/tempdir.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <set>
#include <sstream>
#include <sys/file.h>
#include <unistd.h>

blow_list::blow_list(std::string file, std::string operation)
    : file_(std::move(file)), operation_(std::move(operation))
{
}

void blow_list::add(const std::string &lines)
{
    if (file_.empty()) {
        lines_ += lines;
        return;
    }
    const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const ssize_t written = write(fd, lines.data(), lines.size());
    close(fd);
    if (written != static_cast<ssize_t>(lines.size()))
        throw std::runtime_error("cannot write " + file_);
}

// What stands behind the operation in its lines of a kind.
std::vector<std::string> blow_list::kept(const std::string &kind) const
{
    std::vector<std::string> rest;
    const std::string begin = kind + "\t" + operation_ + "\t";
    std::istringstream lines(file_.empty() ? lines_ : read_file(file_));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(begin))
            rest.push_back(line.substr(begin.size()));
    return rest;
}

void blow_list::plan(const std::string &places, size_t all, const std::vector<std::string> &names)
{
    std::string lines;
    for (const std::string &name : names)
        lines.append("blow\t").append(operation_).append("\t").append(name).append("\n");
    lines += "plan\t" + operation_ + "\t" + places + ", # of " + std::to_string(all) + " blows\n";
    const int fd = file_.empty() ? -1 : open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (!file_.empty() && flock(fd, LOCK_EX) != 0)
        throw std::runtime_error("cannot lock " + file_);
    if (kept("plan").empty())
        add(lines);
    close(fd);
}

bool blow_list::complete() const
{
    return !kept("plan").empty() &&
           kept("blow").size() == kept("done").size() + kept("missed").size();
}

std::vector<std::string> blow_list::due() const
{
    size_t share = 1;
    size_t shares = 1;
    const char *const word = getenv("KESTRO_SHARE");
    if (word != nullptr &&
        (sscanf(word, "%zu/%zu", &share, &shares) != 2 || share < 1 || share > shares))
        throw std::runtime_error("KESTRO_SHARE is not I/N: " + std::string(word));
    std::set<std::string> dealt;
    for (const char *kind : {"done", "missed"})
        for (const std::string &name : kept(kind))
            dealt.insert(name);
    const std::vector<std::string> all = kept("blow");
    std::vector<std::string> due;
    for (size_t i = share - 1; i < all.size(); i += shares)
        if (!dealt.contains(all[i]))
            due.push_back(all[i]);
    return due;
}

void blow_list::note(const std::string &name, bool reached)
{
    add((reached ? "done\t" : "missed\t") + operation_ + "\t" + name + "\n");
}

std::string blow_list::summary() const
{
    const size_t missed = kept("missed").size();
    std::string plan = kept("plan").at(0);
    const size_t at = plan.find('#');
    plan.replace(at, 1, std::to_string(kept("done").size() + missed));
    return operation_ + ": " + plan +
           (missed == 0 ? "" : ", " + std::to_string(missed) + " not reached");
}

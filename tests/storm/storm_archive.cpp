// A thread that opens each file of the log once.
#include "tests/storm/storm_archive.h"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

constexpr useconds_t ROUND_US = 20000; // far less than a writer needs for the files that it keeps

storm_archive::storm_archive(std::string log) : log_(std::move(log))
{
    thread_ = std::thread([this] {
        while (!ended_) {
            look();
            usleep(ROUND_US);
        }
    });
}

storm_archive::~storm_archive()
{
    end();
    for (const auto &[name, fd] : files_)
        close(fd);
}

void storm_archive::end()
{
    ended_ = true;
    if (thread_.joinable())
        thread_.join();
}

static bool is_same(int fd, const std::string &path)
{
    struct stat one = {};
    struct stat other = {};
    // Removed meanwhile: the one that is open is the one that there was.
    return stat(path.c_str(), &other) != 0 ||
           (fstat(fd, &one) == 0 && one.st_ino == other.st_ino && one.st_dev == other.st_dev);
}

void storm_archive::look()
{
    std::error_code gone;
    for (const auto &entry : fs::directory_iterator(log_, gone)) {
        const std::string name = entry.path().filename().string();
        const auto there = files_.find(name);
        if (!name.starts_with("fw") || !name.ends_with(".log") ||
            (there != files_.end() && is_same(there->second, entry.path().string())))
            continue;
        const int fd = open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            continue;
        if (there != files_.end())
            close(there->second);
        files_[name] = fd;
    }
}

void storm_archive::copy_to(const std::string &folder)
{
    end();
    look();
    for (const auto &[name, fd] : files_) {
        std::ofstream out(folder + "/" + name, std::ios::binary);
        std::array<char, 65536> bytes;
        off_t at = 0;
        for (ssize_t n = 0; (n = pread(fd, bytes.data(), bytes.size(), at)) > 0; at += n)
            out.write(bytes.data(), n);
    }
}

// A disk whose power can be cut: ext4 on a loop device.
#include "tests/powercut/power_disk.h"

#include "tests/support/run.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

// The file system's own test of what it is for; no header of the system has them.
constexpr unsigned long EXT4_SHUTDOWN = _IOR('X', 125, uint32_t);
constexpr uint32_t WITHOUT_THE_JOURNAL = 2; // what it has in memory is lost with the rest

static const char boot_id[] = "/proc/sys/kernel/random/boot_id";

// With the second the journal is written only when somebody syncs, so that a cut
// takes all the rest.
static const char *const mount_options[] = {"loop", "loop,commit=600"};

int power_cuts()
{
    const char *text = getenv("KESTRO_POWER_CUTS");
    const int cuts = text == nullptr ? 0 : atoi(text);
    return cuts > 0 ? cuts : 10;
}

bool another_cut(int cut, bool telling)
{
    return cut <= power_cuts() || (!telling && cut <= 20 * power_cuts());
}

// Has the process's mounts to itself.  Why it cannot, or empty.
static std::string isolate()
{
    static bool done = false;
    if (done)
        return "";
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("no mounts of its own: ") + strerror(errno);
    done = true;
    return "";
}

power_disk::power_disk()
{
    problem_ = isolate();
    if (!problem_.empty())
        return;
    std::filesystem::create_directory(mounted_);
    write_file(image_, "");
    std::filesystem::resize_file(image_, 96 << 20);
    const run_result made = run_program({"mkfs.ext4", "-q", "-F", image_});
    if (made.status != 0)
        problem_ = "mkfs.ext4: " + made.err;
    else if (mount_it())
        boot();
}

power_disk::~power_disk()
{
    umount2(mounted_.c_str(), MNT_DETACH);
    umount2(boot_id, MNT_DETACH);
}

bool power_disk::mount_it()
{
    const char *options = mount_options[boots_ % 2];
    const run_result mounted = run_program({"mount", "-o", options, image_, mounted_});
    if (mounted.status != 0)
        problem_ = "mount: " + mounted.err;
    return mounted.status == 0;
}

void power_disk::boot()
{
    if (boots_ > 0) {
        const auto unmounted = [&] { return umount2(mounted_.c_str(), 0) == 0; };
        if (!poll_until(unmounted, 10))
            throw std::runtime_error(std::string("umount: ") + strerror(errno));
        if (!mount_it())
            throw std::runtime_error(problem_);
    }
    boots_++;
    char id[64];
    (void)snprintf(id, sizeof id, "%08x-0000-4000-8000-000000000000\n", boots_);
    umount2(boot_id, MNT_DETACH); // that of the boot before
    write_file(dir_.file("boot_id"), id);
    if (mount(dir_.file("boot_id").c_str(), boot_id, nullptr, MS_BIND, nullptr) != 0)
        problem_ = std::string("boot id: ") + strerror(errno);
}

// Writes up to five runs of pages of a file.
static void write_pages(const std::string &name, std::mt19937 &random)
{
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    struct stat about = {};
    if (fd < 0 || fstat(fd, &about) != 0 || !S_ISREG(about.st_mode)) {
        if (fd >= 0)
            close(fd);
        return;
    }
    constexpr off_t page = 4096;
    // The newest pages are those that are not on the disk.
    const off_t pages = std::min<off_t>(about.st_size / page + 1, 64);
    const off_t first = about.st_size / page + 1 - pages;
    for (auto runs = random() % 6; runs > 0; runs--) {
        const off_t at = (first + static_cast<off_t>(random()) % pages) * page;
        const off_t length = static_cast<off_t>(1 + random() % 4) * page;
        (void)sync_file_range(fd, at, length,
                              SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE |
                                  SYNC_FILE_RANGE_WAIT_AFTER);
    }
    close(fd);
}

void power_disk::write_back_some(std::mt19937 &random) const
{
    namespace fs = std::filesystem;
    std::error_code gone; // files come and go
    fs::recursive_directory_iterator it(mounted_, fs::directory_options::skip_permission_denied,
                                        gone);
    for (; !gone && it != fs::recursive_directory_iterator(); it.increment(gone))
        write_pages(it->path().string(), random);
    if (random() % 4 == 0)
        return;
    // A sync of any file writes the journal, which says where all files' pages are.
    const int fd = open(file("journal").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    if (pwrite(fd, "x", 1, static_cast<off_t>(random() % 8192)) == 1)
        (void)fsync(fd);
    close(fd);
}

void power_disk::write_back_all() const
{
    const int fd = open(mounted_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool done = fd >= 0 && syncfs(fd) == 0;
    if (fd >= 0)
        close(fd);
    if (!done)
        throw std::runtime_error("the disk takes nothing");
}

void power_disk::cut()
{
    const int fd = open(mounted_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    uint32_t how = WITHOUT_THE_JOURNAL;
    const int result = fd < 0 ? -1 : ioctl(fd, EXT4_SHUTDOWN, &how);
    const int cut_errno = errno;
    if (fd >= 0)
        close(fd);
    if (result != 0)
        throw std::runtime_error(std::string("the power cannot be cut: ") + strerror(cut_errno));
}

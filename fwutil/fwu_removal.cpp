// One file after the other; one that is gone already was taken by another process.
#include "fwutil/fwu_removal.h"

#include "fwutil/fwu_error.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

int fwu_remove_oldest(const std::vector<fwu_log_file> &files, size_t count, bool only_look,
                      fwu_removal &removal,
                      const std::function<void(const fwu_log_file &, int64_t size)> &taken)
{
    for (removal.gone = 0; removal.gone < count; removal.gone++) {
        const fwu_log_file &file = files[removal.gone];
        struct stat about = {};
        int failed = stat(file.path.c_str(), &about);
        if (failed == 0 && !only_look)
            failed = unlink(file.path.c_str());
        if (failed != 0 && errno == ENOENT)
            continue;
        if (failed != 0)
            return fwu_error("%s: cannot remove the log file: %s; it and the newer ones are left",
                             file.path.c_str(), strerror(errno));
        taken(file, about.st_size);
        removal.files++;
        removal.bytes += about.st_size;
    }
    return 0;
}

// The system makes a random name at each start.
#include "fwutil/fwu_boot.h"

#include "fwutil/fwu_file.h"

#include <fcntl.h>
#include <unistd.h>

const char *fwu_boot_path = "/proc/sys/kernel/random/boot_id";

std::string fwu_boot()
{
    char text[64] = {}; // 36 characters and a line end
    const int fd = open(fwu_boot_path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::string(FWU_BOOT_UNKNOWN);
    const ssize_t n = fwu_read_some(fd, text, sizeof text);
    close(fd);
    std::string_view name(text, n > 0 ? static_cast<size_t>(n) : 0);
    name = name.substr(0, name.find('\n'));
    const bool good =
        !name.empty() && name.find_first_not_of("0123456789abcdef-") == std::string_view::npos;
    return std::string(good ? name : FWU_BOOT_UNKNOWN);
}

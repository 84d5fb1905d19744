// Identities as text, and random bytes for new ones.
#include "fwutil/fwu_identity.h"

#include "fwutil/fwu_error.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

static constexpr char DIGITS[] = "0123456789abcdef";

std::string fwu_identity_text(const fwu_identity &identity)
{
    if (!fwu_identity_known(identity))
        return "none";
    std::string text;
    for (const unsigned char byte : identity.bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

bool fwu_identity_parse(fwu_identity &identity, std::string_view text)
{
    identity = fwu_identity();
    if (text == "none")
        return true;
    if (text.size() != 2 * sizeof identity.bytes)
        return false;
    for (size_t i = 0; i < text.size(); i++) {
        const char *digit =
            text[i] != '\0' ? strchr(DIGITS, text[i]) : nullptr; // strchr finds the final NUL too
        if (digit == nullptr)
            return false;
        identity.bytes[i / 2] =
            static_cast<unsigned char>(identity.bytes[i / 2] << 4 | (digit - DIGITS));
    }
    return true;
}

// For kernels and sandboxes without the system call.
static int random_from_device(unsigned char *p, size_t length)
{
    const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    while (length > 0) {
        const ssize_t n = read(fd, p, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        p += n;
        length -= static_cast<size_t>(n);
    }
    const int read_errno = errno;
    close(fd);
    errno = read_errno;
    return length == 0 ? 0 : -1;
}

int fwu_random(void *bytes, size_t length)
{
    auto *p = static_cast<unsigned char *>(bytes);
    while (length > 0) {
        const ssize_t n = getrandom(p, length, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
        p += n;
        length -= static_cast<size_t>(n);
    }
    if (length == 0 || random_from_device(p, length) == 0)
        return 0;
    return fwu_error("/dev/urandom: cannot get random bytes: %s; a log file cannot be made without",
                     strerror(errno));
}

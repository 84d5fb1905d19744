// The name that the file is made by is taken away at once.
#include "fwutil/fwu_spill.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

int fwu_spill_add(fwu_spill &spill, const std::string &directory, const void *data, size_t length)
{
    if (spill.fd < 0) {
        std::string name = directory + "/spill-XXXXXX";
        spill.fd = mkostemp(name.data(), 0);
        if (spill.fd < 0)
            return fwu_error("%s: cannot create a spill file for %s: %s", name.c_str(), spill.of,
                             strerror(errno));
        (void)unlink(name.c_str()); // a name left behind does no harm
    }
    if (fwu_write_all(spill.fd, data, length, spill.size) != 0)
        return fwu_error("%s: cannot write to the spill file of %s: %s", directory.c_str(),
                         spill.of, strerror(errno));
    spill.size += static_cast<int64_t>(length);
    return 0;
}

ssize_t fwu_spill_read(const fwu_spill &spill, int64_t at, void *data, size_t length,
                       const std::string &path)
{
    ssize_t n = 0;
    do {
        n = pread(spill.fd, data, length, at);
    } while (n < 0 && errno == EINTR);
    if (n <= 0)
        return fwu_error("%s: cannot read back the spill file of %s: %s", path.c_str(), spill.of,
                         n < 0 ? strerror(errno) : "it has become shorter");
    return n;
}

void fwu_spill_end(fwu_spill &spill)
{
    if (spill.fd >= 0)
        close(spill.fd);
    spill.fd = -1;
    spill.size = 0;
}

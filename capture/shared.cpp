// Warnings only: what is written is the same with and without them.  Pipes and devices
// are meant to be shared; KESTRO_TEXT=new refuses a file that is there by itself.
#include "capture/shared.h"

#include "capture/capfil.h"
#include "capture/capinfo.h"
#include "capture/copyname.h"
#include "capture/format.h"
#include "capture/settings.h"
#include "driver/base/globals.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

static bool is_text(const capfil *cf)
{
    return cf->format == &text_format;
}

static const char *consequence()
{
    return g_capture_settings.text == TEXT_APPEND
               ? "the records are mixed in it"
               : "what one writes the other overwrites; give each a name of its own, or "
                 "KESTRO_TEXT=append to have the records mixed";
}

// What two names of one file have alike; empty for what is no regular file.
static std::string identity(const capfil *cf)
{
    struct stat st = {};
    if (stat(cf->name, &st) != 0)
        return resolved_name(cf->name);
    return S_ISREG(st.st_mode) ? std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) : "";
}

// The first capture files of one identity.
struct first_files {
    const capfil *any = nullptr;
    const capfil *text = nullptr;
};

void capture_warn_twice(const capinfo *ci)
{
    if (g_capture_settings.text == TEXT_NEW)
        return;
    std::unordered_map<std::string, first_files> before;
    for (int i = 0; i < ci_get_ncf(ci); i++) {
        const capfil *cf = ci->capfiles[i];
        const std::string same = identity(cf);
        if (same.empty())
            continue;
        first_files &first = before[same];
        // One of its others is enough.
        if (const capfil *other = is_text(cf) ? first.any : first.text; other != nullptr)
            fprintf(stderr, "Warning: capture files %s and %s are one text file: %s\n", other->name,
                    cf->name, consequence());
        if (first.any == nullptr)
            first.any = cf;
        if (first.text == nullptr && is_text(cf))
            first.text = cf;
    }
}

// Whether this run writes to that file already, which has been told then.
static bool is_ours(const struct stat &st)
{
    for (int i = 0; i < ci_get_ncf(g_ci); i++) {
        struct stat open = {};
        const capfil *cf = g_ci->capfiles[i];
        if (cf->fp != nullptr && fstat(cf->fnum, &open) == 0 && open.st_dev == st.st_dev &&
            open.st_ino == st.st_ino)
            return true;
    }
    return false;
}

// Whether any process has the open file for writing.  A lease for readers is refused then;
// it is given back at once.  Of an attempt to open the file for writing in between the
// system would tell by a signal: one that does nothing.
static bool has_writer(int fd)
{
#if defined(F_SETLEASE) && defined(F_SETSIG)
    if (fcntl(fd, F_SETSIG, SIGURG) != 0)
        return false;
    if (fcntl(fd, F_SETLEASE, F_RDLCK) != 0)
        return errno == EAGAIN;
    (void)fcntl(fd, F_SETLEASE, F_UNLCK); // closing it does the same
#endif
    return false;
}

void capture_warn_shared(const capfil *cf)
{
    struct stat st = {};
    if (!is_text(cf) || g_capture_settings.text == TEXT_NEW || stat(cf->name, &st) != 0 ||
        !S_ISREG(st.st_mode))
        return;
    const int fd = open(cf->name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return; // nothing can be told of it
    if (has_writer(fd) && !is_ours(st))
        fprintf(stderr, "Warning: another process has text capture file %s open for writing: %s\n",
                cf->name, consequence());
    (void)close(fd); // nothing was written to it
}

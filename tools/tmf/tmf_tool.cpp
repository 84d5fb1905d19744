// What the subcommands of tmf share.
#include "tools/tmf/tmf_tool.h"

#include <sys/stat.h>
#include <utility>

std::string tmft_records_text(int64_t records)
{
    return std::to_string(records) + (records == 1 ? " record" : " records");
}

outcome tmft_complain(const char *file, const char *text)
{
    return outcome_failed("%s: %s", file, text);
}

outcome tmft_complain_handle(const char *file, tmf_handle *h)
{
    char text[TMF_ERRMSG_SIZE];
    return tmft_complain(file, tmf_geterrmsg(h, text));
}

outcome tmft_complain_code(const char *file, int code)
{
    return tmft_complain(file, tmf_strerror(code));
}

outcome tmft_close(tmf_handle *h, const char *file, outcome so_far)
{
    const int code = tmf_fclose(h);
    if (code == 0)
        return so_far;
    outcome failed = tmft_complain_code(file, code);
    return so_far ? std::move(failed) : std::move(so_far);
}

void tmft_put_framed(std::string &out, std::string_view record)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out += static_cast<char>(record.size() >> shift & 0xFF);
    out += record;
}

uint32_t tmft_get_length(const char *bytes)
{
    uint32_t length = 0;
    for (size_t i = 0; i < TMFT_LENGTH_SIZE; i++)
        length = length << 8 | static_cast<unsigned char>(bytes[i]);
    return length;
}

bool tmft_same_file(int fd, const char *file)
{
    struct stat a;
    struct stat b;
    return fstat(fd, &a) == 0 && stat(file, &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

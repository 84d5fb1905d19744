/* A C program over the message-file library: writes records, reads them in the
 * ways that there are, asks for facts and texts, and prints what it got.
 *
 * usage: c_program FILE */
#include "msgfile/tmf.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

static int failed(tmf_handle *h, const char *what)
{
    char text[TMF_ERRMSG_SIZE];
    printf("%s: %d %s\n", what, tmf_geterrno(h), tmf_geterrmsg(h, text));
    return 1;
}

static int write_records(const char *path)
{
    static const char *const records[] = {"first", "second", "third"};
    int32_t count = -1;
    int32_t end = -1;
    int code;
    tmf_handle *h = tmf_fopen(path, TMF_MODE_ALL_USERS);
    if (h == NULL)
        return failed(NULL, "tmf_fopen");
    for (size_t i = 0; i < sizeof(records) / sizeof(records[0]); i++)
        if (tmf_fwrite(h, records[i], (int)strlen(records[i])) != 0)
            return failed(h, "tmf_fwrite");
    if (tmf_getinfo(h, TMF_INFO_RECORDS, &count, 0) != 0 || tmf_fflush(h) != 0 ||
        tmf_fctl(h, 1) != 0)
        return failed(h, "tmf_getinfo");
    tmf_finfo(h, TMF_FINFO_RECORD_END, &end, (int)sizeof(end));
    printf("%d records up to %d\n", (int)count, (int)end);
    printf("too long: %d\n", tmf_fwrite(h, "", TMF_MAX_DATA + 1));
    (void)failed(h, "last code");
    tmf_clearerr(h);
    printf("cleared: %d\n", tmf_geterrno(h));
    code = tmf_getinfo(h, -1);
    printf("asked for: %d %s\n", code, tmf_strerror(code));
    return tmf_fclose(h);
}

static int read_records(const char *path)
{
    char buf[16];
    int n;
    tmf_handle *h = tmf_fopen(path, TMF_MODE_READ | TMF_MODE_EXCLUSIVE);
    if (h == NULL)
        return failed(NULL, "tmf_fopen");
    n = tmf_fread(h, buf, (int)sizeof(buf), TMF_READ_KEEP);
    printf("kept %.*s\n", n, buf);
    while ((n = tmf_freadx(h, buf, (int)sizeof(buf), 0, 1)) > 0)
        printf("took %.*s\n", n, buf);
    if (n < 0)
        return failed(h, "tmf_freadx");
    return tmf_fclose(h);
}

int main(int argc, char **argv)
{
    if (argc != 2)
        return 2;
    if (tmf_fopen("", 0) == NULL)
        (void)failed(NULL, "no name");
    return write_records(argv[1]) != 0 || read_records(argv[1]) != 0;
}

/* Writes a record to the message file named, takes it out and prints it. */
#include "msgfile/tmf.h"

#include <stdio.h>

int main(int argc, char **argv)
{
    char text[TMF_ERRMSG_SIZE];
    char record[TMF_MAX_DATA];
    int n;
    tmf_handle *h = argc == 2 ? tmf_fopen(argv[1], 0) : NULL;
    if (h == NULL || tmf_fwrite(h, "from C", 6) != 0 || tmf_fclose(h) != 0)
        return 1;
    h = tmf_fopen(argv[1], TMF_MODE_READ);
    while (h != NULL && (n = tmf_fread(h, record, sizeof record, 0)) > 0)
        printf("%.*s\n", n, record);
    if (h == NULL || n < 0)
        puts(tmf_geterrmsg(h, text));
    return h == NULL || n < 0 || tmf_fclose(h) != 0;
}

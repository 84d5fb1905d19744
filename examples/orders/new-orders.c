/* Counts the new orders in a message file, and adds up what they cost.  A line is searched for
 * what it may hold in one place only: a quotation mark within a text has a backslash. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(void)
{
    char *line = NULL;
    size_t size = 0;
    int orders = 0;
    double sum = 0;
    FILE *changes = popen(
        "capread --layout layouts.json -exthdr -yyyy -recnum --dset sales:orders shop.msg", "r");
    if (changes == NULL)
        return 1;
    while (getline(&line, &size, changes) > 0) {
        const char *net = strstr(line, "\"NET\":");
        if (strncmp(line, "{\"op\":\"c\"", 9) != 0 || net == NULL)
            continue;
        orders++;
        sum += strtod(net + 6, NULL);
    }
    printf("%d orders, %.2f\n", orders, sum);
    free(line);
    return pclose(changes) != 0;
}

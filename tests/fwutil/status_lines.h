// Lines of status files of a log in /var/log/sales, their checksums worked out apart
// from the code under test.
#ifndef TESTS_FWUTIL_STATUS_LINES_H
#define TESTS_FWUTIL_STATUS_LINES_H

#include "fwutil/fwu_status_text.h"

#include <string>

static const char PREFIX[] = "fwutil status 2\nlog /var/log/sales\n";
#define ORIGIN                                                      \
    "time 2023-11-14 22:13:24.000005 UTC lsn 0000000001BC8080 log " \
    "0123456789abcdef0123456789abcdef"
static const char LINE_0[] = "0 position 0001-00000025.0000000340 " ORIGIN " crc dece4084\n";
static const char LINE_1[] = "1 position 0001-00000025.0000000340 " ORIGIN " crc ff08d6a7\n";
static const char LINE_2[] = "2 position 0001-00000025.0000000341 " ORIGIN " crc 6f28efc1\n";
static const char LINE_5[] = "5 position 0001-00000025.0000000340 " ORIGIN " crc 78128e2b\n";
#define NO_ORIGIN                                                                      \
    "time none                           lsn none             log none               " \
    "             "
static const char NONE_0[] = "0 position none                     " NO_ORIGIN " crc 406e21f6\n";
static const char NONE_1[] = "1 position none                     " NO_ORIGIN " crc 61a8b7d5\n";

// Texts that stand behind the lines, and the lines that say so.
static const char BOOT[] = "6fb41e2e-1b1f-4c2e-9d3a-5a7c0c9be001";
static const std::string SYNCED_340 = "position 0001-00000025.0000000340 " ORIGIN "\n"
                                      "boot 6fb41e2e-1b1f-4c2e-9d3a-5a7c0c9be001\n"
                                      "file text 1234 5000 0 cap.txt\n";
static const std::string SYNCED_NONE = "position none                     " NO_ORIGIN "\n"
                                       "boot 6fb41e2e-1b1f-4c2e-9d3a-5a7c0c9be001\n";
static const char POINTERS_340[] =
    "0 synced at 00000449 length 00000200 text 120ed675 crc e8fd7cc7\n"
    "1 synced at 00000449 length 00000200 text 120ed675 crc 09018a8e\n";
static const char POINTERS_NONE[] =
    "0 synced at 00000449 length 00000170 text c1b00cd9 crc 104acc0b\n"
    "1 synced at 00000449 length 00000170 text c1b00cd9 crc f1b63a42\n";

static const std::string WITH_POSITION =
    std::string(PREFIX) + LINE_0 + LINE_1 + POINTERS_340 + SYNCED_340;
static const std::string WITHOUT_POSITION =
    std::string(PREFIX) + NONE_0 + NONE_1 + POINTERS_NONE + SYNCED_NONE;

// The place with a tag in log file 25 whose lines these are.
inline fwu_place place_of(int32_t tag, int32_t sequence = 25)
{
    fwu_place place = {{1, sequence, tag}, 1700000004000005, true, 0x1BC8080, {}};
    (void)fwu_identity_parse(place.identity, "0123456789abcdef0123456789abcdef");
    return place;
}

// What files of version 1 look like.
static const char PREFIX_1[] = "fwutil status 1\n"
                               "log /var/log/sales\n";
static const std::string OLD_1 =
    "1 position 0001-00000025.0000000340 time 2023-11-14 22:13:24.000005 UTC crc 6f1d1e48\n";
static const std::string OLD_2 =
    "2 position 0001-00000025.0000000341 time 2023-11-14 22:13:24.000005 UTC crc bee54531\n";
static const std::string OLD_NONE =
    "0 position none                     time none                           crc 00ecb5a1\n"
    "1 position none                     time none                           crc 1a9853e8\n";

#endif

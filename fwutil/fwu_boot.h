// Which start of the system this is: what a process wrote survives the process, but
// not the system, where it was not brought to disk.
#ifndef FWUTIL_FWU_BOOT_H
#define FWUTIL_FWU_BOOT_H

#include <string>
#include <string_view>

// Kept instead of a boot's own name.
constexpr std::string_view FWU_BOOT_ANY = "any";         // which one does not matter
constexpr std::string_view FWU_BOOT_UNKNOWN = "unknown"; // it cannot be told: never the same

// Where the system says it; a test names another file.
extern const char *fwu_boot_path;

// A name that is the same as long as the system runs.
std::string fwu_boot();

#endif

// What tells a process from another one that got its number later.
#ifndef UTIL_PROCESS_WORD_H
#define UTIL_PROCESS_WORD_H

#include <string>
#include <sys/types.h>

// "BOOT NAMESPACE TICKS": the start of the system, the space that process numbers are counted
// in, and when the process began, in the system's ticks.  Empty: there is no such process, or
// the system does not tell.
std::string process_word(pid_t pid);

// The letter that the system has for what a process does ("S" sleeps, "T" was stopped, "Z"
// has ended), or 0.
char process_letter(pid_t pid);

#endif

// Standard input, output and error of a program that was started without them.
#ifndef UTIL_STANDARD_FILES_H
#define UTIL_STANDARD_FILES_H

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>

// Fills the closed ones of descriptors 0 to 2, so that no file opened later gets
// what is said there.  They are open the wrong way round: reading standard input
// and writing the other two fail with EBADF as on a closed descriptor, and lost
// output stays an error.  Comes first in main.
inline void fill_standard_files()
{
    for (int fd = 0; fd <= 2; fd++) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF)
            continue;
        // The lowest free number is this one.
        if (open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY) != fd)
            exit(1); // there may be nowhere to say why
    }
}

#endif

// The names of the copies that are kept of what is cut off capture files, against the
// names of the capture files themselves.
#ifndef CAPTURE_COPYNAME_H
#define CAPTURE_COPYNAME_H

#include <filesystem>
#include <string>
#include <vector>

struct capinfo;

// What a name stands for, whether it is there or not.
std::filesystem::path resolved_name(const std::string &name);

// Whether the files to be cut, by their names, can have their copies made without
// taking the place of one of the others.  0, or the code of the error that names both.
int check_copy_names(const std::vector<std::string> &cut, const std::vector<std::string> &others);

// The same of a run's files, where KESTRO_TEXT has text files cut.
int capture_check_names(const capinfo *ci);

#endif

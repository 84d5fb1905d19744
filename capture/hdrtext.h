// Text routines of the capture record header.
#ifndef CAPTURE_HDRTEXT_H
#define CAPTURE_HDRTEXT_H

constexpr int FGA_PART = 8;      // characters of one part: file, group, account
constexpr int FGA_WIDTH = 24;    // three parts
constexpr int FGA_SIZE = 26;     // what movefga may write to: the NUL goes to byte 25
constexpr int FGADOTS_SIZE = 27; // what movefgadots writes

// Splits "FILE.GROUP.ACCOUNT" into three blank-padded parts of 8 at out, which
// has room for FGA_SIZE bytes, and returns 0.  A part of more than 8 characters
// or a fourth "." gives the first 24 characters of the name as they stand,
// blank-padded, and returns 1.
int movefga(char *out, const char *name);

// The parts joined by ".", or the name in double quotes when it has no such
// parts: 26 characters and a NUL.
void movefgadots(char *out, const char *name);

// The base name of the program that pname begins with, in width bytes at out.
// The character that ends the name may stand behind it: a NUL or a white-space
// character.
void moveprogname(char *out, const char *pname, int width);

// The name that ends where term begins in pname: the word before it; without
// term in pname the base name of the first word.  Blank-padded to width.
void mov_progterm(const char *pname, const char *term, char *out, int width);

// Position of the first needle in hay: 0 for an empty needle, -1 for none.
int str_find(const char *needle, const char *hay);

// Copies at most outmax and at most count characters of src from start on, up
// to its end; returns how many.  Writes no NUL.
int substr(char *out, int outmax, const char *src, int start, int count);

// The highest position up to pos that holds ch, or -1.
int backfind(char ch, const char *str, int pos);

#endif

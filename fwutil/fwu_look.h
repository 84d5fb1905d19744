// How reading goes, told to a program that wants to know.
#ifndef FWUTIL_FWU_LOOK_H
#define FWUTIL_FWU_LOOK_H

// Calls the program's Fwu_hook_look, if it defines one, with a FWU_LOOK_....
void fwu_look(int what, const char *text = nullptr);

#endif

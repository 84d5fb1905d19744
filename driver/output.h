// Standard output that is full or gone.
#ifndef DRIVER_OUTPUT_H
#define DRIVER_OUTPUT_H

// Reports the first time that something printed was lost.  Returns -1 when
// anything has been lost so far, else 0.
int output_check();

#endif

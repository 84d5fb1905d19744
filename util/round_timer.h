// A timer that ends the rounds of a wait that a library does, and that what comes for somebody else
// can prolong.
#ifndef UTIL_ROUND_TIMER_H
#define UTIL_ROUND_TIMER_H

// Takes SIGALRM for it.
void round_timer_install();

// Interrupts what waits after so many seconds, and from then on again and again, since it may come
// between two waits; until it is stopped.
void round_timer_start(int seconds);
void round_timer_stop();

// Whether the time was over of the round that was started last.
bool round_timer_over();

#endif

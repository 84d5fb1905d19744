// Waiting for a record: the wait list and the rounds of a wait.
#include "msgfile/tmf_wait.h"

#include "msgfile/tmf_area.h"
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_net.h"
#include "msgfile/tmf_users.h"

#include <algorithm>

static constexpr int port_attempts = 15;
static constexpr int longest_round = 60; // seconds
static constexpr int default_round = 4;
static constexpr size_t signal_room = 16; // bytes taken of a datagram

int tmf_wait(tmf_handle *h, uint16_t *port, int seconds)
{
    for (int attempts = port_attempts;;) {
        unsigned char message[signal_room];
        const int r = tmf_udp_recv(h, *port, seconds, message, sizeof(message));
        if (r == 0)
            return TMF_WAIT_TIMEOUT;
        if (r == TMF_EINTERRUPT)
            return TMF_WAIT_SIGNAL;
        if (r > 0 && tmfc_valid_msg(message, r))
            return TMF_WAIT_WOKEN;
        if (r < 0 && r != TMF_EPORTBUSY)
            return r;
        if (--attempts == 0)
            return r < 0 ? r : TMF_EBADSIGNAL;
        *port = tmc_new_signal_port(h->common, *port);
    }
}

// Charges a round that ended without a wake-up to the time limit and sets the
// length of the next one.  0, or the code that ends the wait.
static int charge_round(int flags, int *round, int64_t *remaining)
{
    if ((flags & TMF_READ_LIMIT) == 0) {
        *round = longest_round;
        return 0;
    }
    *remaining -= *round;
    if (*remaining < 1)
        return TMF_ETIMEOUT;
    *round = static_cast<int>(std::min<int64_t>(*remaining, longest_round));
    return 0;
}

int tmf_fread_wait(tmf_handle *h, int flags, int timeout)
{
    int r = tmf_update_users(h);
    bool ready = !tmfc_need_to_wait(h->common, flags);
    int round = timeout < 1 ? default_round : std::min(timeout, longest_round);
    int64_t remaining = timeout;
    while (r == 0 && !ready) {
        // The port is there before a writer can see it in the wait list.  One that is
        // busy is changed in the wait, and announced at the next one.
        const int bound = tmf_udp_bind(h, h->signal_port, round);
        tmc_add_waitlist(h->common, h->user_id, h->signal_port);
        r = tmf_release_common(h);
        if (r != 0)
            break;
        // Kept: a wake-up costs no time, even when another reader was faster.
        const bool can_wait = bound == 0 || bound == TMF_EPORTBUSY;
        const int w = can_wait ? tmf_wait(h, &h->signal_port, round) : bound;
        if (w == TMF_WAIT_SIGNAL && (flags & TMF_READ_SIGNAL) != 0)
            r = TMF_ESIGNAL;
        else if (w == TMF_WAIT_TIMEOUT || w == TMF_WAIT_SIGNAL)
            r = charge_round(flags, &round, &remaining);
        else if (w < 0)
            r = w;
        if (r != 0)
            break;
        r = tmf_get_common(h);
        if (r != 0)
            break;
        ready = !tmfc_need_to_wait(h->common, flags);
        if (!ready) {
            // The last writer may have died.
            r = tmf_update_users(h);
            ready = !tmfc_need_to_wait(h->common, flags);
        }
    }
    // Kept: behind a wait that ended without the lock (time over, signal, error) the
    // bit stays set in the file, and wake-ups meanwhile end the next wait at once.
    tmc_remove_waitlist(h->common, h->user_id);
    return r;
}

// Every message names the sequence that it expects before it.  So what is acknowledged stands
// behind the one before, and a message that is refused takes all behind it along.  A duplicate is
// one that another process has sent, too: in its place, or somewhere else.
#include "ship/acks.h"

#include "ship/place.h"

#include <cstdlib>
#include <cstring>

static bool in_place(natsMsg *message, const jsPubAck &ack)
{
    const char *expected = nullptr;
    return natsMsgHeader_Get(message, SHIP_EXPECTED_HEADER, &expected) == NATS_OK &&
           expected != nullptr && strtoull(expected, nullptr, 10) + 1 == ack.Sequence;
}

void ship_acks_take(jsCtx *, natsMsg *message, jsPubAck *ack, jsPubAckErr *error, void *closure)
{
    ship_acks &acks = *static_cast<ship_acks *>(closure);
    const std::lock_guard held(acks.mutex);
    if (ack != nullptr && (ack->Stream == nullptr || strcmp(ack->Stream, acks.stream) != 0)) {
        if (acks.error.empty())
            acks.error = "the subjects belong to another stream";
    } else if (ack != nullptr && (!ack->Duplicate || in_place(message, *ack))) {
        acks.count++;
        if (ack->Sequence > acks.last)
            acks.last = ack->Sequence;
    } else if (ack != nullptr ||
               (error != nullptr && error->ErrCode == JSStreamWrongLastSequenceErr)) {
        acks.refused = true;
    } else if (acks.error.empty()) {
        acks.error = std::string("the server takes no message: ") +
                     (error == nullptr || error->ErrText == nullptr || *error->ErrText == '\0'
                          ? natsStatus_GetText(error == nullptr ? NATS_ERR : error->Err)
                          : error->ErrText);
    }
    natsMsg_Destroy(message);
}

outcome ship_acks_look(ship_acks &acks, uint64_t &count, uint64_t &last)
{
    const std::lock_guard held(acks.mutex);
    count = acks.count;
    last = acks.last;
    if (!acks.error.empty())
        return {OUTCOME_LOST, acks.error};
    if (acks.refused)
        return {OUTCOME_LOST,
                "the stream does not end where it should: another process writes into "
                "it, or the server has lost messages; looking again where it ends"};
    return {};
}

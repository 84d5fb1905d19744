// A writer and a reader of a message file, from start to end.  Part of wakeup.pml.

// ---- writers

proctype writer(byte me)
{
    tmf_common c;
    bool is_reader = false;
    byte slot = NONE;
    byte port;
    byte i;
    byte wrote; // the record whose write-back is still to come
    byte took;
    bool dirty;
    byte lives = LIVES;
    byte next = 1; // of the records, which keep their numbers over a kill
    byte number;
    do
    :: lives > 0 ->
        lives--;
        {
            tmf_fopen(c.writers, writer_lock[slot]);
            do
            :: next <= RECORDS ->
                // tmf_fwrite
                atomic { number = (me - READERS - 1) * RECORDS + next; next++ };
#ifdef FAULT_WAKES_BEFORE_WRITING
                tmf_get_common();
                tmf_signal_readers();
                tmf_release_common();
#endif
                tmf_get_common();
#ifdef FAULT_COUNTS_BEFORE_DATA
                d_step { c.records++; c.end++; wrote = number };
                tmf_write_common();
                data[c.end - 1] = number;
#else
                // tmf_write_records
                atomic {
                    data[c.end] = number;
                    d_step { c.records++; c.end++; dirty = true; wrote = number }
                };
#endif
#ifdef FAULT_WAKES_AFTER_UNLOCKING
                tmf_write_common();
                common_lock = 0;
                tmf_signal_readers();
                forget_area();
#else
#ifndef FAULT_WAKES_BEFORE_WRITING
                tmf_signal_readers();
#endif
                tmf_release_common();
#endif
                atomic { assert(wrote == 0); number = 0 } // 0 is given: the record is there
            :: else -> break
            od;
#ifdef STAYS
        end_stays:
            false;
#endif
            tmf_fclose(c.writers, writer_lock[slot])
        } unless { atomic { killed[me] -> number = 0; die() } }
    :: else -> break
    od
}

// ---- readers

// tmf_common.cpp.  Flag 2, waiting without a writer, is added until something was read.
#define tmfc_need_to_wait (c.records == 0 && (c.writers != 0 || flag_wait || !has_read))

// The flags of a reader's calls: bit by bit for each reader.
#define flag_limit IS_SET(LIMITED, me)   // flag 4: the end of a round ends the call
#define flag_wait IS_SET(PERSISTENT, me) // flag 2

// tmf_net.cpp: tmf_udp_bind.  The socket of an earlier wait is bound already; a busy port
// leaves everything as it was.
inline tmf_udp_bind()
{
    d_step {
        if
        :: bound[port] == 0 -> bound[port] = me
        :: else
        fi;
        i = 0
    }
}

// tmf_wait: a busy port is changed for another one, which the wait list has from the next
// round on.
inline bind_a_port()
{
    do
    :: atomic { bound[port] == 0 || bound[port] == me -> bound[port] = me;
                asleep[me] = true; ends[me] = has_read && !flag_wait; break }
    :: atomic { bound[port] != 0 && bound[port] != me -> port = (port + READERS) % PORTS }
    od
}

// tmf_common.cpp.
#ifdef FAULT_ENTRY_NOT_WRITTEN
#define ENTRY_IS_WRITTEN false
#else
#define ENTRY_IS_WRITTEN true
#endif
inline tmc_add_waitlist()
{
    if
    :: IS_SET(c.waiting, slot) && c.port[slot] == port + 1
    :: else ->
        c.waiting = c.waiting | BIT(slot);
        c.port[slot] = port + 1;
        dirty = ENTRY_IS_WRITTEN || dirty
    fi
}

// The call that waits has ended before the time of its round.
inline awake()
{
    asleep[me] = false;
    over[me] = false;
    passed[me] = 0;
    alone[me] = false
}

// ftruncate: as if all of the data area lay behind the cut.
inline cut()
{
    d_step {
        i = 0;
        do
        :: i < CELLS -> data[i] = 0; i++
        :: else -> break
        od;
        i = 0
    }
}

#ifdef FAULT_BELIEVES_THE_WAKE_UP
#define SEES_RECORD true
#else
#define SEES_RECORD (c.records > 0)
#endif

proctype reader(byte me)
{
    tmf_common c;
    bool is_reader = true;
    byte slot = NONE;
    byte port;
    byte i;
    byte wrote;
    byte took; // the record whose removal is still to be written back
    bool dirty;
    byte lives = LIVES;
    bool has_read; // records_read
    byte rounds = ROUNDS;
    do
    :: lives > 0 ->
        lives--;
        {
            tmf_fopen(c.readers, reader_lock[slot]);
        next_call: // tmf_fread
            atomic {
                tmf_get_common();
                if
                :: !tmfc_need_to_wait -> goto look
                :: else -> tmf_update_users() // tmf_fread_wait
                fi
            };
            do
            :: tmfc_need_to_wait ->
#ifdef FAULT_ENTRY_AFTER_UNLOCKING
                tmf_udp_bind();
                tmf_release_common();
                tmf_get_common();
#else
#ifndef FAULT_BINDS_AFTER_UNLOCKING
                tmf_udp_bind();
#endif
#endif
                d_step { tmc_add_waitlist() };
#ifdef FAULT_WAITS_WITH_THE_LOCK
                tmf_write_common();
#else
                tmf_release_common();
#endif
            next_round:
                bind_a_port();
            end_asleep: // tmf_udp_recv
                if
                :: atomic { queued[port] > 0 -> queued[port]--; awake() }
                :: atomic { over[me] -> over[me] = false; asleep[me] = false; goto round_over }
                :: atomic { rounds > 0 -> rounds--; awake(); goto round_over }
                fi;
                goto woken;
            round_over: // charge_round
                if
                :: flag_limit -> goto next_call // TMF_ETIMEOUT, without the lock
#ifdef FAULT_NO_LOOK_BEHIND_A_ROUND
                :: else -> goto next_round
#else
                :: else
#endif
                fi;
            woken:
                atomic {
                    tmf_get_common();
#ifdef FAULT_BELIEVES_THE_WAKE_UP
                    break;
#endif
#ifndef FAULT_NO_PURGE
                    if
                    :: tmfc_need_to_wait -> tmf_update_users()
                    :: else
                    fi
#endif
                }
            :: else -> break
            od;
            atomic { c.waiting = c.waiting & (255 - BIT(slot)); dirty = true }; // tmc_remove_waitlist
        look:
            if
            :: SEES_RECORD -> // tmf_read_record
                atomic {
                    took = data[c.first];
                    assert(took != 0); // what the area counts is there
                    passed[me] = 0;
                    has_read = true;
                    c.first++; // tmf_delete_records
                    c.records--;
                    dirty = true
                };
                if
                :: c.records == 0 -> // tmf_reset
                    atomic { c.first = 0; c.end = 0 };
#ifdef LONG
#ifdef FAULT_CUTS_BEFORE_WRITING
                    cut();
                    tmf_write_common();
#else
                    tmf_write_common();
                    cut();
#endif
                    dirty = true
#endif
                :: else
                fi;
                tmf_release_common();
                assert(took == 0); // the record that the call gives is out of the file
                goto next_call
            :: else -> tmf_release_common() // the end: no record, no writer
            fi;
            alone[me] = false;
            tmf_fclose(c.readers, reader_lock[slot]);
            has_read = false
        } unless { atomic { killed[me] -> has_read = false; die() } }
    :: else -> break
    od
}

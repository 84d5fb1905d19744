// What readers and writers have in common: the common area, registration, purge, wake-ups, the
// end.  Part of wakeup.pml.
//
// A process's own variables: me, is_reader, slot, port, c (its copy of the common area), dirty,
// wrote and took (the record whose write-back is still to come), i.

inline copy_area(to, from)
{
    to.records = from.records;
    to.first = from.first;
    to.end = from.end;
    to.waiting = from.waiting;
    to.readers = from.readers;
    to.writers = from.writers;
    i = 0;
    do
    :: i < READERS -> to.port[i] = from.port[i]; i++
    :: else -> break
    od;
    i = 0
}

// What was read in one bracket holds in no other.
inline forget_area()
{
    c.records = 0;
    c.first = 0;
    c.end = 0;
    c.waiting = 0;
    c.readers = 0;
    c.writers = 0;
    i = 0;
    do
    :: i < READERS -> c.port[i] = 0; i++
    :: else -> break
    od;
    i = 0
}

// tmf_area.cpp: lock_common, then read_area.
#ifdef FAULT_NO_LOCK
#define FREE true
#else
#define FREE (common_lock == 0)
#endif
inline tmf_get_common()
{
    d_step {
        FREE;
        common_lock = me;
        copy_area(c, file);
        dirty = false
    }
}

// tmf_area.cpp.  One pwrite of 256 bytes.
inline tmf_write_common()
{
    d_step {
        copy_area(file, c);
        if
        :: wrote != 0 -> assert(nfull(sequence)); sequence!wrote
        :: else
        fi;
        if
        :: took != 0 -> // once, and in the order of writing
            assert(nempty(sequence));
            sequence?i;
            assert(i == took)
        :: else
        fi;
        wrote = 0;
        took = 0;
        i = 0;
        dirty = false
    }
}

inline tmf_unlock_common()
{
    d_step {
        common_lock = (common_lock == me -> 0 : common_lock);
        forget_area()
    }
}

// tmf_area.cpp.
inline tmf_release_common()
{
    if
    :: dirty -> tmf_write_common()
    :: else
    fi;
    tmf_unlock_common()
}

// tmf_users.cpp: purge_slot by tmf_check_reader and tmf_check_writer.  The system says "free"
// of a lock that the asking process itself holds, so that the own slot is passed over.
#ifdef FAULT_OWN_SLOT
#define OWN(kind) false
#else
#define OWN(kind) (kind && i == slot)
#endif
inline tmf_update_users()
{
    d_step {
        i = 0;
        do
        :: i < READERS && IS_SET(c.readers, i) && !OWN(is_reader) &&
           (reader_lock[i] == 0 || reader_lock[i] == me) ->
            c.readers = c.readers - BIT(i);
            c.waiting = c.waiting & (255 - BIT(i));
            dirty = true
        :: i >= READERS -> break
        :: else -> i++
        od;
        i = 0;
        do
        :: i < WRITERS && IS_SET(c.writers, i) && !OWN(!is_reader) &&
           (writer_lock[i] == 0 || writer_lock[i] == me) ->
            c.writers = c.writers - BIT(i);
            dirty = true
        :: i >= WRITERS -> break
        :: else -> i++
        od;
        i = 0
    }
}

// tmf_open.cpp: tmf_init_tmf_file, then tmf_fopen_read or tmf_fopen_write.  Bit 0 of the
// flags comes from the file: the area is written back in any case.
inline tmf_fopen(map, lock)
{
    atomic {
        tmf_get_common();
        tmf_update_users();
        slot = 0; // tmfc_get_reader_user_id, tmfc_get_writer_user_id
        do
        :: IS_SET(map, slot) -> slot++
        :: else -> break
        od;
        map = map + BIT(slot);
        slot_of[me] = slot;
        if // tmc_get_signal_port
        :: is_reader && c.port[slot % READERS] != 0 -> port = c.port[slot % READERS] - 1
        :: is_reader && c.port[slot % READERS] == 0 -> port = slot
        :: else
        fi;
        dirty = true
    };
#ifdef FAULT_SLOT_LOCKED_LATE
    tmf_release_common();
    lock = me;
#else
    atomic { assert(lock == 0); lock = me }; // lock_user
    tmf_release_common();
#endif
    open[me] = true
}

// What the system does with the sockets of a process that closes them or is gone.
inline close_sockets()
{
    d_step {
        i = 0;
        do
        :: i < PORTS && bound[i] == me -> bound[i] = 0; queued[i] = 0
        :: i >= PORTS -> break
        :: else -> i++
        od;
        i = 0
    }
}

// What it does with all locks on a file when a descriptor of it is closed.
inline drop_locks()
{
    d_step {
        common_lock = (common_lock == me -> 0 : common_lock);
        i = 0;
        do
        :: i < READERS && reader_lock[i] == me -> reader_lock[i] = 0
        :: i >= READERS -> break
        :: else -> i++
        od;
        i = 0;
        do
        :: i < WRITERS && writer_lock[i] == me -> writer_lock[i] = 0
        :: i >= WRITERS -> break
        :: else -> i++
        od;
        i = 0
    }
}

// tmf_api.cpp: tmf_fclose, and tmf_open.cpp: tmf_close_file.
inline tmf_fclose(map, lock)
{
    atomic { tmf_get_common(); open[me] = false };
#ifndef FAULT_SILENT_CLOSE
    if
    :: !is_reader -> tmf_signal_readers()
    :: else
    fi;
#endif
    close_sockets(); // tmf_net_close
    atomic { // tmfc_clear_reader_user_id, tmfc_clear_writer_user_id
        map = map & (255 - BIT(slot));
        dirty = true;
        lock = 0 // unlock_user
    };
    tmf_release_common();
    atomic { drop_locks(); slot = NONE; port = 0 } // tmf_free_mf closes the descriptor
}

// tmf_net.cpp: tmf_udp_send to a port.  A full queue takes no more, and where nobody has the
// port, nobody is told.
inline tmf_udp_send(to)
{
    if
    :: bound[to] != 0 && bound[to] != ANOTHER && queued[to] < QUEUE -> queued[to]++
    :: bound[to] == 0 || bound[to] == ANOTHER || queued[to] == QUEUE
#ifdef LOSSY
    :: true
#endif
    fi
}

// tmf_net.cpp.
#ifdef FAULT_WAKES_ONE
#define AFTER_ONE READERS
#else
#define AFTER_ONE i + 1
#endif
inline tmf_signal_readers()
{
    do
    :: atomic { i < READERS && IS_SET(c.waiting, i) ->
        tmf_udp_send(c.port[i] - 1);
        i = AFTER_ONE }
    :: atomic { i < READERS && !IS_SET(c.waiting, i) -> i++ }
    :: atomic { i >= READERS -> i = 0; break }
    od
}
// The system's part in the end of a killed process.
inline die()
{
    atomic {
        drop_locks();
        d_step {
            forget_area();
            dirty = false;
            wrote = 0;
            took = 0;
            slot = NONE;
            port = 0;
            open[me] = false;
            asleep[me] = false;
            over[me] = false;
            ends[me] = false;
            passed[me] = 0;
            alone[me] = false;
            killed[me] = false
        };
#ifndef LOSSY
        close_sockets()
#endif
    };
#ifdef LOSSY
    close_sockets()
#endif
}

// The lock, the wait list and the wake-ups of message files as a model for spin.
//
// Readers and writers open a file, read, wait, write and close; each of them may be
// killed before any step and come back.  A step is one system call with the work on the
// own copy of the common area around it; the purge's tests of locks, and the read behind
// the common lock, are one step with the call before them, since a kill in between
// leaves what a kill before them leaves.  The names of steps are those of the functions in
// msgfile/ that take them.
//
// Options (-DNAME=VALUE): READERS, WRITERS; RECORDS that each writer has; LIVES of each
// process; KILLS in all; LIMITED, PERSISTENT: the readers, bit by bit, that read with flag 4
// and with flag 2; ROUNDS of a reader that end at any moment, on top of those that end when
// nothing else happens; STAYS: writers never close; LOSSY: datagrams get lost, another program has
// a port, and a killed process keeps its socket longer than its locks; STRANGER: datagrams
// that nobody of the file sent; LONG: the file is cut whenever it empties.  A FAULT_... breaks one
// rule of the protocol, and has to be found.
//
// Left out: texts and codes of errors, the process ids in the slots, exclusive and copy
// mode, the lengths of rounds.  A signal ends a round as its time does.

#ifndef READERS
#define READERS 2
#endif
#ifndef WRITERS
#define WRITERS 1
#endif
#ifndef RECORDS
#define RECORDS 1
#endif
#ifndef LIVES
#define LIVES 1
#endif
#ifndef KILLS
#define KILLS 0
#endif
#ifndef ROUNDS
#define ROUNDS 0
#endif
#ifndef STRANGER
#define STRANGER 0
#endif
#ifndef LIMITED
#define LIMITED 0
#endif
#ifndef PERSISTENT
#define PERSISTENT 0
#endif

#define USERS (READERS + WRITERS)
#define CELLS (WRITERS * RECORDS)
#define PORTS (2 * READERS) // each reader slot has two that no other slot tries
#define QUEUE 1             // datagrams that a socket holds
#define ANOTHER 255         // a process that has nothing to do with the file
#define NONE 9              // no slot
#define LOOKS 3             // times that all rounds end because nothing else happens

#define BIT(i) (1 << (i))
#define IS_SET(map, i) (((map) >> (i)) & 1)

// ---- what the processes share

// The common area: record_count, read_offset, write_offset, wait_list, the two maps, the
// ports.  The counts of users are those of the bits.
typedef tmf_common {
    byte records;
    byte first;
    byte end;
    byte waiting;
    byte readers;
    byte writers;
    byte port[READERS]
};

tmf_common file;   // as it stands in the file
byte data[CELLS];  // the data area: numbers of records; 0 is no record
byte common_lock;  // who holds a lock, 0 for nobody
byte reader_lock[READERS];
byte writer_lock[WRITERS];
byte bound[PORTS]; // who has bound a port
byte queued[PORTS]; // datagrams there
bool killed[USERS + 1]; // SIGKILL was sent

// ---- what only the properties look at

chan sequence = [CELLS] of { byte }; // the records of the file, in the order of writing
bool asleep[USERS + 1];
bool over[USERS + 1];   // the time of the round has passed
bool ends[USERS + 1];   // the wait ends when no writer is left
byte passed[USERS + 1]; // the record that lay there when the time of a round had passed
bool alone[USERS + 1];  // there was no living writer then
bool open[USERS + 1];   // between the open and the close
byte slot_of[USERS + 1];

#include "wakeup_calls.pml"
#include "wakeup_users.pml"

// ---- the world around them

proctype killer()
{
    byte sent;
    byte whom;
    do
    :: sent < KILLS ->
        select(whom : 1 .. USERS);
        atomic { killed[whom] = true; sent++; whom = 0 }
    :: break
    od
}

// Sends to any port of the file.
proctype stranger()
{
    byte sent;
    byte at;
    do
    :: sent < STRANGER ->
        select(at : 0 .. PORTS - 1);
        atomic {
            if
            :: bound[at] != 0 && bound[at] != ANOTHER && queued[at] < QUEUE -> queued[at]++
            :: else
            fi;
            sent++;
            at = 0
        }
    :: break
    od
}

#ifdef LOSSY
// Another program has the port that a slot tries first, perhaps not for ever.
proctype another_program()
{
    if
    :: atomic { bound[0] == 0 -> bound[0] = ANOTHER };
       bound[0] = 0
    :: bound[0] != 0
    fi
}
#endif

// Looks whenever nothing else can happen, which is when all have done what they were about to
// do and readers sleep.  Then the time of their rounds passes.
proctype clock()
{
    byte looks;
    byte u;
    bool writer_lives;
    do
    :: timeout ->
        d_step {
            writer_lives = false;
            u = READERS + 1;
            do
            :: u <= USERS -> writer_lives = writer_lives || open[u]; u++
            :: else -> break
            od;
            assert(common_lock == 0); // nobody waits for ever
            u = 1;
            do
            :: u <= USERS ->
                // Who has the file open is registered, and nobody else has the slot.
                assert(!open[u] || u > READERS ||
                       (IS_SET(file.readers, slot_of[u]) && reader_lock[slot_of[u] % READERS] == u));
                assert(!open[u] || u <= READERS ||
                       (IS_SET(file.writers, slot_of[u]) && writer_lock[slot_of[u] % WRITERS] == u));
                if
                :: u <= READERS && asleep[u] ->
#ifdef LOSSY
                    // A record waits for a sleeping reader no longer than a round.
                    assert(file.records == 0 || data[file.first] != passed[u]);
#else
                    // A record waits for no sleeping reader.
                    assert(file.records == 0);
#endif
#if KILLS == 0 && !defined(LOSSY)
                    // Nobody waits for a writer when all have closed the file.
                    assert(writer_lives || !ends[u]);
#else
                    // Or for a dead one, longer than a round.
                    assert(writer_lives || !ends[u] || !alone[u]);
#endif
                    passed[u] = (file.records == 0 -> 0 : data[file.first]);
                    alone[u] = !writer_lives;
                    over[u] = true
                :: else
                fi;
                u++
            :: else -> u = 0; break
            od;
            looks++
        };
        if
        :: looks == LOOKS -> break
        :: else
        fi
    od
}

init
{
    byte u;
    atomic {
#ifdef LOSSY
        if
        :: run another_program()
        :: skip
        fi;
#endif
        u = 1;
        do
        :: u <= READERS -> run reader(u); u++
        :: u > READERS && u <= USERS -> run writer(u); u++
        :: else -> u = 0; break
        od;
        if
        :: KILLS > 0 -> run killer()
        :: else
        fi;
        if
        :: STRANGER > 0 -> run stranger()
        :: else
        fi;
        run clock()
    }
}

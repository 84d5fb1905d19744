// What message_bench compares: queues in a file that one process appends to and
// another takes from.  Each kind is one row of functions; a failure ends the
// process with a message.
#ifndef BENCH_MESSAGE_QUEUE_H
#define BENCH_MESSAGE_QUEUE_H

struct queue_kind {
    const char *name;

    // Opens the queue at path, which is made when it is not there.
    void *(*open)(const char *path, bool reader);

    // Appends one record of size bytes.
    void (*append)(void *queue, const void *record, int size);

    // Takes the oldest record into buf of size bytes.  Returns its length; 0 when
    // there is none.
    int (*take)(void *queue, void *buf, int size);

    void (*close)(void *queue);

    // The same for count records of size bytes, one behind the other, as one; null where a
    // kind is not measured so.  take_batch gives the number of records taken.
    void (*append_batch)(void *queue, const void *records, int size, int count) = nullptr;
    int (*take_batch)(void *queue, void *buf, int size, int count) = nullptr;
};

// The message-file library; take waits for a record while there is a writer.
extern const queue_kind library_queue;

// The protocol's file work on a file of the same layout and nothing else.
extern const queue_kind literal_queue; // ten system calls an operation
extern const queue_kind least_queue;   // five
// As least_queue, but takes read 4 KiB first and the rest of a longer record after.
extern const queue_kind least_short_queue;

// Databases used as queues; each is built where its development files are.
extern const queue_kind sqlite_queue;
extern const queue_kind lmdb_queue;

// One UDP datagram on the loopback address for each record, which nothing keeps:
// the floor under the latency of every queue whose writer wakes its reader.
extern const queue_kind datagram_queue;

#endif

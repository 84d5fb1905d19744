#!/usr/bin/env python3
"""Message files by a second, plain implementation: writes and reads records,
lists and checks a file, or follows steps from standard input, as tests do.
The operations are in message_file_protocol.py, the listing and the check in
message_file_report.py.
"""

import argparse
import os
import signal
import sys

import message_file_wait
from message_file_area import MODE_COPY, MODE_EXCLUSIVE, MODE_READ, MessageFileError
from message_file_protocol import HOST_ORDER, READ_KEEP, MessageFile
from message_file_report import check, dump

ORDERS = {"host": HOST_ORDER, "little": "<", "big": ">"}


def record_data(tag, number, size):
    """Data that tells whose it is, cut or filled up to size bytes."""
    text = f"{tag}-{number}-".encode()[:size]
    return text + bytes((number + at) & 0xFF for at in range(len(text), size))


# Steps of serve: one a line, answered by "record HEX" for each record read and
# by a last line "= RESULT", a number or the code of a failure.


class Steps:
    def __init__(self, order):
        self.order = order
        self.files = {}

    def open(self, name, path, mode):
        self.files[name] = MessageFile(path, int(mode), self.order)
        return 0

    def close(self, name):
        self.files.pop(name).close()
        return 0

    def write_one(self, name, tag, number, sizes):
        size = int(sizes[number % len(sizes)])
        self.files[name].write(record_data(tag, number, size))

    def write(self, name, tag, first, count, sizes):
        """Records first, first + 1 ...; SIZES is a comma list, used in turn."""
        for number in range(int(first), int(first) + int(count)):
            self.write_one(name, tag, number, sizes.split(","))
        return int(count)

    def read_one(self, name, flags="0", limit="-1", length="32761"):
        if int(limit) < 0:
            data = self.files[name].read(int(length), int(flags))
        else:
            data = self.files[name].readx(int(length), int(flags), int(limit))
        if data:
            print("record", data.hex())
        return data

    def read(self, name, count, *how):
        """COUNT records, or all to the end when 0; then FLAGS LIMIT LENGTH."""
        done = 0
        while int(count) == 0 or done < int(count):
            if not self.read_one(name, *how):
                break
            done += 1
        return done

    def echo(self, source, target, count):
        for _ in range(int(count)):
            data = self.files[source].readx(timeout=600)
            if data is None:
                break
            self.files[target].write(data)
        return int(count)

    def swap(self, target, source, tag, count, burst, sizes):
        """Writes and reads COUNT records in turn, BURST at a time."""
        for first in range(0, int(count), int(burst)):
            numbers = range(first, min(first + int(burst), int(count)))
            for number in numbers:
                self.write_one(target, tag, number, sizes.split(","))
            for _ in numbers:
                if self.read_one(source, "0", "600") is None:
                    return first
        return int(count)

    def info(self, name):
        records, readers, writers, _, end = self.files[name].getinfo()
        print(f"info {records} {readers} {writers} {end}")
        return 0

    def end(self, name):
        return self.files[name].last_record_end()


def serve(arguments):
    # A signal is to end a wait, not the process.
    seen, mark = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
    signal.signal(signal.SIGUSR1, lambda *_: None)
    signal.set_wakeup_fd(mark)
    message_file_wait.signal_descriptor = seen

    steps = Steps(ORDERS[arguments.byte_order])
    for line in sys.stdin:
        verb, *words = line.split()
        try:
            result = getattr(steps, verb)(*words)
        except MessageFileError as error:
            result = error.code
        print("=", result, flush=True)
    return 0


def write_records(arguments):
    file = MessageFile(arguments.file, 0, ORDERS[arguments.byte_order])
    for number in range(arguments.first, arguments.first + arguments.count):
        file.write(record_data(arguments.tag, number, arguments.size))
    file.close()
    return 0


def read_records(arguments):
    mode = MODE_READ
    if arguments.copy:
        mode |= MODE_EXCLUSIVE | MODE_COPY
    flags = READ_KEEP if arguments.keep else 0
    file = MessageFile(arguments.file, mode, ORDERS[arguments.byte_order])
    left = arguments.count
    while arguments.until_eof or left > 0:
        # Only --wait waits for a first record: the file may be at its end.
        if not arguments.wait and file.getinfo()[0] == 0:
            break
        data = file.read(flags=flags)
        if data is None:
            break
        left -= 1
        print(data.hex(" ") if arguments.hex else data.decode("latin-1").__repr__())
    file.close()
    return 0


def dump_file(arguments):
    for line in dump(arguments.file, arguments.data):
        print(line)
    return 0


def check_files(arguments):
    status = 0
    for file in arguments.file:
        for line in check(file):
            print(f"{file}: {line}" if len(arguments.file) > 1 else line)
            status = 1
    return status


def parser():
    top = argparse.ArgumentParser(
        prog="message_file.py", description="Writes, reads, lists and checks message files."
    )
    top.add_argument(
        "--byte-order", choices=ORDERS, default="host",
        help="act as a host of this byte order (default: %(default)s)",
    )
    commands = top.add_subparsers(required=True, metavar="COMMAND")

    def command(name, action, text):
        sub = commands.add_parser(name, help=text, description=text)
        sub.set_defaults(action=action)
        if name != "serve":
            sub.add_argument("file", metavar="FILE", nargs="+" if name == "check" else None)
        return sub

    sub = command("write", write_records, "append records as a writer")
    sub.add_argument("--count", type=int, default=1, help="how many (default: %(default)s)")
    sub.add_argument("--tag", default="record", help="what they begin with")
    sub.add_argument("--first", type=int, default=1, help="number of the first")
    sub.add_argument("--size", type=int, default=16, help="bytes of data in each")

    sub = command("read", read_records, "take records as a reader and print them")
    sub.add_argument("--count", type=int, default=1, help="how many (default: %(default)s)")
    sub.add_argument("--until-eof", action="store_true", help="all, to the end of the file")
    sub.add_argument("--wait", action="store_true", help="wait for records and writers")
    sub.add_argument("--keep", action="store_true", help="leave the first record in the file")
    sub.add_argument("--copy", action="store_true", help="copy mode: remove none")
    sub.add_argument("--hex", action="store_true", help="print bytes in hexadecimal")

    sub = command("dump", dump_file, "print every field with its offset")
    sub.add_argument("--data", type=int, default=64, help="bytes shown of each record")

    command("check", check_files, "compare counters, maps and slots with the records")
    command("serve", serve, "follow steps from standard input (for tests)")
    return top


def main():
    arguments = parser().parse_args()
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    try:
        return arguments.action(arguments)
    except MessageFileError as error:
        print(f"message file error {error}", file=sys.stderr)
    except OSError as error:
        print(error, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())

"""The Python module tmf on files of its own, beside other processes."""

import collections
import os
import random
import re
import signal
import stat
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import tmf

SOURCE = os.environ["KESTRO_SOURCE_DIR"]


class Messages(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.path = os.path.join(self.folder, "queue")

    def make(self, *records):
        with tmf.Writer(self.path) as writer:
            for record in records:
                writer.write(record)

    def program(self, text):
        """Starts a Python program in which tmf, os and path are there; its standard output is a
        pipe."""
        program = subprocess.Popen(
            [sys.executable, "-B", "-c", "import os, sys, time, tmf\npath = sys.argv[1]\n" + text, self.path],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        self.addCleanup(program.stdin.close)
        self.addCleanup(program.stdout.close)
        self.addCleanup(program.stderr.close)
        self.addCleanup(program.wait)
        self.addCleanup(program.kill)
        return program

    def other_user(self, opened):
        """Another process that has opened the file; it ends when its standard input is closed."""
        program = self.program("user = %s\nprint('open', flush=True)\nsys.stdin.read()\nuser.close()" % opened)
        self.assertEqual(program.stdout.readline(), b"open\n")
        return program

    def assert_error(self, code, text, call, *arguments, **options):
        with self.assertRaises(tmf.Error) as raised:
            call(*arguments, **options)
        self.assertEqual(raised.exception.code, code)
        self.assertEqual(raised.exception.text, text)
        self.assertEqual(raised.exception.path, self.path)
        self.assertEqual(str(raised.exception), "%s: %s (%d)" % (self.path, text, code))
        return raised.exception


class WritingAndReading(Messages):
    def test_records_come_in_their_order_and_are_taken(self):
        self.make(b"one", b"two\n\0\xff", bytearray(b"three"), memoryview(b"four"))
        with tmf.Reader(self.path) as reader:
            self.assertEqual(reader.info(), tmf.Info(4, 1, 0, 4352 + 9 + 12 + 11 + 10))
            self.assertEqual(list(reader), [b"one", b"two\n\0\xff", b"three", b"four"])
            self.assertIsNone(reader.read())
            self.assertEqual(reader.info().records, 0)

    def test_longest_record_and_no_longer_or_empty_one(self):
        longest = bytes(range(256)) * 127 + bytes(249)
        self.assertEqual(len(longest), tmf.MAX_DATA)
        self.make(longest)
        with tmf.Writer(self.path) as writer:
            for record in (longest + b"x", b""):
                self.assert_error(
                    tmf.Code.ERECORD_SIZE, "Invalid record size.", writer.write, record
                )
            with self.assertRaises(TypeError):
                writer.write("text")
            with self.assertRaises(TypeError):
                writer.write(3)
        with tmf.Reader(self.path) as reader:
            self.assertEqual(list(reader), [longest])

    def test_keep_shows_all_and_removes_none(self):
        self.make(b"one", b"two")
        for _ in range(2):
            with tmf.Reader(self.path, keep=True) as reader:
                self.assertEqual(reader.read(), b"one")
                self.assertEqual(list(reader), [b"two"])
                self.assertIsNone(reader.read())
        with tmf.Reader(self.path, keep=True) as reader:
            for call in (reader.peek, reader.remove):
                with self.assertRaises(ValueError):
                    call()

    def test_peek_leaves_the_record_until_it_is_removed(self):
        self.make(b"one", b"two")
        with tmf.Reader(self.path, exclusive=True) as reader:
            self.assertEqual(reader.peek(), b"one")
            self.assertEqual(reader.peek(), b"one")
            reader.remove()
            self.assertEqual(reader.read(), b"two")
            self.assertIsNone(reader.peek())
            with self.assertRaisesRegex(ValueError, "there is no record to remove"):
                reader.remove()
        with tmf.Reader(self.path) as reader:
            for call in (reader.peek, reader.remove):
                with self.assertRaisesRegex(ValueError, "needs a reader with exclusive=True"):
                    call()

    def test_many_at_once(self):
        records = [b"record %d" % number for number in range(1000)] + [b"x" * tmf.MAX_DATA] * 9
        with tmf.Writer(self.path) as writer:
            writer.write_many(records)
            writer.write_many([])
            writer.write_many(iter([bytearray(b"last")]))
            self.assert_error(
                tmf.Code.ERECORD_SIZE, "Invalid record size.", writer.write_many, [b"one", b""]
            )
            with self.assertRaises(TypeError):
                writer.write_many([b"one", "text"])
            self.assertEqual(writer.info().records, len(records) + 1)
        with tmf.Reader(self.path, keep=True) as reader:
            self.assertEqual(reader.read_many(3), records[:3])
            self.assertEqual(reader.read(), records[3])
            shown = []
            while some := reader.read_many(500):
                shown += some
            self.assertEqual(shown, records[4:] + [b"last"])
        with tmf.Reader(self.path, exclusive=True) as reader:
            self.assertEqual(reader.peek_many(2), records[:2])
            reader.remove(2)
            self.assertEqual(reader.peek_many(10000)[0], records[2])
            reader.remove()
            self.assertEqual(reader.read_many(10), records[3:13])
            with self.assertRaisesRegex(ValueError, "there are not 998 records to remove"):
                reader.remove(998)
            self.assertEqual(reader.read(), records[13])
            reader.remove(996)
            self.assertEqual(reader.read_many(2), [])
            for call in (reader.read_many, reader.peek_many, reader.remove):
                with self.assertRaisesRegex(ValueError, "1 or more"):
                    call(0)
        with tmf.Reader(self.path) as reader:
            for call in (reader.peek_many, reader.remove):
                with self.assertRaisesRegex(ValueError, "exclusive=True"):
                    call(1)

    def test_record_that_was_not_done_with_comes_again(self):
        self.make(b"one", b"two", b"three")
        with tmf.Reader(self.path, exclusive=True) as reader:
            records = reader.records(remove="after")
            self.assertEqual([next(records), next(records)], [b"one", b"two"])
            records.close()
        with tmf.Reader(self.path, exclusive=True) as reader:
            self.assertEqual(list(reader.records(remove="after")), [b"two", b"three"])
            self.assertEqual(reader.info().records, 0)
        with tmf.Reader(self.path) as reader:
            with self.assertRaisesRegex(ValueError, '"before" or "after"'):
                next(reader.records(remove="never"))
            with self.assertRaisesRegex(ValueError, "exclusive=True"):
                next(reader.records(remove="after"))

    def test_record_of_no_data_is_one(self):
        self.make(b"12345678901")  # 17 bytes, over which one of 6 and one of 11 are written
        with open(self.path, "r+b") as file:
            file.seek(4352)
            file.write(b"\0\6\0\x11\0\6" b"\0\x0b\0\x11after\0\x0b")
            file.seek(16)
            file.write((2).to_bytes(4, sys.byteorder))
        for _ in range(2):
            with tmf.Reader(self.path, keep=True) as reader:
                self.assertEqual(list(reader), [b"", b"after"])
        with tmf.Reader(self.path, exclusive=True) as reader:
            self.assertEqual(list(reader.records(remove="after")), [b"", b"after"])

    def test_file_that_is_repaired_meanwhile_has_fewer_records(self):
        self.make(b"one", b"two", b"three")
        with tmf.Reader(self.path, exclusive=True) as reader:
            self.assertEqual(reader.read(), b"one")
            repair = self.program(
                "import ctypes\n"
                "library = ctypes.CDLL(os.environ.get('LIBTMF'))\n"
                "print(library.tmf_repair(os.fsencode(path), 4361, None, ctypes.create_string_buffer(256)))"
            )
            self.assertEqual(repair.communicate()[0], b"0\n")
            self.assertIsNone(reader.read())

    def test_records_are_taken_before_they_are_given(self):
        self.make(b"one", b"two")
        with tmf.Reader(self.path) as reader:
            self.assertEqual(next(iter(reader)), b"one")
        with tmf.Reader(self.path) as reader:
            self.assertEqual(list(reader), [b"two"])

    def test_path_like_and_bytes_that_are_no_text(self):
        self.path = os.path.join(self.folder, os.fsdecode(b"\xff\xe4 name"))

        class Path:
            def __fspath__(path):
                return self.path

        with tmf.Writer(Path()) as writer:
            writer.write(b"one")
            self.assertEqual(writer.path, self.path)
        with tmf.Reader(Path()) as reader:
            self.assertEqual(list(reader), [b"one"])
        self.assertTrue(os.path.exists(self.path))

    def test_permissions_of_a_created_file(self):
        mask = os.umask(0o022)
        self.addCleanup(os.umask, mask)
        for options, mode in (({}, 0o600), ({"all_users": True}, 0o666)):
            tmf.Writer(self.path, **options).close()
            self.assertEqual(stat.S_IMODE(os.stat(self.path).st_mode), mode)
            os.remove(self.path)

    def test_reader_creates_a_file_only_when_asked(self):
        with self.assertRaises(FileNotFoundError):
            tmf.Reader(self.path)
        self.assertFalse(os.path.exists(self.path))
        with tmf.Reader(self.path, create=True) as reader:
            self.assertIsNone(reader.read())
        self.assertTrue(os.path.exists(self.path))


class Waiting(Messages):
    def test_empty_file_without_a_writer_ends_at_once(self):
        self.make()
        with tmf.Reader(self.path) as reader:
            self.assertEqual(list(reader), [])
            self.assertIsNone(reader.read(timeout=None))

    def test_iteration_waits_for_a_writer_and_ends_with_it(self):
        writer = self.program(
            "writer = tmf.Writer(path)\n"
            "print('open', flush=True)\n"
            "for line in sys.stdin.buffer:\n"
            "    writer.write(line)\n"
            "writer.close()"
        )
        self.assertEqual(writer.stdout.readline(), b"open\n")
        with tmf.Reader(self.path) as reader:
            records = iter(reader)
            for line in (b"one\n", b"two\n"):
                threading.Timer(0.05, self.send, (writer, line)).start()
                self.assertEqual(next(records), line)
            threading.Timer(0.05, writer.stdin.close).start()
            self.assertEqual(list(records), [])

    @staticmethod
    def send(program, line):
        program.stdin.write(line)
        program.stdin.flush()

    def test_follow_waits_without_a_writer(self):
        self.make(b"one")
        with tmf.Reader(self.path) as reader:
            records = reader.records(follow=True)
            self.assertEqual(next(records), b"one")
            writer = self.program("sys.stdin.read()\ntmf.Writer(path).write(b'two')")
            threading.Timer(0.05, writer.stdin.close).start()
            self.assertEqual(next(records), b"two")

    def test_kept_records_are_followed(self):
        self.make(b"one")
        with tmf.Reader(self.path, keep=True) as reader:
            records = reader.records(follow=True)
            self.assertEqual(next(records), b"one")
            writer = self.program("for line in sys.stdin.buffer:\n    tmf.Writer(path).write(line)")
            for line in (b"two\n", b"three\n"):
                threading.Timer(0.05, self.send, (writer, line)).start()
                self.assertEqual(next(records), line)
            threading.Timer(0.05, self.send, (writer, b"four\n")).start()
            self.assertEqual(reader.read(timeout=300), b"four\n")
            self.assertIsNone(reader.read(timeout=0.05))
            self.assertEqual(list(reader), [])
            self.assertEqual(reader.info().records, 4)

    def wake_another_reader(self, pause):
        """Makes a file and a writer that wakes the next reader of another file, too."""
        # A limited wait of the library leaves the reader's port in the wait list, where the next
        # reader has it.
        self.make()
        with tmf.Reader(self.path) as reader:
            wait = 2
            self.assertEqual(tmf._lib.tmf_freadx(reader._handle, reader._buffer, 1, wait, 1), 0)
        writer = self.program(
            "writer = tmf.Writer(path)\n"
            "writer.write(b'wake up')\n"
            "print('written', flush=True)\n"
            "while True:\n"
            "    tmf._lib.tmf_fwrite(writer._handle, b'wake up', 7)\n"
            f"    {pause}"
        )
        self.assertEqual(writer.stdout.readline(), b"written\n")

    def test_timeout_ends_a_wait_beside_a_writer_of_another_file(self):
        self.wake_another_reader("time.sleep(0.01)")
        other = self.path + ".other"
        with tmf.Reader(other, create=True) as reader:
            self.assertIsNone(reader.read(timeout=1.5))

    def test_timeout_ends_a_wait_beside_a_writer(self):
        self.make()
        self.other_user("tmf.Writer(path)")
        with tmf.Reader(self.path) as reader:
            self.assertIsNone(reader.read(timeout=0))
            self.assertIsNone(reader.read(timeout=0.3))

    def test_interrupt_ends_a_wait_and_the_file_stays_usable(self):
        self.wake_another_reader("pass")
        self.path += ".other"
        self.make()
        program = self.program(
            "reader = tmf.Reader(path)\n"
            "try:\n"
            "    print('open', flush=True)\n"
            "    reader.read(follow=True)\n"
            "except KeyboardInterrupt:\n"
            "    reader.close()\n"
            "    print('interrupted', flush=True)"
        )
        self.assertEqual(program.stdout.readline(), b"open\n")
        time.sleep(0.3)  # it waits by then, as a rule
        program.send_signal(signal.SIGINT)
        self.assertEqual(program.stdout.readline(), b"interrupted\n")
        self.assertEqual(program.wait(), 0)
        with tmf.Reader(self.path, exclusive=True) as reader:
            self.assertEqual(reader.info().readers, 1)

    def test_signal_ends_the_wait_for_a_file_that_another_process_works_on(self):
        self.make(b"one")
        holder = self.program(
            "import fcntl\n"
            "file = open(path, 'r+b')\n"
            "print('open', flush=True)\n"
            "sys.stdin.readline()\n"
            "fcntl.lockf(file, fcntl.LOCK_EX, 256, 0)\n"
            "print('locked', flush=True)\n"
            "sys.stdin.read()"
        )
        self.assertEqual(holder.stdout.readline(), b"open\n")
        user = self.program(
            "import signal\n"
            "signal.signal(signal.SIGUSR1, lambda *_: None)\n"
            "writer = tmf.Writer(path)\n"
            "print('open', flush=True)\n"
            "sys.stdin.readline()\n"
            "try:\n"
            "    writer.write(b'two')\n"
            "except tmf.Error as error:\n"
            "    print(error.code.name, flush=True)\n"
            "sys.stdin.readline()\n"
            "writer.write(b'two')\n"
            "writer.close()"
        )
        self.assertEqual(user.stdout.readline(), b"open\n")
        self.send(holder, b"lock\n")
        self.assertEqual(holder.stdout.readline(), b"locked\n")
        self.send(user, b"write\n")
        self.wait_for_lock(user)
        user.send_signal(signal.SIGUSR1)
        self.assertEqual(user.stdout.readline(), b"ELOCK_WAIT\n")
        holder.stdin.close()
        self.assertEqual(holder.wait(), 0)
        self.send(user, b"again\n")
        self.assertEqual(user.wait(), 0)
        with tmf.Reader(self.path) as reader:
            self.assertEqual(list(reader), [b"one", b"two"])

    def wait_for_lock(self, program):
        """Until a process waits for a lock: the system's list has it behind "->"."""
        for _ in range(6000):
            with open("/proc/locks") as locks:
                if any("->" in line and " %d " % program.pid in line for line in locks):
                    return
            time.sleep(0.01)
        self.fail("the process does not wait for a lock")

    def test_records_of_many_writers_come_once_to_many_readers(self):
        self.make()
        writers = [
            self.program(
                "with tmf.Writer(path) as writer:\n"
                "    for number in range(200):\n"
                "        writer.write(b'%d %%d' %% number)" % writer
            )
            for writer in range(3)
        ]
        readers = [
            self.program(
                "with tmf.Reader(path) as reader:\n"
                "    for record in reader.records(timeout=60):\n"
                "        print(record.decode(), flush=True)\n"
                "        if record == b'end': break"
            )
            for _ in range(2)
        ]
        for writer in writers:
            self.assertEqual(writer.wait(), 0)
        with tmf.Writer(self.path) as writer:
            for _ in readers:
                writer.write(b"end")
        got = [reader.communicate()[0].decode().splitlines() for reader in readers]
        self.assertEqual(
            sorted(got[0] + got[1]),
            sorted(["%d %d" % (w, n) for w in range(3) for n in range(200)] + ["end"] * 2),
        )
        for lines in got:  # those of one writer are in its order
            for writer in range(3):
                own = [int(line.split()[1]) for line in lines if line.startswith("%d " % writer)]
                self.assertEqual(own, sorted(own))

    def test_other_threads_run_while_one_waits(self):
        self.make()
        other = os.path.join(self.folder, "other")
        got = []

        def follow():
            with tmf.Reader(self.path) as reader:
                got.append(reader.read(follow=True))

        thread = threading.Thread(target=follow)
        thread.start()
        with tmf.Writer(other) as writer:
            for number in range(100):
                writer.write(b"%d" % number)
        with tmf.Reader(other) as reader:
            self.assertEqual(len(list(reader)), 100)
        program = self.program("tmf.Writer(path).write(b'end')")
        self.assertEqual(program.wait(), 0)
        thread.join()
        self.assertEqual(got, [b"end"])


class Model(Messages):
    def test_random_calls_beside_a_deque(self):
        seed = random.randrange(1 << 32)
        choose = random.Random(seed)
        model = collections.deque()
        for _ in range(60):
            with self.subTest(seed=seed), tmf.Writer(self.path) as writer:
                for _ in range(choose.randrange(6)):
                    records = [
                        choose.randbytes(1 + choose.randrange(choose.choice((30, 32761))))
                        for _ in range(choose.randrange(4))
                    ]
                    if len(records) == 1:
                        writer.write(records[0])
                    else:
                        writer.write_many(records)
                    model += records
            with self.subTest(seed=seed), tmf.Reader(self.path, keep=True) as reader:
                self.assertEqual(list(reader), list(model))
            with self.subTest(seed=seed), tmf.Reader(self.path, exclusive=True) as reader:
                for _ in range(choose.randrange(12)):
                    first = model[0] if model else None
                    if choose.random() < 0.3:
                        count = 1 + choose.randrange(6)
                        some = reader.peek_many(count)
                        self.assertEqual(some, list(model)[:count])
                        if some:
                            count = 1 + choose.randrange(len(some))
                            reader.remove(count)
                            for _ in range(count):
                                model.popleft()
                    elif choose.random() < 0.5:
                        self.assertEqual(reader.peek(), first)
                        if first is not None and choose.random() < 0.5:
                            reader.remove()
                            model.popleft()
                    else:
                        self.assertEqual(reader.read(), first)
                        if model:
                            model.popleft()
                self.assertEqual(reader.info().records, len(model))


class Failures(Messages):
    def test_codes_are_those_of_the_header(self):
        with open(os.path.join(SOURCE, "msgfile", "tmf.h")) as header:
            text = header.read()
        rows = re.findall(r"^ +TMF_(E\w+) = (-\d+),? +/\* (.*) \*/$", text, re.M)
        given = {
            name: int(code)
            for name, code, meaning in rows
            if "reserved" not in meaning and "not given" not in meaning
        }
        self.assertGreater(len(given), 50)
        self.assertEqual({code.name: code.value for code in tmf.Code}, given)
        self.assertIn("#define TMF_MAX_DATA %d " % tmf.MAX_DATA, text)

    def test_open_has_the_systems_text(self):
        self.path = os.path.join(self.folder, "none", "queue")
        error = self.assert_error(
            tmf.Code.EOPEN, "Error opening file: No such file or directory", tmf.Writer, self.path
        )
        self.assertIs(error.code, tmf.Code.EOPEN)

    def test_no_message_file_is_left_as_it_is(self):
        with open(self.path, "w") as file:
            file.write("x" * 5000)
        for opened in (tmf.Writer, tmf.Reader):
            self.assert_error(tmf.Code.ENOTMSG, "File is not a message file.", opened, self.path)
        with open(self.path) as file:
            self.assertEqual(file.read(), "x" * 5000)

    def test_exclusive_users_keep_others_out(self):
        reader = self.other_user("tmf.Reader(path, exclusive=True, create=True)")
        self.assert_error(
            tmf.Code.EREADER_EXCLUSIVE,
            "File already opened exclusively for read access.",
            tmf.Reader,
            self.path,
        )
        reader.stdin.close()
        self.assertEqual(reader.wait(), 0)
        tmf.Reader(self.path).close()
        self.other_user("tmf.Writer(path)")
        self.assert_error(
            tmf.Code.EWRITER_PRESENT,
            "Exclusively write access requested for file already open.",
            tmf.Writer,
            self.path,
            exclusive=True,
        )

    def test_damaged_record_stays_in_the_file(self):
        self.make(b"one", b"two")
        with open(self.path, "r+b") as file:
            file.seek(4352)
            file.write(b"\x7f")
        with tmf.Reader(self.path) as reader:
            self.assert_error(tmf.Code.EREAD_DATA_EOF, "EOF reading data.", reader.read)
            self.assertEqual(reader.info().records, 2)

    def test_closed_file_is_told(self):
        self.make(b"one")
        writer, reader = tmf.Writer(self.path), tmf.Reader(self.path)
        for user in (writer, reader):
            self.assertFalse(user.closed)
            user.close()
            user.close()
            self.assertTrue(user.closed)
        for call in (
            lambda: writer.write(b"two"),
            writer.info,
            writer.__enter__,
            reader.read,
            lambda: next(iter(reader)),
        ):
            with self.assertRaisesRegex(ValueError, "the message file is closed"):
                call()

    def test_forked_process_does_not_close_the_file_of_the_other(self):
        self.make(b"one", b"two")
        program = self.program(
            "with tmf.Reader(path, exclusive=True) as reader:\n"
            "    left = tmf.Reader(path + '.left', create=True)\n"
            "    records = reader.records(remove='after')\n"
            "    print(next(records))\n"
            "    sys.stdout.flush()\n"
            "    parent = os.getpid()\n"
            "    if os.fork() == 0:\n"
            "        for call in (reader.info, reader.read, lambda: next(records)):\n"
            "            try:\n"
            "                call()\n"
            "            except ValueError as error:\n"
            "                print(str(error) == '%s: process %d has opened the message file' % (path, parent))\n"
            "        sys.exit()\n"  # by way of the with block and of all objects
            "    print(os.wait()[1])\n"
            "    print(reader.info().readers, left.info().readers)\n"
            "    print(next(records))"
        )
        out, err = program.communicate()
        self.assertEqual(
            (out.decode().split("\n"), err),
            (["b'one'", "True", "True", "True", "0", "1 1", "b'two'", ""], b""),
        )
        with tmf.Reader(self.path) as reader:
            self.assertEqual(list(reader), [b"two"])

    def test_name_with_a_nul_byte_is_refused(self):
        for call in (tmf.Writer, tmf.check, lambda path: tmf.Reader(path, create=True)):
            for path in (self.path + "\0x", os.fsencode(self.path) + b"\0x"):
                with self.assertRaisesRegex(ValueError, "a file name has no NUL byte"):
                    call(path)
        self.assertEqual(os.listdir(self.folder), [])

    def test_registration_goes_with_the_object_and_with_a_failure(self):
        writer = tmf.Writer(self.path)
        del writer
        with self.assertRaises(RuntimeError):
            with tmf.Reader(self.path):
                raise RuntimeError
        with tmf.Writer(self.path) as writer:
            self.assertEqual(writer.info()[1:3], (0, 1))


class Checking(Messages):
    def test_sound_and_damaged_files(self):
        self.make(b"one", b"two")
        sound = tmf.check(self.path)
        self.assertEqual(
            sound,
            tmf.Check(
                damage=(), records=2, counted=2, uncounted=0, readers=0, writers=0, size=4372,
                first=4352, end=4370, sound=4370, other_order=False,
            ),
        )
        with open(self.path, "r+b") as file:
            file.truncate(4365)
        cut = tmf.check(self.path)
        self.assertEqual(
            cut.damage, ("it ends before its records do", "the number of records is wrong")
        )
        self.assertEqual((cut.records, cut.sound), (1, 4361))

    def test_file_that_is_none(self):
        self.assert_error(
            tmf.Code.EOPEN, "Error opening file: No such file or directory", tmf.check, self.path
        )


if __name__ == "__main__":
    unittest.main()

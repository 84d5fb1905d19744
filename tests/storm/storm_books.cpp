// Where each record of the log has come to.
#include "tests/storm/storm_books.h"

#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <filesystem>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

static const std::string bin = KESTRO_BUILD_DIR "/bin/";
constexpr size_t MOST_FAULTS = 20;

static void fault(storm_books &books, const std::string &text)
{
    if (books.faults.size() < MOST_FAULTS)
        books.faults.push_back(text);
}

static run_result run_there(const storm_books &books, const std::vector<std::string> &argv,
                            const std::string &input = "")
{
    run_setup options;
    options.directory = books.disk.path();
    options.input = input;
    options.env["TZ"] = "UTC";
    return run_program(argv, options);
}

// ---- changes as JSON

// The lines that are whole, each a change; lines with layouts alone are none.
static std::vector<storm_change> changes_in(const std::string &text)
{
    static const std::string number = "\"record\":";
    std::vector<storm_change> changes;
    std::istringstream lines(text.substr(0, text.rfind('\n') + 1));
    for (std::string line; std::getline(lines, line);) {
        const size_t source = line.find(",\"source\":");
        const size_t at = line.find(number, source);
        if (line.starts_with("{\"op\":") && at != std::string::npos)
            changes.push_back({atoi(line.c_str() + at + number.size()), line.substr(0, source)});
    }
    return changes;
}

static std::vector<std::string> capread_words(bool text)
{
    std::vector<std::string> argv = {bin + "capread", "--layout", "layouts.json",
                                     "-exthdr",       "-yyyy",    "-recnum"};
    if (text)
        argv.emplace_back("-ascii");
    return argv;
}

static run_result read_capture(const storm_books &books, const std::string &file, bool text)
{
    std::vector<std::string> argv = capread_words(text);
    argv.push_back(file);
    return run_there(books, argv);
}

// ---- the log

void books_read_log(storm_books &books)
{
    const run_result dump =
        run_there(books, {bin + "fwlog", "dump", "-cfg", "archive.cfg", "--json"});
    if (dump.status != 0)
        fault(books, "fwlog dump: " + dump.err);
    books.log = changes_in(dump.out);
    for (size_t i = 0; i < books.log.size(); i++)
        if (books.log[i].number != static_cast<int>(i) + 1) {
            fault(books, "the log: in place " + std::to_string(i + 1) + " stands record " +
                             std::to_string(books.log[i].number));
            books.log.resize(i);
        }
    books.counts["records in the log"] = static_cast<long>(books.log.size());
}

// ---- sequences

// A sequence of changes as it is gone through.
struct passage {
    std::string name;
    size_t newest = 0;
    long repeated = 0;
};

static bool is_of_the_log(const storm_books &books, const storm_change &change)
{
    return change.number >= 1 && static_cast<size_t>(change.number) <= books.log.size() &&
           books.log[static_cast<size_t>(change.number) - 1].values == change.values;
}

// The next one, or once more the newest one.
static void pass(storm_books &books, passage &at, const storm_change &change)
{
    const auto number = static_cast<size_t>(change.number);
    if (!is_of_the_log(books, change))
        fault(books, at.name + ": record " + std::to_string(number) +
                         " is not as in the log: " + change.values);
    else if (number == at.newest && number != 0)
        at.repeated++;
    else if (number == at.newest + 1)
        at.newest++;
    else {
        fault(books, at.name + ": behind record " + std::to_string(at.newest) + " stands " +
                         std::to_string(number));
        at.newest = number;
    }
}

static void arrive(storm_books &books, const passage &at, long most_repeated)
{
    if (at.newest != books.log.size())
        fault(books, at.name + ": ends with record " + std::to_string(at.newest) + " of " +
                         std::to_string(books.log.size()));
    if (at.repeated > most_repeated)
        fault(books, at.name + ": " + std::to_string(at.repeated) + " records twice, where " +
                         std::to_string(most_repeated) + " runs were cut off");
    books.counts[at.name] = static_cast<long>(at.newest);
    books.counts[at.name + ", twice"] = at.repeated;
}

// Runs of an actor that did not end by being asked to.
static long cut_off(storm_books &books, const std::string &name)
{
    long n = 0;
    for (const auto &[status, times] : books.scene.actor(name).endings)
        n += status != 0 && status != 128 + SIGTERM ? times : 0;
    return n;
}

// ---- capture files

// A file whose first bytes found no room stays, without any, and is passed over by the next start.
static std::vector<std::string> kept_files(storm_books &books)
{
    std::vector<std::string> files;
    std::string file = "kept.msg";
    books.counts["message files, left empty"] = 0;
    for (int i = 1; fs::exists(books.disk.file(file));
         file = "kept" + std::to_string(i++) + ".msg") {
        if (fs::file_size(books.disk.file(file)) != 0)
            files.push_back(file);
        else
            books.counts["message files, left empty"]++;
    }
    books.counts["message files"] = static_cast<long>(files.size());
    return files;
}

static std::vector<std::string> line_files(const storm_books &books)
{
    std::vector<std::string> files;
    for (int i = 1; fs::exists(books.disk.file("lines.txt." + std::to_string(i))); i++)
        files.push_back("lines.txt." + std::to_string(i));
    files.emplace_back("lines.txt");
    return files;
}

void books_check_captures(storm_books &books)
{
    passage kept{"message captures"};
    for (const std::string &file : kept_files(books)) {
        const run_result read = read_capture(books, file, false);
        if (read.status != 0)
            fault(books, file + ": " + read.err);
        for (const storm_change &change : changes_in(read.out))
            pass(books, kept, change);
    }
    arrive(books, kept, cut_off(books, "kept"));

    passage lines{"text captures"};
    for (const std::string &file : line_files(books)) {
        const run_result read = read_capture(books, file, true);
        // A file that was moved away keeps the line in which its run was killed; it comes again
        // behind it.
        const bool torn = read.err.find("the file ends within the line") != std::string::npos;
        if (read.status != 0 && !(torn && file != "lines.txt"))
            fault(books, file + ": " + read.err);
        for (const storm_change &change : changes_in(read.out))
            pass(books, lines, change);
        books.counts["text files"]++;
        books.counts["text files, torn"] += torn ? 1 : 0;
    }
    arrive(books, lines, cut_off(books, "lines"));
}

// ---- what was taken, and what was followed

// The whole records of a framed stream.
static std::vector<std::string> framed_records(const std::string &stream)
{
    std::vector<std::string> records;
    size_t at = 0;
    while (at + 4 <= stream.size()) {
        size_t length = 0;
        for (size_t i = 0; i < 4; i++)
            length = length << 8 | static_cast<unsigned char>(stream[at + i]);
        if (at + 4 + length > stream.size())
            break;
        records.push_back(stream.substr(at + 4, length));
        at += 4 + length;
    }
    return records;
}

// Raw records become a message file again, and that JSON.
static std::vector<storm_change> framed_changes(const storm_books &books, const std::string &stream)
{
    std::string whole;
    for (const std::string &record : framed_records(stream)) {
        for (int shift = 24; shift >= 0; shift -= 8)
            whole += static_cast<char>(record.size() >> shift);
        whole += record;
    }
    fs::remove(books.disk.file("taken.msg"));
    run_there(books, {bin + "tmf", "write", "--framed", "taken.msg"}, whole);
    return changes_in(read_capture(books, "taken.msg", false).out);
}

void books_check_taken(storm_books &books)
{
    const storm_actor &taker = books.scene.actor("taker");
    passage taken{"taken from the queue"};
    for (int run = 1; run <= taker.runs; run++) {
        const std::string out = read_file(taker.output(run) + ".out");
        for (const storm_change &change :
             run % 2 == 0 ? changes_in(out) : framed_changes(books, out))
            pass(books, taken, change);
    }
    arrive(books, taken, cut_off(books, "queue") + cut_off(books, "taker"));
}

// Of a program that begins anew behind a kill: at_state, where its state says, so that nothing is
// left out; else with the file that it finds.
static void check_follower(storm_books &books, const std::string &name, bool at_state, long twice)
{
    const storm_actor &actor = books.scene.actor(name);
    passage at{name};
    size_t farthest = 0;
    long again = 0;
    for (int run = 1; run <= actor.runs; run++) {
        const std::string told = read_file(actor.output(run) + ".err");
        const bool shorter = told.find("it has become shorter") != std::string::npos;
        bool first = true;
        for (const storm_change &change : changes_in(read_file(actor.output(run) + ".out"))) {
            const auto number = static_cast<size_t>(change.number);
            const bool back = first || (shorter && number < at.newest);
            if (back && number <= (at_state ? farthest + 1 : books.log.size()) && number >= 1)
                at.newest = number - 1;
            first = false;
            again += number <= farthest ? 1 : 0;
            pass(books, at, change);
            farthest = std::max(farthest, at.newest);
        }
    }
    books.counts[name + ", again behind a start"] = again;
    arrive(books, at, twice);
}

void books_check_followers(storm_books &books)
{
    const long lines = cut_off(books, "lines");
    // It meets the same repeated record with each of its runs.
    check_follower(books, "follower", false, lines * books.scene.actor("follower").runs);
    check_follower(books, "tail", true, 0);
}

// ---- message files

void books_check_mail(storm_books &books, uint32_t in_hand)
{
    const shared_board board(books.scene.board);
    uint32_t missing = 0;
    for (uint32_t writer = 0; writer < books.scene.mail_writers; writer++) {
        const uint32_t acknowledged = board->writers[writer].acknowledged;
        const uint32_t tried = board->writers[writer].tried;
        for (uint32_t sequence = 1; sequence <= tried; sequence++) {
            const int times = board->deliveries[writer][sequence];
            const std::string which =
                "mail: record " + std::to_string(sequence) + " of writer " + std::to_string(writer);
            if (times > 1)
                fault(books, which + " was taken " + std::to_string(times) + " times");
            if (times == 0 && sequence <= acknowledged)
                missing++;
        }
        books.counts["mail acknowledged"] += acknowledged;
    }
    books.counts["mail in the hand of a killed reader"] = missing;
    if (missing > in_hand)
        fault(books, "mail: " + std::to_string(missing) + " records are missing, and " +
                         std::to_string(in_hand) + " readers were killed");
    if (board->faults != 0)
        fault(books, "mail: readers found what is told in reader*.err");
}

void books_check_post(storm_books &books)
{
    const storm_actor &postman = books.scene.actor("postman");
    const storm_actor &poster = books.scene.actor("poster");
    std::map<uint32_t, uint32_t> newest; // by writer
    mail last = {0, 0};
    long twice = 0;
    for (int run = 1; run <= postman.runs; run++) {
        bool first = true;
        for (const std::string &data : framed_records(read_file(postman.output(run) + ".out"))) {
            mail m = {};
            if (!parse_mail(data, m)) {
                fault(books, "post: a record of other bytes");
                continue;
            }
            if (first && m.writer == last.writer && m.sequence == last.sequence)
                twice++;
            else if (m.sequence != ++newest[m.writer])
                fault(books, "post: record " + std::to_string(m.sequence) + " of writer " +
                                 std::to_string(m.writer) + " in place " +
                                 std::to_string(newest[m.writer]));
            first = false;
            last = m;
        }
    }
    long taken = 0;
    for (int run = 1; run <= poster.runs; run++) {
        const auto told =
            static_cast<uint32_t>(atoi(read_file(poster.output(run) + ".out").c_str()));
        const uint32_t there = newest[static_cast<uint32_t>(run)];
        taken += there;
        if (there < told)
            fault(books, "post: " + std::to_string(told) + " records written, " +
                             std::to_string(there) + " taken");
    }
    books.counts["post taken"] = taken;
    books.counts["post taken, twice"] = twice;
    if (twice > cut_off(books, "postman"))
        fault(books, "post: " + std::to_string(twice) + " records twice");
}

// ---- transactions

// A position "0/19B2DF0" as a number.
static uint64_t position(const std::string &text)
{
    unsigned high = 0;
    unsigned low = 0;
    return sscanf(text.c_str(), "%X/%X", &high, &low) == 2 ? uint64_t{high} << 32 | low : 0;
}

void books_check_transactions(storm_books &books, const std::vector<std::string> &committed)
{
    const run_result dump = run_there(books, {bin + "fwlog", "dump", "-cfg", "archive.cfg"});
    std::map<int64_t, size_t> place; // of a transaction in the log
    uint64_t newest = 0;
    std::istringstream lines(dump.out);
    for (std::string line; std::getline(lines, line);) {
        const size_t xid = line.find(" xid ");
        const size_t lsn = line.find(" lsn ");
        if (line.find(" commit ") == std::string::npos || lsn == std::string::npos)
            continue;
        const uint64_t at = position(line.substr(lsn + 5));
        if (at <= newest)
            fault(books, "transactions: the position goes back: " + line);
        newest = at;
        if (!place.emplace(strtoll(line.c_str() + xid + 5, nullptr, 10), place.size()).second)
            fault(books, "transactions: twice in the log: " + line);
    }
    std::set<int64_t> wanted;
    for (const std::string &xid : committed)
        wanted.insert(strtoll(xid.c_str(), nullptr, 10));
    for (const int64_t xid : wanted)
        if (!place.contains(xid))
            fault(books, "transactions: committed and not in the log: " + std::to_string(xid));
    for (const auto &[xid, at] : place)
        if (!wanted.contains(xid))
            fault(books, "transactions: in the log and not committed: " + std::to_string(xid));
    books.counts["transactions"] = static_cast<long>(place.size());

    for (const auto &entry : fs::directory_iterator(books.scene.acknowledged)) {
        const std::string told = read_file(entry.path().string());
        size_t before = 0;
        for (size_t i = 0; i + 8 <= told.size(); i += 8) {
            int64_t xid = 0;
            memcpy(&xid, told.data() + i, sizeof xid);
            const auto found = place.find(xid);
            if (found == place.end())
                fault(books, "transactions: acknowledged to client " +
                                 entry.path().filename().string() +
                                 " and not in the log: " + std::to_string(xid));
            else if (i > 0 && found->second <= before)
                fault(books,
                      "transactions: " + std::to_string(xid) + " before one of its client's");
            else
                before = found->second;
            books.counts["transactions acknowledged to clients"]++;
        }
    }
}

// ---- damage

void books_check_files(storm_books &books)
{
    for (const char *config : {"fwutil.cfg", "archive.cfg"}) {
        const run_result verify = run_there(books, {bin + "fwlog", "verify", "-cfg", config});
        if (verify.status != 0)
            fault(books,
                  std::string("fwlog verify -cfg ") + config + ": " + verify.out + verify.err);
    }
    std::vector<std::string> files = kept_files(books);
    for (const char *file : {"queue.msg", "mail.msg", "post.msg"})
        files.emplace_back(file);
    for (const std::string &file : files) {
        const run_result verify = run_there(books, {bin + "tmf", "verify", file});
        if (verify.status != 0)
            fault(books, "tmf verify " + file + ": " + verify.out + verify.err);
    }
}

// A file that is there is somebody's: it is not replaced unless that is asked for.
#include "tools/fwlog/csv_files.h"

#include "changes/value.h"
#include "fwutil/fwu_start.h"
#include "tools/fwlog/dump_value.h"
#include "tools/fwlog/following.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static std::string safe_name(const std::string &name)
{
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string safe;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80 && (isalnum(byte) != 0 || c == '-' || c == '_')) {
            safe.push_back(c);
        } else {
            safe.push_back('%');
            safe.push_back(DIGITS[byte >> 4]);
            safe.push_back(DIGITS[byte & 0x0F]);
        }
    }
    return safe;
}

std::string csv_file_name(const std::string &database, const std::string &dataset, int number)
{
    return safe_name(database) + "." + safe_name(dataset) +
           (number == 1 ? "" : "." + std::to_string(number)) + ".csv";
}

static std::string shown(const fwu_layout &layout)
{
    std::string name;
    dump_name(name, layout.dbname);
    name += ".";
    dump_name(name, layout.dsetname);
    return name;
}

// Empties a file that is nothing but one, which keeps its mode.  What else has the name, a link,
// another name of a file, a pipe, is somebody's: it is taken away, not written to.  A descriptor of
// an empty file, or -1 with errno.
static int replace_file(const char *path)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0 && errno != ENOENT && errno != ELOOP && errno != ENXIO)
        return -1;
    struct stat about = {};
    if (fd >= 0 && fstat(fd, &about) == 0 && S_ISREG(about.st_mode) && about.st_nlink == 1 &&
        ftruncate(fd, 0) == 0)
        return fd;
    if (fd >= 0)
        (void)close(fd); // nothing was written to it
    if (unlink(path) != 0 && errno != ENOENT)
        return -1;
    return open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_EXCL, 0666);
}

static outcome open_file(const csv_files &files, csv_file &file)
{
    const char *const path = file.path.c_str();
    file.fd = files.replace ? replace_file(path)
                            : open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_EXCL, 0666);
    if (file.fd >= 0)
        return {};
    if (errno == EEXIST)
        return outcome_failed("%s: there is such a file; --force replaces it", path);
    return outcome_failed("%s: cannot create the file: %s", path, strerror(errno));
}

static outcome write_failed(const csv_file &file)
{
    return outcome_failed("%s: cannot write: %s; it ends behind a whole transaction; make room, "
                          "and run this again with --force",
                          file.path.c_str(), strerror(errno));
}

// False with errno.
static bool put_bytes(csv_file &file)
{
    for (size_t at = 0; at < file.out.size();) {
        const ssize_t n = write(file.fd, file.out.data() + at, file.out.size() - at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        at += static_cast<size_t>(n);
        file.written += n;
    }
    file.out.clear();
    file.keep = file.whole;
    return true;
}

static outcome write_out(csv_file &file)
{
    if (file.path.empty())
        return fwlog_write_out(file.out);
    return put_bytes(file) ? outcome() : write_failed(file);
}

static outcome close_file(csv_file &file)
{
    outcome done = write_out(file);
    if (done && file.fd >= 0) {
        const int fd = file.fd;
        file.fd = -1;
        if (close(fd) != 0)
            done = write_failed(file);
    }
    return done;
}

static outcome add_line(csv_file &file, const change &next, const change_transaction &transaction)
{
    change_csv_put(file.csv, file.out, next, transaction);
    file.lines++;
    return file.out.size() >= FWLOG_WRITE_AFTER ? write_out(file) : outcome();
}

static bool is_about(const fwu_mark &mark, const csv_files::dataset_name &name)
{
    return mark.dsetname.empty() || (mark.dbname == name.first && mark.dsetname == name.second);
}

// The marks that came before a dataset had a file.
static outcome add_marks(csv_files &files, csv_file &file, const csv_files::dataset_name &name)
{
    outcome done;
    for (csv_mark &kept : files.marks) {
        if (!done || !is_about(kept.mark, name))
            continue;
        change next;
        next.op = kept.op;
        next.position = kept.position;
        next.n = kept.n;
        next.mark = &kept.mark;
        kept.put = true;
        done = add_line(file, next, kept.transaction);
    }
    return done;
}

// A second layout has no place on standard output.
static outcome check_single(const csv_files &files, const change &next)
{
    if (!files.directory.empty() || files.files.empty())
        return {};
    const std::string at = fwu_position_text(next.position);
    const std::string last = fwu_position_text(files.last);
    const fwu_layout &first = files.files.front()->layout;
    const fwu_layout &other = next.dataset->layout;
    const std::string name = shown(other);
    if (other.dbname != first.dbname || other.dsetname != first.dsetname)
        return outcome_failed("%s: changes of a second dataset, %s, begin here; choose one with "
                              "--dset, or give --dir for a file of each",
                              at.c_str(), name.c_str());
    return outcome_failed("%s: %s has another layout from here on; give --dir for a file of each "
                          "layout, or --to %s and, for the rest, --after %s",
                          at.c_str(), name.c_str(), last.c_str(), last.c_str());
}

// Begins the file of a dataset's layout.
static outcome begin_file(csv_files &files, csv_file *&file, change_csv &&csv, const change &next)
{
    if (outcome done = check_single(files, next); !done)
        return done;
    const fwu_layout &layout = next.dataset->layout;
    const csv_files::dataset_name name = {layout.dbname, layout.dsetname};
    if (file != nullptr)
        files.over.push_back(file);
    auto begun = std::make_unique<csv_file>();
    const int number = ++files.layouts[name];
    if (!files.directory.empty()) {
        begun->path = files.directory + "/" + csv_file_name(layout.dbname, layout.dsetname, number);
        if (outcome done = open_file(files, *begun); !done)
            return done;
    }
    begun->layout = layout;
    begun->csv = std::move(csv);
    begun->out = begun->csv.header;
    begun->whole = static_cast<int64_t>(begun->out.size());
    file = begun.get();
    files.files.push_back(std::move(begun));
    return number == 1 ? add_marks(files, *file, name) : outcome();
}

// The file of a change's dataset in its layout.  Another byte order, or other types of the
// source's columns, change nothing about a file.
static outcome find_file(csv_files &files, csv_file *&file, const change &next)
{
    const change_dataset &dataset = *next.dataset;
    const csv_files::dataset_name name = {dataset.layout.dbname, dataset.layout.dsetname};
    const auto present = files.present.find(name);
    file = present == files.present.end() ? nullptr : present->second;
    if (file != nullptr && file->csv.dataset == &dataset)
        return {};
    change_csv csv;
    if (outcome done = change_csv_make(csv, dataset, files.options); !done)
        return std::move(done).at("--columns: ");
    if (file != nullptr && file->csv.header == csv.header &&
        file->layout.items == dataset.layout.items) {
        file->csv = std::move(csv);
        return {};
    }
    outcome done = begin_file(files, file, std::move(csv), next);
    if (done)
        files.present[name] = file;
    return done;
}

// A mark of a dataset that has no layout here: it goes to the file that there is of the dataset,
// one of all datasets to every file; files that begin later get it then.
static outcome put_mark(csv_files &files, const change &next, const change_transaction &transaction)
{
    csv_mark kept = {.mark = *next.mark,
                     .op = next.op,
                     .position = next.position,
                     .n = next.n,
                     .transaction = transaction};
    outcome done;
    for (const auto &[name, file] : files.present) {
        if (!done || !is_about(kept.mark, name))
            continue;
        kept.put = true;
        done = add_line(*file, next, transaction);
    }
    if (!kept.put || kept.mark.dsetname.empty())
        files.marks.push_back(std::move(kept));
    return done;
}

outcome csv_files_put(csv_files &files, const change &next, const change_transaction &transaction)
{
    outcome done;
    if (next.dataset == nullptr) {
        done = put_mark(files, next, transaction);
    } else {
        csv_file *file = nullptr;
        done = find_file(files, file, next);
        if (done)
            done = add_line(*file, next, transaction);
    }
    if (done)
        files.last = next.position;
    return done;
}

static void end_whole(csv_file &file)
{
    file.whole = file.written + static_cast<int64_t>(file.out.size());
}

outcome csv_files_commit(csv_files &files)
{
    for (const auto &[name, file] : files.present)
        end_whole(*file);
    outcome done;
    for (csv_file *const file : files.over) {
        end_whole(*file);
        if (done)
            done = close_file(*file);
    }
    files.over.clear();
    return done;
}

outcome csv_files_finish(csv_files &files)
{
    outcome done = csv_files_commit(files);
    for (const auto &file : files.files) {
        if (done)
            done = close_file(*file);
        if (done && !file->path.empty())
            printf("%s: %llu changes\n", file->path.c_str(),
                   static_cast<unsigned long long>(file->lines));
    }
    for (const csv_mark &kept : files.marks) {
        if (!done || kept.put)
            continue;
        std::string about = "any dataset";
        if (!kept.mark.dsetname.empty())
            about = shown({kept.mark.dbname, kept.mark.dsetname, {}});
        tell(kept.op == CHANGE_GAP
                 ? "%s: a gap stands in no file, since there is no change of %s"
                 : "%s: a truncate stands in no file, since there is no change of %s",
             fwu_position_text(kept.position).c_str(), about.c_str());
    }
    return done;
}

void csv_files_give_up(csv_files &files)
{
    for (const auto &file : files.files) {
        if (file->path.empty() && !file->out.empty())
            (void)fwlog_write_out(file->out); // a failure before it was told
        if (file->fd < 0)
            continue;
        file->out.resize(static_cast<size_t>(std::max<int64_t>(file->whole - file->written, 0)));
        (void)put_bytes(*file); // the same
        if (ftruncate(file->fd, file->keep) != 0)
            tell("%s: cannot cut back to whole transactions: %s", file->path.c_str(),
                 strerror(errno));
        (void)close(file->fd);
        file->fd = -1;
    }
}

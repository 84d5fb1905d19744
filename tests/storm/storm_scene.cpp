// The programs of a storm, and how each is called.
#include "tests/storm/storm_scene.h"

#include "tests/support/run.h"

#include <filesystem>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace fs = std::filesystem;

static const std::string bin = KESTRO_BUILD_DIR "/bin/";
constexpr uint64_t DISK_SIZE = 4ULL << 30; // as if it had no end: what is not used costs nothing

// ---- the disk

storm_disk::storm_disk(std::string path) : path_(std::move(path))
{
    fs::create_directory(path_);
    static const bool isolated = unshare(CLONE_NEWNS) == 0 &&
                                 mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    const std::string options = "mode=755,size=" + std::to_string(DISK_SIZE);
    mounted_ = isolated && mount("storm", path_.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

storm_disk::~storm_disk()
{
    if (mounted_)
        umount2(path_.c_str(), MNT_DETACH);
}

void storm_disk::starve(uint64_t left) const
{
    struct statvfs about = {};
    if (!mounted_ || statvfs(path_.c_str(), &about) != 0)
        return;
    const uint64_t used = (about.f_blocks - about.f_bfree) * about.f_frsize;
    const std::string options = "size=" + std::to_string(used + left);
    // Refused when more was taken since: then it is not starved this time.
    (void)mount("storm", path_.c_str(), "tmpfs", MS_REMOUNT, options.c_str());
}

void storm_disk::feed() const
{
    const std::string options = "size=" + std::to_string(DISK_SIZE);
    if (mounted_ && mount("storm", path_.c_str(), "tmpfs", MS_REMOUNT, options.c_str()) != 0)
        throw std::runtime_error("the disk stays full");
}

// ---- the programs

storm_actor &storm_scene::actor(const std::string &name)
{
    for (storm_actor &one : actors)
        if (one.name == name)
            return one;
    throw std::runtime_error("no actor " + name);
}

using words = std::vector<std::string>;

static words operator+(words left, const words &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

void storm_set(storm_scene &scene, const storm_disk &disk, const std::string &beside,
               const storm_server &server, const std::string &tables)
{
    write_file(disk.file("fwutil.cfg"), "log-directory log\nbyte-order little\nlog-file-size 256K\n"
                                        "log-keep 1M\n" +
                                            tables);
    write_file(disk.file("archive.cfg"), "log-directory archive\nbyte-order little\n" + tables);
    for (const std::string &folder : {disk.file("archive"), disk.file("out"), beside + "/out"})
        fs::create_directory(folder);
    scene.board = beside + "/board";
    scene.acknowledged = beside + "/acknowledged";
    fs::create_directory(scene.acknowledged);

    const std::string worker = bin + "storm_worker";
    const words header = {"-exthdr", "-yyyy", "-recnum"};
    const auto add = [&](const std::string &name, std::function<words(int)> argv,
                         std::map<std::string, std::string> env = {}) {
        scene.actors.emplace_back();
        storm_actor &one = scene.actors.back();
        one.name = name;
        one.argv = std::move(argv);
        one.options.directory = disk.path();
        one.options.env = std::move(env);
        one.options.env["TZ"] = "UTC";
        // What takes records out of a file is to meet a full disk; what the others say is to be
        // read behind it.
        const bool takes =
            name == "taker" || name == "follower" || name == "tail" || name == "postman";
        one.outputs = takes ? disk.file("out") : beside + "/out";
    };
    const auto add_fixed = [&](const std::string &name, const words &argv,
                               std::map<std::string, std::string> env = {}) {
        add(
            name, [argv](int) { return argv; }, std::move(env));
    };

    add_fixed("bridge", {bin + "fwlog", "postgresql", "--conninfo", server.bridge, "--slot",
                         server.slot, "--publication", server.slot, "--timeout", "2"});
    add_fixed("kept",
              words{bin + "Kestro", "-stat", "kept.status"} + header +
                  words{"-rollover", "kept.msg"},
              {{"KESTRO_MAXCAP", "400000"}, {"KESTRO_SYNC", "interval 300"}});
    add_fixed("queue", words{bin + "Kestro", "-stat", "queue.status"} + header + words{"queue.msg"},
              {{"KESTRO_SYNC", "interval 300"}});
    add_fixed("lines",
              words{bin + "Kestro", "-stat", "lines.status", "-ascii"} + header +
                  words{"lines.txt"},
              {{"KESTRO_TEXT", "append"}, {"KESTRO_SYNC", "interval 300"}});
    // Turn about, so that both programs meet what the other one left.
    const words taking = words{bin + "capread", "--layout", "layouts.json"} + header +
                         words{"--remove", "--follow", "queue.msg"};
    add("taker", [taking](int run) {
        return run % 2 == 0 ? taking
                            : words{bin + "tmf", "read", "--framed", "--follow", "queue.msg"};
    });
    add_fixed("follower", words{bin + "capread", "--layout", "layouts.json", "-ascii"} + header +
                              words{"--follow", "lines.txt"});
    add_fixed("tail", {bin + "fwlog", "tail", "-f", "--json", "--state", "tail.state"});

    for (int i = 0; i < STORM_READERS; i++)
        add_fixed("reader" + std::to_string(i),
                  {worker, "read", "mail.msg", scene.board, std::to_string(i)});
    for (int i = 0; i < STORM_MAILERS; i++)
        add("mailer" + std::to_string(i), [&scene, worker](int) {
            return words{worker, "write", "mail.msg", scene.board,
                         std::to_string(scene.mail_writers++)};
        });
    add_fixed("postman", {bin + "tmf", "read", "--framed", "--follow", "post.msg"});
    // Its number is that of its run, which is that of its output.
    add("poster", [worker](int run) {
        return words{worker, "emit", "post.msg", bin + "tmf", std::to_string(run)};
    });
    for (int i = 0; i < STORM_CLIENTS; i++)
        add("client" + std::to_string(i), [&scene, worker, server](int) {
            const std::string number = std::to_string(++scene.clients);
            return words{
                worker,         "client",
                server.clients, scene.acknowledged + "/" + number,
                number,         std::to_string(server.seed + static_cast<unsigned>(scene.clients))};
        });
}

// ---- its files

static bool has_open(pid_t pid, const std::string &file)
{
    struct stat wanted = {};
    if (pid <= 0 || stat(file.c_str(), &wanted) != 0)
        return false;
    std::error_code gone;
    for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone)) {
        struct stat about = {};
        if (stat(entry.path().c_str(), &about) == 0 && about.st_ino == wanted.st_ino &&
            about.st_dev == wanted.st_dev)
            return true;
    }
    return false;
}

bool storm_rotate(storm_scene &scene, const storm_disk &disk)
{
    const std::string file = disk.file("lines.txt");
    storm_actor &writer = scene.actor("lines");
    // A follower that has not come to this file yet would never see it.
    if (!has_open(scene.actor("follower").process.pid, file) || !has_open(writer.process.pid, file))
        return false;
    int number = 1;
    while (fs::exists(file + "." + std::to_string(number)))
        number++;
    fs::rename(file, file + "." + std::to_string(number));
    writer.process.signal(SIGHUP);
    return true;
}

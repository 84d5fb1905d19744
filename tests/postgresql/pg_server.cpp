// The temporary server: initdb and postgres as child processes of this one, under
// another user where this one is root.
#include "tests/postgresql/pg_server.h"

#include "tests/postgresql/pg_client.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <libpq-fe.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// Settings of every server: small, quick, and ready for logical replication.  Nothing
// here survives the machine, so nothing is brought to disk.
static const char usual_settings[] = "listen_addresses = ''\n"
                                     "fsync = off\n"
                                     "shared_buffers = 16MB\n"
                                     "max_wal_size = 512MB\n"
                                     "autovacuum = off\n"
                                     "jit = off\n"
                                     "wal_level = logical\n"
                                     "max_wal_senders = 8\n"
                                     "max_replication_slots = 16\n"
                                     "wal_sender_timeout = 5s\n"
                                     "timezone = 'UTC'\n"
                                     "datestyle = 'ISO, MDY'\n";

// Debian's newest server, or that of pg_config.
static std::string installed_programs()
{
    int newest = 0;
    std::error_code ignored; // no such directory: no version
    for (const auto &entry : std::filesystem::directory_iterator("/usr/lib/postgresql", ignored)) {
        const int version = atoi(entry.path().filename().c_str());
        if (version > newest && access((entry.path() / "bin/initdb").c_str(), X_OK) == 0)
            newest = version;
    }
    if (newest != 0)
        return "/usr/lib/postgresql/" + std::to_string(newest) + "/bin";
    const run_result config = run_program({"pg_config", "--bindir"});
    const std::string path = config.out.substr(0, config.out.find('\n'));
    return config.status == 0 && access((path + "/initdb").c_str(), X_OK) == 0 ? path : "";
}

// Empty when nobody has chosen a server.
static std::string chosen_programs()
{
    const char *const chosen = getenv("KESTRO_POSTGRESQL");
    return chosen != nullptr ? chosen : "";
}

std::string pg_server::programs()
{
    const std::string chosen = chosen_programs();
    return chosen.empty() ? installed_programs() : chosen;
}

std::string pg_server::client_program(const std::string &name)
{
    const std::string path = installed_programs() + "/" + name;
    return access(path.c_str(), X_OK) == 0 ? path : "";
}

// The user that root gives the server to; null when this process is not root.
static const passwd *server_user()
{
    if (geteuid() != 0)
        return nullptr;
    const passwd *user = getpwnam("postgres");
    return user != nullptr ? user : getpwnam("nobody");
}

// Starts a program of the server, its output behind the log's.  It ends with this process.
static pid_t start_as_server(const std::vector<std::string> &argv, const std::string &log)
{
    std::vector<char *> words;
    words.reserve(argv.size() + 1);
    for (const std::string &word : argv)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    const passwd *user = server_user();

    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    const int in = open("/dev/null", O_RDONLY);
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0)
        _exit(126);
    if (user != nullptr &&
        (setgid(user->pw_gid) != 0 || initgroups(user->pw_name, user->pw_gid) != 0 ||
         setuid(user->pw_uid) != 0))
        _exit(126);
    // Behind the change of user, which takes this setting away.
    if (prctl(PR_SET_PDEATHSIG, SIGQUIT) != 0 || chdir("/") != 0)
        _exit(126);
    execv(words[0], words.data());
    _exit(127);
}

int pg_server::free_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw std::runtime_error("no port of 127.0.0.1");
    close(fd);
    return ntohs(address.sin_port);
}

std::string pg_server::missing()
{
    const std::string bin = programs();
    if (bin.empty())
        return "no PostgreSQL server here (Debian package postgresql-15)";
    if (geteuid() == 0 && server_user() == nullptr)
        return "no user postgres or nobody to run a PostgreSQL server";
    if (!chosen_programs().empty())
        return ""; // must run
    const int status = wait_program(start_as_server({bin + "/postgres", "--version"}, "/dev/null"));
    return status == 0 ? "" : bin + "/postgres cannot be run";
}

// Not below TMPDIR: the path of a socket has 107 characters at most, and the
// server's user has to get there.
static std::string make_directory()
{
    char name[] = "/tmp/kestro-pg-XXXXXX";
    if (mkdtemp(name) == nullptr)
        throw std::runtime_error("mkdtemp failed: " + std::string(name));
    if (const passwd *user = server_user())
        if (chown(name, user->pw_uid, user->pw_gid) != 0)
            throw std::runtime_error("chown failed: " + std::string(name));
    return name;
}

constexpr int SOCKET_PORT = 5432; // which no other server has in this directory

pg_server::pg_server(const std::vector<std::string> &settings, int tcp_port)
    : directory(make_directory()), port(tcp_port)
{
    const int status = wait_program(
        start_as_server({programs() + "/initdb", "-D", directory + "/data", "-U", "postgres", "-A",
                         "trust", "-E", "UTF8", "--locale=C.UTF-8", "-N"},
                        directory + "/server.log"));
    std::ofstream conf(directory + "/data/postgresql.conf", std::ios::app);
    conf << usual_settings << "unix_socket_directories = '" << directory << "'\n";
    if (port != 0)
        conf << "listen_addresses = '127.0.0.1'\nport = " << port << '\n';
    for (const std::string &line : settings)
        conf << line << '\n';
    conf.close();
    try {
        if (status != 0 || !conf)
            throw std::runtime_error("initdb failed: " + log());
        start();
    } catch (...) {
        std::filesystem::remove_all(directory);
        throw;
    }
}

pg_server::~pg_server()
{
    crash();
    std::error_code ignored; // a leftover directory must not fail the test
    std::filesystem::remove_all(directory, ignored);
}

void pg_server::start()
{
    pid = start_as_server({programs() + "/postgres", "-D", directory + "/data"},
                          directory + "/server.log");
    const auto ended = [this] {
        int status = 0;
        return waitpid(pid, &status, WNOHANG) != 0;
    };
    bool gone = false;
    const bool ready =
        poll_until([&] { return (gone = ended()) || PQping(conninfo().c_str()) == PQPING_OK; });
    if (gone)
        pid = -1;
    if (gone || !ready) {
        crash();
        throw std::runtime_error("the server does not start: " + log());
    }
}

// False when the signal alone did not end it in time.
bool pg_server::end(int signal, int seconds)
{
    if (pid <= 0)
        return true;
    kill(pid, signal);
    int status = 0;
    const bool in_time = poll_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, seconds);
    if (!in_time) {
        kill(pid, SIGQUIT);
        wait_program(pid);
    }
    pid = -1;
    return in_time;
}

void pg_server::stop()
{
    end(SIGINT, 60);
}

bool pg_server::stop_when_unused()
{
    return end(SIGTERM, 30);
}

void pg_server::crash()
{
    end(SIGQUIT, 60);
}

static void copy_directory(const std::string &from, const std::string &to)
{
    std::filesystem::remove_all(to);
    const run_result copied = run_program({"cp", "-a", from, to});
    if (copied.status != 0)
        throw std::runtime_error("cp failed: " + copied.err);
}

void pg_server::save() const
{
    copy_directory(directory + "/data", directory + "/saved");
}

void pg_server::set_back() const
{
    copy_directory(directory + "/saved", directory + "/data");
}

void pg_server::start_standby()
{
    const std::string signal = directory + "/data/standby.signal";
    write_file(signal, "");
    if (const passwd *user = server_user())
        if (chown(signal.c_str(), user->pw_uid, user->pw_gid) != 0)
            throw std::runtime_error("chown failed: " + signal);
    start();
}

void pg_server::promote() const
{
    pg_client(conninfo()).run("SELECT pg_promote()");
}

// WITH (FORCE) is known from version 13 on.
void pg_server::drop_database(const std::string &name) const
{
    pg_client client(conninfo());
    const std::string this_one = "datname = '" + name + "'";
    if (client.value("SELECT count(*) FROM pg_database WHERE " + this_one) == "0")
        return;
    client.run("ALTER DATABASE " + name + " ALLOW_CONNECTIONS false");
    poll_until([&] {
        return client
            .run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE " + this_one)
            .empty();
    });
    client.run("DROP DATABASE " + name);
}

std::string pg_server::conninfo(const std::string &database, const std::string &user) const
{
    return "host=" + directory + " port=" + std::to_string(port != 0 ? port : SOCKET_PORT) +
           " dbname=" + database + " user=" + user;
}

std::string pg_server::socket() const
{
    return directory + "/.s.PGSQL." + std::to_string(port != 0 ? port : SOCKET_PORT);
}

// The postmaster first, so that nobody new comes; its processes are its children.
static void signal_all(pid_t postmaster, int number)
{
    kill(postmaster, number);
    std::error_code ignored; // processes come and go
    for (const auto &entry : std::filesystem::directory_iterator("/proc", ignored)) {
        const int process = atoi(entry.path().filename().c_str());
        if (process <= 0)
            continue;
        std::ifstream file(entry.path() / "stat");
        std::string stat;
        std::getline(file, stat);                // of a process that ends meanwhile: nothing
        const size_t name_end = stat.rfind(')'); // then " STATE PARENT"
        if (name_end != std::string::npos && atoi(stat.c_str() + name_end + 4) == postmaster)
            kill(process, number);
    }
}

void pg_server::freeze() const
{
    signal_all(pid, SIGSTOP);
}

void pg_server::thaw() const
{
    signal_all(pid, SIGCONT);
}

// Of a process that is stopped in a system call, the kernel tells the number of the call.
static bool stands_in_wait(pid_t process)
{
    const std::string proc = "/proc/" + std::to_string(process);
    if (!poll_until(
            [&] { return read_file(proc + "/status").find("(stopped)") != std::string::npos; }))
        return false;
    const std::string call = read_file(proc + "/syscall"); // empty: not to be seen here
    return call.empty() || atol(call.c_str()) == SYS_epoll_wait;
}

void pg_stop_at_rest(pid_t process)
{
    const bool stopped = poll_until([&] {
        kill(process, SIGSTOP);
        if (stands_in_wait(process))
            return true;
        kill(process, SIGCONT);
        return false;
    });
    if (!stopped)
        throw std::runtime_error("process " + std::to_string(process) + " does not come to rest");
}

std::string pg_server::log() const
{
    return read_file(directory + "/server.log");
}

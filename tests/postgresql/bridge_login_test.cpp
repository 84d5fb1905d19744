// "fwlog postgresql" while it logs in to a server that sends a byte now and then, never stops to
// send, says nothing or takes no connection: the attempt has an end, in time and in bytes, a signal
// ends it, other hosts are tried, and what the server says moves no terminal.
#include "tests/postgresql/bridge_fixture.h"

#include <arpa/inet.h>
#include <atomic>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;

// A port of this host on which nobody answers until it is told to.
class login_port {
  public:
    explicit login_port(int backlog = 16, const char *host = "127.0.0.1", int port = 0)
    {
        listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        EXPECT_EQ(inet_pton(AF_INET, host, &address.sin_addr), 1);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), length), 0);
        EXPECT_EQ(listen(listener, backlog), 0);
        EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length), 0);
    }
    ~login_port()
    {
        stopping = true;
        if (thread.joinable())
            thread.join();
        for (const int fd : taken)
            close(fd);
        close(listener);
    }
    login_port(const login_port &) = delete;
    login_port &operator=(const login_port &) = delete;

    std::string number() const
    {
        return std::to_string(ntohs(address.sin_port));
    }
    // Who connects gets the beginning, and then the rest for ever, so many bytes at a time with a
    // pause between.
    void send(const std::string &begin, const std::string &rest, size_t at_a_time, int pause_ms)
    {
        thread = std::thread([this, begin, rest, at_a_time, pause_ms] {
            pollfd wanted = {listener, POLLIN, 0};
            while (!stopping) {
                if (poll(&wanted, 1, 10) != 1)
                    continue;
                const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                serve(fd, begin, rest, at_a_time, pause_ms);
                close(fd);
            }
        });
    }
    // Takes all the connections that the system takes for it: the next one is not answered at all.
    void fill()
    {
        for (int i = 0; i < 8; i++) {
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            (void)connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
            taken.push_back(fd);
        }
    }

  private:
    void serve(int fd, const std::string &begin, const std::string &rest, size_t at_a_time,
               int pause_ms)
    {
        char request[1000];
        (void)recv(fd, request, sizeof request, 0);
        (void)::send(fd, begin.data(), begin.size(), MSG_NOSIGNAL);
        for (size_t at = 0; !stopping;) {
            const size_t n = std::min(at_a_time, rest.size() - at);
            const ssize_t done = ::send(fd, rest.data() + at, n, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (done < 0 && errno != EAGAIN)
                return;
            if (done > 0)
                at = (at + static_cast<size_t>(done)) % rest.size();
            if (pause_ms != 0 || done < 0)
                (void)poll(nullptr, 0, std::max(pause_ms, 1));
        }
    }

    int listener = -1;
    sockaddr_in address = {};
    std::vector<int> taken;
    std::atomic<bool> stopping = false;
    std::thread thread;
};

static std::string message(char kind, const std::string &contents, size_t length = 0)
{
    const size_t n = length != 0 ? length : contents.size() + 4;
    std::string out(1, kind);
    for (int shift = 24; shift >= 0; shift -= 8)
        out += static_cast<char>(n >> shift & 0xFF);
    return out + contents;
}

static const std::string welcome = message('R', "\0\0\0\0"s);
static const std::string evil = "%s%n\x1b]0;title\x07\x1b[2J";

class BridgeLogin : public testing::Test {
  protected:
    void SetUp() override
    {
        write_file(dir.file("fwutil.cfg"), "log-directory log\n");
        std::filesystem::create_directory(dir.file("log"));
        options.directory = dir.path();
        options.unset = {"PGHOST", "PGHOSTADDR", "PGPORT", "PGSERVICE", "PGCONNECT_TIMEOUT"};
    }
    static std::vector<std::string> argv(const std::string &ports, const std::string &more = "")
    {
        std::string hosts = "127.0.0.1";
        for (const char c : ports)
            hosts += c == ',' ? ",127.0.0.1" : "";
        return {KESTRO_BUILD_DIR "/bin/fwlog",
                "postgresql",
                "--create",
                "--timeout",
                "1",
                "--conninfo",
                "host=" + hosts + " port=" + ports +
                    " user=anna dbname=shop sslmode=disable gssencmode=disable " + more};
    }
    static void expect_harmless(const std::string &text)
    {
        for (const char c : text)
            ASSERT_TRUE(static_cast<unsigned char>(c) >= ' ' || c == '\n') << text.substr(0, 400);
    }

    const tempdir dir;
    run_setup options;
};

TEST_F(BridgeLogin, AServerThatNeverStopsToSend)
{
    const struct {
        const char *name;
        std::string begin;
        std::string rest;
    } rows[] = {
        {"settings", welcome, message('S', "name\0"s + std::string(1000, 'x') + "\0"s)},
        {"notices", welcome, message('N', "SNOTICE\0C00000\0M"s + evil + "\0\0"s)},
        {"a notice of 2 GiB", welcome + message('N', "", 0x7FFFFFFF), std::string(60000, 'x')},
        {"an error of 2 GiB", message('E', "", 0x7FFFFFFF), std::string(60000, 'x')},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        login_port port;
        port.send(row.begin, row.rest, row.rest.size(), 0);
        const run_result result = run_program(argv(port.number()), options);
        EXPECT_EQ(result.status, 1) << result.err.substr(0, 400);
        EXPECT_THAT(result.err,
                    testing::StartsWith("fwlog: cannot connect: connection to server at "
                                        "\"127.0.0.1\", port " +
                                        port.number() + " failed: "));
        EXPECT_LT(result.err.size(), 500U);
        expect_harmless(result.err);
    }
}

TEST_F(BridgeLogin, ABoundOfBytes)
{
    login_port port;
    port.send(welcome, message('S', "name\0"s + std::string(1000, 'x') + "\0"s), 100'000, 0);
    const run_result result = run_program(argv(port.number(), "connect_timeout=0"), options);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("failed: the server never stops to send; "));
    // What is long, but has an end, is heard.
    login_port wordy;
    std::string settings;
    for (int i = 0; i < 50; i++)
        settings += message('S', "name\0"s + std::string(1000, 'x') + "\0"s);
    wordy.send(welcome + settings + message('E', "SFATAL\0C28000\0Mno entry\0\0"s), "x", 1, 20);
    EXPECT_THAT(run_program(argv(wordy.number(), "connect_timeout=60"), options).err,
                HasSubstr("FATAL:  no entry; "));
}

// Each byte comes in time; the whole does not.
TEST_F(BridgeLogin, AServerThatSendsAByteNowAndThen)
{
    login_port port;
    port.send(welcome, message('S', "name\0value\0"s), 1, 20);
    const run_result result = run_program(argv(port.number()), options);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("failed: timeout expired; "));
}

TEST_F(BridgeLogin, ATimeThatIsNoNumberIsRefused)
{
    login_port silent;
    for (const std::string value : {"abc", "5x", "", "2147483648", "99999999999999999999"})
        EXPECT_THAT(
            run_program(argv(silent.number(), "connect_timeout='" + value + "'"), options).err,
            testing::StartsWith(
                "fwlog: cannot connect: connection to server at \"127.0.0.1\", port " +
                silent.number() + " failed: invalid integer value \"" + value +
                "\" for connection option \"connect_timeout\"; "))
            << value;
}

// 4,294,968 seconds are 704 ms more than 32 bits hold.
TEST_F(BridgeLogin, ALongTimeIsOne)
{
    login_port port;
    port.send(welcome, message('E', "SFATAL\0C28000\0Mno entry\0\0"s), 1, 40);
    for (const char *value : {"4294968", "2147483647", " 60 "}) {
        const run_result result = run_program(
            argv(port.number(), "connect_timeout='" + std::string(value) + "'"), options);
        EXPECT_THAT(result.err, HasSubstr("FATAL:  no entry; ")) << value;
    }
}

TEST_F(BridgeLogin, NoticesAreNotShown)
{
    login_port port;
    port.send(welcome + message('N', "SNOTICE\0C00000\0M"s + evil + "\0\0"s) +
                  message('E', "SFATAL\0C28000\0M"s + evil + "\0\0"s),
              "x", 1, 20);
    const run_result result = run_program(argv(port.number(), "connect_timeout=60"), options);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, Not(HasSubstr("NOTICE")));
    EXPECT_THAT(result.err, HasSubstr("FATAL:  %s%n\\x1b]0;title\\x07\\x1b[2J"));
    expect_harmless(result.err);
}

TEST_F(BridgeLogin, ASignalEndsTheWait)
{
    login_port silent;
    login_port filled(0);
    filled.fill();
    for (const login_port *port : {&silent, &filled}) {
        const std::vector<std::string> words = argv(port->number(), "connect_timeout=0");
        options.env["PGPASSWORD"] = "S3cr3t";
        background bridge;
        bridge.start(words, options, dir.file("bridge"));
        ASSERT_TRUE(poll_until([&] {
            return read_file(dir.file("log/postgresql.json")).find("\"starting\"") !=
                   std::string::npos;
        })) << bridge.err();
        // What everybody sees of it is the command, and nothing else.
        std::string shown;
        for (const std::string &word : words)
            shown += word + '\0';
        EXPECT_EQ(read_file("/proc/" + std::to_string(bridge.pid) + "/cmdline"), shown);
        EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
        EXPECT_EQ(bridge.err(), "");
        EXPECT_THAT(read_file(dir.file("log/postgresql.json")), HasSubstr("\"stopped\""));
        std::filesystem::remove_all(dir.file("log"));
        std::filesystem::create_directory(dir.file("log"));
    }
}

// All are told when none answers.
TEST_F(BridgeLogin, OfSeveralHostsEachHasItsTime)
{
    login_port silent;
    login_port filled(0);
    filled.fill();
    login_port last;
    last.send(welcome + message('E', "SFATAL\0C28000\0Mno entry\0\0"s), "x", 1, 20);
    const auto failed = [](const login_port &port) {
        return "connection to server at \"127.0.0.1\", port " + port.number() + " failed: ";
    };
    // The system would give the second one up by itself.
    const run_result result =
        run_program(argv(silent.number() + "," + filled.number() + "," + last.number(),
                         "connect_timeout=4 tcp_user_timeout=0"),
                    options);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err,
                testing::StartsWith("fwlog: cannot connect: " + failed(silent) +
                                    "timeout expired " + failed(filled) + "timeout expired " +
                                    failed(last) + "FATAL:  no entry; "));
}

// A name may have an address that leads nowhere, and another one.
TEST_F(BridgeLogin, OfSeveralAddressesEachHasItsTime)
{
    login_port filled(0);
    filled.fill();
    login_port last(16, "127.0.0.2", std::stoi(filled.number()));
    last.send(welcome + message('E', "SFATAL\0C28000\0Mno entry\0\0"s), "x", 1, 20);
    write_file(dir.file("hosts"), "127.0.0.1 db.example\n127.0.0.2 db.example\n");
    const std::string mount = "mount --bind " + dir.file("hosts") + " /etc/hosts && ";
    std::vector<std::string> words = {"unshare", "-m", "sh", "-c",
                                      mount + "getent ahosts db.example"};
    const run_result addresses = run_program(words);
    if (addresses.out.find("127.0.0.1") > addresses.out.find("127.0.0.2"))
        GTEST_SKIP() << "no name of two addresses can be made: " << addresses.err;
    std::vector<std::string> bridge = argv(filled.number(), "connect_timeout=4 tcp_user_timeout=0");
    bridge.back().replace(0, strlen("host=127.0.0.1"), "host=db.example");
    words.back() = mount + "exec \"$@\"";
    words.emplace_back("sh");
    words.insert(words.end(), bridge.begin(), bridge.end());
    const run_result result = run_program(words, options);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(
        result.err,
        testing::StartsWith(
            "fwlog: cannot connect: connection to server at \"db.example\" (127.0.0.1), port " +
            filled.number() +
            " failed: timeout expired connection to server at \"db.example\" (127.0.0.2), port " +
            filled.number() + " failed: FATAL:  no entry; "));
}

class BridgeLoginTest : public LedgerTest {};

// The stream is that of the host that answers.
TEST_F(BridgeLoginTest, AHostThatDoesNotAnswerIsPassedOver)
{
    const login_port silent;
    insert(1);
    const std::string socket = server->socket();
    const std::string directory = socket.substr(0, socket.rfind('/'));
    const std::string number = socket.substr(socket.rfind('.') + 1);
    const run_result result =
        run_bridge({"--conninfo",
                    "host=127.0.0.1," + directory + " port=" + silent.number() + "," + number +
                        " user=postgres dbname=" + database + " sslmode=disable gssencmode=disable",
                    "--timeout", "1", "--create", "--snapshot", "--once"});
    EXPECT_EQ(result.status, 0) << result.err;
    expect_log_equals_tables();
}

// A NATS server of a test's own on the loopback address, with its store in the test's directory:
// started, stopped, killed, set back.
#ifndef TESTS_TOOLS_CAPSHIP_NATS_SERVER_H
#define TESTS_TOOLS_CAPSHIP_NATS_SERVER_H

#include "tests/postgresql/background.h"
#include "tests/support/program.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

class nats_server {
  public:
    explicit nats_server(const std::string &config = "") : settings(config)
    {
        port = free_port();
        start();
    }

    void start()
    {
        write_file(dir.file("nats.conf"), "listen: 127.0.0.1:" + std::to_string(port) +
                                              "\njetstream { store_dir: \"" + dir.file("store") +
                                              "\" }\n" + settings);
        run_setup setup;
        setup.env["PATH"] = std::string(getenv("PATH")) + ":/usr/sbin";
        process.start({"nats-server", "-c", dir.file("nats.conf")}, setup, dir.file("server"));
        if (!poll_until([this] { return answers() || !process.running(); }) || !process.running())
            throw std::runtime_error("no NATS server: " + process.err());
    }
    void stop()
    {
        process.end(SIGTERM);
    }
    void crash()
    {
        process.end(SIGKILL);
    }

    // Keeps a copy of the stopped server's store, and puts it in its place again.
    void save() const
    {
        std::filesystem::remove_all(dir.file("saved"));
        std::filesystem::copy(dir.file("store"), dir.file("saved"),
                              std::filesystem::copy_options::recursive);
    }
    void set_back() const
    {
        std::filesystem::remove_all(dir.file("store"));
        std::filesystem::copy(dir.file("saved"), dir.file("store"),
                              std::filesystem::copy_options::recursive);
    }

    std::string url(const std::string &user = "") const
    {
        return "nats://" + user + "127.0.0.1:" + std::to_string(port);
    }

    // A port of 127.0.0.1 that nobody listens on at this moment.
    static int free_port()
    {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        const bool good = fd >= 0 &&
                          bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                          getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0;
        close(fd);
        if (!good)
            throw std::runtime_error("no free port");
        return ntohs(address.sin_port);
    }

    static bool missing()
    {
        return !program_found("nats-server") && access("/usr/sbin/nats-server", X_OK) != 0;
    }

    tempdir dir;

  private:
    static sockaddr_in loopback(int number)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(number));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }
    bool answers() const
    {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = loopback(port);
        const bool good = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
        close(fd);
        return good;
    }

    std::string settings;
    int port = 0;
    background process;
};

#endif

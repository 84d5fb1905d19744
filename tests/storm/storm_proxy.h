// The network between a bridge and its server: a port of 127.0.0.1 whose connections are passed on
// to the server's socket, slowly, not at all for a while, or until they are reset in the middle of
// a message.
#ifndef TESTS_STORM_STORM_PROXY_H
#define TESTS_STORM_STORM_PROXY_H

#include <atomic>
#include <list>
#include <string>
#include <thread>

class storm_proxy {
  public:
    // socket: of the server.
    explicit storm_proxy(std::string socket);
    ~storm_proxy();
    storm_proxy(const storm_proxy &) = delete;
    storm_proxy &operator=(const storm_proxy &) = delete;

    int port() const
    {
        return port_;
    }
    // So long does each piece wait from now on; 0: as usual.
    void delay(int ms)
    {
        delay_ms_ = ms;
    }
    // Nothing goes through until it is false again; who connects gets no answer.
    void stall(bool still)
    {
        stalled_ = still;
    }
    // Each connection there is gets so many bytes more of what the server says, and then an RST.
    void reset_behind(int bytes)
    {
        reset_behind_ = bytes;
    }
    // Connections that were reset.
    int resets() const
    {
        return resets_;
    }

  private:
    struct pair {
        int client = -1;
        int server = -1;
        long bytes = -1; // that still go to the client before the reset; negative: all
    };

    void serve();
    void take_new();
    static bool pass_on(int from, int to, long *bytes);
    void end(const pair &both, bool reset);

    std::string path_;
    int listener_ = -1;
    int port_ = 0;
    int wake_[2] = {-1, -1};
    std::list<pair> pairs_; // the thread's
    std::atomic<int> delay_ms_{0};
    std::atomic<bool> stalled_{false};
    std::atomic<int> reset_behind_{-1};
    std::atomic<int> resets_{0};
    std::thread thread_; // last: it begins when all else is there
};

#endif

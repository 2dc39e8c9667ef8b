// child.h - real processes for tests: a fork that runs a function, reports bytes and an exit status, and
// never outlives the test. Waiting is bounded, generously, so that a process that hangs fails a test instead
// of stopping all of them.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace trelm::test {

inline constexpr std::chrono::seconds kPatience{120};
// In place of an exit status: of one that did not end, of one in which an expectation failed.
inline constexpr int kHung = -1000;
inline constexpr int kFailed = 99;

inline void nap() {
    const timespec interval{0, 1'000'000};
    nanosleep(&interval, nullptr);
}

// Whether `condition` comes true while one waits.
template <typename Condition>
bool eventually(const Condition& condition) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        nap();
    }
    return true;
}

// A pipe that says something from one process to another.
class Channel {
  public:
    Channel() {
        if (pipe(ends_) != 0) abort();
    }
    ~Channel() {
        close_end(0);
        close_end(1);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    void close_end(int end) {
        if (ends_[end] >= 0) close(std::exchange(ends_[end], -1));
    }
    void send(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t sent = write(ends_[1], bytes.data(), bytes.size());
            if (sent < 0 && errno == EINTR) continue;
            if (sent <= 0) return;
            bytes.remove_prefix(static_cast<size_t>(sent));
        }
    }
    // Bytes up to `size`; fewer when the other end closes or patience ends.
    std::string receive(size_t size) const {
        std::string bytes;
        while (bytes.size() < size) {
            pollfd ready{ends_[0], POLLIN, 0};
            const int polled =
                poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count()));
            if (polled < 0 && errno == EINTR) continue;
            char piece[4096];
            const size_t wanted = std::min(size - bytes.size(), sizeof piece);
            const ssize_t got = polled > 0 ? read(ends_[0], piece, wanted) : 0;
            if (got <= 0) break;
            bytes.append(piece, static_cast<size_t>(got));
        }
        return bytes;
    }

  private:
    int ends_[2];
};

// Where processes wait for each other: opened once, it lets everyone through. Made before the children.
class Gate {
  public:
    void open() { channel_.close_end(1); }
    // In the child. Its own copy of the opening end goes first, or it would keep the gate shut for itself.
    void pass() {
        channel_.close_end(1);
        channel_.receive(1);
    }

  private:
    Channel channel_;
};

class Child {
  public:
    // Runs work(channel) in a new process; what it returns is the exit status, what it sends can be received
    // here.
    template <typename Work>
    explicit Child(const Work& work) : id_(fork()) {
        if (id_ != 0) {
            channel_.close_end(1);
            return;
        }
        channel_.close_end(0);
        const bool failed = ::testing::Test::HasFailure();
        int status = 0;
        if constexpr (std::is_invocable_v<const Work&, Channel&>) {
            status = work(channel_);
        } else {
            status = work();
        }
        fflush(stdout);
        _exit(!failed && ::testing::Test::HasFailure() ? kFailed : status);
    }
    ~Child() {
        if (id_ > 0) kill_and_wait();
    }
    Child(Child&& other) = delete;
    Child& operator=(const Child&) = delete;

    pid_t id() const { return id_; }
    std::string receive(size_t size) const { return channel_.receive(size); }
    std::string receive_all() const { return channel_.receive(SIZE_MAX); }
    // The exit status, or the signal that ended it as a negative number.
    int wait() {
        int status = 0;
        const bool ended = eventually([&] { return waitpid(id_, &status, WNOHANG) == id_; });
        if (!ended) {
            kill_and_wait();
            return kHung;
        }
        id_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    void kill_and_wait() {
        kill(id_, SIGKILL);
        while (waitpid(id_, nullptr, 0) < 0 && errno == EINTR) {
        }
        id_ = -1;
    }
    // Whether it sleeps in the kernel, as one does that waits for a semaphore.
    bool is_asleep() const {
        char path[64];
        snprintf(path, sizeof path, "/proc/%d/stat", id_);
        FILE* file = fopen(path, "re");
        if (!file) return false;
        char state = '?';
        const int read = fscanf(file, "%*d (%*[^)]) %c", &state);
        fclose(file);
        return read == 1 && state == 'S';
    }

  private:
    Channel channel_;
    pid_t id_;
};

// Runs work() in a process of its own and gives its exit status.
template <typename Work>
int in_child(const Work& work) {
    return Child(work).wait();
}

}  // namespace trelm::test

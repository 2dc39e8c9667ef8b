// child.h - child processes for tests: a fork that runs a function, reports by its exit status and in shared
// memory, and never outlives the test. Waits have a generous limit, so a process that hangs fails a test
// instead of blocking all of them.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

namespace trelm::test {

// Waits for `condition`. False if it stays false.
template <typename Condition>
bool eventually(const Condition& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A value in memory that this process shares with the children it creates later.
template <typename Value>
Value& make_common() {
    return *new (mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
        Value{};
}

class Child {
  public:
    // Runs work() in a new process, whose exit status is the result.
    template <typename Work>
    explicit Child(const Work& work) : id_(fork()) {
        if (id_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const bool failed = ::testing::Test::HasFailure();
        const int status = work();
        fflush(stdout);
        _exit(!failed && ::testing::Test::HasFailure() ? 99 : status);
    }
    ~Child() {
        if (id_ > 0) kill_and_wait();
    }
    Child(Child&&) = delete;

    pid_t id() const { return id_; }
    // The exit status, or the negative number of the signal that ended the process. A process that hangs is
    // killed.
    int wait() {
        int status = 0;
        if (!eventually([&] { return waitpid(id_, &status, WNOHANG) == id_; })) {
            kill(id_, SIGKILL);
            waitpid(id_, &status, 0);
        }
        id_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    void kill_and_wait() {
        kill(id_, SIGKILL);
        wait();
    }

  private:
    pid_t id_;
};

// Runs work() in a new process and returns its exit status.
template <typename Work>
int in_child(const Work& work) {
    return Child(work).wait();
}

// Whether a child process can become that user.
inline bool can_be(uid_t user) {
    return in_child([user] { return setuid(user) == 0 ? 0 : 1; }) == 0;
}

}  // namespace trelm::test

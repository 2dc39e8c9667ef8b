// users.h - who may read the metrics. Comparing a password with its bcrypt hash is slow by design, so a
// separate thread does it. A password that was right once is compared with a quick hash from then on.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace trelmctl::metrics {

class Users {
  public:
    using Answer = std::function<void(bool admitted)>;

    explicit Users(std::map<std::string, std::string> hashes);
    ~Users();
    Users(const Users&) = delete;
    Users& operator=(const Users&) = delete;

    bool none() const { return hashes_.empty(); }

    // True if this password was right before. False does not mean that it is wrong.
    bool remembers(const std::string& name, const std::string& password);

    // Calls `answer` on another thread. Returns false, and does not call it, if too many checks are waiting,
    // memory is short or stop() was called.
    bool check(std::string name, std::string password, Answer answer);

    // Answers all waiting checks with a refusal. No check is accepted after that.
    void stop();

  private:
    struct Question {
        std::string name;
        std::string password;
        Answer answer;
    };

    void work();
    bool is_right(const Question& question) const;
    void remember(const Question& question);

    const std::map<std::string, std::string> hashes_;
    std::mutex mutex_;
    std::condition_variable asked_;
    bool ending_ = false;
    std::deque<Question> questions_;
    std::map<std::string, std::string> quick_;  // hashes of passwords that were right
    std::thread thread_;
};

}  // namespace trelmctl::metrics

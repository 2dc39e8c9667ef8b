#include "users.h"

#include <crypt.h>

#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace trelmctl::metrics {
namespace {

constexpr std::size_t kMostWaiting = 64;

// The password of an unknown user is compared with this hash, so that the answer takes as long as for a known
// one.
constexpr const char* kNobody = "$2y$10$QOauhQNbBCuQDKes6eFzPeMqBSjb7Mr5DUmpZ/VcEd00UAV/LDeSi";

std::string hash_of(const std::string& password, const std::string& setting) {
    const auto data = std::make_unique<crypt_data>();
    const char* const hash = crypt_rn(password.c_str(), setting.c_str(), data.get(), sizeof *data);
    return hash ? hash : "";
}

// Takes the same time for any two texts of the same length.
bool same(const std::string& one, const std::string& other) {
    if (one.size() != other.size()) return false;
    unsigned difference = 0;
    for (std::size_t i = 0; i < one.size(); ++i)
        difference |= static_cast<unsigned char>(one[i]) ^ static_cast<unsigned char>(other[i]);
    return difference == 0;
}

bool matches(const std::string& password, const std::string& hash) {
    const std::string computed = hash_of(password, hash);
    return !computed.empty() && same(computed, hash);
}

}  // namespace

Users::Users(std::map<std::string, std::string> hashes) : hashes_(std::move(hashes)) {
    if (!none()) thread_ = std::thread([this] { work(); });
}

Users::~Users() { stop(); }

void Users::stop() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        asked_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
    for (const Question& question : questions_) question.answer(false);
    questions_.clear();
}

bool Users::remembers(const std::string& name, const std::string& password) {
    std::unique_lock lock(mutex_);
    const auto known = quick_.find(name);
    if (known == quick_.end()) return false;
    const std::string hash = known->second;
    lock.unlock();
    return matches(password, hash);
}

bool Users::check(std::string name, std::string password, Answer answer) {
    const std::lock_guard lock(mutex_);
    if (ending_ || questions_.size() >= kMostWaiting) return false;
    try {
        questions_.push_back({std::move(name), std::move(password), std::move(answer)});
    } catch (const std::bad_alloc&) {
        return false;
    }
    asked_.notify_all();
    return true;
}

void Users::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        asked_.wait(lock, [this] { return ending_ || !questions_.empty(); });
        if (ending_) return;
        const Question question = std::move(questions_.front());
        questions_.pop_front();
        lock.unlock();
        const bool right = is_right(question);
        if (right) remember(question);
        question.answer(right);
        lock.lock();
    }
}

bool Users::is_right(const Question& question) const {
    const auto known = hashes_.find(question.name);
    const bool right = matches(question.password, known == hashes_.end() ? kNobody : known->second);
    return right && known != hashes_.end();
}

void Users::remember(const Question& question) {
    constexpr unsigned long kRounds = 1000;  // the minimum
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    if (!crypt_gensalt_rn("$5$", kRounds, nullptr, 0, setting, sizeof setting)) return;
    std::string hash = hash_of(question.password, setting);
    const std::lock_guard lock(mutex_);
    if (!hash.empty()) quick_[question.name] = std::move(hash);
}

}  // namespace trelmctl::metrics

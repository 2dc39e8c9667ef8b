#include "interrupts.h"

#include <cmath>
#include <csignal>
#include <ctime>
#include <initializer_list>

namespace trelmctl {
namespace {

volatile std::sig_atomic_t ended_by_user = 0;

void end(int) { ended_by_user = 1; }
void wake(int) {}

}  // namespace

void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = end;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(signal, &action, nullptr);
}

void wake_on_resize() {
    struct sigaction action {};
    action.sa_handler = wake;
    sigaction(SIGWINCH, &action, nullptr);
}

bool interrupted() { return ended_by_user != 0; }

void wait_for(double seconds) {
    timespec left{};
    left.tv_sec = static_cast<time_t>(seconds);
    left.tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9);
    nanosleep(&left, nullptr);
}

}  // namespace trelmctl

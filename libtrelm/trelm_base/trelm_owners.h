// trelm_owners.h - small owners that make every early return safe. Releasing preserves errno, so a message
// after a failure shows the number of the failing call.
#pragma once

#include <dirent.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace trelm::detail {

class ErrnoKeeper {
  public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

  private:
    int saved_;
};

// Defers cancellation of the thread while the object lives.
class NoCancellation {
  public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~NoCancellation() { pthread_setcancelstate(before_, nullptr); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

  private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

// A value, its release function, and the value that stands for 'none'.
template <class T, T None, void (*Release)(T)>
class Owner {
  public:
    explicit Owner(T value = None) : value_(value) {}
    ~Owner() { reset(); }
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;

    explicit operator bool() const { return value_ != None; }
    T get() const { return value_; }
    T operator->() const { return value_; }
    T let_go() {
        T value = value_;
        value_ = None;
        return value;
    }
    void reset(T value = None) {
        if (value_ != None) {
            ErrnoKeeper keep;
            Release(value_);
        }
        value_ = value;
    }

  private:
    T value_;
};

inline void close_descriptor(int fd) { close(fd); }
inline void close_directory(DIR* directory) { closedir(directory); }
template <class T>
void free_heap(T* memory) {
    free(memory);
}

using Descriptor = Owner<int, -1, close_descriptor>;
using Directory = Owner<DIR*, nullptr, close_directory>;

// Zero-filled memory from the C allocator; none if memory is exhausted.
template <class T>
class Heap : public Owner<T*, nullptr, free_heap<T>> {
  public:
    explicit Heap(size_t count = 1)
        : Owner<T*, nullptr, free_heap<T>>(static_cast<T*>(calloc(count ? count : 1, sizeof(T)))) {}
};

}  // namespace trelm::detail

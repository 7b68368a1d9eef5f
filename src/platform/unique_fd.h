#pragma once

#include <unistd.h>

#include <utility>

// Owns one file descriptor and closes it when it goes; -1 holds nothing.
// Move-only, so exactly one owner can ever close a given descriptor.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        if (this != &other)
            reset(std::exchange(other.fd_, -1));
        return *this;
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }

    // Hands the descriptor to the caller, who closes it from now on.
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }

    // Closes the descriptor held (if any) and takes ownership of fd.
    void reset(int fd = -1) {
        // close() is not retried on EINTR: on Linux the descriptor is gone
        // either way, and a retry could close one another owner just opened.
        if (fd_ >= 0 && fd_ != fd)
            ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

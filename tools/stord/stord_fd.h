#pragma once

#include <unistd.h>

#include <utility>

// Owns one file descriptor and closes it when it goes. -1 holds nothing.
class stord_fd {
  public:
    stord_fd() = default;
    explicit stord_fd(int fd) : fd_(fd) {}
    ~stord_fd() { reset(); }
    stord_fd(stord_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    stord_fd &operator=(stord_fd &&other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    stord_fd(const stord_fd &) = delete;
    stord_fd &operator=(const stord_fd &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // Closes what it held (unless that is fd itself) and takes fd.
    void reset(int fd = -1) {
        if (fd_ >= 0 && fd_ != fd)
            ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

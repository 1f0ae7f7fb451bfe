// The owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    const int saved = errno;
    if (fd_ >= 0) ::close(fd_);
    errno = saved;
  }
  Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }

  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  int close() { return ::close(release()); }  // where the result matters

 private:
  int fd_;
};

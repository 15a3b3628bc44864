// Owner of a file descriptor: closes it when it goes out of scope.
#pragma once

#include <unistd.h>

#include <utility>

class FdOwner {
 public:
  explicit FdOwner(int fd) : fd_(fd) {}
  ~FdOwner() {
    if (fd_ >= 0) close(fd_);
  }
  FdOwner(const FdOwner&) = delete;
  FdOwner& operator=(const FdOwner&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// Collects what the code under test logs, instead of sending it to syslog.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "platform/log.h"

namespace orvo::test {

class LogCapture {
 public:
  LogCapture() {
    SetLogCapture([](const char* message, void* to) { static_cast<std::vector<std::string>*>(to)->push_back(message); },
                  &messages_);
  }
  ~LogCapture() { SetLogCapture(nullptr, nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<std::string>& messages() const { return messages_; }
  bool Contains(const std::string& text) const { return Count(text) > 0; }
  int Count(const std::string& text) const {  // messages containing `text`
    return std::count_if(messages_.begin(), messages_.end(), [&](auto& m) { return m.find(text) != m.npos; });
  }
  void Clear() { messages_.clear(); }

 private:
  std::vector<std::string> messages_;
};

}  // namespace orvo::test

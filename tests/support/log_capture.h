// Collects what the code under test logs, instead of sending it to syslog.
#pragma once

#include <string>
#include <vector>

namespace orvo::test {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<std::string>& messages() const { return messages_; }
  bool Contains(const std::string& text) const { return Count(text) > 0; }
  int Count(const std::string& text) const;  // messages containing `text`
  void Clear() { messages_.clear(); }

 private:
  std::vector<std::string> messages_;
};

}  // namespace orvo::test

#include "support/log_capture.h"

#include "platform/log.h"

namespace orvo::test {

namespace {
void Append(const char* message, void* context) {
  static_cast<std::vector<std::string>*>(context)->push_back(message);
}
}  // namespace

LogCapture::LogCapture() { SetLogCapture(Append, &messages_); }
LogCapture::~LogCapture() { SetLogCapture(nullptr, nullptr); }

int LogCapture::Count(const std::string& text) const {
  int n = 0;
  for (const auto& m : messages_)
    if (m.find(text) != std::string::npos) ++n;
  return n;
}

}  // namespace orvo::test

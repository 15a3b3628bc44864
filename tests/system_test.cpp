#include <sys/wait.h>

#include <csignal>

#include "formats_testutil.h"
#include "platform/system.h"
#include "platform/system_paths.h"

namespace {

using namespace formats_test;

std::string File(const TempDir& dir, const std::string& name, const std::string& content) {
  formats_test::WriteBytes(dir.File(name), content);
  return dir.File(name);
}

// The value, or "<missing>"; checks the terminator and that nothing was written past `size` bytes.
std::string Get(const std::string& file, const char* key, int size = 64) {
  std::string out(size + 8, '\x7f');
  int n = QLIBFileGetKeyValue(file.c_str(), key, out.data(), size, 0);
  EXPECT_EQ(out[size], '\x7f') << "wrote past the buffer";
  if (n < 0) return out[0] == '\x7f' ? "<missing>" : "<missing, buffer touched>";
  EXPECT_EQ(out[n], '\0');
  return out.substr(0, n);
}

TEST(ConfigKeyValue, QuotesCommentsLastWinsAndBounds) {
  TempDir dir;
  const std::string conf =
      "#supportphoto=yes\n   # supportphoto=yes\nxsupportphoto=yes\nsupportphotos=yes\nsupportphoto\n"
      "supportcinedock=yes\n  spaced  =  some value  \r\nquoted=\"yes\"\nhash=\"a#b\"\neq=a=b\n"
      "empty=\nk=first\nlong=\"" + std::string(100, 'v') + "\"\n"
      "junk=" + std::string(20000, 'x') + "k=bad\nk=last";  // an overlong line is skipped, not split
  std::string f = File(dir, "a.conf", conf);
  struct Case { const char* key; int size; std::string expected; } cases[] = {
      {"supportphoto", 64, "<missing>"},  // only in comments, prefixes and a bare word
      {"supportcinedock", 64, "yes"},   {"spaced", 64, "some value"}, {"quoted", 64, "yes"},
      {"hash", 64, "a#b"},              {"eq", 64, "a=b"},            {"empty", 64, ""},
      {"k", 64, "last"},                {"long", 16, std::string(15, 'v')},
      {"long", 1, ""},                  {"nokey", 64, "<missing>"},
  };
  for (const auto& c : cases) EXPECT_EQ(Get(f, c.key, c.size), c.expected) << c.key << " size " << c.size;
  EXPECT_EQ(Get(dir.File("none.conf"), "k"), "<missing>");
}

TEST(PidFile, BlanksAndNewlineAcceptedGarbageRejected) {
  TempDir dir;
  EXPECT_EQ(QLIBReadPidFile(File(dir, "a", "1234").c_str()), 1234);
  EXPECT_EQ(QLIBReadPidFile(File(dir, "b", " 77  \t\n\n").c_str()), 77);
  for (const std::string& bad : std::vector<std::string>{"", " \n", "pid=12\n", "12abc", "-5", "99999999999999999999",
                          "12" + std::string(40, ' ') + "x"})
    EXPECT_LE(QLIBReadPidFile(File(dir, "bad", bad).c_str()), 0) << '"' << bad << '"';
  EXPECT_LE(QLIBReadPidFile(dir.File("missing").c_str()), 0);
  EXPECT_LE(QLIBReadPidFile(dir.File("").c_str()), 0);
}

TEST(FileTests, FollowLinksAndTellFilesFromFolders) {
  TempDir dir;
  std::string file = File(dir, "f", std::string(1234, 'x'));
  fs::create_directory(dir.File("d"));
  fs::create_symlink(file, dir.File("file-link"));
  fs::create_symlink(dir.File("d"), dir.File("dir-link"));
  fs::create_symlink(dir.File("gone"), dir.File("dangling"));
  int64_t size = -1;
  EXPECT_NE(IsFileExist(dir.File("file-link").c_str(), &size), 0);
  EXPECT_EQ(size, 1234);
  size = -1;
  for (const char* no : {"d", "dir-link", "dangling", "missing"})
    EXPECT_EQ(IsFileExist(dir.File(no).c_str(), &size), 0) << no;
  EXPECT_EQ(size, -1) << "size written for what is no file";
  EXPECT_NE(IsDirExist(dir.File("dir-link").c_str()), 0);
  EXPECT_EQ(IsDirExist(file.c_str()), 0);
  ASSERT_EQ(truncate(file.c_str(), (int64_t{5} << 30) + 3), 0);  // sparse
  EXPECT_NE(IsFileExist(file.c_str(), &size), 0);
  EXPECT_EQ(size, (int64_t{5} << 30) + 3) << "size truncated to 32 bits";
}

TEST(ThumbQueue, AppendsOneLineAndSignalsTheLiveServiceOnly) {
  TempDir dir;
  std::string queue = dir.File("queue"), pidFile = dir.File("thumb.pid");
  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), pidFile.c_str(), "/a\n3:/b", 3), -1) << "line injected";
  EXPECT_EQ(QLIBSignalThumbCreateAt((dir.File("") + "no/queue").c_str(), pidFile.c_str(), "/a.jpg", 3), -1);

  // A child that exits 0 once it gets SIGUSR1.
  sigset_t usr1, old;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  sigprocmask(SIG_BLOCK, &usr1, &old);
  pid_t child = fork();
  if (child == 0) {
    struct timespec wait = {20, 0};
    _exit(sigtimedwait(&usr1, nullptr, &wait) == SIGUSR1 ? 0 : 1);
  }
  sigprocmask(SIG_SETMASK, &old, nullptr);
  ASSERT_GT(child, 0);
  File(dir, "thumb.pid", std::to_string(child) + "\n");
  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), pidFile.c_str(), "/volume1/photo/a b.jpg", 3), 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the service was not signalled";
  // The reaped child's pid is stale now: the request is still queued.
  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), pidFile.c_str(), "/volume1/photo/x%_'.png", 1), 0);
  EXPECT_EQ(formats_test::ReadBytes(queue), "3:/volume1/photo/a b.jpg\n1:/volume1/photo/x%_'.png\n");
}

}  // namespace

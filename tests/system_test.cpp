#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/system.h"
#include "platform/system_paths.h"

namespace fs = std::filesystem;

namespace {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "orvo-system-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  std::string File(const std::string& name, const std::string& content) const {
    std::string p = path_ + "/" + name;
    std::ofstream(p, std::ios::binary) << content;
    return p;
  }
  std::string Path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string Get(const std::string& file, const char* key, int size = 64) {
  std::string out(size + 8, '\x7f');
  int n = QLIBFileGetKeyValue(file.c_str(), key, out.data(), size, 0);
  if (n < 0) return "<missing>";
  EXPECT_EQ(out[n], '\0');
  EXPECT_EQ(out[size], '\x7f') << "wrote past the buffer";
  return out.substr(0, n);
}

TEST(ConfigKeyValue, ReadsPlainQuotedAndBlankPaddedValues) {
  TempDir dir;
  std::string f = dir.File("a.conf",
                           "supportcinedock=yes\n"
                           "supportphoto=\"yes\"\n"
                           "  spaced  =  some value  \r\n"
                           "empty=\n"
                           "quoted_empty=\"\"\n"
                           "hash_in_quotes=\"a#b\"\n"
                           "eq=a=b\n");
  EXPECT_EQ(Get(f, "supportcinedock"), "yes");
  EXPECT_EQ(Get(f, "supportphoto"), "yes");
  EXPECT_EQ(Get(f, "spaced"), "some value");
  EXPECT_EQ(Get(f, "empty"), "");
  EXPECT_EQ(Get(f, "quoted_empty"), "");
  EXPECT_EQ(Get(f, "hash_in_quotes"), "a#b");
  EXPECT_EQ(Get(f, "eq"), "a=b");
}

TEST(ConfigKeyValue, CommentsAndPrefixesDoNotMatch) {
  TempDir dir;
  std::string f = dir.File("a.conf",
                           "#supportphoto=yes\n"
                           "   # supportphoto=yes\n"
                           "supportphotos=yes\n"
                           "xsupportphoto=yes\n"
                           "supportphoto\n");
  EXPECT_EQ(Get(f, "supportphoto"), "<missing>");
  EXPECT_EQ(Get(f, "SUPPORTPHOTOS"), "<missing>");
}

TEST(ConfigKeyValue, LastOccurrenceWins) {
  TempDir dir;
  std::string f = dir.File("a.conf", "albumdefpublic=yes\nother=1\nalbumdefpublic=no\n");
  EXPECT_EQ(Get(f, "albumdefpublic"), "no");
  // Also when the last line has no newline.
  f = dir.File("b.conf", "k=first\nk=second");
  EXPECT_EQ(Get(f, "k"), "second");
}

TEST(ConfigKeyValue, LongValueIsTruncatedInsideTheBuffer) {
  TempDir dir;
  std::string f = dir.File("a.conf", "k=\"" + std::string(100, 'v') + "\"\n");
  EXPECT_EQ(Get(f, "k", 16), std::string(15, 'v'));
  EXPECT_EQ(Get(f, "k", 1), "");
}

TEST(ConfigKeyValue, OverlongLineIsSkippedNotSplit) {
  TempDir dir;
  // The tail of a huge line must not be read as a line of its own.
  std::string f = dir.File("a.conf", "junk=" + std::string(20000, 'x') + "k=bad\nk=good\n");
  EXPECT_EQ(Get(f, "k"), "good");
}

TEST(ConfigKeyValue, MissingFileOrKeyFailsAndLeavesBufferAlone) {
  TempDir dir;
  char out[16] = "untouched";
  EXPECT_LT(QLIBFileGetKeyValue(dir.Path("none.conf").c_str(), "k", out, sizeof out, 0), 0);
  EXPECT_STREQ(out, "untouched");
  std::string f = dir.File("a.conf", "other=1\n");
  EXPECT_LT(QLIBFileGetKeyValue(f.c_str(), "k", out, sizeof out, 0), 0);
  EXPECT_STREQ(out, "untouched");
  EXPECT_LT(QLIBFileGetKeyValue(f.c_str(), "other", out, 0, 0), 0);
}

TEST(PidFile, AcceptsTheDaemonsOwnFormats) {
  TempDir dir;
  EXPECT_EQ(QLIBReadPidFile(dir.File("a.pid", "1234").c_str()), 1234);
  EXPECT_EQ(QLIBReadPidFile(dir.File("b.pid", "1234\n").c_str()), 1234);
  EXPECT_EQ(QLIBReadPidFile(dir.File("c.pid", " 77  \t\n\n").c_str()), 77);
}

TEST(PidFile, RejectsWhatIsNotAPid) {
  TempDir dir;
  EXPECT_LE(QLIBReadPidFile(dir.Path("missing.pid").c_str()), 0);
  EXPECT_LE(QLIBReadPidFile(dir.File("empty.pid", "").c_str()), 0);
  EXPECT_LE(QLIBReadPidFile(dir.File("blank.pid", " \n").c_str()), 0);
  EXPECT_LE(QLIBReadPidFile(dir.File("word.pid", "pid=12\n").c_str()), 0);
  EXPECT_LE(QLIBReadPidFile(dir.File("tail.pid", "12abc").c_str()), 0);
  EXPECT_LE(QLIBReadPidFile(dir.File("neg.pid", "-5").c_str()), 0);
  EXPECT_LE(QLIBReadPidFile(dir.File("huge.pid", "99999999999999999999").c_str()), 0);
  EXPECT_LE(QLIBReadPidFile(dir.File("long.pid", "12" + std::string(40, ' ') + "x").c_str()), 0);
  EXPECT_LE(QLIBReadPidFile(dir.Path("").c_str()), 0);  // a directory
}

TEST(FileTests, FollowLinksAndTellFilesFromFolders) {
  TempDir dir;
  std::string file = dir.File("f.bin", std::string(1234, 'x'));
  fs::create_directory(dir.Path("d"));
  fs::create_symlink(file, dir.Path("file-link"));
  fs::create_symlink(dir.Path("d"), dir.Path("dir-link"));
  fs::create_symlink(dir.Path("gone"), dir.Path("dangling"));

  int64_t size = -1;
  EXPECT_NE(IsFileExist(file.c_str(), &size), 0);
  EXPECT_EQ(size, 1234);
  size = -1;
  EXPECT_NE(IsFileExist(dir.Path("file-link").c_str(), &size), 0);
  EXPECT_EQ(size, 1234);
  EXPECT_NE(IsFileExist(file.c_str(), nullptr), 0);

  size = -1;
  EXPECT_EQ(IsFileExist(dir.Path("d").c_str(), &size), 0);
  EXPECT_EQ(size, -1) << "size written for a folder";
  EXPECT_EQ(IsFileExist(dir.Path("dangling").c_str(), nullptr), 0);
  EXPECT_EQ(IsFileExist(dir.Path("missing").c_str(), nullptr), 0);
  EXPECT_EQ(IsFileExist(nullptr, nullptr), 0);

  EXPECT_NE(IsDirExist(dir.Path("d").c_str()), 0);
  EXPECT_NE(IsDirExist(dir.Path("dir-link").c_str()), 0);
  EXPECT_EQ(IsDirExist(file.c_str()), 0);
  EXPECT_EQ(IsDirExist(dir.Path("dangling").c_str()), 0);
  EXPECT_EQ(IsDirExist(nullptr), 0);
}

TEST(FileTests, SizeBeyondFourGigabytesIsNotTruncated) {
  TempDir dir;
  std::string file = dir.File("sparse", "");
  ASSERT_EQ(truncate(file.c_str(), (int64_t{5} << 30) + 3), 0);
  int64_t size = 0;
  EXPECT_NE(IsFileExist(file.c_str(), &size), 0);
  EXPECT_EQ(size, (int64_t{5} << 30) + 3);
}

TEST(ThumbQueue, AppendsOneLinePerRequest) {
  TempDir dir;
  std::string queue = dir.Path("queue");
  std::string pid = dir.Path("thumb.pid");
  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), pid.c_str(), "/volume1/photo/a b.jpg", 3), 0);
  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), pid.c_str(), "/volume1/photo/x%_'.png", 1), 0);
  EXPECT_EQ(ReadAll(queue), "3:/volume1/photo/a b.jpg\n1:/volume1/photo/x%_'.png\n");
}

TEST(ThumbQueue, RefusesPathsThatWouldBreakTheLineFormat) {
  TempDir dir;
  std::string queue = dir.Path("queue");
  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), dir.Path("p").c_str(), "/a\n3:/b", 3), -1);
  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), dir.Path("p").c_str(), "", 3), -1);
  EXPECT_FALSE(fs::exists(queue));
}

TEST(ThumbQueue, FailsWhenTheQueueCannotBeOpened) {
  TempDir dir;
  std::string queue = dir.Path("no-such-folder/queue");
  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), dir.Path("p").c_str(), "/a.jpg", 3), -1);
}

TEST(ThumbQueue, SignalsTheLiveServiceOnly) {
  TempDir dir;
  std::string queue = dir.Path("queue");
  std::string pidFile = dir.Path("thumb.pid");

  // A child that waits for SIGUSR1 and exits 0 when it gets it.
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
  dir.File("thumb.pid", std::to_string(child) + "\n");

  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), pidFile.c_str(), "/volume1/photo/a.jpg", 3), 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the service was not signalled";

  // The reaped child's pid is stale now: the request is still queued.
  EXPECT_EQ(QLIBSignalThumbCreateAt(queue.c_str(), pidFile.c_str(), "/volume1/photo/b.jpg", 3), 0);
  EXPECT_EQ(ReadAll(queue), "3:/volume1/photo/a.jpg\n3:/volume1/photo/b.jpg\n");
}

}  // namespace

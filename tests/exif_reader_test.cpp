// ReadExifInfo on camera files (against the corpus reference) and on JPEGs written with exiftool.
#include <map>

#include "formats_testutil.h"
#include "meta/exif.h"

namespace {

namespace fs = std::filesystem;
std::string CorpusDir() { return std::string(ORVO_CORPUS_DIR) + "/pictures"; }

// Every read must succeed with each text ending inside its field.
PhotoInfo ReadFile(const std::string& path) {
  PhotoInfo info = {};
  snprintf(info.path, sizeof info.path, "%s", path.c_str());
  EXPECT_EQ(ReadExifInfo(&info), 0) << path;
  for (const auto& [text, size] : {std::pair<const char*, size_t>{info.make, sizeof info.make},
                                   {info.model, sizeof info.model}, {info.exposure, sizeof info.exposure},
                                   {info.aperture, sizeof info.aperture}, {info.takenDate, sizeof info.takenDate}}) {
    EXPECT_LT(strnlen(text, size), size) << path;
  }
  return info;
}

const char* const kTags[] = {"Make", "IFD1_Make", "Model", "IFD1_Model", "DateTimeOriginal", "DateTimeDigitized",
                             "DateTime", "ISOSpeedRatings", "PixelXDimension", "PixelYDimension", "ExposureTime", "FNumber"};

// The kTags values ("" when absent) of every JPEG the tools read cleanly, from the JSON through perl.
std::vector<std::map<std::string, std::string>> ReferenceJpegs() {
  std::string command =
      "perl -MJSON::PP -e 'binmode STDOUT, q(:utf8); local $/; my $files = decode_json(<STDIN>)->{files};"
      " for my $k (sort keys %$files) { my $e = $files->{$k};"
      "  next if $k !~ m{^pictures/.*[.](jpg|jpeg|jpe)$}i || %{$e->{diagnostics} || {}};"
      "  print join(qq(\\t), $k, map { (($e->{exif} || {})->{$_} || {})->{value} // q() } @ARGV), qq(\\n) }'";
  for (const char* tag : kTags) command += std::string(" ") + tag;
  command += " < '" + std::string(ORVO_CORPUS_DIR) + "/reference.json'";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::vector<std::map<std::string, std::string>> rows;
  char line[4096];
  while (pipe && fgets(line, sizeof line, pipe.get()) != nullptr) {
    std::istringstream fields(std::string(line, strcspn(line, "\n")));
    std::map<std::string, std::string>& row = rows.emplace_back();
    std::getline(fields, row["path"], '\t');
    for (const char* tag : kTags) std::getline(fields, row[tag], '\t');
  }
  return rows;
}

std::string TrimRight(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// The date taken is the original, else the digitised one, else DateTime; IFD1's Make and Model win.
TEST(ExifCorpus, CameraFilesAgreeWithReference) {
  if (!fs::is_directory(CorpusDir())) GTEST_SKIP() << "corpus not present at " << ORVO_CORPUS_DIR;
  int compared = 0;
  for (std::map<std::string, std::string>& value : ReferenceJpegs()) {
    SCOPED_TRACE(value["path"]);
    PhotoInfo info = ReadFile(std::string(ORVO_CORPUS_DIR) + "/" + value["path"]);
    EXPECT_EQ(TrimRight(info.make), value["IFD1_Make"].empty() ? value["Make"] : value["IFD1_Make"]);
    EXPECT_EQ(TrimRight(info.model), value["IFD1_Model"].empty() ? value["Model"] : value["IFD1_Model"]);
    std::string date = value["DateTimeOriginal"];
    if (date.empty()) date = value["DateTimeDigitized"];
    if (date.empty()) date = value["DateTime"];
    EXPECT_EQ(std::string(info.takenDate), date);
    EXPECT_EQ(info.iso, atoi(value["ISOSpeedRatings"].c_str()));
    EXPECT_EQ(info.width, atoi(value["PixelXDimension"].c_str()));
    EXPECT_EQ(info.height, atoi(value["PixelYDimension"].c_str()));
    // Our texts read "1/160 sec." and "f/7.1" where the tools print 1/160 and 7.1.
    if (!value["ExposureTime"].empty()) {
      EXPECT_EQ(std::string(info.exposure), value["ExposureTime"] + " sec.");
    }
    if (!value["FNumber"].empty()) {  // the tools print 14.0 as 14
      EXPECT_EQ(std::string(info.aperture, 2), "f/");
      EXPECT_DOUBLE_EQ(atof(info.aperture + 2), atof(value["FNumber"].c_str()));
    }
    ++compared;
  }
  EXPECT_GT(compared, 25);
}

// Damaged EXIF blocks, other formats and files that only look like JPEGs.
TEST(ExifCorpus, EveryPictureReadsWithoutOverrun) {
  if (!fs::is_directory(CorpusDir())) GTEST_SKIP() << "corpus not present at " << ORVO_CORPUS_DIR;
  for (const auto& file : fs::directory_iterator(CorpusDir())) ReadFile(file.path().string());
}

// A JPEG written with just the tags a case needs, and itself as thumbnail so IFD1 exists.
PhotoInfo Written(const std::string& exiftoolArgs) {
  formats_test::TempDir dir;
  std::string path = dir.File("written.jpg");
  std::string command = "ffmpeg -v error -y -f lavfi -i color=c=red:s=16x16 -frames:v 1 '" + path + "' </dev/null &&"
                        " exiftool -q -q -overwrite_original '-ThumbnailImage<=" + path + "' " + exiftoolArgs + " '" + path + "'";
  EXPECT_EQ(system(command.c_str()), 0) << command;
  return ReadFile(path);
}

// The date taken: original, else digitised, else DateTime; IFD1 (the thumbnail's) comes after IFD0.
TEST(ExifWritten, DatePreferenceAndTheLaterIfdWins) {
  const std::string modify = "-ModifyDate='2001:01:01 01:01:01'", create = " -CreateDate='2002:02:02 02:02:02'";
  EXPECT_STREQ(Written(modify).takenDate, "2001:01:01 01:01:01");
  EXPECT_STREQ(Written(modify + create).takenDate, "2002:02:02 02:02:02");
  EXPECT_STREQ(Written(modify + create + " -DateTimeOriginal='2003:03:03 03:03:03'").takenDate, "2003:03:03 03:03:03");
  EXPECT_STREQ(Written("-IFD0:Make=Alpha -IFD1:Make=Beta").make, "Beta");
}

// Long texts are cut inside their fields; a number is atoi of the text, so a list gives its first.
TEST(ExifWritten, LongTextsStayInsideFieldsAndListsGiveFirstNumber) {
  PhotoInfo info = Written("-Make=" + std::string(120, 'K') + " -Model=Tiny -ISO='100, 200' -ExposureTime=1/250 -FNumber=2.8");
  EXPECT_EQ(std::string(info.make), std::string(sizeof info.make - 1, 'K'));
  EXPECT_EQ(info.iso, 100);
  EXPECT_EQ(std::string(info.model) + "|" + info.exposure + "|" + info.aperture, "Tiny|1/250 sec.|f/2.8");
}

}  // namespace

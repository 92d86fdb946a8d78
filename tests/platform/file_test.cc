// Tests for the whole-file helpers: bytes in and out, the file error numbers,
// "\" as a separator and the application folder.
#include "platform/file.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/error.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

namespace fs = std::filesystem;

// A fresh folder under the system temporary folder, removed afterwards.
class FileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("quillo_file_test_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string PathOf(const std::string& name) const { return (dir_ / name).string(); }

  fs::path dir_;
};

TEST_F(FileTest, WritesAndReadsBytesWholeIncludingNul) {
  std::string bytes("line 1\r\n\0\xff\xfe end", 15);
  WriteFileBytes(PathOf("data.bin"), bytes);
  std::string back = ReadFileBytes(PathOf("data.bin"));
  EXPECT_EQ(back.size(), 15u);
  EXPECT_EQ(back, bytes);
}

TEST_F(FileTest, ReadsAnEmptyFile) {
  WriteFileBytes(PathOf("empty"), "");
  EXPECT_EQ(ReadFileBytes(PathOf("empty")), "");
}

TEST_F(FileTest, ReadsAFileLargerThanOneBuffer) {
  std::string bytes(100000, 'x');
  for (size_t i = 0; i < bytes.size(); i += 7) bytes[i] = static_cast<char>(i % 256);
  WriteFileBytes(PathOf("big"), bytes);
  EXPECT_EQ(ReadFileBytes(PathOf("big")), bytes);
}

TEST_F(FileTest, WriteReplacesTheWholeFile) {
  WriteFileBytes(PathOf("f"), "a long first content");
  WriteFileBytes(PathOf("f"), "short");
  EXPECT_EQ(ReadFileBytes(PathOf("f")), "short");
}

TEST_F(FileTest, MissingFileIsFileNotFound) {
  EXPECT_RUNTIME_ERROR(ReadFileBytes(PathOf("missing.txt")), err::kFileNotFound);
}

TEST_F(FileTest, ReadingADirectoryIsPathFileAccessError) {
  EXPECT_RUNTIME_ERROR(ReadFileBytes(dir_.string()), err::kPathFileAccessError);
}

TEST_F(FileTest, ReadingBelowARegularFileIsPathFileAccessError) {
  WriteFileBytes(PathOf("plain"), "x");
  EXPECT_RUNTIME_ERROR(ReadFileBytes(PathOf("plain") + "/inside.txt"), err::kPathFileAccessError);
}

TEST_F(FileTest, WritingWhereNoFileCanBeIsPathFileAccessError) {
  EXPECT_RUNTIME_ERROR(WriteFileBytes(dir_.string(), "x"), err::kPathFileAccessError);
  EXPECT_RUNTIME_ERROR(WriteFileBytes(PathOf("no/such/folder/f.txt"), "x"),
                       err::kPathFileAccessError);
  WriteFileBytes(PathOf("plain"), "x");
  EXPECT_RUNTIME_ERROR(WriteFileBytes(PathOf("plain") + "/f.txt", "x"), err::kPathFileAccessError);
}

TEST_F(FileTest, BackslashIsAcceptedAsASeparator) {
  fs::create_directories(dir_ / "docs");
  WriteFileBytes(PathOf("docs") + "\\price list.txt", "prices");
  EXPECT_TRUE(fs::exists(dir_ / "docs" / "price list.txt"));
  EXPECT_EQ(ReadFileBytes(PathOf("docs") + "\\price list.txt"), "prices");
  EXPECT_TRUE(FileExists(PathOf("docs") + "\\price list.txt"));
  EXPECT_EQ(NativePath("docs\\sub\\a.pdf"), "docs/sub/a.pdf");
  EXPECT_EQ(NativePath("plain/path"), "plain/path");
}

TEST_F(FileTest, FileExistsOnlyForRegularFiles) {
  WriteFileBytes(PathOf("f"), "x");
  EXPECT_TRUE(FileExists(PathOf("f")));
  EXPECT_FALSE(FileExists(PathOf("g")));
  EXPECT_FALSE(FileExists(dir_.string()));
}

TEST_F(FileTest, DeleteFileIfExistsReportsWhetherItDeleted) {
  WriteFileBytes(PathOf("f"), "x");
  EXPECT_TRUE(DeleteFileIfExists(PathOf("f")));
  EXPECT_FALSE(FileExists(PathOf("f")));
  EXPECT_FALSE(DeleteFileIfExists(PathOf("f")));
}

TEST(ApplicationFolder, IsTheFolderOfTheRunningProgram) {
  fs::path program = fs::canonical(fs::absolute(program_invocation_name));
  EXPECT_EQ(ApplicationFolder(), program.parent_path().string());
  EXPECT_NE(ApplicationFolder().back(), '/');
}

}  // namespace
}  // namespace quillo

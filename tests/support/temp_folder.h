// A temporary folder for a test, removed with everything in it at the end.
#ifndef QUILLO_TESTS_SUPPORT_TEMP_FOLDER_H_
#define QUILLO_TESTS_SUPPORT_TEMP_FOLDER_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace quillo::testing {

class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quillo-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }
  // The path of `name` in the folder.
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  // Writes `bytes` to `name` in the folder and returns its path.
  std::string Write(const std::string& name, const std::string& bytes) const {
    const std::string file = File(name);
    std::ofstream(file, std::ios::binary) << bytes;
    return file;
  }

 private:
  std::string path_;
};

}  // namespace quillo::testing

#endif  // QUILLO_TESTS_SUPPORT_TEMP_FOLDER_H_

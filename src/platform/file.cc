#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/error.h"

namespace quillo {

namespace {

// Retries a system call interrupted by a signal.
template <class F>
auto RetryEintr(F f) {
  decltype(f()) result;
  do {
    result = f();
  } while (result < 0 && errno == EINTR);
  return result;
}

[[noreturn]] void RaiseFileError(int error, std::string_view path) {
  // A path that runs through a regular file names no file that could ever be
  // opened: that is an access error, not a missing file.
  long number = error == ENOENT ? err::kFileNotFound : err::kPathFileAccessError;
  Raise(number, DefaultErrorDescription(number) + ": " + std::string(path));
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

std::string NativePath(std::string_view path) {
  std::string out(path);
  for (char& c : out) {
    if (c == '\\') c = '/';
  }
  return out;
}

std::string ReadFileBytes(std::string_view path) {
  std::string native = NativePath(path);
  Fd fd(RetryEintr([&] { return ::open(native.c_str(), O_RDONLY | O_CLOEXEC); }));
  if (fd.get() < 0) RaiseFileError(errno, path);
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) RaiseFileError(errno, path);
  if (S_ISDIR(st.st_mode)) RaiseFileError(EISDIR, path);
  std::string bytes;
  bytes.resize(static_cast<size_t>(st.st_size));
  size_t done = 0;
  while (true) {
    if (done == bytes.size()) bytes.resize(bytes.size() + 4096 + bytes.size() / 2);
    ssize_t n =
        RetryEintr([&] { return ::read(fd.get(), bytes.data() + done, bytes.size() - done); });
    if (n < 0) RaiseFileError(errno, path);
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  bytes.resize(done);
  return bytes;
}

void WriteFileBytes(std::string_view path, std::string_view bytes) {
  std::string native = NativePath(path);
  Fd fd(RetryEintr(
      [&] { return ::open(native.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644); }));
  if (fd.get() < 0) RaiseFileError(errno == ENOENT ? EACCES : errno, path);
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n =
        RetryEintr([&] { return ::write(fd.get(), bytes.data() + done, bytes.size() - done); });
    if (n < 0) RaiseFileError(EACCES, path);
    done += static_cast<size_t>(n);
  }
}

bool DeleteFileIfExists(std::string_view path) {
  std::string native = NativePath(path);
  return ::unlink(native.c_str()) == 0;
}

bool FileExists(std::string_view path) {
  struct stat st {};
  std::string native = NativePath(path);
  return ::stat(native.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string ApplicationFolder() {
  std::error_code ec;
  std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return std::filesystem::current_path().string();
  return exe.parent_path().string();
}

}  // namespace quillo

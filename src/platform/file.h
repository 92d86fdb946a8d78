// Whole-file helpers and paths.
//
// Files are read and written whole as bytes. Failures raise RuntimeError with
// the classic file numbers: 53 when the file does not exist, 75 when it
// exists but cannot be opened, read or written. When the library opens a path
// it accepts "\" as a separator too (templates written on other systems name
// "docs\price list.pdf"). Thread-safety: the functions are reentrant.
#ifndef QUILLO_PLATFORM_FILE_H_
#define QUILLO_PLATFORM_FILE_H_

#include <string>
#include <string_view>

namespace quillo {

// The platform's folder separator.
inline constexpr char kPathSeparator = '/';

// `path` with every "\" turned into "/".
std::string NativePath(std::string_view path);

// The whole content of the file at `path`. Raises 53 (missing) or 75.
std::string ReadFileBytes(std::string_view path);

// Replaces the file at `path` with `bytes`. Raises 75 when it cannot.
void WriteFileBytes(std::string_view path, std::string_view bytes);

// Deletes the file at `path`; false (and no error) when it cannot.
bool DeleteFileIfExists(std::string_view path);

// True when a regular file exists at `path`.
bool FileExists(std::string_view path);

// The folder that holds the running executable, without a trailing "/".
std::string ApplicationFolder();

}  // namespace quillo

#endif  // QUILLO_PLATFORM_FILE_H_

// ardESMTPAttachment: part header and Base64 body of one attached file.
#include "smtp/ard_esmtp_attachment.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "codec/base64.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"

namespace quillo {
namespace {

// Base64 line length: the 76-character limit less the CRLF.
constexpr size_t kLineLength = 74;

struct ExtensionType {
  const char* extension;
  const char* content_type;
};

// Tested in this order; the first match wins.
constexpr ExtensionType kExtensionTypes[] = {
    {"zip", "application/zip"}, {"pdf", "application/x-pdf"}, {"au", "audio/basic"},
    {"snd", "audio/basic"},     {"aif", "audio/x-aiff"},      {"wav", "audio/x-wav"},
    {"gif", "image/gif"},       {"jpg", "image/jpeg"},        {"jpeg", "image/jpeg"},
    {"jpe", "image/jpe"},       {"htm", "text/html"},         {"html", "text/html"},
    {"txt", "text/plain"},      {"c", "text/plain"},          {"cpp", "text/plain"},
    {"h", "text/plain"},        {"mpeg", "video/mpeg"},       {"mpg", "video/mpeg"},
    {"mpe", "video/mpeg"},      {"qt", "video/quicktime"},    {"mov", "video/quicktime"},
    {"wmv", "video/x-ms-wmv"},
};

bool IsBlank(std::string_view s) { return Trim(s).empty(); }

// The file-name part of a path: the text after the last "\", ":" or "/",
// scanning from the end down to the second character; the whole path when
// no separator stands there.
std::string FileNamePart(std::string_view path) {
  for (size_t i = path.size(); i >= 2; --i) {
    const char c = path[i - 1];
    if (c == '\\' || c == ':' || c == '/') return std::string(path.substr(i));
  }
  return std::string(path);
}

// The whole file, read into a buffer of its size. Any failure is left to
// ReadFileBytes, which raises the file error that goes with it (53, 75).
std::string ReadWholeFile(const std::string& path) {
  const std::string native = NativePath(path);
  const int fd = ::open(native.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return ReadFileBytes(path);
  struct stat st {};
  std::string bytes;
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (ok) {
    bytes.resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    ok = done == bytes.size();
    char probe;
    ok = ok && ::read(fd, &probe, 1) == 0;  // The file did not grow meanwhile.
  }
  ::close(fd);
  return ok ? bytes : ReadFileBytes(path);
}

}  // namespace

void AppendBase64Lines(std::string_view bytes, std::string* out) {
  // 222 input bytes give 296 characters, four whole lines; a block of 64 such
  // groups stays in the cache while it is cut into lines.
  constexpr size_t kBlockBytes = 222 * 64;
  const size_t encoded_size = 4 * ((bytes.size() + 2) / 3);
  const size_t lines = (encoded_size + kLineLength - 1) / kLineLength;
  const size_t start = out->size();
  out->resize(start + encoded_size + 2 * lines);
  char* dst = out->data() + start;
  std::string block;
  for (size_t pos = 0; pos < bytes.size(); pos += kBlockBytes) {
    Base64EncodeTo(bytes.substr(pos, kBlockBytes), &block);
    const char* src = block.data();
    size_t left = block.size();
    for (; left >= kLineLength; left -= kLineLength, src += kLineLength) {
      std::memcpy(dst, src, kLineLength);  // Constant size: inlined.
      dst[kLineLength] = '\r';
      dst[kLineLength + 1] = '\n';
      dst += kLineLength + 2;
    }
    if (left > 0) {
      std::memcpy(dst, src, left);
      dst[left] = '\r';
      dst[left + 1] = '\n';
      dst += left + 2;
    }
  }
}

void ardESMTPAttachment::InlineFileName(const std::string& value) {
  const std::vector<std::string> pieces = Split(value, ",");
  file_name_ = pieces[0];
  content_disposition_ = "inline";
  if (pieces.size() < 2) Raise(err::kSubscriptOutOfRange);
  content_id_ = pieces[1];
}

std::string ardESMTPAttachment::GetFileExtension(std::string_view s) const {
  const size_t dot = s.rfind('.');
  if (dot == std::string_view::npos) return std::string(s);
  return std::string(s.substr(dot + 1));
}

std::string ardESMTPAttachment::GetContentType(std::string_view ext) const {
  for (const ExtensionType& entry : kExtensionTypes) {
    if (EqualsIgnoreCase(ext, entry.extension)) return entry.content_type;
  }
  return "application/octet-stream";
}

void ardESMTPAttachment::CreateAttachment() {
  const std::string bytes = ReadWholeFile(file_name_);
  const size_t encoded_size = 4 * ((bytes.size() + 2) / 3);

  if (IsBlank(content_type_)) content_type_ = GetContentType(GetFileExtension(file_name_));
  std::string text;
  text.reserve(encoded_size + (encoded_size / kLineLength + 1) * 2 + 512);
  text.append("Content-Type: ").append(content_type_).append(";\r\n");
  if (IsBlank(content_type_name_)) content_type_name_ = FileNamePart(file_name_);
  text.append("     name=\"").append(content_type_name_).append("\"\r\n");
  if (!IsBlank(content_id_)) text.append("Content-ID: ").append(content_id_).append("\r\n");
  if (!IsBlank(content_description_)) {
    text.append("Content-Description: ").append(content_description_).append("\r\n");
  }
  text.append("Content-Transfer-Encoding: base64\r\n");
  if (IsBlank(content_disposition_)) content_disposition_ = "attachment";
  text.append("Content-Disposition: ").append(content_disposition_).append(";\r\n");
  if (EqualsIgnoreCase(content_disposition_, "attachment")) {
    text.append("     filename=\"").append(content_type_name_).append("\"\r\n");
  }
  text.append("\r\n");
  AppendBase64Lines(bytes, &text);
  attachment_ = std::move(text);
}

const MemberTable& ardESMTPAttachment::Members() const {
  using A = ardESMTPAttachment;
  static const MemberTable table =
      MemberTable::Builder<A>("ardESMTPAttachment")
          .Get("Attachment", [](A& a) { return a.Attachment(); })
          .Put("Attachment", [](A& a, std::string v) { a.Attachment(std::move(v)); })
          .Get("DISPOSITION_TYPE_ATTACHMENT", [](A& a) { return a.DISPOSITION_TYPE_ATTACHMENT(); })
          .Get("DISPOSITION_TYPE_INLINE", [](A& a) { return a.DISPOSITION_TYPE_INLINE(); })
          .Put("ContentID", [](A& a, std::string v) { a.ContentID(std::move(v)); })
          .Get("ContentID", [](A& a) { return a.ContentID(); })
          .Put("ContentDisposition",
               [](A& a, std::string v) { a.ContentDisposition(std::move(v)); })
          .Get("ContentDisposition", [](A& a) { return a.ContentDisposition(); })
          .Put("ContentType", [](A& a, std::string v) { a.ContentType(std::move(v)); })
          .Get("ContentType", [](A& a) { return a.ContentType(); })
          .Put("ContentTransferEncoding",
               [](A& a, std::string v) { a.ContentTransferEncoding(std::move(v)); })
          .Get("ContentTransferEncoding", [](A& a) { return a.ContentTransferEncoding(); })
          .Put("ContentDescription",
               [](A& a, std::string v) { a.ContentDescription(std::move(v)); })
          .Get("ContentDescription", [](A& a) { return a.ContentDescription(); })
          .Put("FileName", [](A& a, std::string v) { a.FileName(std::move(v)); })
          .Get("FileName", [](A& a) { return a.FileName(); })
          .Put("ContentTypeName", [](A& a, std::string v) { a.ContentTypeName(std::move(v)); })
          .Get("ContentTypeName", [](A& a) { return a.ContentTypeName(); })
          .Put("InlineFileName", [](A& a, std::string v) { a.InlineFileName(v); })
          .Method("GetFileExtension", [](A& a, std::string s) { return a.GetFileExtension(s); })
          .Method("CreateAttachment", [](A& a) { a.CreateAttachment(); })
          .Method("GetContentType", [](A& a, std::string s) { return a.GetContentType(s); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(ardESMTPAttachment, Creatable::kPublic);

}  // namespace quillo

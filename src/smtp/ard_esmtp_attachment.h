// ardESMTPAttachment: one file as the text of one MIME body part.
//
// CreateAttachment reads FileName whole, Base64-encodes its bytes in lines of
// 74 characters and puts the part header in front: Content-Type with the
// name= parameter, optional Content-ID and Content-Description,
// Content-Transfer-Encoding: base64 and Content-Disposition (with filename=
// for attachments, bare "inline;" for inline parts). The multipart builder of
// ardESMTP places the text between its boundary lines as it stands.
//
//   auto part = std::make_shared<quillo::ardESMTPAttachment>();
//   part->FileName("docs/price list.pdf");
//   part->CreateAttachment();   // part->Attachment() holds the part text
//
// Thread-safety: none; one thread per object.
#ifndef QUILLO_SMTP_ARD_ESMTP_ATTACHMENT_H_
#define QUILLO_SMTP_ARD_ESMTP_ATTACHMENT_H_

#include <string>
#include <string_view>

#include "platform/object.h"

namespace quillo {

// One attachment or inline part of a multipart message.
class ardESMTPAttachment : public Object {
 public:
  ardESMTPAttachment() = default;

  // The finished part text (header lines, blank line, Base64 lines).
  const std::string& Attachment() const { return attachment_; }
  void Attachment(std::string value) { attachment_ = std::move(value); }
  // "attachment".
  std::string DISPOSITION_TYPE_ATTACHMENT() const { return "attachment"; }
  // "inline".
  std::string DISPOSITION_TYPE_INLINE() const { return "inline"; }
  // "Content-ID: " value, written when not blank.
  void ContentID(std::string value) { content_id_ = std::move(value); }
  const std::string& ContentID() const { return content_id_; }
  // "attachment" or "inline"; "attachment" when blank.
  void ContentDisposition(std::string value) { content_disposition_ = std::move(value); }
  const std::string& ContentDisposition() const { return content_disposition_; }
  // MIME type; derived from the file's extension when blank.
  void ContentType(std::string value) { content_type_ = std::move(value); }
  const std::string& ContentType() const { return content_type_; }
  // Stored and returned only; the part always says base64.
  void ContentTransferEncoding(std::string value) { content_transfer_encoding_ = std::move(value); }
  const std::string& ContentTransferEncoding() const { return content_transfer_encoding_; }
  // "Content-Description: " value, written when not blank.
  void ContentDescription(std::string value) { content_description_ = std::move(value); }
  const std::string& ContentDescription() const { return content_description_; }
  // Path of the file to read ("\" accepted as a separator).
  void FileName(std::string value) { file_name_ = std::move(value); }
  const std::string& FileName() const { return file_name_; }
  // Name for name= and filename=; derived from FileName when blank.
  void ContentTypeName(std::string value) { content_type_name_ = std::move(value); }
  const std::string& ContentTypeName() const { return content_type_name_; }
  // "file,content-id": sets FileName, ContentDisposition "inline" and
  // ContentID. Raises 9 (after setting the first two) when there is no ",".
  void InlineFileName(const std::string& value);

  // The characters after the last "." of `s`; all of `s` when it has none.
  std::string GetFileExtension(std::string_view s) const;
  // Builds Attachment from the file. Raises 53/75 when the file cannot be read.
  void CreateAttachment();
  // The MIME type for an extension (case-insensitive); application/octet-stream
  // for anything unknown.
  std::string GetContentType(std::string_view ext) const;

  const MemberTable& Members() const override;

 private:
  std::string attachment_;
  std::string content_id_;
  std::string content_disposition_;
  std::string content_type_;
  std::string content_transfer_encoding_;
  std::string content_description_;
  std::string file_name_;
  std::string content_type_name_;
};

// The Base64 of `bytes` cut into lines of 74 characters (the last one may be
// shorter), each ending in CRLF, appended to `*out`. Encodes block by block
// straight into the lines, so the text is made in one pass.
void AppendBase64Lines(std::string_view bytes, std::string* out);

}  // namespace quillo

#endif  // QUILLO_SMTP_ARD_ESMTP_ATTACHMENT_H_

// Tests of attachment parts: the extension table, the 74-character Base64
// lines, the part header for attachments and inline parts, InlineFileName,
// and the attachment operations of the SMTP client.
#include "smtp/ard_esmtp_attachment.h"

#include <gtest/gtest.h>

#include <string>

#include "codec/base64.h"
#include "platform/error.h"
#include "smtp/ard_esmtp.h"
#include "support/error_matchers.h"
#include "support/temp_folder.h"

namespace quillo {
namespace {

using testing::TempFolder;

std::string Bytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7 + 3) & 0xFF);
  return s;
}

TEST(AttachmentContentTypeTest, FollowsTheExtensionTableIgnoringCase) {
  ardESMTPAttachment a;
  const std::pair<const char*, const char*> table[] = {{"zip", "application/zip"},
                                                       {"pdf", "application/x-pdf"},
                                                       {"PDF", "application/x-pdf"},
                                                       {"au", "audio/basic"},
                                                       {"snd", "audio/basic"},
                                                       {"aif", "audio/x-aiff"},
                                                       {"wav", "audio/x-wav"},
                                                       {"gif", "image/gif"},
                                                       {"jpg", "image/jpeg"},
                                                       {"JPEG", "image/jpeg"},
                                                       {"jpe", "image/jpe"},
                                                       {"htm", "text/html"},
                                                       {"html", "text/html"},
                                                       {"txt", "text/plain"},
                                                       {"c", "text/plain"},
                                                       {"cpp", "text/plain"},
                                                       {"h", "text/plain"},
                                                       {"mpeg", "video/mpeg"},
                                                       {"mpg", "video/mpeg"},
                                                       {"mpe", "video/mpeg"},
                                                       {"qt", "video/quicktime"},
                                                       {"mov", "video/quicktime"},
                                                       {"wmv", "video/x-ms-wmv"},
                                                       {"", "application/octet-stream"},
                                                       {"docx", "application/octet-stream"},
                                                       {"tx", "application/octet-stream"}};
  for (const auto& [ext, type] : table) EXPECT_EQ(a.GetContentType(ext), type) << ext;
}

TEST(AttachmentFileExtensionTest, IsTheTextAfterTheLastDot) {
  ardESMTPAttachment a;
  EXPECT_EQ(a.GetFileExtension("report.PDF"), "PDF");
  EXPECT_EQ(a.GetFileExtension("a.tar.gz"), "gz");
  EXPECT_EQ(a.GetFileExtension("README"), "README");
  EXPECT_EQ(a.GetFileExtension("dir.v2/README"), "v2/README");
  EXPECT_EQ(a.GetFileExtension("name."), "");
}

TEST(AttachmentPartTest, HundredByteFileGivesOneLineOf74AndOneOf62) {
  TempFolder folder;
  const std::string bytes = Bytes(100);
  ardESMTPAttachment a;
  a.FileName(folder.Write("data.bin", bytes));
  a.CreateAttachment();
  const std::string encoded = Base64Encode(bytes);
  ASSERT_EQ(encoded.size(), 136u);
  const std::string expected =
      "Content-Type: application/octet-stream;\r\n"
      "     name=\"data.bin\"\r\n"
      "Content-Transfer-Encoding: base64\r\n"
      "Content-Disposition: attachment;\r\n"
      "     filename=\"data.bin\"\r\n"
      "\r\n" +
      encoded.substr(0, 74) + "\r\n" + encoded.substr(74) + "\r\n";
  EXPECT_EQ(a.Attachment(), expected);
  EXPECT_EQ(a.ContentType(), "application/octet-stream");
  EXPECT_EQ(a.ContentTypeName(), "data.bin");
  EXPECT_EQ(a.ContentDisposition(), "attachment");
}

TEST(AttachmentPartTest, UpperCasePdfExtensionGivesTheXPdfType) {
  TempFolder folder;
  ardESMTPAttachment a;
  a.FileName(folder.Write("report.PDF", "%PDF"));
  a.CreateAttachment();
  EXPECT_EQ(a.ContentType(), "application/x-pdf");
  EXPECT_EQ(a.Attachment().rfind("Content-Type: application/x-pdf;\r\n", 0), 0u);
}

TEST(AttachmentPartTest, PathWithoutDotIsLookedUpWholeAndGetsOctetStream) {
  TempFolder folder;
  ardESMTPAttachment a;
  a.FileName(folder.Write("README", "x"));
  if (a.FileName().find('.') != std::string::npos) GTEST_SKIP() << "temp path has a dot";
  a.CreateAttachment();
  EXPECT_EQ(a.ContentType(), "application/octet-stream");
}

TEST(AttachmentPartTest, EmptyFileGivesTheHeaderAndNoLines) {
  TempFolder folder;
  ardESMTPAttachment a;
  a.FileName(folder.Write("empty.txt", ""));
  a.CreateAttachment();
  EXPECT_EQ(a.Attachment(),
            "Content-Type: text/plain;\r\n     name=\"empty.txt\"\r\n"
            "Content-Transfer-Encoding: base64\r\nContent-Disposition: attachment;\r\n"
            "     filename=\"empty.txt\"\r\n\r\n");
}

TEST(AttachmentPartTest, LengthMultipleOf74GivesOnlyFullLines) {
  TempFolder folder;
  // 111 bytes encode to 148 characters: exactly two lines of 74.
  ardESMTPAttachment a;
  a.FileName(folder.Write("x.bin", Bytes(111)));
  a.CreateAttachment();
  const std::string encoded = Base64Encode(Bytes(111));
  ASSERT_EQ(encoded.size(), 148u);
  const std::string& text = a.Attachment();
  EXPECT_EQ(text.substr(text.size() - 152),
            encoded.substr(0, 74) + "\r\n" + encoded.substr(74) + "\r\n");
}

TEST(AttachmentPartTest, CallerContentTypeNameIsUsedForNameAndFilename) {
  TempFolder folder;
  ardESMTPAttachment a;
  a.FileName(folder.Write("tmp123.dat", "abc"));
  a.ContentTypeName("Price list.pdf");
  a.ContentDescription("Prices");
  a.CreateAttachment();
  EXPECT_EQ(a.Attachment(),
            "Content-Type: application/octet-stream;\r\n     name=\"Price list.pdf\"\r\n"
            "Content-Description: Prices\r\n"
            "Content-Transfer-Encoding: base64\r\nContent-Disposition: attachment;\r\n"
            "     filename=\"Price list.pdf\"\r\n\r\nYWJj\r\n");
}

TEST(AttachmentPartTest, InlinePartHasContentIdAndNoFilenameLine) {
  TempFolder folder;
  ardESMTPAttachment a;
  a.FileName(folder.Write("logo.gif", "GIF89a"));
  a.ContentDisposition(a.DISPOSITION_TYPE_INLINE());
  a.ContentID("<logo@x>");
  a.CreateAttachment();
  EXPECT_EQ(a.Attachment(),
            "Content-Type: image/gif;\r\n     name=\"logo.gif\"\r\n"
            "Content-ID: <logo@x>\r\n"
            "Content-Transfer-Encoding: base64\r\nContent-Disposition: inline;\r\n"
            "\r\n" +
                Base64Encode("GIF89a") + "\r\n");
}

TEST(AttachmentPartTest, NameIsTheTextAfterTheLastBackslashOrColon) {
  ardESMTPAttachment a;
  TempFolder folder;
  folder.Write("b.txt", "1");
  // "\" is accepted as a separator when the file is opened.
  a.FileName(folder.path() + "\\b.txt");
  a.CreateAttachment();
  EXPECT_EQ(a.ContentTypeName(), "b.txt");
}

TEST(AttachmentPartTest, MissingFileRaisesFileNotFound) {
  ardESMTPAttachment a;
  a.FileName("/nonexistent/quillo/missing.pdf");
  EXPECT_RUNTIME_ERROR(a.CreateAttachment(), err::kFileNotFound);
  EXPECT_EQ(a.Attachment(), "");
}

TEST(AttachmentPartTest, FiftyMegabyteFileEncodesWhole) {
  TempFolder folder;
  const std::string bytes(50u * 1024 * 1024, 'q');
  ardESMTPAttachment a;
  a.FileName(folder.Write("big.bin", bytes));
  a.CreateAttachment();
  const size_t encoded = 4 * ((bytes.size() + 2) / 3);
  const size_t lines = (encoded + 73) / 74;
  const std::string& text = a.Attachment();
  const size_t header_end = text.find("\r\n\r\n") + 4;
  EXPECT_EQ(text.size() - header_end, encoded + 2 * lines);
  std::string quads;
  for (int i = 0; i < 19; ++i) quads += "cXFx";  // Base64 of "qqq".
  EXPECT_EQ(text.substr(header_end, 76), quads.substr(0, 74) + "\r\n");
}

TEST(InlineFileNameTest, SplitsFileAndContentId) {
  ardESMTPAttachment a;
  a.InlineFileName("pics/logo.gif,logo-1");
  EXPECT_EQ(a.FileName(), "pics/logo.gif");
  EXPECT_EQ(a.ContentDisposition(), "inline");
  EXPECT_EQ(a.ContentID(), "logo-1");
}

TEST(InlineFileNameTest, WithoutCommaRaisesIndexErrorAfterSettingFileAndDisposition) {
  ardESMTPAttachment a;
  EXPECT_RUNTIME_ERROR(a.InlineFileName("logo.gif"), err::kSubscriptOutOfRange);
  EXPECT_EQ(a.FileName(), "logo.gif");
  EXPECT_EQ(a.ContentDisposition(), "inline");
  EXPECT_EQ(a.ContentID(), "");
}

TEST(AttachmentByNameTest, ConstantsAndMembersAreReachable) {
  ObjectPtr a = CreateObject("ardESMTPAttachment");
  EXPECT_EQ(a->Invoke("DISPOSITION_TYPE_ATTACHMENT", CallKind::kGet).ToString(), "attachment");
  EXPECT_EQ(a->Invoke("DISPOSITION_TYPE_INLINE", CallKind::kGet).ToString(), "inline");
  a->Invoke("InlineFileName", CallKind::kPut, {Variant("f.txt,id1")});
  EXPECT_EQ(a->Invoke("ContentID", CallKind::kGet).ToString(), "id1");
  EXPECT_EQ(a->Invoke("GetContentType", CallKind::kMethod, {Variant("wmv")}).ToString(),
            "video/x-ms-wmv");
}

TEST(AttachmentInterfaceTest, MembersStandInInterfaceOrder) {
  ardESMTPAttachment a;
  std::vector<std::string> names;
  for (const Member& m : a.Members().members()) {
    names.push_back(m.name + (m.kind == CallKind::kGet   ? ":get"
                              : m.kind == CallKind::kPut ? ":put"
                                                         : ""));
  }
  const std::vector<std::string> expected = {"Attachment:get",
                                             "Attachment:put",
                                             "DISPOSITION_TYPE_ATTACHMENT:get",
                                             "DISPOSITION_TYPE_INLINE:get",
                                             "ContentID:put",
                                             "ContentID:get",
                                             "ContentDisposition:put",
                                             "ContentDisposition:get",
                                             "ContentType:put",
                                             "ContentType:get",
                                             "ContentTransferEncoding:put",
                                             "ContentTransferEncoding:get",
                                             "ContentDescription:put",
                                             "ContentDescription:get",
                                             "FileName:put",
                                             "FileName:get",
                                             "ContentTypeName:put",
                                             "ContentTypeName:get",
                                             "InlineFileName:put",
                                             "GetFileExtension",
                                             "CreateAttachment",
                                             "GetContentType"};
  EXPECT_EQ(names, expected);
}

TEST(ClientAttachmentsTest, AddAttachmentKeepsAnExplicitTypeAndDerivesTheName) {
  TempFolder folder;
  ardESMTP smtp;
  smtp.AddAttachment(folder.Write("notes.txt", "hello"), std::string("application/x-notes"));
  ASSERT_EQ(smtp.Attachments()->Count(), 1);
  auto part = smtp.Attachment();
  EXPECT_EQ(part->ContentType(), "application/x-notes");
  EXPECT_EQ(part->ContentTypeName(), "notes.txt");
  EXPECT_NE(part->Attachment().find("     filename=\"notes.txt\"\r\n"), std::string::npos);
}

TEST(ClientAttachmentsTest, AddAttachmentAsInlineSetsDispositionAndId) {
  TempFolder folder;
  ardESMTP smtp;
  smtp.AddAttachmentAsInline(folder.Write("logo.gif", "GIF"), std::string("logo@1"));
  auto part = smtp.Attachment(1);
  EXPECT_EQ(part->ContentDisposition(), "inline");
  EXPECT_NE(part->Attachment().find("Content-ID: logo@1\r\n"), std::string::npos);
  EXPECT_NE(part->Attachment().find("Content-Disposition: inline;\r\n\r\n"), std::string::npos);
  EXPECT_EQ(part->Attachment().find("filename="), std::string::npos);
}

TEST(ClientAttachmentsTest, MissingFileRaisesAndAddsNothing) {
  ardESMTP smtp;
  EXPECT_RUNTIME_ERROR(smtp.AddAttachment("/nonexistent/q/x.pdf"), err::kFileNotFound);
  EXPECT_RUNTIME_ERROR(smtp.AddAttachmentAsInline("/nonexistent/q/x.gif", std::string("id")),
                       err::kFileNotFound);
  EXPECT_EQ(smtp.Attachments()->Count(), 0);
}

TEST(ClientAttachmentsTest, PositionOutsideTheCollectionRaisesIndexError) {
  TempFolder folder;
  ardESMTP smtp;
  EXPECT_RUNTIME_ERROR(smtp.Attachment(), err::kSubscriptOutOfRange);
  smtp.AddAttachment(folder.Write("a.txt", "a"));
  EXPECT_RUNTIME_ERROR(smtp.Attachment(2), err::kSubscriptOutOfRange);
  smtp.ClearAttachments();
  EXPECT_EQ(smtp.Attachments()->Count(), 0);
}

}  // namespace
}  // namespace quillo

// gmime_check: a second, independent MIME parser for the tests. Parses the
// message in the file named on the command line with GMime 3 and prints what
// it found, one fact per line:
//
//   warning <code> <item>        every problem GMime's parser reported
//   subject <text>               the decoded Subject
//   from <name> <address>        the decoded From mailbox
//   to <name> <address>          the decoded To mailbox
//   part <sha256 of the decoded content> <type> <content id or -> <file name or ->
//
// Exit status 0 when the message parsed, 1 when it did not.
#include <fcntl.h>
#include <gmime/gmime.h>
#include <openssl/evp.h>

#include <cstdio>
#include <string>

namespace {

void Warn(gint64, GMimeParserWarning code, const gchar* item, gpointer) {
  std::printf("warning %d %s\n", static_cast<int>(code), item != nullptr ? item : "-");
}

std::string Sha256(const unsigned char* data, size_t size) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(data, size, digest, &length, EVP_sha256(), nullptr);
  static const char* hex = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

void PrintMailbox(const char* label, InternetAddressList* list) {
  if (list == nullptr || internet_address_list_length(list) == 0) return;
  InternetAddress* a = internet_address_list_get_address(list, 0);
  const char* name = internet_address_get_name(a);
  const char* address = INTERNET_ADDRESS_IS_MAILBOX(a)
                            ? internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(a))
                            : "";
  std::printf("%s %s %s\n", label, name != nullptr && *name ? name : "-", address);
}

void PrintPart(GMimeObject*, GMimeObject* part, gpointer) {
  if (!GMIME_IS_PART(part)) return;
  GMimePart* leaf = GMIME_PART(part);
  GMimeContentType* type = g_mime_object_get_content_type(part);
  gchar* mime_type = g_mime_content_type_get_mime_type(type);
  const char* file = g_mime_part_get_filename(leaf);
  const char* id = g_mime_object_get_content_id(part);
  GMimeDataWrapper* content = g_mime_part_get_content(leaf);
  GMimeStream* memory = g_mime_stream_mem_new();
  if (content != nullptr) g_mime_data_wrapper_write_to_stream(content, memory);
  GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(memory));
  std::printf("part %s %s %s %s\n", Sha256(bytes->data, bytes->len).c_str(), mime_type,
              id != nullptr ? id : "-", file != nullptr ? file : "-");
  g_object_unref(memory);
  g_free(mime_type);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: gmime_check MESSAGE-FILE\n");
    return 2;
  }
  g_mime_init();
  GMimeParserOptions* options = g_mime_parser_options_new();
  g_mime_parser_options_set_warning_callback(options, Warn, nullptr);
  GMimeStream* stream = g_mime_stream_fs_open(argv[1], O_RDONLY, 0, nullptr);
  if (stream == nullptr) return 1;
  GMimeParser* parser = g_mime_parser_new_with_stream(stream);
  GMimeMessage* message = g_mime_parser_construct_message(parser, options);
  if (message == nullptr) return 1;
  const char* subject = g_mime_message_get_subject(message);
  std::printf("subject %s\n", subject != nullptr ? subject : "");
  PrintMailbox("from", g_mime_message_get_from(message));
  PrintMailbox("to", g_mime_message_get_to(message));
  g_mime_message_foreach(message, PrintPart, nullptr);
  g_object_unref(message);
  g_object_unref(parser);
  g_object_unref(stream);
  g_mime_parser_options_free(options);
  g_mime_shutdown();
  return 0;
}

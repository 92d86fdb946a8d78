#include "campaign/dmmsgqueue.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "campaign/dm_campaign_msg.h"
#include "platform/file.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

// A fresh folder under the system's temporary folder, removed afterwards.
class QueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "quillo-queue-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  std::string dir_;
};

std::shared_ptr<dmCampaignMsg> MakeMessage(int n) {
  auto m = std::make_shared<dmCampaignMsg>();
  std::string k = std::to_string(n);
  m->Email("client" + k + "@example.com");
  m->MessageFileName("templates/item" + k + ".txt");
  m->Account("ACC" + k);
  m->CampaignItemRecID("ITEM" + k);
  m->CampaignName("Campaign " + k);
  m->CampaignRecID("CAMP" + k);
  m->HistoryRecID("HIST" + k);
  m->CampaignType(std::to_string(n % 3));
  m->SendDate("2026-03-01");
  return m;
}

void ExpectSameMessage(const dmCampaignMsg& a, const dmCampaignMsg& b) {
  EXPECT_EQ(a.Email(), b.Email());
  EXPECT_EQ(a.MessageFileName(), b.MessageFileName());
  EXPECT_EQ(a.Account(), b.Account());
  EXPECT_EQ(a.CampaignItemRecID(), b.CampaignItemRecID());
  EXPECT_EQ(a.CampaignName(), b.CampaignName());
  EXPECT_EQ(a.CampaignRecID(), b.CampaignRecID());
  EXPECT_EQ(a.HistoryRecID(), b.HistoryRecID());
  EXPECT_EQ(a.CampaignType(), b.CampaignType());
  EXPECT_EQ(a.SendDate(), b.SendDate());
}

// Writes `n` generated messages to the queue file at `path`.
void WriteQueue(const std::string& path, int n) {
  dmmsgqueue q;
  q.MessageQueueFileName(path);
  ASSERT_TRUE(q.OpenQueueWrite());
  for (int i = 0; i < n; ++i) q.WriteMessage(MakeMessage(i));
  q.CloseQueue();
}

// Reads every message of the queue file at `path` and checks them against
// the generated ones; returns how many were read.
int ReadAndCheck(const std::string& path) {
  dmmsgqueue q;
  q.MessageQueueFileName(path);
  EXPECT_TRUE(q.OpenQueueRead());
  int n = 0;
  while (auto m = q.ReadMessage()) {
    ExpectSameMessage(*m, *MakeMessage(n));
    ++n;
  }
  q.CloseQueue();
  return n;
}

// --- Record format --------------------------------------------------------

TEST_F(QueueTest, RecordIsNineQuotedFieldsInQueueOrderEndedByCrLf) {
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueWrite());
  auto m = std::make_shared<dmCampaignMsg>();
  m->CampaignType("1");
  m->HistoryRecID("H");
  m->Email("e@x");
  m->Account("A");
  m->CampaignRecID("C");
  m->CampaignItemRecID("I");
  m->MessageFileName("m.txt");
  m->SendDate("2026-03-01");
  m->CampaignName("Name");
  q.WriteMessage(m);
  q.WriteMessage(std::make_shared<dmCampaignMsg>());
  q.CloseQueue();
  EXPECT_EQ(ReadFileBytes(Path("q.txt")),
            "\"e@x\",\"m.txt\",\"A\",\"I\",\"Name\",\"C\",\"H\",\"1\",\"2026-03-01\"\r\n"
            "\"\",\"\",\"\",\"\",\"\",\"\",\"\",\"\",\"\"\r\n");
}

TEST_F(QueueTest, FieldsAreWrittenWithoutEscaping) {
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueWrite());
  auto m = std::make_shared<dmCampaignMsg>();
  m->CampaignName("say \"hi\", \\ all");
  q.WriteMessage(m);
  q.CloseQueue();
  EXPECT_EQ(ReadFileBytes(Path("q.txt")),
            "\"\",\"\",\"\",\"\",\"say \"hi\", \\ all\",\"\",\"\",\"\",\"\"\r\n");
}

TEST_F(QueueTest, ThreeMessagesReadBackInWritingOrderAndCountThree) {
  WriteQueue(Path("q.txt"), 3);
  EXPECT_EQ(ReadAndCheck(Path("q.txt")), 3);
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  EXPECT_EQ(q.Count(), 3);
}

TEST_F(QueueTest, MessagesReadBackWithRepeatedFieldsKeepTheirOwnTextsWhenSet) {
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueWrite());
  auto a = MakeMessage(1);
  auto b = MakeMessage(1);
  b->Email("other@example.com");
  auto c = MakeMessage(2);
  for (const auto& m : {a, b, c}) q.WriteMessage(m);
  q.CloseQueue();
  ASSERT_TRUE(q.OpenQueueRead());
  auto ra = q.ReadMessage();
  auto rb = q.ReadMessage();
  auto rc = q.ReadMessage();
  ASSERT_TRUE(ra && rb && rc);
  q.CloseQueue();
  ExpectSameMessage(*ra, *a);
  ExpectSameMessage(*rb, *b);
  ExpectSameMessage(*rc, *c);
  ra->CampaignName("Renamed");
  ra->SendDate("2027-01-01");
  EXPECT_EQ(ra->CampaignName(), "Renamed");
  EXPECT_EQ(ra->SendDate(), "2027-01-01");
  ExpectSameMessage(*rb, *b);
  ExpectSameMessage(*rc, *c);
}

TEST_F(QueueTest, RecordsCyclingThroughManyItemsAndRepeatingAClientReadBackAsWritten) {
  // Six items in turn (more than the reader keeps in mind at once), each
  // client twice in a row, then a record like the first again.
  std::vector<std::shared_ptr<dmCampaignMsg>> written;
  for (int i = 0; i < 40; ++i) {
    auto m = MakeMessage(i % 6);
    m->Email("client" + std::to_string(i / 2) + "@example.com");
    m->Account("ACCOUNT" + std::to_string(i / 2));
    written.push_back(m);
  }
  written.push_back(MakeMessage(0));
  std::vector<std::shared_ptr<dmCampaignMsg>> read;
  {
    dmmsgqueue q;
    q.MessageQueueFileName(Path("q.txt"));
    ASSERT_TRUE(q.OpenQueueWrite());
    for (const auto& m : written) q.WriteMessage(m);
    q.CloseQueue();
    ASSERT_TRUE(q.OpenQueueRead());
    while (auto m = q.ReadMessage()) read.push_back(m);
  }  // The messages outlive the queue that read them.
  ASSERT_EQ(read.size(), written.size());
  for (size_t i = 0; i < read.size(); ++i) ExpectSameMessage(*read[i], *written[i]);
  // Changing one message leaves the others, with equal texts, as they were.
  read[0]->Email("changed@example.com");
  read[0]->Account("CHANGED");
  read[6]->CampaignItemRecID("CHANGED");
  EXPECT_EQ(read[0]->Email(), "changed@example.com");
  EXPECT_EQ(read[0]->Account(), "CHANGED");
  EXPECT_EQ(read[6]->CampaignItemRecID(), "CHANGED");
  for (size_t i = 1; i < read.size(); ++i) {
    if (i != 6) ExpectSameMessage(*read[i], *written[i]);
  }
  EXPECT_EQ(read[6]->Email(), written[6]->Email());
  EXPECT_EQ(read[6]->CampaignName(), written[6]->CampaignName());
}

TEST_F(QueueTest, CampaignNameWithCommaReadsBackIntact) {
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueWrite());
  auto m = MakeMessage(1);
  m->CampaignName("Spring, Summer, Fall");
  q.WriteMessage(m);
  q.CloseQueue();
  ASSERT_TRUE(q.OpenQueueRead());
  auto back = q.ReadMessage();
  ASSERT_NE(back, nullptr);
  ExpectSameMessage(*back, *m);
  EXPECT_EQ(q.ReadMessage(), nullptr);
}

TEST_F(QueueTest, TextWithDoubleQuoteDoesNotReadBackIntact) {
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueWrite());
  auto m = MakeMessage(1);
  m->CampaignName("The \"Best\" Deals");
  q.WriteMessage(m);
  q.CloseQueue();
  ASSERT_TRUE(q.OpenQueueRead());
  auto back = q.ReadMessage();
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->CampaignName(), "The ");
  EXPECT_NE(back->CampaignName(), m->CampaignName());
  EXPECT_EQ(back->CampaignRecID(), m->CampaignRecID());
}

// --- Paths ----------------------------------------------------------------

TEST_F(QueueTest, WithNoFolderOrNameTheFileIsInTheApplicationFolder) {
  dmmsgqueue q;
  EXPECT_EQ(q.QueueFilePath(), ApplicationFolder() + "/~mqueue.txt");
  ASSERT_TRUE(q.OpenQueueWrite());
  q.CloseQueue();
  EXPECT_EQ(q.MessageQueueFileName(), ApplicationFolder() + "/~mqueue.txt");
  EXPECT_TRUE(FileExists(ApplicationFolder() + "/~mqueue.txt"));
  DeleteFileIfExists(ApplicationFolder() + "/~mqueue.txt");
}

TEST_F(QueueTest, RootFolderWithOrWithoutTrailingSeparatorGivesTheSamePath) {
  dmmsgqueue with_slash;
  with_slash.RootFolder(dir_ + "/");
  dmmsgqueue without_slash;
  without_slash.RootFolder(dir_);
  EXPECT_EQ(with_slash.QueueFilePath(), dir_ + "/~mqueue.txt");
  EXPECT_EQ(without_slash.QueueFilePath(), dir_ + "/~mqueue.txt");
  ASSERT_TRUE(without_slash.OpenQueueWrite());
  without_slash.CloseQueue();
  EXPECT_EQ(without_slash.MessageQueueFileName(), dir_ + "/~mqueue.txt");
}

TEST_F(QueueTest, RootFolderEndingInBackslashIsTakenAsAFolder) {
  dmmsgqueue q;
  q.RootFolder(dir_ + "\\");
  EXPECT_EQ(q.QueueFilePath(), dir_ + "/~mqueue.txt");
}

TEST_F(QueueTest, AnEmptyRootFolderStillGetsItsSeparator) {
  // Assigning "" stores "/", which is not blank, so the file-system root is used.
  dmmsgqueue q;
  q.RootFolder("");
  EXPECT_EQ(q.QueueFilePath(), "/~mqueue.txt");
}

TEST_F(QueueTest, AFileNameTakesPrecedenceOverTheRootFolder) {
  dmmsgqueue q;
  q.RootFolder(dir_ + "/elsewhere");
  q.MessageQueueFileName(Path("named.txt"));
  EXPECT_EQ(q.QueueFilePath(), Path("named.txt"));
}

TEST_F(QueueTest, ABlankFileNameIsIgnored) {
  dmmsgqueue q;
  q.RootFolder(dir_);
  q.MessageQueueFileName("   ");
  EXPECT_EQ(q.QueueFilePath(), dir_ + "/~mqueue.txt");
}

TEST_F(QueueTest, BackslashesInTheFileNameAreFolderSeparators) {
  dmmsgqueue q;
  std::filesystem::create_directory(Path("sub"));
  q.MessageQueueFileName(dir_ + "\\sub\\q.txt");
  ASSERT_TRUE(q.OpenQueueWrite());
  q.CloseQueue();
  EXPECT_TRUE(FileExists(Path("sub/q.txt")));
}

TEST_F(QueueTest, OpenQueueWriteStoresTheResolvedPathForLaterOpens) {
  std::filesystem::create_directory(Path("a"));
  std::filesystem::create_directory(Path("b"));
  dmmsgqueue q;
  q.RootFolder(Path("a"));
  EXPECT_EQ(q.MessageQueueFileName(), "");
  ASSERT_TRUE(q.OpenQueueWrite());
  EXPECT_EQ(q.MessageQueueFileName(), Path("a") + "/~mqueue.txt");
  q.WriteMessage(MakeMessage(0));
  q.CloseQueue();
  q.RootFolder(Path("b"));  // Ignored from now on: the stored name wins.
  EXPECT_EQ(q.Count(), 1);
  EXPECT_FALSE(FileExists(Path("b") + "/~mqueue.txt"));
}

// --- Opening, counting, closing ---------------------------------------------

TEST_F(QueueTest, OpeningAnExistingQueueForWritingEmptiesIt) {
  WriteQueue(Path("q.txt"), 5);
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  EXPECT_EQ(q.Count(), 5);
  ASSERT_TRUE(q.OpenQueueWrite());
  q.CloseQueue();
  EXPECT_EQ(q.Count(), 0);
  EXPECT_EQ(ReadFileBytes(Path("q.txt")), "");
}

TEST_F(QueueTest, OpenQueueReadOfAMissingFileIsFalse) {
  dmmsgqueue q;
  q.MessageQueueFileName(Path("missing.txt"));
  EXPECT_FALSE(q.OpenQueueRead());
  EXPECT_EQ(q.ReadMessage(), nullptr);
}

TEST_F(QueueTest, CountOfAMissingFileIsZero) {
  dmmsgqueue q;
  q.MessageQueueFileName(Path("missing.txt"));
  EXPECT_EQ(q.Count(), 0);
}

TEST_F(QueueTest, OpenQueueWriteInAMissingFolderIsFalse) {
  dmmsgqueue q;
  q.RootFolder(Path("no/such/folder"));
  EXPECT_FALSE(q.OpenQueueWrite());
  EXPECT_EQ(q.MessageQueueFileName(), Path("no/such/folder") + "/~mqueue.txt");
}

TEST_F(QueueTest, CountReadsThroughAndLeavesTheQueueClosed) {
  WriteQueue(Path("q.txt"), 2);
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueRead());
  EXPECT_EQ(q.Count(), 2);
  EXPECT_EQ(q.ReadMessage(), nullptr);
}

TEST_F(QueueTest, ReadMessageWithoutAnOpenFileIsNone) {
  dmmsgqueue q;
  EXPECT_EQ(q.ReadMessage(), nullptr);
}

TEST_F(QueueTest, ReadMessageOnAFileOpenForWritingIsNone) {
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueWrite());
  q.WriteMessage(MakeMessage(0));
  EXPECT_EQ(q.ReadMessage(), nullptr);
  q.CloseQueue();
}

TEST_F(QueueTest, WriteWithoutAnOpenFileRaisesTheFileError) {
  dmmsgqueue q;
  EXPECT_RUNTIME_ERROR(q.WriteMessage(MakeMessage(0)), err::kBadFileNameOrNumber);
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueWrite());
  q.CloseQueue();
  EXPECT_RUNTIME_ERROR(q.WriteMessage(MakeMessage(0)), err::kBadFileNameOrNumber);
}

TEST_F(QueueTest, WriteToAFileOpenForReadingRaisesBadFileMode) {
  WriteQueue(Path("q.txt"), 1);
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueRead());
  EXPECT_RUNTIME_ERROR(q.WriteMessage(MakeMessage(0)), 54);
}

TEST_F(QueueTest, WriteOfNoMessageRaisesObjectNotSet) {
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueWrite());
  EXPECT_RUNTIME_ERROR(q.WriteMessage(std::shared_ptr<dmCampaignMsg>()), err::kObjectNotSet);
}

TEST_F(QueueTest, AWriteThatTheFileSystemRefusesRaisesTheFileError) {
  // A child process with a file-size limit of 1 kB: the buffered records
  // cannot all be written, and the write that fails raises 75.
  std::string path = Path("q.txt");
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{1024, 1024};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    int code = 1;
    try {
      dmmsgqueue q;
      q.MessageQueueFileName(path);
      if (!q.OpenQueueWrite()) ::_exit(2);
      for (int i = 0; i < 10000; ++i) q.WriteMessage(MakeMessage(i));
      q.CloseQueue();
    } catch (const RuntimeError& e) {
      code = e.number == err::kPathFileAccessError ? 0 : 3;
    }
    ::_exit(code);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(QueueTest, CloseQueueWithNothingOpenDoesNothing) {
  dmmsgqueue q;
  q.CloseQueue();
  q.CloseQueue();
  SUCCEED();
}

TEST_F(QueueTest, ClosingMidReadAndReopeningStartsFromTheFirstRecord) {
  WriteQueue(Path("q.txt"), 3);
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueRead());
  ASSERT_NE(q.ReadMessage(), nullptr);
  q.CloseQueue();
  EXPECT_EQ(ReadAndCheck(Path("q.txt")), 3);
}

TEST_F(QueueTest, TheDestructorWritesOutBufferedRecords) {
  {
    dmmsgqueue q;
    q.MessageQueueFileName(Path("q.txt"));
    ASSERT_TRUE(q.OpenQueueWrite());
    q.WriteMessage(MakeMessage(0));
  }
  EXPECT_EQ(ReadAndCheck(Path("q.txt")), 1);
}

// --- Round trips ------------------------------------------------------------

TEST_F(QueueTest, RoundTripOfAnEmptyQueue) {
  WriteQueue(Path("q.txt"), 0);
  EXPECT_EQ(ReadAndCheck(Path("q.txt")), 0);
}

TEST_F(QueueTest, RoundTripOfOneMessage) {
  WriteQueue(Path("q.txt"), 1);
  EXPECT_EQ(ReadAndCheck(Path("q.txt")), 1);
}

TEST_F(QueueTest, RoundTripOfAHundredThousandMessages) {
  WriteQueue(Path("q.txt"), 100000);
  EXPECT_EQ(ReadAndCheck(Path("q.txt")), 100000);
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  EXPECT_EQ(q.Count(), 100000);
}

TEST_F(QueueTest, RoundTripKeepsArbitraryBytesOtherThanQuotesAndLineEnds) {
  std::string bytes;
  for (int c = 0; c < 256; ++c) {
    if (c != '"' && c != '\r' && c != '\n') bytes.push_back(static_cast<char>(c));
  }
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueWrite());
  auto m = MakeMessage(0);
  m->CampaignName(bytes);
  q.WriteMessage(m);
  q.CloseQueue();
  ASSERT_TRUE(q.OpenQueueRead());
  auto back = q.ReadMessage();
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->CampaignName(), bytes);
}

// --- Damaged files ------------------------------------------------------------

const std::string kGood1 =
    "\"a@x\",\"m1\",\"A1\",\"I1\",\"N1\",\"C1\",\"H1\",\"1\",\"2026-01-01\"\r\n";
const std::string kGood2 =
    "\"b@x\",\"m2\",\"A2\",\"I2\",\"N2\",\"C2\",\"H2\",\"2\",\"2026-01-02\"\r\n";

// The e-mail addresses of the messages read from a file holding `bytes`.
std::vector<std::string> EmailsRead(const std::string& path, const std::string& bytes) {
  WriteFileBytes(path, bytes);
  dmmsgqueue q;
  q.MessageQueueFileName(path);
  EXPECT_TRUE(q.OpenQueueRead());
  std::vector<std::string> emails;
  while (auto m = q.ReadMessage()) emails.push_back(m->Email());
  // Once a read has failed, every later read is none too.
  EXPECT_EQ(q.ReadMessage(), nullptr);
  q.CloseQueue();
  return emails;
}

using Emails = std::vector<std::string>;

TEST_F(QueueTest, AllFieldsOfAReadRecordGoToTheirProperties) {
  WriteFileBytes(Path("q.txt"), kGood1);
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueRead());
  auto m = q.ReadMessage();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->Email(), "a@x");
  EXPECT_EQ(m->MessageFileName(), "m1");
  EXPECT_EQ(m->Account(), "A1");
  EXPECT_EQ(m->CampaignItemRecID(), "I1");
  EXPECT_EQ(m->CampaignName(), "N1");
  EXPECT_EQ(m->CampaignRecID(), "C1");
  EXPECT_EQ(m->HistoryRecID(), "H1");
  EXPECT_EQ(m->CampaignType(), "1");
  EXPECT_EQ(m->SendDate(), "2026-01-01");
}

TEST_F(QueueTest, ALastRecordWithoutLineEndIsRead) {
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + kGood2.substr(0, kGood2.size() - 2)),
            (Emails{"a@x", "b@x"}));
}

TEST_F(QueueTest, LineFeedAloneEndsARecord) {
  std::string lf1 = kGood1.substr(0, kGood1.size() - 2) + "\n";
  EXPECT_EQ(EmailsRead(Path("q.txt"), lf1 + kGood2), (Emails{"a@x", "b@x"}));
}

TEST_F(QueueTest, SpacesBeforeAQuotedFieldAreSkipped) {
  std::string spaced =
      "  \"a@x\", \"m1\",\"A1\",\"I1\",\"N1\",\"C1\",\"H1\",\"1\",   \"2026-01-01\"\r\n";
  EXPECT_EQ(EmailsRead(Path("q.txt"), spaced + kGood2), (Emails{"a@x", "b@x"}));
}

TEST_F(QueueTest, ATruncatedFileGivesTheWholeRecordsBeforeTheCut) {
  std::string whole = kGood1 + kGood2;
  for (size_t cut = kGood1.size() + 1; cut < whole.size() - 3; ++cut) {
    EXPECT_EQ(EmailsRead(Path("q.txt"), whole.substr(0, cut)), (Emails{"a@x"})) << cut;
  }
}

TEST_F(QueueTest, AnUnterminatedQuoteEndsTheReading) {
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + "\"c@x\",\"unterminated\r\n" + kGood2),
            (Emails{"a@x"}));
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + "\"c@x\r\n" + kGood2), (Emails{"a@x"}));
}

TEST_F(QueueTest, FewerThanNineFieldsEndsTheReading) {
  std::string eight = "\"c@x\",\"m3\",\"A3\",\"I3\",\"N3\",\"C3\",\"H3\",\"3\"\r\n";
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + eight + kGood2), (Emails{"a@x"}));
  EXPECT_EQ(EmailsRead(Path("q.txt"), eight), (Emails{}));
}

TEST_F(QueueTest, AnUnquotedFieldEndsTheReading) {
  std::string unquoted = "c@x,\"m3\",\"A3\",\"I3\",\"N3\",\"C3\",\"H3\",\"3\",\"2026-01-03\"\r\n";
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + unquoted + kGood2), (Emails{"a@x"}));
}

TEST_F(QueueTest, ABlankLineEndsTheReading) {
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + "\r\n" + kGood2), (Emails{"a@x"}));
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + "\n" + kGood2), (Emails{"a@x"}));
  EXPECT_EQ(EmailsRead(Path("q.txt"), "\r\n" + kGood1), (Emails{}));
}

TEST_F(QueueTest, BinaryJunkEndsTheReading) {
  std::string junk;
  unsigned state = 12345;
  for (int i = 0; i < 100000; ++i) {
    state = state * 1103515245u + 12345u;
    junk.push_back(static_cast<char>(state >> 16));
  }
  junk[0] = '\0';  // Never a quote: the record cannot start.
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + kGood2 + junk + kGood1), (Emails{"a@x", "b@x"}));
  EXPECT_EQ(EmailsRead(Path("q.txt"), junk), (Emails{}));
}

TEST_F(QueueTest, ATenMegabyteJunkLineEndsTheReading) {
  std::string line(10 << 20, 'x');
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + line + "\r\n" + kGood2), (Emails{"a@x"}));
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + line), (Emails{"a@x"}));
}

TEST_F(QueueTest, ATenMegabyteUnterminatedQuoteEndsTheReading) {
  std::string line = "\"" + std::string(10 << 20, 'y');
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + line + "\r\n" + kGood2), (Emails{"a@x"}));
}

TEST_F(QueueTest, ATenMegabyteFieldInAWellFormedRecordReadsBack) {
  std::string big(10 << 20, 'z');
  std::string record =
      "\"big@x\",\"m\",\"A\",\"I\",\"" + big + "\",\"C\",\"H\",\"0\",\"2026-01-01\"\r\n";
  WriteFileBytes(Path("q.txt"), kGood1 + record + kGood2);
  dmmsgqueue q;
  q.MessageQueueFileName(Path("q.txt"));
  ASSERT_TRUE(q.OpenQueueRead());
  ASSERT_NE(q.ReadMessage(), nullptr);
  auto m = q.ReadMessage();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->CampaignName().size(), big.size());
  auto last = q.ReadMessage();
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->Email(), "b@x");
}

TEST_F(QueueTest, ARecordBeyondTheSizeLimitEndsTheReading) {
  std::string huge(dmmsgqueue::kMaxRecordBytes + 10, 'h');
  std::string record = "\"big@x\",\"m\",\"A\",\"I\",\"" + huge + "\",\"C\",\"H\",\"0\",\"d\"\r\n";
  EXPECT_EQ(EmailsRead(Path("q.txt"), kGood1 + record + kGood2), (Emails{"a@x"}));
}

TEST_F(QueueTest, FieldsAfterTheNinthAreIgnored) {
  std::string ten = kGood1.substr(0, kGood1.size() - 2) + ",\"extra\"\r\n";
  EXPECT_EQ(EmailsRead(Path("q.txt"), ten + kGood2), (Emails{"a@x", "b@x"}));
}

// --- By name ------------------------------------------------------------------

TEST_F(QueueTest, DrivenByNameWritesAndReadsMessages) {
  ObjectPtr q = CreateObject("dmmsgqueue");
  q->Invoke("RootFolder", CallKind::kPut, {Variant(dir_)});
  EXPECT_TRUE(q->Invoke("OpenQueueWrite", CallKind::kMethod).ToBool());
  EXPECT_EQ(q->Invoke("MessageQueueFileName", CallKind::kGet).ToString(), dir_ + "/~mqueue.txt");
  ObjectPtr m = CreateObject("dmCampaignMsg");
  m->Invoke("Email", CallKind::kPut, {Variant("n@x")});
  q->Invoke("WriteMessage", CallKind::kMethod, {Variant(m)});
  q->Invoke("CloseQueue", CallKind::kMethod);
  EXPECT_EQ(q->Invoke("Count", CallKind::kMethod).ToLong(), 1);
  EXPECT_TRUE(q->Invoke("OpenQueueRead", CallKind::kMethod).ToBool());
  Variant first = q->Invoke("ReadMessage", CallKind::kMethod);
  ASSERT_TRUE(first.IsObject());
  EXPECT_EQ(first.ObjectRef()->Invoke("Email", CallKind::kGet).ToString(), "n@x");
  Variant none = q->Invoke("ReadMessage", CallKind::kMethod);
  EXPECT_TRUE(none.IsObject() && none.ObjectRef() == nullptr);
  q->Invoke("CloseQueue", CallKind::kMethod);
}

TEST_F(QueueTest, PublishesItsMembersInInterfaceOrder) {
  dmmsgqueue q;
  std::vector<std::pair<std::string, CallKind>> expected = {
      {"RootFolder", CallKind::kPut},           {"MessageQueueFileName", CallKind::kPut},
      {"MessageQueueFileName", CallKind::kGet}, {"WriteMessage", CallKind::kMethod},
      {"ReadMessage", CallKind::kMethod},       {"Count", CallKind::kMethod},
      {"OpenQueueRead", CallKind::kMethod},     {"OpenQueueWrite", CallKind::kMethod},
      {"CloseQueue", CallKind::kMethod},
  };
  const auto& members = q.Members().members();
  ASSERT_EQ(members.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(members[i].name, expected[i].first);
    EXPECT_EQ(members[i].kind, expected[i].second);
  }
}

}  // namespace
}  // namespace quillo

// Tests of the XML form every record class shares: rendering, loading, and
// the error properties for bad input.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "campaign/dmmrktcmp.h"
#include "platform/object.h"
#include "platform/xml.h"
#include "records/dmcatalogitem.h"
#include "records/dmclients.h"
#include "records/dmclientscustom.h"
#include "records/general_utilities.h"

namespace quillo {
namespace {

constexpr const char* kGetDocumentFailed = "Error Getting XML DOM Object";
constexpr const char* kLoadElementFailed = "Error Setting Class From Document Element";

// 2005-03-01 14:05:09.
const Date kMarchFirst(38412.0 + (14 * 3600 + 5 * 60 + 9) / 86400.0);

TEST(RecordXml, RendersRootAndOneChildPerColumnInUpperCase) {
  dmcatalogitem item;
  item.Category("News");
  EXPECT_EQ(item.XML(),
            "<DMCATALOGITEM><BASEFILENAME/><CATEGORY>News</CATEGORY><DESCRIPTION/>"
            "<FILENAME/><RECID/></DMCATALOGITEM>");
  EXPECT_FALSE(item.Error());
}

TEST(RecordXml, RendersNumbersAsDecimalTextAndDatesAsOdbcText) {
  dmclientscustom custom;
  custom.BoolValue(-5);
  custom.NumericValue(2.5f);
  custom.DateValue(kMarchFirst);
  EXPECT_EQ(custom.XML(),
            "<DMCLIENTSCUSTOM><ACCOUNT/><BOOLVALUE>-5</BOOLVALUE><CUSTOMRECID/>"
            "<DATEVALUE>2005-03-01 14:05:09</DATEVALUE><NUMERICVALUE>2.5</NUMERICVALUE>"
            "<RECID/><TEXTVALUE/></DMCLIENTSCUSTOM>");
}

TEST(RecordXml, NewRecordRendersZeroDateAndZeroNumbers) {
  dmclientscustom custom;
  auto element = custom.GetDOMElement();
  ASSERT_NE(element, nullptr);
  auto children = element->ChildList();
  ASSERT_EQ(children.size(), 7u);
  EXPECT_EQ(children[1]->text(), "0");
  EXPECT_EQ(children[3]->text(), "1899-12-30 00:00:00");
  EXPECT_EQ(children[4]->text(), "0");
}

TEST(RecordXml, InvalidDateRendersAsZeroes) {
  dmclientscustom custom;
  custom.DateValue(Date(1e12));
  EXPECT_NE(custom.XML().find("<DATEVALUE>0000-00-00 00:00:00</DATEVALUE>"), std::string::npos);
}

TEST(RecordXml, EscapesMarkupInText) {
  dmcatalogitem item;
  item.Description("a < b & \"c\"");
  EXPECT_NE(item.XML().find("<DESCRIPTION>a &lt; b &amp; \"c\"</DESCRIPTION>"), std::string::npos);
  dmcatalogitem back;
  back.XML(item.XML());
  EXPECT_EQ(back.Description(), "a < b & \"c\"");
}

TEST(RecordXml, ClientsUseUpperCaseOfThePropertyNames) {
  dmclients client;
  client.city("Springfield");
  client.Email("a@b.c");
  client.state("IL");
  client.zip("62701");
  std::string xml = client.XML();
  EXPECT_NE(xml.find("<CITY>Springfield</CITY>"), std::string::npos);
  EXPECT_NE(xml.find("<EMAIL>a@b.c</EMAIL>"), std::string::npos);
  EXPECT_NE(xml.find("<STATE>IL</STATE>"), std::string::npos);
  EXPECT_NE(xml.find("<ZIP>62701</ZIP>"), std::string::npos);
  EXPECT_EQ(xml.rfind("<DMCLIENTS><ACCOUNT/>", 0), 0u);
}

TEST(RecordXml, RoundTripReproducesEveryValue) {
  dmclients client;
  client.Account("ACC'1");
  client.Address("1 Main St\nFloor 2");
  client.CalledDate(kMarchFirst);
  client.EMailList(-3);
  client.HotSheetList(32767);
  client.ModifiedRemote(-32768);
  client.Notes("  padded  ");
  client.zip("0123");
  dmclients back;
  back.XML(client.XML());
  EXPECT_FALSE(back.Error());
  EXPECT_EQ(back.Account(), "ACC'1");
  EXPECT_EQ(back.Address(), "1 Main St\nFloor 2");
  EXPECT_EQ(back.CalledDate(), kMarchFirst);
  EXPECT_EQ(back.EMailList(), -3);
  EXPECT_EQ(back.HotSheetList(), 32767);
  EXPECT_EQ(back.ModifiedRemote(), -32768);
  EXPECT_EQ(back.Notes(), "  padded  ");
  EXPECT_EQ(back.zip(), "0123");
  EXPECT_EQ(back.ContactDate(), Date());
}

TEST(RecordXml, DateRoundTripKeepsSecondsAndDropsFractions) {
  dmclientscustom custom;
  custom.DateValue(Date(kMarchFirst.value + 0.4 / 86400.0));
  custom.NumericValue(0.1f);
  dmclientscustom back;
  back.XML(custom.XML());
  EXPECT_NEAR(back.DateValue().value, kMarchFirst.value, 0.5 / 86400.0);
  EXPECT_EQ(back.NumericValue(), 0.1f);
}

TEST(RecordXml, LowerCaseChildNamesLoad) {
  dmcatalogitem item;
  item.XML("<DMCATALOGITEM><category>Tips</category><RecID>K1</RecID></DMCATALOGITEM>");
  EXPECT_FALSE(item.Error());
  EXPECT_EQ(item.Category(), "Tips");
  EXPECT_EQ(item.RecID(), "K1");
}

TEST(RecordXml, PartialElementChangesOnlyItsColumns) {
  dmcatalogitem item;
  item.BaseFileName("base");
  item.Category("old");
  item.RecID("K");
  item.XML("<DMCATALOGITEM><CATEGORY>new</CATEGORY></DMCATALOGITEM>");
  EXPECT_EQ(item.BaseFileName(), "base");
  EXPECT_EQ(item.Category(), "new");
  EXPECT_EQ(item.RecID(), "K");
}

TEST(RecordXml, ZeroDateTextLoadsAsTheRolledOverDate) {
  dmclientscustom custom;
  custom.XML("<DMCLIENTSCUSTOM><DATEVALUE>0000-00-00 00:00:00</DATEVALUE></DMCLIENTSCUSTOM>");
  EXPECT_FALSE(custom.Error());
  GeneralUtilities utilities;
  EXPECT_EQ(custom.DateValue(), utilities.ODBCToDateTime("0000-00-00 00:00:00"));
  EXPECT_NE(custom.DateValue(), Date());
}

TEST(RecordXml, TextThatIsNotXmlReportsTheElementFailure) {
  dmcatalogitem item;
  item.Category("kept");
  item.XML("this is not <xml");
  EXPECT_TRUE(item.Error());
  EXPECT_EQ(item.ErrorMessage(), kLoadElementFailed);
  EXPECT_EQ(item.Category(), "kept");
}

TEST(RecordXml, EmptyTextReportsTheElementFailure) {
  dmcatalogitem item;
  item.XML("");
  EXPECT_TRUE(item.Error());
  EXPECT_EQ(item.ErrorMessage(), kLoadElementFailed);
}

TEST(RecordXml, WrongRootStillLoadsMatchingChildren) {
  // The root's name is not checked: only the children are matched.
  dmcatalogitem item;
  item.XML("<SOMETHINGELSE><CATEGORY>c</CATEGORY><OTHER>x</OTHER></SOMETHINGELSE>");
  EXPECT_FALSE(item.Error());
  EXPECT_EQ(item.Category(), "c");
}

TEST(RecordXml, UnknownChildrenAreSkipped) {
  dmcatalogitem item;
  item.XML(
      "<DMCATALOGITEM><UNKNOWN>u</UNKNOWN><FILENAME>f</FILENAME>text<!-- c -->"
      "<NESTED><CATEGORY>inner</CATEGORY></NESTED></DMCATALOGITEM>");
  EXPECT_FALSE(item.Error());
  EXPECT_EQ(item.FileName(), "f");
  EXPECT_EQ(item.Category(), "");
}

TEST(RecordXml, RepeatedChildTakesTheLastOccurrence) {
  dmcatalogitem item;
  item.XML("<DMCATALOGITEM><CATEGORY>first</CATEGORY><category>last</category></DMCATALOGITEM>");
  EXPECT_EQ(item.Category(), "last");
}

TEST(RecordXml, TenMegabytesOfTextLoad) {
  std::string big(10 * 1024 * 1024, 'x');
  dmcatalogitem item;
  item.XML("<DMCATALOGITEM><DESCRIPTION>" + big + "</DESCRIPTION></DMCATALOGITEM>");
  EXPECT_FALSE(item.Error());
  EXPECT_EQ(item.Description(), big);
  dmcatalogitem back;
  back.XML(item.XML());
  EXPECT_EQ(back.Description().size(), big.size());
}

TEST(RecordXml, NonNumericTextInNumberColumnsLoadsAsZero) {
  dmclientscustom custom;
  custom.BoolValue(7);
  custom.NumericValue(7.5f);
  custom.XML(
      "<DMCLIENTSCUSTOM><BOOLVALUE>seven</BOOLVALUE><NUMERICVALUE></NUMERICVALUE>"
      "</DMCLIENTSCUSTOM>");
  EXPECT_FALSE(custom.Error());
  EXPECT_EQ(custom.BoolValue(), 0);
  EXPECT_EQ(custom.NumericValue(), 0.0f);
}

TEST(RecordXml, NumericTextRoundsHalfToEven) {
  dmclients client;
  client.XML("<DMCLIENTS><EMAILLIST>12.5</EMAILLIST><MAILINGLIST>13.5</MAILINGLIST></DMCLIENTS>");
  EXPECT_EQ(client.EMailList(), 12);
  EXPECT_EQ(client.MailingList(), 14);
}

TEST(RecordXml, OutOfRangeNumberFailsAndKeepsEarlierColumns) {
  dmclients client;
  client.XML(
      "<DMCLIENTS><ADDRESS>first</ADDRESS><EMAILLIST>99999</EMAILLIST>"
      "<NOTES>after</NOTES></DMCLIENTS>");
  EXPECT_TRUE(client.Error());
  EXPECT_EQ(client.ErrorMessage(), kLoadElementFailed);
  EXPECT_EQ(client.Address(), "first");
  EXPECT_EQ(client.Notes(), "");
}

TEST(RecordXml, NullElementReportsTheElementFailure) {
  dmcatalogitem item;
  item.LoadFromDOMElement(nullptr);
  EXPECT_TRUE(item.Error());
  EXPECT_EQ(item.ErrorMessage(), kLoadElementFailed);
}

TEST(RecordXml, LoadersResetTheErrorProperties) {
  dmcatalogitem item;
  item.XML("not xml");
  ASSERT_TRUE(item.Error());
  item.XML("<DMCATALOGITEM><CATEGORY>ok</CATEGORY></DMCATALOGITEM>");
  EXPECT_FALSE(item.Error());
  item.Error(true);
  item.LoadFromDOMElement(item.GetDOMElement());
  EXPECT_FALSE(item.Error());
}

TEST(RecordXml, GetDOMElementIsTheRootOfANewDocument) {
  dmmrktcmp campaign;
  campaign.CampaignName("Spring");
  auto element = campaign.GetDOMElement();
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(element->tagName(), "DMMRKTCMP");
  auto doc = campaign.GetDOMDocument();
  ASSERT_NE(doc, nullptr);
  EXPECT_EQ(doc->xml(), campaign.XML());
  // Each call builds a new document: changing one leaves the record alone.
  element->ChildList().at(2)->text("Changed");
  EXPECT_EQ(campaign.CampaignName(), "Spring");
}

TEST(RecordXml, LoadFromDOMElementByName) {
  ObjectPtr source = CreateObject("dmcatalogitem");
  source->Invoke("Category", CallKind::kPut, {Variant("byname")});
  Variant element = source->Invoke("GetDOMElement", CallKind::kMethod);
  ObjectPtr target = CreateObject("dmcatalogitem");
  target->Invoke("LoadFromDOMElement", CallKind::kMethod, {element});
  EXPECT_EQ(target->Invoke("Category", CallKind::kGet).ToString(), "byname");
  EXPECT_FALSE(target->Invoke("Error", CallKind::kGet).ToBool());
  Variant doc = source->Invoke("GetDOMDocument", CallKind::kMethod);
  EXPECT_EQ(CallByName(doc.ToObject(), "xml", CallKind::kGet).ToString(),
            source->Invoke("XML", CallKind::kGet).ToString());
}

TEST(RecordXml, LoadFromDOMElementWithAnObjectThatIsNoElementFails) {
  ObjectPtr target = CreateObject("dmcatalogitem");
  target->Invoke("LoadFromDOMElement", CallKind::kMethod, {Variant(CreateObject("idgen"))});
  EXPECT_TRUE(target->Invoke("Error", CallKind::kGet).ToBool());
  EXPECT_EQ(target->Invoke("ErrorMessage", CallKind::kGet).ToString(), kLoadElementFailed);
  target->Invoke("LoadFromDOMElement", CallKind::kMethod, {Variant("text")});
  EXPECT_EQ(target->Invoke("ErrorMessage", CallKind::kGet).ToString(), kLoadElementFailed);
}

TEST(RecordXml, XmlLetByName) {
  ObjectPtr target = CreateObject("dmclients");
  target->Invoke("XML", CallKind::kPut, {Variant("<DMCLIENTS><City>Paris</City></DMCLIENTS>")});
  EXPECT_EQ(target->Invoke("city", CallKind::kGet).ToString(), "Paris");
}

TEST(RecordXml, BuildingADocumentLeavesTheErrorPropertiesAlone) {
  // Only the loaders reset Error; rendering sets it only when it fails.
  dmcatalogitem item;
  item.Error(true);
  item.ErrorMessage(kGetDocumentFailed);
  EXPECT_NE(item.GetDOMDocument(), nullptr);
  EXPECT_TRUE(item.Error());
}

}  // namespace
}  // namespace quillo

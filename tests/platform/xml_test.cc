// Tests of the DOM wrapper over pugixml.
#include "platform/xml.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/error.h"
#include "platform/object.h"

namespace quillo {
namespace {

#define EXPECT_ERROR_NUMBER(expr, n)                         \
  do {                                                       \
    try {                                                    \
      expr;                                                  \
      ADD_FAILURE() << "expected error " << n << ": " #expr; \
    } catch (const RuntimeError& e) {                        \
      EXPECT_EQ(e.number, n) << e.description;               \
    }                                                        \
  } while (0)

TEST(DOMDocument, BuildsAndSerialisesWithoutDeclarationOrIndentation) {
  auto doc = std::make_shared<DOMDocument>();
  auto root = doc->createElement("ROOT");
  doc->documentElement(root);
  auto a = doc->createElement("A");
  a->text("News & <views>");
  root->appendChild(a);
  root->appendChild(doc->createElement("B"));
  EXPECT_EQ(doc->xml(), "<ROOT><A>News &amp; &lt;views&gt;</A><B/></ROOT>");
}

TEST(DOMDocument, NewDocumentIsEmpty) {
  DOMDocument doc;
  EXPECT_EQ(doc.documentElement(), nullptr);
  EXPECT_EQ(doc.xml(), "");
  EXPECT_EQ(doc.childNodes()->length(), 0);
}

TEST(DOMDocument, DetachedElementsAreNotSerialised) {
  DOMDocument doc;
  auto loose = doc.createElement("LOOSE");
  auto root = doc.createElement("ROOT");
  doc.appendChild(root);
  EXPECT_EQ(doc.xml(), "<ROOT/>");
  loose->text("still usable");
  EXPECT_EQ(loose->xml(), "<LOOSE>still usable</LOOSE>");
}

TEST(DOMDocument, LoadsWellFormedText) {
  DOMDocument doc;
  ASSERT_TRUE(doc.loadXML("<?xml version=\"1.0\"?>\n<R><a>1</a><!-- c --><b>x&amp;y</b></R>"));
  auto root = doc.documentElement();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->tagName(), "R");
  auto children = root->ChildList();
  ASSERT_EQ(children.size(), 2u);
  EXPECT_EQ(children[0]->tagName(), "a");
  EXPECT_EQ(children[1]->text(), "x&y");
}

TEST(DOMDocument, MalformedTextLeavesAnEmptyDocument) {
  DOMDocument doc;
  ASSERT_TRUE(doc.loadXML("<R/>"));
  EXPECT_FALSE(doc.loadXML("<R><a></R>"));
  EXPECT_EQ(doc.documentElement(), nullptr);
  EXPECT_EQ(doc.xml(), "");
}

TEST(DOMDocument, TextWithoutASingleRootIsRejected) {
  DOMDocument doc;
  EXPECT_FALSE(doc.loadXML("just text"));
  EXPECT_FALSE(doc.loadXML(""));
  EXPECT_FALSE(doc.loadXML("<a/><b/>"));
  EXPECT_FALSE(doc.loadXML("text<a/>"));
  EXPECT_EQ(doc.documentElement(), nullptr);
}

TEST(DOMDocument, NodesOfAReplacedTreeStayUsable) {
  DOMDocument doc;
  ASSERT_TRUE(doc.loadXML("<R><a>old</a></R>"));
  auto old_child = doc.documentElement()->ChildList().at(0);
  ASSERT_TRUE(doc.loadXML("<S/>"));
  EXPECT_EQ(old_child->text(), "old");
  EXPECT_ERROR_NUMBER(doc.documentElement()->appendChild(old_child), err::kInvalidProcedureCall);
}

TEST(DOMNode, TextJoinsDescendantsAndSettingReplacesChildren) {
  DOMDocument doc;
  ASSERT_TRUE(doc.loadXML("<R>a<b>b<c>c</c></b>d<![CDATA[<e>]]></R>"));
  auto root = doc.documentElement();
  EXPECT_EQ(root->text(), "abcd<e>");
  root->text("plain");
  EXPECT_EQ(doc.xml(), "<R>plain</R>");
  root->text("");
  EXPECT_EQ(doc.xml(), "<R/>");
}

TEST(DOMNode, TextOfDeeplyNestedDocumentDoesNotRecurse) {
  std::string text;
  const int depth = 100000;
  for (int i = 0; i < depth; ++i) text += "<a>";
  text += "x";
  for (int i = 0; i < depth; ++i) text += "</a>";
  DOMDocument doc;
  ASSERT_TRUE(doc.loadXML(text));
  EXPECT_EQ(doc.documentElement()->text(), "x");
}

TEST(DOMNode, AppendingAnAncestorIsRefused) {
  DOMDocument doc;
  auto root = doc.createElement("R");
  auto child = doc.createElement("C");
  doc.documentElement(root);
  root->appendChild(child);
  EXPECT_ERROR_NUMBER(child->appendChild(root), err::kInvalidProcedureCall);
  EXPECT_ERROR_NUMBER(root->appendChild(root), err::kInvalidProcedureCall);
}

TEST(DOMNode, ElementsOfAnotherDocumentAreRefused) {
  DOMDocument one, two;
  auto root = one.createElement("R");
  one.documentElement(root);
  EXPECT_ERROR_NUMBER(root->appendChild(two.createElement("X")), err::kInvalidProcedureCall);
  EXPECT_ERROR_NUMBER(two.documentElement(root), err::kInvalidProcedureCall);
}

TEST(DOMNode, RemovedChildLeavesTheTree) {
  DOMDocument doc;
  ASSERT_TRUE(doc.loadXML("<R><a/><b/></R>"));
  auto root = doc.documentElement();
  auto a = root->ChildList().at(0);
  root->removeChild(a);
  EXPECT_EQ(doc.xml(), "<R><b/></R>");
  EXPECT_EQ(a->tagName(), "a");
}

TEST(DOMDocument, InvalidElementNamesAreRefused) {
  DOMDocument doc;
  EXPECT_ERROR_NUMBER(doc.createElement(""), err::kInvalidProcedureCall);
  EXPECT_ERROR_NUMBER(doc.createElement("1A"), err::kInvalidProcedureCall);
  EXPECT_ERROR_NUMBER(doc.createElement("A B"), err::kInvalidProcedureCall);
}

TEST(DOMDocument, IsCreatableAndUsableByName) {
  ObjectPtr doc = CreateObject("DOMDocument");
  EXPECT_TRUE(CallByName(doc, "loadXML", CallKind::kMethod, {Variant("<R><A>1</A></R>")}).ToBool());
  EXPECT_EQ(CallByName(doc, "xml", CallKind::kGet).ToString(), "<R><A>1</A></R>");
  Variant root = CallByName(doc, "documentElement", CallKind::kGet);
  Variant children = CallByName(root.ToObject(), "childNodes", CallKind::kGet);
  EXPECT_EQ(CallByName(children.ToObject(), "length", CallKind::kGet).ToLong(), 1);
  Variant first = CallByName(children.ToObject(), "item", CallKind::kMethod, {Variant(0)});
  EXPECT_EQ(CallByName(first.ToObject(), "text", CallKind::kGet).ToString(), "1");
  EXPECT_EQ(CallByName(first.ToObject(), "nodeType", CallKind::kGet).ToLong(), 1);
}

}  // namespace
}  // namespace quillo

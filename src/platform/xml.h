// A minimal XML document object model over pugixml: a document, its element
// and text nodes, and node lists, each an object reachable by name.
//
// The members follow the names a DOM user expects: DOMDocument has
// createElement, createTextNode, appendChild, documentElement, childNodes,
// loadXML and xml; DOMNode (an element or a text node) has nodeName, nodeType,
// tagName, text, childNodes, appendChild, removeChild, xml; DOMNodeList has
// length and item (0-based, as the DOM counts).
//
// Every node stays in the storage of the document that created it for its
// whole life: a node made by createElement and not yet appended waits in a
// hidden holder, so node objects a caller keeps are always valid. Loading
// new text (loadXML) gives the document fresh storage; nodes of the old tree
// stay valid but no longer belong to it. Text that is not well-formed XML, or
// that has no single root element, leaves the document empty (no
// documentElement) and makes loadXML return false.
//
// Example:
//   auto doc = std::make_shared<DOMDocument>();
//   auto root = doc->createElement("ROOT");
//   doc->documentElement(root);
//   auto child = doc->createElement("NAME");
//   child->text("News");
//   root->appendChild(child);
//   doc->xml();  // "<ROOT><NAME>News</NAME></ROOT>"
//
// Thread-safety: none; a document and its nodes belong to one thread.
#ifndef QUILLO_PLATFORM_XML_H_
#define QUILLO_PLATFORM_XML_H_

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/object.h"

namespace pugi {
class xml_document;
class xml_node;
}  // namespace pugi

namespace quillo {

class DOMNode;
class DOMNodeList;

namespace internal {
struct XmlStore;  // One pugixml document plus the holder of detached nodes.
}  // namespace internal

// DOM node types, numbered as the DOM numbers them.
enum class DOMNodeType : long {
  kOther = 0,
  kElement = 1,
  kText = 3,
  kCData = 4,
  kProcessingInstruction = 7,
  kComment = 8,
  kDocument = 9,
};

// An XML document.
class DOMDocument : public Object {
 public:
  DOMDocument();
  ~DOMDocument() override;

  const MemberTable& Members() const override;

  // Parses `text` as the whole document. Returns true on success; text that
  // is not well-formed or has no single root element leaves the document
  // empty and returns false. Never throws for bad text.
  bool loadXML(std::string_view text);

  // The document serialised without declaration or indentation; "" when empty.
  std::string xml() const;

  // The root element, or null when the document is empty.
  std::shared_ptr<DOMNode> documentElement() const;
  // Makes `element` the root element, replacing any present one. Error 5 when
  // `element` is null, not an element, or belongs to another document.
  void documentElement(const std::shared_ptr<DOMNode>& element);

  // A new element named `tag_name`, not yet in the tree. Error 5 for a name
  // that is empty or not an XML name.
  std::shared_ptr<DOMNode> createElement(std::string_view tag_name);
  // A new text node holding `data`, not yet in the tree.
  std::shared_ptr<DOMNode> createTextNode(std::string_view data);

  // Appends `child` at the top level (only one element is allowed there:
  // error 5 when the document already has a root element). Returns `child`.
  std::shared_ptr<DOMNode> appendChild(const std::shared_ptr<DOMNode>& child);

  // The top-level nodes (the root element when there is one).
  std::shared_ptr<DOMNodeList> childNodes() const;

  // The text of every text node in the document, joined.
  std::string text() const;

 private:
  friend class DOMNode;
  std::shared_ptr<internal::XmlStore> store_;  // Current storage; replaced by loadXML.
};

// An element or text node of a DOMDocument.
class DOMNode : public Object {
 public:
  // REQUIRES: `node` belongs to `store`. Made by DOMDocument, not by callers.
  DOMNode(std::shared_ptr<internal::XmlStore> store, const pugi::xml_node& node);
  ~DOMNode() override;

  const MemberTable& Members() const override;

  // The node's DOM type (element, text, CDATA section, comment, ...).
  DOMNodeType nodeType() const;
  // The tag name of an element; "#text" for a text node.
  std::string nodeName() const;
  // The tag name; "" for a text node.
  std::string tagName() const;

  // The text of this node and every descendant text node, in document order.
  std::string text() const;
  // Replaces the node's content with one text node holding `value` (no text
  // node for ""); for a text node, replaces its data.
  void text(std::string_view value);

  // The child nodes (elements and text), in document order.
  std::shared_ptr<DOMNodeList> childNodes() const;
  // The child nodes as typed objects.
  std::vector<std::shared_ptr<DOMNode>> ChildList() const;

  // Appends `child` (moved from wherever it was). Error 5 when `child` is null,
  // belongs to another document, is this node or one of its ancestors, or
  // this node is a text node. Returns `child`.
  std::shared_ptr<DOMNode> appendChild(const std::shared_ptr<DOMNode>& child);
  // Detaches `child` (which stays usable). Error 5 when it is not a child.
  std::shared_ptr<DOMNode> removeChild(const std::shared_ptr<DOMNode>& child);

  // The node serialised (markup for an element, escaped text for a text node).
  std::string xml() const;

 private:
  friend class DOMDocument;
  std::shared_ptr<internal::XmlStore> store_;  // Keeps the node's storage alive.
  std::unique_ptr<pugi::xml_node> node_;       // The node in that storage.
};

// A snapshot list of nodes.
class DOMNodeList : public Object {
 public:
  explicit DOMNodeList(std::vector<std::shared_ptr<DOMNode>> nodes) : nodes_(std::move(nodes)) {}

  const MemberTable& Members() const override;

  // Number of nodes.
  long length() const { return static_cast<long>(nodes_.size()); }
  // Node `index` counting from 0; null when out of range, as the DOM does.
  std::shared_ptr<DOMNode> item(long index) const;

 private:
  std::vector<std::shared_ptr<DOMNode>> nodes_;
};

}  // namespace quillo

#endif  // QUILLO_PLATFORM_XML_H_

#include "platform/xml.h"

#include <pugixml.hpp>
#include <sstream>

#include "platform/error.h"

namespace quillo {

namespace internal {

// One pugixml document plus a hidden holder element where detached nodes wait.
// The holder is the first top-level node and is never serialised or listed.
struct XmlStore {
  pugi::xml_document doc;
  pugi::xml_node holder;

  XmlStore() { AddHolder(); }
  void AddHolder() {
    holder = doc.prepend_child(pugi::node_element);
    holder.set_name("quillo-detached");
  }
  bool IsHolder(const pugi::xml_node& n) const { return n == holder; }
  pugi::xml_node DocumentElement() const {
    for (pugi::xml_node n = doc.first_child(); n; n = n.next_sibling()) {
      if (n.type() == pugi::node_element && !IsHolder(n)) return n;
    }
    return pugi::xml_node();
  }
};

}  // namespace internal

namespace {

using internal::XmlStore;

// ---------------------------------------------------------------------------
// Helpers.

struct StringWriter : pugi::xml_writer {
  std::string out;
  void write(const void* data, size_t size) override {
    out.append(static_cast<const char*>(data), size);
  }
};

constexpr unsigned kPrintFlags = pugi::format_raw | pugi::format_no_declaration;

std::string Print(const pugi::xml_node& node) {
  StringWriter writer;
  node.print(writer, "", kPrintFlags, pugi::encoding_utf8);
  return std::move(writer.out);
}

bool IsTextType(pugi::xml_node_type t) { return t == pugi::node_pcdata || t == pugi::node_cdata; }

// The text of `node` and its descendants, walked without recursion so that
// deeply nested documents cannot exhaust the stack.
std::string CollectText(const pugi::xml_node& node) {
  if (IsTextType(node.type())) return node.value();
  std::string out;
  pugi::xml_node cur = node.first_child();
  while (cur) {
    if (IsTextType(cur.type())) out += cur.value();
    if (cur.first_child()) {
      cur = cur.first_child();
      continue;
    }
    while (cur && cur != node && !cur.next_sibling()) cur = cur.parent();
    if (!cur || cur == node) break;
    cur = cur.next_sibling();
  }
  return out;
}

bool IsNameStart(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':' || c >= 0x80;
}
bool IsNameChar(unsigned char c) {
  return IsNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}
bool IsXmlName(std::string_view name) {
  if (name.empty() || !IsNameStart(static_cast<unsigned char>(name[0]))) return false;
  for (char c : name) {
    if (!IsNameChar(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

[[noreturn]] void InvalidCall(const char* what) { Raise(err::kInvalidProcedureCall, what); }

}  // namespace

// ---------------------------------------------------------------------------
// DOMDocument.

DOMDocument::DOMDocument() : store_(std::make_shared<XmlStore>()) {}
DOMDocument::~DOMDocument() = default;

bool DOMDocument::loadXML(std::string_view text) {
  auto fresh = std::make_shared<XmlStore>();
  pugi::xml_parse_result result = fresh->doc.load_buffer(
      text.data(), text.size(), pugi::parse_default | pugi::parse_fragment, pugi::encoding_utf8);
  bool ok = static_cast<bool>(result);
  if (ok) {
    // A document has exactly one root element and no text outside it (the
    // fragment mode keeps top-level text so that it can be refused here).
    int elements = 0;
    for (pugi::xml_node n = fresh->doc.first_child(); n; n = n.next_sibling()) {
      if (n.type() == pugi::node_element) ++elements;
      if (IsTextType(n.type())) ok = false;
    }
    if (elements != 1) ok = false;
  }
  if (!ok)
    fresh = std::make_shared<XmlStore>();
  else
    fresh->AddHolder();
  store_ = std::move(fresh);
  return ok;
}

std::string DOMDocument::xml() const {
  std::string out;
  for (pugi::xml_node n = store_->doc.first_child(); n; n = n.next_sibling()) {
    if (!store_->IsHolder(n)) out += Print(n);
  }
  return out;
}

std::shared_ptr<DOMNode> DOMDocument::documentElement() const {
  pugi::xml_node root = store_->DocumentElement();
  if (!root) return nullptr;
  return std::make_shared<DOMNode>(store_, root);
}

void DOMDocument::documentElement(const std::shared_ptr<DOMNode>& element) {
  if (!element || element->store_ != store_ || element->nodeType() != DOMNodeType::kElement) {
    InvalidCall("The node cannot be the document element");
  }
  pugi::xml_node old = store_->DocumentElement();
  if (old == *element->node_) return;
  if (old) store_->holder.append_move(old);
  store_->doc.append_move(*element->node_);
}

std::shared_ptr<DOMNode> DOMDocument::createElement(std::string_view tag_name) {
  if (!IsXmlName(tag_name)) InvalidCall("This name may not be used as an element name");
  pugi::xml_node n = store_->holder.append_child(pugi::node_element);
  n.set_name(std::string(tag_name).c_str());
  return std::make_shared<DOMNode>(store_, n);
}

std::shared_ptr<DOMNode> DOMDocument::createTextNode(std::string_view data) {
  pugi::xml_node n = store_->holder.append_child(pugi::node_pcdata);
  n.set_value(std::string(data).c_str());
  return std::make_shared<DOMNode>(store_, n);
}

std::shared_ptr<DOMNode> DOMDocument::appendChild(const std::shared_ptr<DOMNode>& child) {
  if (!child || child->store_ != store_) InvalidCall("The node belongs to another document");
  if (child->nodeType() != DOMNodeType::kElement) {
    InvalidCall("Only an element may be added at the top level");
  }
  if (store_->DocumentElement()) InvalidCall("The document already has a root element");
  store_->doc.append_move(*child->node_);
  return child;
}

std::shared_ptr<DOMNodeList> DOMDocument::childNodes() const {
  std::vector<std::shared_ptr<DOMNode>> nodes;
  for (pugi::xml_node n = store_->doc.first_child(); n; n = n.next_sibling()) {
    if (!store_->IsHolder(n)) nodes.push_back(std::make_shared<DOMNode>(store_, n));
  }
  return std::make_shared<DOMNodeList>(std::move(nodes));
}

std::string DOMDocument::text() const {
  pugi::xml_node root = store_->DocumentElement();
  return root ? CollectText(root) : std::string();
}

const MemberTable& DOMDocument::Members() const {
  using D = DOMDocument;
  static const MemberTable table =
      MemberTable::Builder<D>("DOMDocument")
          .Get("documentElement", [](D& d) { return d.documentElement(); })
          .Put("documentElement", [](D& d, std::shared_ptr<DOMNode> e) { d.documentElement(e); })
          .Method("createElement", [](D& d, std::string name) { return d.createElement(name); })
          .Method("createTextNode", [](D& d, std::string data) { return d.createTextNode(data); })
          .Method("appendChild",
                  [](D& d, std::shared_ptr<DOMNode> child) { return d.appendChild(child); })
          .Get("childNodes", [](D& d) { return d.childNodes(); })
          .Method("loadXML", [](D& d, std::string text) { return d.loadXML(text); })
          .Get("xml", [](D& d) { return d.xml(); })
          .Get("text", [](D& d) { return d.text(); })
          .Build();
  return table;
}

// ---------------------------------------------------------------------------
// DOMNode.

DOMNode::DOMNode(std::shared_ptr<XmlStore> store, const pugi::xml_node& node)
    : store_(std::move(store)), node_(std::make_unique<pugi::xml_node>(node)) {}
DOMNode::~DOMNode() = default;

DOMNodeType DOMNode::nodeType() const {
  switch (node_->type()) {
    case pugi::node_element:
      return DOMNodeType::kElement;
    case pugi::node_pcdata:
      return DOMNodeType::kText;
    case pugi::node_cdata:
      return DOMNodeType::kCData;
    case pugi::node_pi:
      return DOMNodeType::kProcessingInstruction;
    case pugi::node_comment:
      return DOMNodeType::kComment;
    case pugi::node_document:
      return DOMNodeType::kDocument;
    default:
      return DOMNodeType::kOther;
  }
}

std::string DOMNode::nodeName() const {
  switch (node_->type()) {
    case pugi::node_element:
    case pugi::node_pi:
      return node_->name();
    case pugi::node_pcdata:
      return "#text";
    case pugi::node_cdata:
      return "#cdata-section";
    case pugi::node_comment:
      return "#comment";
    default:
      return "";
  }
}

std::string DOMNode::tagName() const {
  return node_->type() == pugi::node_element ? std::string(node_->name()) : std::string();
}

std::string DOMNode::text() const { return CollectText(*node_); }

void DOMNode::text(std::string_view value) {
  if (node_->type() != pugi::node_element) {
    node_->set_value(std::string(value).c_str());
    return;
  }
  node_->remove_children();
  if (!value.empty()) node_->append_child(pugi::node_pcdata).set_value(std::string(value).c_str());
}

std::vector<std::shared_ptr<DOMNode>> DOMNode::ChildList() const {
  std::vector<std::shared_ptr<DOMNode>> nodes;
  for (pugi::xml_node n = node_->first_child(); n; n = n.next_sibling()) {
    nodes.push_back(std::make_shared<DOMNode>(store_, n));
  }
  return nodes;
}

std::shared_ptr<DOMNodeList> DOMNode::childNodes() const {
  return std::make_shared<DOMNodeList>(ChildList());
}

std::shared_ptr<DOMNode> DOMNode::appendChild(const std::shared_ptr<DOMNode>& child) {
  if (!child || child->store_ != store_) InvalidCall("The node belongs to another document");
  if (node_->type() != pugi::node_element) InvalidCall("This node cannot have children");
  for (pugi::xml_node up = *node_; up; up = up.parent()) {
    if (up == *child->node_) InvalidCall("A node cannot be appended to itself or a descendant");
  }
  if (!node_->append_move(*child->node_)) InvalidCall("The node cannot be appended here");
  return child;
}

std::shared_ptr<DOMNode> DOMNode::removeChild(const std::shared_ptr<DOMNode>& child) {
  if (!child || child->store_ != store_ || child->node_->parent() != *node_) {
    InvalidCall("The node is not a child of this node");
  }
  store_->holder.append_move(*child->node_);
  return child;
}

std::string DOMNode::xml() const { return Print(*node_); }

const MemberTable& DOMNode::Members() const {
  using N = DOMNode;
  static const MemberTable table =
      MemberTable::Builder<N>("DOMNode")
          .Get("nodeName", [](N& n) { return n.nodeName(); })
          .Get("nodeType", [](N& n) { return static_cast<long>(n.nodeType()); })
          .Get("tagName", [](N& n) { return n.tagName(); })
          .Get("text", [](N& n) { return n.text(); })
          .Put("text", [](N& n, std::string value) { n.text(value); })
          .Get("childNodes", [](N& n) { return n.childNodes(); })
          .Method("appendChild",
                  [](N& n, std::shared_ptr<DOMNode> child) { return n.appendChild(child); })
          .Method("removeChild",
                  [](N& n, std::shared_ptr<DOMNode> child) { return n.removeChild(child); })
          .Get("xml", [](N& n) { return n.xml(); })
          .Build();
  return table;
}

// ---------------------------------------------------------------------------
// DOMNodeList.

std::shared_ptr<DOMNode> DOMNodeList::item(long index) const {
  if (index < 0 || index >= length()) return nullptr;
  return nodes_[static_cast<size_t>(index)];
}

const MemberTable& DOMNodeList::Members() const {
  using L = DOMNodeList;
  static const MemberTable table =
      MemberTable::Builder<L>("DOMNodeList")
          .Get("length", [](L& l) { return l.length(); })
          .Method("item", [](L& l, std::int32_t i) { return l.item(i); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(DOMDocument, Creatable::kPublic);

}  // namespace quillo

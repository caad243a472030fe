// A property list read as a table of its objects (nodes), for readers that look at the
// list's structure without building a Value of all of it: the keyed unarchiver walks an
// archive's $objects and references here and builds only the values it decodes.
//
// A node is a scalar (held as its Value: boolean, number, string, date or data), a UID (a
// keyed archive's reference, which reads as the dictionary {"CF$UID": n} when turned into
// a Value), an array, or a dictionary whose keys are string nodes. Nodes may be shared by
// several containers; there are no cycles.
//
// Thread-safety: a document is used by one thread at a time (lookups cache indexes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

namespace pnx {

class PlistDocument {
 public:
  using Node = std::uint32_t;
  enum class Kind : std::uint8_t { Scalar, UID, Array, Dictionary };

  // A document of a Value: arrays and sets become array nodes, dictionaries dictionary
  // nodes, everything else scalar nodes.
  static PlistDocument fromValue(const Value& value);

  // Building: children are nodes added before or after, as long as every node a container
  // names exists once building ends. The root is the first node unless set otherwise.
  Node addScalar(Value value);
  Node addUID(std::uint64_t index);
  Node addArray(std::span<const Node> elements);
  Node addDictionary(std::span<const Node> keys, std::span<const Node> values);
  void reserve(std::size_t nodes) { nodes_.reserve(nodes); }
  void setRoot(Node root) { root_ = root; }

  Node root() const { return root_; }
  Kind kind(Node node) const { return nodes_[node].kind; }
  // The value of a scalar node; nullptr for other nodes.
  const Value* scalar(Node node) const {
    return nodes_[node].kind == Kind::Scalar ? &nodes_[node].scalar : nullptr;
  }
  std::uint64_t uid(Node node) const { return nodes_[node].firstOrUID; }
  // The elements of an array node, the keys and values of a dictionary node (in the order
  // the list holds them, repeated keys included).
  std::span<const Node> elements(Node node) const { return children(node, 0); }
  std::span<const Node> keys(Node node) const { return children(node, 0); }
  std::span<const Node> values(Node node) const { return children(node, nodes_[node].count); }

  // The value under key in a dictionary node, the last one when the key repeats (as a
  // Value dictionary keeps it); nullopt when the key is missing or node is no dictionary.
  std::optional<Node> find(Node node, std::string_view key) const;
  // The number of different keys of a dictionary node (the size of its Value).
  std::size_t distinctKeyCount(Node node) const;

  // The node as a Value, as the property-list reader returns it.
  Value value(Node node) const;

 private:
  struct Entry {
    Kind kind;
    std::uint32_t count = 0;       // elements, or keys
    std::uint64_t firstOrUID = 0;  // where the children start in children_, or the UID
    Value scalar;
  };
  // A dictionary's keys sorted, each with the position of its last value.
  using KeyIndex = std::vector<std::pair<std::string_view, std::uint32_t>>;

  std::span<const Node> children(Node node, std::size_t skip) const;
  const KeyIndex& keyIndex(Node node) const;
  std::string_view keyText(Node key) const;

  std::vector<Entry> nodes_;
  std::vector<Node> children_;
  Node root_ = 0;
  // Dictionaries with many keys are searched through a sorted index, built once, so that an
  // archive referring to one large dictionary many times stays linear to read.
  mutable std::unordered_map<Node, KeyIndex> keyIndexes_;
  mutable std::vector<std::optional<Value>> values_;
};

// Reads a property list (binary or XML) into a document. Fails as PropertyList::parse does,
// on the same input and with the same error.
std::optional<PlistDocument> readPlistDocument(const Data& bytes, ErrorPtr* error);

}  // namespace pnx

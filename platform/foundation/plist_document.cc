#include "platform/foundation/plist_document.h"

#include <algorithm>
#include <functional>

namespace pnx {

namespace {

constexpr const char* kUIDKey = "CF$UID";
// Dictionaries up to this many keys are searched key by key.
constexpr std::size_t kLinearSearchKeys = 16;

}  // namespace

PlistDocument PlistDocument::fromValue(const Value& value) {
  PlistDocument document;
  // Children first; the recursion is as deep as the Value, which a reader has bounded.
  std::function<Node(const Value&)> add = [&](const Value& item) -> Node {
    std::vector<Node> children;
    auto addAll = [&](const auto& items) {
      for (const Value& element : items) children.push_back(add(element));
      return document.addArray(children);
    };
    if (const Array* array = item.asArray()) return addAll(*array);
    if (const Set* set = item.asSet()) return addAll(*set);
    if (const Dictionary* dictionary = item.asDictionary()) {
      for (const auto& entry : *dictionary) children.push_back(document.addScalar(entry.first));
      for (const auto& entry : *dictionary) children.push_back(add(entry.second));
      const std::span<const Node> all(children);
      return document.addDictionary(all.first(dictionary->size()), all.subspan(dictionary->size()));
    }
    return document.addScalar(item);
  };
  document.setRoot(add(value));
  return document;
}

PlistDocument::Node PlistDocument::addScalar(Value value) {
  nodes_.push_back({Kind::Scalar, 0, 0, std::move(value)});
  return static_cast<Node>(nodes_.size() - 1);
}

PlistDocument::Node PlistDocument::addUID(std::uint64_t index) {
  nodes_.push_back({Kind::UID, 0, index, Value()});
  return static_cast<Node>(nodes_.size() - 1);
}

PlistDocument::Node PlistDocument::addArray(std::span<const Node> elements) {
  nodes_.push_back(
      {Kind::Array, static_cast<std::uint32_t>(elements.size()), children_.size(), Value()});
  children_.insert(children_.end(), elements.begin(), elements.end());
  return static_cast<Node>(nodes_.size() - 1);
}

PlistDocument::Node PlistDocument::addDictionary(std::span<const Node> keys,
                                                 std::span<const Node> values) {
  nodes_.push_back(
      {Kind::Dictionary, static_cast<std::uint32_t>(keys.size()), children_.size(), Value()});
  children_.insert(children_.end(), keys.begin(), keys.end());
  children_.insert(children_.end(), values.begin(), values.end());
  return static_cast<Node>(nodes_.size() - 1);
}

std::span<const PlistDocument::Node> PlistDocument::children(Node node, std::size_t skip) const {
  const Entry& entry = nodes_[node];
  if (entry.kind != Kind::Array && entry.kind != Kind::Dictionary) return {};
  return std::span<const Node>(children_).subspan(entry.firstOrUID + skip, entry.count);
}

std::string_view PlistDocument::keyText(Node key) const {
  const std::string* text = nodes_[key].scalar.asString();
  return text ? std::string_view(*text) : std::string_view();
}

const PlistDocument::KeyIndex& PlistDocument::keyIndex(Node node) const {
  auto [found, added] = keyIndexes_.try_emplace(node);
  KeyIndex& index = found->second;
  if (!added) return index;
  const std::span<const Node> keyNodes = keys(node);
  index.reserve(keyNodes.size());
  for (std::uint32_t i = 0; i < keyNodes.size(); ++i) {
    if (nodes_[keyNodes[i]].scalar.isString()) index.emplace_back(keyText(keyNodes[i]), i);
  }
  // By text, the last position first, so that unique keeps the value that wins.
  std::sort(index.begin(), index.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first < b.first : a.second > b.second;
  });
  index.erase(std::unique(index.begin(), index.end(),
                          [](const auto& a, const auto& b) { return a.first == b.first; }),
              index.end());
  return index;
}

std::optional<PlistDocument::Node> PlistDocument::find(Node node, std::string_view key) const {
  if (nodes_[node].kind != Kind::Dictionary) return std::nullopt;
  const std::span<const Node> keyNodes = keys(node);
  if (keyNodes.size() <= kLinearSearchKeys) {
    for (std::size_t i = keyNodes.size(); i-- > 0;) {
      if (nodes_[keyNodes[i]].scalar.isString() && keyText(keyNodes[i]) == key) {
        return values(node)[i];
      }
    }
    return std::nullopt;
  }
  const KeyIndex& index = keyIndex(node);
  auto found =
      std::lower_bound(index.begin(), index.end(), key,
                       [](const auto& entry, std::string_view k) { return entry.first < k; });
  if (found == index.end() || found->first != key) return std::nullopt;
  return values(node)[found->second];
}

std::size_t PlistDocument::distinctKeyCount(Node node) const {
  if (nodes_[node].kind != Kind::Dictionary) return 0;
  const std::span<const Node> keyNodes = keys(node);
  if (keyNodes.size() > kLinearSearchKeys) return keyIndex(node).size();
  std::size_t distinct = 0;
  for (std::size_t i = 0; i < keyNodes.size(); ++i) {
    bool seen = false;
    for (std::size_t j = 0; j < i && !seen; ++j) {
      seen = nodes_[keyNodes[i]].scalar == nodes_[keyNodes[j]].scalar;
    }
    if (!seen) ++distinct;
  }
  return distinct;
}

Value PlistDocument::value(Node node) const {
  if (values_.size() != nodes_.size()) values_.resize(nodes_.size());
  if (values_[node]) return *values_[node];
  const Entry& entry = nodes_[node];
  Value built;
  switch (entry.kind) {
    case Kind::Scalar:
      return entry.scalar;
    case Kind::UID:
      built = Value::dict({{kUIDKey, Value(static_cast<std::int64_t>(entry.firstOrUID))}});
      break;
    case Kind::Array: {
      Array items;
      items.reserve(entry.count);
      for (Node element : elements(node)) items.push_back(value(element));
      built = Value(std::move(items));
      break;
    }
    case Kind::Dictionary: {
      Dictionary dictionary;
      const std::span<const Node> keyNodes = keys(node), valueNodes = values(node);
      for (std::size_t i = 0; i < keyNodes.size(); ++i) {
        dictionary.insert_or_assign(value(keyNodes[i]), value(valueNodes[i]));
      }
      built = Value(std::move(dictionary));
      break;
    }
  }
  values_[node] = built;
  return built;
}

}  // namespace pnx

// A chained hash map with a fixed number of buckets. There is no rehashing: callers
// size it for their load (the sample map uses 1024 buckets). Iteration order is
// visible to users (JSON lists of sounds): bucket 0, 1, ... and, within a bucket,
// insertion order. With unsigned keys the hash is the key itself, so keys without
// collisions come out in ascending order modulo the bucket count.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvo {

// h = h * 31 + c over the bytes, 32-bit unsigned.
inline unsigned strHash(std::string_view s) {
  uint32_t h = 0;
  for (unsigned char c : s) h = h * 31u + c;
  return h;
}

template <typename K>
struct HashKeyTraits;

template <>
struct HashKeyTraits<unsigned> {
  static unsigned hash(unsigned k) { return k; }  // uintHash
};

template <>
struct HashKeyTraits<std::string> {
  static unsigned hash(const std::string& k) { return strHash(k); }
};

template <typename K, typename V>
class HashTable {
 public:
  struct HashNode {
    K key;
    V value;
  };
  // Called on the stored key and value when mapSet replaces an existing entry.
  using FreeKey = std::function<void(K&)>;
  using FreeValue = std::function<void(V&)>;

  explicit HashTable(int maxBuckets, FreeKey freeKey = nullptr, FreeValue freeValue = nullptr)
      : buckets_(static_cast<std::size_t>(maxBuckets > 0 ? maxBuckets : 1)),
        freeKey_(std::move(freeKey)),
        freeValue_(std::move(freeValue)) {}

  int maxBuckets() const { return static_cast<int>(buckets_.size()); }
  int bucketOf(const K& key) const { return static_cast<int>(HashKeyTraits<K>::hash(key) % buckets_.size()); }

  // Replaces the value of an equal key in place (position unchanged) or appends a
  // new node to the end of the bucket's chain. Returns 0.
  int mapSet(K key, V value) {
    auto& chain = buckets_[static_cast<std::size_t>(bucketOf(key))];
    for (auto& node : chain) {
      if (node.key == key) {
        if (freeKey_) freeKey_(node.key);
        if (freeValue_) freeValue_(node.value);
        node.key = std::move(key);
        node.value = std::move(value);
        return 0;
      }
    }
    chain.push_back(HashNode{std::move(key), std::move(value)});
    ++size_;
    return 0;
  }

  // The value of the equal key, or null.
  V* mapGet1(const K& key) {
    auto& chain = buckets_[static_cast<std::size_t>(bucketOf(key))];
    for (auto& node : chain)
      if (node.key == key) return &node.value;
    return nullptr;
  }
  const V* mapGet1(const K& key) const { return const_cast<HashTable*>(this)->mapGet1(key); }

  // Unlinks the equal key and hands its value back (the value is not freed);
  // false when absent.
  bool mapRemove(const K& key, V* removed = nullptr) {
    auto& chain = buckets_[static_cast<std::size_t>(bucketOf(key))];
    for (auto it = chain.begin(); it != chain.end(); ++it) {
      if (it->key == key) {
        if (removed) *removed = std::move(it->value);
        chain.erase(it);
        --size_;
        return true;
      }
    }
    return false;
  }

  int mapSize() const { return size_; }

  void clear() {
    for (auto& chain : buckets_) chain.clear();
    size_ = 0;
  }

  // Forward iteration in bucket order, then insertion order. Modifying the map while
  // iterating is not supported.
  template <typename Node, typename Table>
  class Iter {
   public:
    Iter(Table* t, std::size_t bucket, std::size_t pos) : t_(t), bucket_(bucket), pos_(pos) { settle(); }
    Node& operator*() const { return t_->buckets_[bucket_][pos_]; }
    Node* operator->() const { return &t_->buckets_[bucket_][pos_]; }
    Iter& operator++() {
      ++pos_;
      settle();
      return *this;
    }
    bool operator==(const Iter& o) const { return bucket_ == o.bucket_ && pos_ == o.pos_; }

   private:
    void settle() {
      while (bucket_ < t_->buckets_.size() && pos_ >= t_->buckets_[bucket_].size()) {
        ++bucket_;
        pos_ = 0;
      }
    }
    Table* t_;
    std::size_t bucket_;
    std::size_t pos_;
  };
  using iterator = Iter<HashNode, HashTable>;
  using const_iterator = Iter<const HashNode, const HashTable>;
  iterator begin() { return iterator(this, 0, 0); }
  iterator end() { return iterator(this, buckets_.size(), 0); }
  const_iterator begin() const { return const_iterator(this, 0, 0); }
  const_iterator end() const { return const_iterator(this, buckets_.size(), 0); }

  // The keys in iteration order.
  std::vector<K> keys() const {
    std::vector<K> out;
    out.reserve(static_cast<std::size_t>(size_));
    for (const auto& n : *this) out.push_back(n.key);
    return out;
  }

 private:
  std::vector<std::vector<HashNode>> buckets_;
  FreeKey freeKey_;
  FreeValue freeValue_;
  int size_ = 0;
};

}  // namespace korvo

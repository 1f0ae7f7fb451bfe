// The container library's hash table: keys and data are words that the table does not own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class _HashItem {
 public:
  void *key() const { return key_; }
  void *data() const { return data_; }

 private:
  friend class _Hash;
  friend class _HashIter;

  void *key_;
  void *data_;
  _HashItem *next_;
  uint32_t hash_;
};

// A key that is a number is held in the key word itself.
inline void *wordKey(uint32_t number) {
  return reinterpret_cast<void *>(static_cast<uintptr_t>(number));
}
inline uint32_t keyNumber(const void *key) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(key));
}

// Chained, and grown as entries come in; any number of entries is fine. The base class compares and
// hashes the key word itself; derived classes whose keys point somewhere override hash and keyCmp.
class _Hash {
 public:
  // The initial number of chains; the other parameters have no meaning here.
  _Hash(int size, int, int, float);
  virtual ~_Hash();  // frees the table's own storage, never keys or data
  _Hash(const _Hash &) = delete;
  _Hash &operator=(const _Hash &) = delete;

  // A key that is already there gives way: its item takes the new key and the new data, so that a
  // key that points at a live string never outlives the entry it came with.
  void insert(void *key, void *data);
  _HashItem *find(void *key) const;  // null when absent
  void remove(void *key);            // absent: nothing happens
  int isIn(void *key) const { return find(key) != nullptr; }
  int size() const { return static_cast<int>(size_); }

  // Ends an iteration. While one is under way the table does not grow its chains.
  void clearIterating();

 protected:
  virtual uint32_t hash(const void *key) const;
  virtual int keyCmp(const void *a, const void *b) const;  // 0 when equal
  virtual int dataCmp(const void *a, const void *b) const;

 private:
  friend class _HashIter;

  _HashItem **slotOf(void *key, uint32_t hash);
  void grow();

  std::vector<_HashItem *> chains_;
  size_t size_ = 0;
  int iterating_ = 0;
};

// Walks over all items in no particular order. Items must not be removed meanwhile.
class _HashIter {
 public:
  explicit _HashIter(_Hash *table);
  ~_HashIter() { table_->clearIterating(); }
  _HashIter(const _HashIter &) = delete;
  _HashIter &operator=(const _HashIter &) = delete;

  _HashItem *operator()() const { return item_; }  // the current item, or null
  _HashItem *operator++(int);                      // advances; the new current item, or null

 private:
  void skipEmptyChains();

  _Hash *table_;
  size_t chain_ = 0;
  _HashItem *item_ = nullptr;
};

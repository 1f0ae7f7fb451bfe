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

  void *key_ = nullptr;
  void *data_ = nullptr;
  uint32_t hash_ = 0;  // of the key, never 0; 0 in a place that is free
};

// A key that is a number is held in the key word itself.
inline void *wordKey(uint32_t number) {
  return reinterpret_cast<void *>(static_cast<uintptr_t>(number));
}
inline uint32_t keyNumber(const void *key) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(key));
}

// Open addressing with linear probing, grown as entries come in; any number of entries is fine. An
// item is valid until the next insertion or removal. The base class compares and hashes the key
// word itself; derived classes whose keys point somewhere override hash and keyCmp.
class _Hash {
 public:
  // The number of entries to have room for; the other parameters have no meaning here.
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
  // Starts to fetch the place of a key that will be looked for soon.
  void prefetch(const void *key) const;
  int size() const { return static_cast<int>(size_); }

  // Ends an iteration, of which a table needs to know nothing.
  void clearIterating() {}

 protected:
  virtual uint32_t hash(const void *key) const;
  virtual int keyCmp(const void *a, const void *b) const;   // 0 when equal
  virtual int dataCmp(const void *a, const void *b) const;  // a slot that the table never calls

 private:
  friend class _HashIter;

  uint32_t storedHash(const void *key) const;
  size_t next(size_t place) const { return (place + 1) & (places_.size() - 1); }
  size_t homeOf(uint32_t hash) const;
  size_t placeOf(const void *key, uint32_t hash) const;
  void grow();

  std::vector<_HashItem> places_;  // a power of two, at most seven eighths of them taken
  size_t size_ = 0;
};

// Walks over all items in no particular order. None must be inserted or removed meanwhile.
class _HashIter {
 public:
  explicit _HashIter(_Hash *table) : table_(table) { skipFree(); }
  ~_HashIter() { table_->clearIterating(); }
  _HashIter(const _HashIter &) = delete;
  _HashIter &operator=(const _HashIter &) = delete;

  // The current item, or null.
  _HashItem *operator()() const {
    return place_ < table_->places_.size() ? &table_->places_[place_] : nullptr;
  }
  _HashItem *operator++(int) {  // advances; the new current item, or null
    ++place_;
    skipFree();
    return operator()();
  }

 private:
  void skipFree() {
    while (operator()() != nullptr && operator()()->hash_ == 0) ++place_;
  }

  _Hash *table_;
  size_t place_ = 0;
};

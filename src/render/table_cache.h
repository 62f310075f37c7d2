// Tables that are computed once and kept as long as they are used.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <vector>

// Tables of one kind, each made from a few numbers when it is first asked for. Tables that have not
// been asked for during the last kKeep requests go when a new one is made; nothing is allocated
// while the numbers stay the same. Owned by what draws with the tables; one thread at a time.
template <typename Table, std::size_t kNumbers>
class TableCache {
 public:
  using Key = std::array<std::int64_t, kNumbers>;
  static constexpr std::uint64_t kKeep = 1024;

  // The table is valid until the next call.
  const Table& Get(const Key& key) {
    ++requests_;
    for (Entry& entry : entries_) {
      if (entry.key == key) {
        entry.lastRequest = requests_;
        return entry.table;
      }
    }
    std::erase_if(entries_,
                  [this](const Entry& entry) { return requests_ - entry.lastRequest > kKeep; });
    return entries_.emplace_back(Entry{key, requests_, std::make_from_tuple<Table>(key)}).table;
  }
  std::size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    Key key;
    std::uint64_t lastRequest;
    Table table;
  };

  std::vector<Entry> entries_;
  std::uint64_t requests_ = 0;
};

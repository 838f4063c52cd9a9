// Named instants of a logon (100 ns FILETIME units), kept sorted by name in
// one array; a later value for a name overwrites the earlier. Names are
// literals or interned, so that a session stores no text of its own.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <utility>
#include <vector>

namespace logonmon {

// The lasting copy of `name`, made on its first use, for names built from
// event texts. Thread-safe.
std::wstring_view InternedTimingPointName(std::wstring_view name);

class TimingPoints {
  public:
    using value_type = std::pair<std::wstring_view, uint64_t>;
    using iterator = std::vector<value_type>::iterator;
    using const_iterator = std::vector<value_type>::const_iterator;

    TimingPoints() = default;
    // Names must outlive the points: literals or interned.
    TimingPoints(std::initializer_list<value_type> points);

    iterator begin() { return points_.begin(); }
    iterator end() { return points_.end(); }
    const_iterator begin() const { return points_.begin(); }
    const_iterator end() const { return points_.end(); }
    size_t size() const { return points_.size(); }
    bool empty() const { return points_.empty(); }

    iterator find(std::wstring_view name);
    const_iterator find(std::wstring_view name) const;
    // The first point whose name does not sort before `name`.
    const_iterator lower_bound(std::wstring_view name) const;
    size_t count(std::wstring_view name) const { return find(name) != end() ? 1 : 0; }
    // Throws std::out_of_range when the point is missing.
    uint64_t at(std::wstring_view name) const;

    uint64_t& operator[](std::wstring_view name) { return try_emplace(name, 0).first->second; }
    std::pair<iterator, bool> try_emplace(std::wstring_view name, uint64_t value);
    void insert_or_assign(std::wstring_view name, uint64_t value);

    friend bool operator==(const TimingPoints&, const TimingPoints&) = default;

  private:
    std::vector<value_type> points_;
};

}  // namespace logonmon

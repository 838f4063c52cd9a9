// Values by name in one array, in the order they were first set; a later
// value for a name overwrites the earlier. Names are literals or interned, so
// that a session stores no text of its own. A session sets many values and
// lists them once: SortedByName() gives them in name order.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace logonmon {

// The lasting copy of `name`, made on its first use, for names taken from
// event texts: a small vocabulary (Winlogon notifications and subscribers,
// Group Policy extensions). Thread-safe.
std::wstring_view InternedName(std::wstring_view name);

template <typename Value>
class NamedValues {
  public:
    using value_type = std::pair<std::wstring_view, Value>;
    using iterator = typename std::vector<value_type>::iterator;
    using const_iterator = typename std::vector<value_type>::const_iterator;

    NamedValues() = default;
    // Names must outlive the values: literals or interned.
    NamedValues(std::initializer_list<value_type> values) {
        for (const auto& [name, value] : values) {
            insert_or_assign(name, value);
        }
    }

    iterator begin() { return values_.begin(); }
    iterator end() { return values_.end(); }
    const_iterator begin() const { return values_.begin(); }
    const_iterator end() const { return values_.end(); }
    size_t size() const { return values_.size(); }
    bool empty() const { return values_.empty(); }

    // A walk comparing lengths first: a session has a few dozen values, and
    // their names share long prefixes that make ordered comparisons slow. An
    // interned name is found by its address.
    const_iterator find(std::wstring_view name) const {
        if ((lengths_ & LengthBit(name)) == 0) {
            return end();
        }
        return std::find_if(values_.begin(), values_.end(), [name](const value_type& entry) {
            return entry.first.size() == name.size() &&
                   (entry.first.data() == name.data() || entry.first == name);
        });
    }
    iterator find(std::wstring_view name) {
        return begin() + (std::as_const(*this).find(name) - values_.cbegin());
    }
    size_t count(std::wstring_view name) const { return find(name) != end() ? 1 : 0; }
    // Throws std::out_of_range when the name is missing.
    const Value& at(std::wstring_view name) const {
        const auto found = find(name);
        if (found == end()) {
            throw std::out_of_range("no value of that name");
        }
        return found->second;
    }

    Value& operator[](std::wstring_view name) { return try_emplace(name, Value{}).first->second; }
    std::pair<iterator, bool> try_emplace(std::wstring_view name, const Value& value) {
        if (const auto found = find(name); found != end()) {
            return {found, false};
        }
        lengths_ |= LengthBit(name);
        values_.push_back(value_type{name, value});
        return {values_.end() - 1, true};
    }
    void insert_or_assign(std::wstring_view name, const Value& value) {
        try_emplace(name, value).first->second = value;
    }

    std::vector<value_type> SortedByName() const {
        std::vector<value_type> sorted = values_;
        std::sort(sorted.begin(), sorted.end(),
                  [](const value_type& left, const value_type& right) {
                      return left.first < right.first;
                  });
        return sorted;
    }

    // The same names with the same values, in any order.
    friend bool operator==(const NamedValues& left, const NamedValues& right) {
        return left.size() == right.size() &&
               std::all_of(left.begin(), left.end(), [&right](const value_type& entry) {
                   const auto found = right.find(entry.first);
                   return found != right.end() && found->second == entry.second;
               });
    }

  private:
    static uint64_t LengthBit(std::wstring_view name) { return uint64_t{1} << (name.size() % 64); }

    std::vector<value_type> values_;
    // A bit for each length of name held, modulo 64: most names asked for
    // and missing are ruled out without a walk.
    uint64_t lengths_ = 0;
};

}  // namespace logonmon

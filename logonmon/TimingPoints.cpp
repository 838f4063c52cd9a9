#include "logonmon/TimingPoints.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>

namespace logonmon {

namespace {

bool NameBefore(const TimingPoints::value_type& point, std::wstring_view name) {
    return point.first < name;
}

}  // namespace

std::wstring_view InternedTimingPointName(std::wstring_view name) {
    static std::mutex mutex;
    // Winlogon names a small, fixed set of notifications and subscribers.
    static std::set<std::wstring, std::less<>> names;
    std::lock_guard<std::mutex> lock(mutex);
    auto found = names.find(name);
    if (found == names.end()) {
        found = names.emplace(name).first;
    }
    return *found;
}

TimingPoints::TimingPoints(std::initializer_list<value_type> points) {
    for (const auto& [name, value] : points) {
        insert_or_assign(name, value);
    }
}

TimingPoints::const_iterator TimingPoints::lower_bound(std::wstring_view name) const {
    return std::lower_bound(points_.begin(), points_.end(), name, NameBefore);
}

TimingPoints::const_iterator TimingPoints::find(std::wstring_view name) const {
    const auto point = lower_bound(name);
    return point != points_.end() && point->first == name ? point : points_.end();
}

TimingPoints::iterator TimingPoints::find(std::wstring_view name) {
    return points_.begin() + (std::as_const(*this).find(name) - points_.cbegin());
}

uint64_t TimingPoints::at(std::wstring_view name) const {
    const auto point = find(name);
    if (point == end()) {
        throw std::out_of_range("no such timing point");
    }
    return point->second;
}

std::pair<TimingPoints::iterator, bool> TimingPoints::try_emplace(std::wstring_view name,
                                                                  uint64_t value) {
    const auto point = std::lower_bound(points_.begin(), points_.end(), name, NameBefore);
    if (point != points_.end() && point->first == name) {
        return {point, false};
    }
    return {points_.insert(point, value_type{name, value}), true};
}

void TimingPoints::insert_or_assign(std::wstring_view name, uint64_t value) {
    try_emplace(name, value).first->second = value;
}

}  // namespace logonmon

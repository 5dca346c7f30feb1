#include "policy/name_map.h"

#include <utility>

namespace tarnik {

bool NameMap::add(const Fill& fill) {
  // Only this thread changes the map, so the copy is not outdated when it is swapped in.
  return fillAndSwap(copy(), fill);
}

bool NameMap::refill(const Fill& fill) {
  return fillAndSwap({}, fill);
}

bool NameMap::fillAndSwap(Names names, const Fill& fill) {
  const bool filled = fill(names);
  const std::lock_guard guard(mutex_);
  names_.swap(names);  // the old names are freed after the guard is released
  return filled;
}

bool NameMap::lookup(std::uint32_t number, std::string& name) const {
  const std::lock_guard guard(mutex_);
  const auto found = names_.find(number);
  if (found == names_.end()) {
    return false;
  }
  name = found->second;
  return true;
}

NameMap::Names NameMap::copy() const {
  const std::lock_guard guard(mutex_);
  return names_;
}

std::size_t NameMap::size() const {
  const std::lock_guard guard(mutex_);
  return names_.size();
}

}  // namespace tarnik

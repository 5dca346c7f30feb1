// A map from numbers to names. One thread fills it while others look names up.
//
// Thread safety: only the main thread calls add and refill; any thread may call the rest. A mutex
// guards the map. add and refill build the new map aside and swap it in, so a look-up never waits
// for a file and never sees a map that is half filled.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace tarnik {

class NameMap {
 public:
  using Names = std::map<std::uint32_t, std::string>;
  // Puts entries into the map. Its result is that of add or refill; false keeps the entries too.
  using Fill = std::function<bool(Names& names)>;

  // Calls `fill` with a copy of the map, or with an empty map, and makes the outcome the map. When
  // `fill` throws, the map stays as it was.
  [[nodiscard]] bool add(const Fill& fill);
  [[nodiscard]] bool refill(const Fill& fill);

  // Copies the name of `number` out and returns true, or returns false and leaves `name` alone.
  [[nodiscard]] bool lookup(std::uint32_t number, std::string& name) const;
  [[nodiscard]] Names copy() const;
  [[nodiscard]] std::size_t size() const;

 private:
  [[nodiscard]] bool fillAndSwap(Names names, const Fill& fill);

  mutable std::mutex mutex_;  // guards names_
  Names names_;
};

}  // namespace tarnik

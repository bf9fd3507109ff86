// Counts the different keys of a sequence, and adds up a value of each, in little memory, with several passes
// over it if necessary.
#pragma once

#include <cstdint>
#include <functional>

namespace Tavrin::SplatStream {

// Receives some keys. Throws to end a pass that cannot succeed.
using KeyVisitor = std::function<void(const std::uint32_t* keys, std::uint64_t count)>;

struct DistinctKeys {
    std::uint64_t keys = 0;
    std::uint64_t sum = 0; // of valueOf(key)
};

// `pass` gives all keys to the visitor, in any order, one call at a time, and passes its exceptions on. Every
// call of it gives the same keys. Tables take at most `bytes`, at least 4 KiB.
DistinctKeys countDistinctKeys(std::uint64_t bytes, const std::function<void(const KeyVisitor&)>& pass,
                               const std::function<std::uint64_t(std::uint32_t key)>& valueOf);

} // namespace Tavrin::SplatStream

// How many different keys there are, and the sum of what each of them counts, in little memory and as many
// passes over them as that takes.
#pragma once

#include <cstdint>
#include <functional>

namespace Tavrin::SplatStream {

// Takes some keys. Throws to end a pass that is in vain.
using KeyVisitor = std::function<void(const std::uint32_t* keys, std::uint64_t count)>;

struct DistinctKeys {
    std::uint64_t keys = 0;
    std::uint64_t sum = 0; // of valueOf(key)
};

// `pass` gives all keys to the visitor, in any order, one call at a time, and lets the visitor's exceptions
// out. Called again, it gives the same keys. Tables take at most `bytes`, or 4 KiB where that is more.
DistinctKeys countDistinctKeys(std::uint64_t bytes, const std::function<void(const KeyVisitor&)>& pass,
                               const std::function<std::uint64_t(std::uint32_t key)>& valueOf);

} // namespace Tavrin::SplatStream

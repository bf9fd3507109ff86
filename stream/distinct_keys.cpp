#include "stream/distinct_keys.h"

#include "stream/key_table.h"

namespace Tavrin::SplatStream {

namespace {

// The part's keys do not fit the table.
struct TooManyKeys {};

// The part that a key belongs to. The table hashes with another factor, so the keys of a part fill it evenly.
std::uint64_t partOf(std::uint32_t key, std::uint64_t parts) {
    const std::uint32_t mixed = (key ^ key >> 15) * 0x85EBCA6Bu;
    return (mixed ^ mixed >> 13) * parts >> 32;
}

DistinctKeys countPart(std::uint64_t part, std::uint64_t parts, std::uint64_t mostKeys,
                       const std::function<void(const KeyVisitor&)>& pass,
                       const std::function<std::uint64_t(std::uint32_t key)>& valueOf) {
    KeyTable table(mostKeys);
    DistinctKeys found;
    pass([&](const std::uint32_t* keys, std::uint64_t count) {
        for (std::uint64_t i = 0; i < count; ++i) {
            if (partOf(keys[i], parts) == part && table.find(keys[i]) == KeyTable::none) {
                if (found.keys == mostKeys) {
                    throw TooManyKeys();
                }
                table.insert(keys[i], static_cast<std::uint32_t>(found.keys++));
                found.sum += valueOf(keys[i]);
            }
        }
    });
    return found;
}

} // namespace

// The keys are cut into parts by a hash, and each part is counted in a pass of its own. If a part does not
// fit the table, it and all later ones are cut in two.
DistinctKeys countDistinctKeys(std::uint64_t bytes, const std::function<void(const KeyVisitor&)>& pass,
                               const std::function<std::uint64_t(std::uint32_t key)>& valueOf) {
    std::uint64_t mostKeys = 64;
    while (KeyTable::bytesFor(mostKeys * 2) <= bytes) {
        mostKeys *= 2;
    }
    DistinctKeys all;
    std::uint64_t parts = 1;
    for (std::uint64_t part = 0; part < parts;) {
        try {
            const DistinctKeys more = countPart(part, parts, mostKeys, pass, valueOf);
            all.keys += more.keys;
            all.sum += more.sum;
            ++part;
        } catch (const TooManyKeys&) {
            part *= 2;
            parts *= 2;
        }
    }
    return all;
}

} // namespace Tavrin::SplatStream

/* What every service of the benchmark publishes: one object with one interface and ENTRIES string properties. */
#pragma once

#define BENCH_NAME "com.brenvok.korvaneinfod"
#define BENCH_PATH "/com/brenvok/Korvaneinfo1"
#define BENCH_INTERFACE "com.brenvok.Info1.Bench"
#define BENCH_ITEM "Item%04d"
#define BENCH_VALUE "0123456789abcdef"

#ifdef __cplusplus
#include <array>
#include <cstddef>
#include <cstdio>
#include <string>

/// Returns the name of an item; the first one has the number 0.
inline std::string itemName(std::size_t number) {
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), BENCH_ITEM, static_cast<int>(number));
    return name.data();
}
#endif

/* What every service of the benchmark publishes: one object with one interface and ENTRIES string properties. */
#pragma once

#define BENCH_NAME "com.brenvok.korvaneinfod"
#define BENCH_PATH "/com/brenvok/Korvaneinfo1"
#define BENCH_INTERFACE "com.brenvok.Info1.Bench"
#define BENCH_ITEM "Item%04d"
#define BENCH_VALUE "0123456789abcdef"

#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace norvexa_bench {

/// Module layout of a tiled detector: modules of moduleWidth x moduleHeight pixels
/// with gapX / gapY pixels between them.
struct Layout {
    int width, height;
    int moduleWidth, moduleHeight;
    int gapX, gapY;
};

/// 2463 x 2527: 5 x 12 modules of 487 x 195, gaps of 7 and 17.
Layout layout6M();
/// 4148 x 4362: 4 x 8 modules of 1028 x 512, gaps of 12 and 38.
Layout layout16M();

/// The two frame sizes every file benchmark runs on, by name ("2463x2527", "4148x4362").
struct NamedLayout {
    const char* name;
    Layout layout;
};
std::vector<NamedLayout> realSizes();

/// Registers a benchmark that reports in milliseconds.
template <class... Args>
void add(const std::string& name, Args&&... args)
{
    benchmark::RegisterBenchmark(name.c_str(), std::forward<Args>(args)...)->Unit(benchmark::kMillisecond);
}

/// A frame with realistic content: Poisson background of low mean, a few hundred
/// bright Bragg-like spots, and the gaps between modules set to -1 (all bits set for
/// unsigned types). Reproducible for a seed. T is an integer or floating type.
template <class T>
std::vector<T> detectorFrame(const Layout& layout, unsigned seed = 1, double background = 0.8);

} // namespace norvexa_bench

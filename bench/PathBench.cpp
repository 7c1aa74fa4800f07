// What a walk pays for the path of each entry: making it from text, joining a name, splitting it, and the
// form that ends in a separator.
#include "Krt/File/YPath.h"

#include <benchmark/benchmark.h>

using Krt::YString;
using Krt::File::YPath;

namespace {

const char* const Texts[] = {"/usr/share/doc/package/examples/file.txt",
                             "/home/m\u00fcller/Bilder/caf\u00e9.jpg", "\\\\?\\C:\\Users/someone/Documents"};

void FromText(benchmark::State& state)
{
    const char* const text = Texts[state.range(0)];
    for (auto _ : state)
        benchmark::DoNotOptimize(YPath(text).Bytes().data());
}

void Components(benchmark::State& state)
{
    const char* const text = Texts[state.range(0)];
    for (auto _ : state)
        benchmark::DoNotOptimize(YPath(text).PopulateComponents().data());
}

void KnownComponents(benchmark::State& state)
{
    const YPath path(Texts[state.range(0)]);
    for (auto _ : state)
        benchmark::DoNotOptimize(path.PopulateComponents().data());
}

void AppendName(benchmark::State& state)
{
    const YPath directory(Texts[state.range(0)]);
    const YString name("entry.txt");
    for (auto _ : state)
        benchmark::DoNotOptimize(directory.Append(name).Bytes().data());
}

void Parent(benchmark::State& state)
{
    const YPath path(Texts[state.range(0)]);
    for (auto _ : state)
        benchmark::DoNotOptimize(path.GetParent().Bytes().data());
}

void BelowRoot(benchmark::State& state)
{
    const YPath root("/home");
    const char* const text = Texts[state.range(0)];
    for (auto _ : state)
        benchmark::DoNotOptimize(YPath(text).IsChildOf(root, false));
}

} // namespace

BENCHMARK(FromText)->DenseRange(0, 2);
BENCHMARK(Components)->DenseRange(0, 2);
BENCHMARK(KnownComponents)->DenseRange(0, 1);
BENCHMARK(AppendName)->DenseRange(0, 1);
BENCHMARK(Parent)->DenseRange(0, 1);
BENCHMARK(BelowRoot)->DenseRange(0, 1);

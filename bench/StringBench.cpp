// StringBench [--quick]: characters by their index, and searches in text whose characters were not counted
// yet. Prints a figure a line.
#include "bench/Measure.h"

#include "Krt/String/YString.h"

#include <string>
#include <string_view>

namespace {

using Krt::YString;

constexpr int Rounds = 9;

std::size_t g_sum = 0; // of what came out, so that no work can be left out

void MeasureAt(unsigned int count)
{
    std::string bytes;
    for (unsigned int i = 0; i < count; ++i)
        bytes += "\xC3\xA9";
    const YString source(std::string_view{bytes});
    const double seconds = Bench::Seconds(Rounds, [&] {
        const YString text = source;
        for (unsigned int i = 0; i < count; ++i)
            g_sum += static_cast<unsigned char>(text.At(i));
    });
    Bench::PrintRow("string.at", seconds * 1e6 / count, "us");
}

// Searches in texts of their own, which are copied before the time is taken.
template <class Text, class Search>
double SecondsOfSearches(const std::string& bytes, Search search)
{
    constexpr std::size_t Texts = 20;
    const std::vector<Text> texts(Texts, Text(std::string_view(bytes)));
    return Bench::Seconds(1, [&] {
        for (const Text& text : texts)
            g_sum += search(text);
    });
}

// In turns, so that what slows the machine down for a while slows both. The first turn only warms up.
void MeasureFind(const char* name, const std::string& bytes)
{
    std::vector<double> peer, own;
    for (int round = 0; round <= Rounds; ++round) {
        peer.push_back(SecondsOfSearches<std::string>(
            bytes, [](const std::string& text) { return text.find("needle"); }));
        own.push_back(SecondsOfSearches<YString>(
            bytes, [](const YString& text) { return text.Find("needle", 0, true); }));
    }
    const auto median = [](const std::vector<double>& seconds) {
        return Bench::Median({seconds.begin() + 1, seconds.end()});
    };
    Bench::PrintRow(name, median(own) / median(peer), "x");
}

} // namespace

int main(int argc, char** argv)
{
    const bool quick = argc > 1 && std::string_view(argv[1]) == "--quick";
    MeasureAt(quick ? 4000 : 64000);
    const std::string text(quick ? 10000 : 100000, 'a');
    MeasureFind("string.find.missing", text);
    MeasureFind("string.find.at_end", text + "needle");
    return g_sum == 1;
}

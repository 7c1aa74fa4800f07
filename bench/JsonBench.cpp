// JsonBench FILE [ROUNDS]: how fast JSON text is read and written. FILE holds one array of records; it is
// taken as a whole and record by record. Prints medians in MB/s of text, and nanoseconds a record.
#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using Krt::JSON::YValue;

namespace {

template <class Work>
double MedianSeconds(int rounds, Work work)
{
    std::vector<double> seconds;
    for (int i = 0; i < rounds; ++i) {
        const auto start = std::chrono::steady_clock::now();
        work();
        seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    std::nth_element(seconds.begin(), seconds.begin() + rounds / 2, seconds.end());
    return seconds[rounds / 2];
}

void Print(const char* name, double seconds, std::size_t bytes, std::size_t records)
{
    std::printf("%-24s %7.0f MB/s %7.0f ns/record\n", name, bytes / 1e6 / seconds, seconds * 1e9 / records);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "Usage: JsonBench FILE [ROUNDS]\n");
        return 2;
    }
    std::ifstream file(argv[1], std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    const auto document = YValue::Parse(text);
    std::vector<std::string> records;
    for (const auto& record : document->AsArray())
        record->StringifyTo(records.emplace_back());

    std::string out;
    Print("parse whole", MedianSeconds(rounds, [&] { YValue::Parse(text); }), text.size(), records.size());
    const double whole = MedianSeconds(rounds, [&] {
        out.clear();
        document->StringifyTo(out);
    });
    Print("write whole", whole, out.size(), records.size());
    const double parse = MedianSeconds(rounds, [&] {
        for (const std::string& record : records)
            YValue::Parse(record);
    });
    Print("parse record by record", parse, text.size(), records.size());
    // A record is written while it is warm, as after its making.
    const double both = MedianSeconds(rounds, [&] {
        for (const std::string& record : records) {
            out.clear();
            YValue::Parse(record)->StringifyTo(out);
        }
    });
    Print("write record by record", both - parse, text.size(), records.size());
    return 0;
}

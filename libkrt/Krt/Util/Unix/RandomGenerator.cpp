#include "Krt/Util/RandomGenerator.h"

#include "Krt/Exception/Raise.h"

#include <sys/random.h>
#include <unistd.h>

#include <array>

namespace Krt::Util {

namespace {

std::mt19937_64 Seeded()
{
    std::array<unsigned int, 16> words;
    if (const auto seeded = CallSystem([&] { return getentropy(words.data(), sizeof words); }); !seeded)
        KRT_RAISE_OS_AS("GetRandomGenerator", MessageType::General, seeded.error,
                        "Failed to seed the random generator");
    std::seed_seq seed(words.begin(), words.end());
    return std::mt19937_64(seed);
}

} // namespace

std::unique_lock<std::mutex> LockRandomGenerator()
{
    static std::mutex& mutex = *new std::mutex; // for destructors of static objects, too
    return std::unique_lock(mutex);
}

std::mt19937_64& GetRandomGenerator()
{
    static std::mt19937_64& generator = *new std::mt19937_64(Seeded());
    return generator;
}

} // namespace Krt::Util

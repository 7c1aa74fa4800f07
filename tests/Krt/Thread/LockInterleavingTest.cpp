// The read/write lock's corners, each in one order of events: a step is over, or its thread is seen asleep in
// it, before the next one begins.
#include "Krt/Thread/YReadWriteMutex.h"

#include "testing/LockActor.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace Krt::Thread {
namespace {

// Steps of three letters: the thread; 'r'ead, 'w'rite or '-' for giving the last level back; and what comes
// of it: done (.), refused (x), or asleep (z), and then "A*." says when the step of A has been done.
TEST(LockInterleaving, EachStepEndsAsItMust)
{
    const struct
    {
        const char* name;
        std::string steps;
    } rows[] = {
        {"reader nests while a writer waits", "Ar. Bwz Ar. A-. A-. B*. B-."},
        {"reader upgrades past a waiting writer", "Ar. Bwz Aw. A-. A-. B*. B-."},
        {"newcomer isn't held back for ever", "Ar. Bwz Cr. C-. A-. B*. B-."},
        {"newcomer nests beside the waiting writer", "Ar. Bwz Cr. Cr. A-. C-. C-. B*. B-."},
        {"second upgrader is refused, first one served", "Ar. Br. Awz Bwx B-. A*. A-. A-."},
        {"second upgrader may still nest", "Ar. Br. Awz Br. B-. B-. A*. A-. A-."},
        {"upgrade can be had again", "Ar. Br. Awz Bwx B-. A*. Brz A-. B*. A-. Bw. B-. B-."},
        {"writer reads on while others wait", "Aw. Brz Ar. Aw. A-. A-. A-. B*. B-."},
        {"upgraded writer leaves its read level", "Ar. Aw. Brz A-. B*. Bwz A-. B*. B-. B-."},
        {"writers take turns", "Aw. Bwz A-. B*. Awz B-. A*. A-."},
        {"all waiting readers come in", "Aw. Brz Crz A-. B*. C*. Awz B-. C-. A*. A-."},
    };
    for (const auto& row : rows) {
        const YReadWriteMutex mutex;
        std::unique_ptr<Testing::LockActor> actors[3];
        for (auto& actor : actors)
            actor = std::make_unique<Testing::LockActor>(mutex);
        for (std::size_t at = 0; at < row.steps.size(); at += 4) {
            Testing::LockActor& actor = *actors[row.steps[at] - 'A'];
            const char order = row.steps[at + 1], end = row.steps[at + 2];
            if (order != '*')
                actor.Begin(order);
            ASSERT_EQ(actor.Await(end == 'z'), end) << row.name << ", step " << at / 4;
        }
    }
}

} // namespace
} // namespace Krt::Thread

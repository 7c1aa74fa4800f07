// The read/write lock's corners, each in one order of events: a step is over, or its thread is seen asleep in
// it, before the next one begins.
#include "Krt/Thread/YReadWriteMutex.h"

#include "testing/Actor.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace Krt::Thread {
namespace {

// What an actor does with the lock: 'r'ead, 'w'rite, or '-' to give the last level back.
Testing::Actor::Action MakeAction(const YReadWriteMutex& mutex)
{
    const auto locks = std::make_shared<std::vector<YReadWriteMutex::YLock>>();
    return [&mutex, locks](Testing::Actor&, char order) {
        const auto forever = Time::YDuration::Zero();
        if (order == 'r')
            locks->push_back(mutex.ReadLock(forever));
        else if (order == 'w')
            locks->push_back(mutex.WriteLock(forever));
        else if (order == '-')
            locks->pop_back();
        else
            locks->clear();
        return Testing::Actor::Done;
    };
}

TEST(LockInterleaving, EachStepEndsAsItMust)
{
    const Testing::Scenario rows[] = {
        {"reader nests while a writer waits", "Ar. Bwz Ar. A-. A-. B*. B-."},
        {"reader upgrades past a waiting writer", "Ar. Bwz Aw. A-. A-. B*. B-."},
        {"newcomer isn't held back for ever", "Ar. Bwz Cr. C-. A-. B*. B-."},
        {"newcomer nests beside the waiting writer", "Ar. Bwz Cr. Cr. A-. C-. C-. B*. B-."},
        {"second upgrader is refused, first one served", "Ar. Br. Awz Bwx B-. A*. A-. A-."},
        {"second upgrader may still nest", "Ar. Br. Awz Br. B-. B-. A*. A-. A-."},
        {"upgrade can be had again", "Ar. Br. Awz Bwx B-. A*. Brz A-. A-. B*. Bw. B-. B-."},
        {"writer reads on while others wait", "Aw. Brz Ar. Aw. A-. A-. A-. B*. B-."},
        {"upgraded writer excludes to its last level", "Ar. Aw. Brz A-. B*z A-. B*. Bw. B-. B-."},
        {"writers take turns", "Aw. Bwz A-. B*. Awz B-. A*. A-."},
        {"all waiting readers come in", "Aw. Brz Crz A-. B*. C*. Awz B-. C-. A*. A-."},
    };
    for (const auto& row : rows) {
        const YReadWriteMutex mutex;
        Testing::Play(row, [&] { return MakeAction(mutex); });
    }
}

} // namespace
} // namespace Krt::Thread

// The read/write lock in one order of events per row: each step has ended, or its thread is asleep in it,
// before the next step begins.
#include "Krt/Thread/YReadWriteMutex.h"

#include "testing/Actor.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

namespace Krt::Thread {
namespace {

// What an actor does with the lock: 'r'ead, 'w'rite, '-' to release the last level, or 'd' to destroy the
// mutex.
Testing::Actor::Action MakeAction(std::optional<YReadWriteMutex>& mutex)
{
    const auto locks = std::make_shared<std::vector<YReadWriteMutex::YLock>>();
    return [&mutex, locks](Testing::Actor&, char order) {
        const auto forever = Time::YDuration::Zero();
        if (order == 'r')
            locks->push_back(mutex->ReadLock(forever));
        else if (order == 'w')
            locks->push_back(mutex->WriteLock(forever));
        else if (order == 'd')
            mutex.reset();
        else if (order == '-')
            locks->pop_back();
        else
            locks->clear();
        return Testing::Actor::Done;
    };
}

TEST(LockInterleaving, StepsEndAsExpected)
{
    const Testing::Scenario rows[] = {
        {"reader nests while a writer waits", "Ar. Bwz Ar. A-. A-. B*. B-."},
        {"reader upgrades past a waiting writer", "Ar. Bwz Aw. A-. A-. B*. B-."},
        {"new reader is let in after a while", "Ar. Bwz Cr. C-. A-. B*. B-."},
        {"new reader nests while a writer waits", "Ar. Bwz Cr. Cr. A-. C-. C-. B*. B-."},
        {"second upgrader is refused, first one served", "Ar. Br. Awz Bwx B-. A*. A-. A-."},
        {"second upgrader may still nest", "Ar. Br. Awz Br. B-. B-. A*. A-. A-."},
        {"refused upgrade succeeds later", "Ar. Br. Awz Bwx B-. A*. Brz A-. A-. B*. Bw. B-. B-."},
        {"writer reads on while others wait", "Aw. Brz Ar. Aw. A-. A-. A-. B*. B-."},
        {"upgraded writer excludes to its last level", "Ar. Aw. Brz A-. B*z A-. B*. Bw. B-. B-."},
        {"writers take turns", "Aw. Bwz A-. B*. Awz B-. A*. A-."},
        {"all waiting readers are served", "Aw. Brz Crz A-. B*. C*. Awz B-. C-. A*. A-."},
        {"reader outlives the mutex", "Ar. Bd. A-."},
        {"readers outlive the mutex", "Ar. Br. Cd. B-. A-."},
        {"writer outlives the mutex", "Aw. Bd. A-."},
        {"writer inside a reader outlives the mutex", "Ar. Ar. Aw. Bd. A-. A-. A-."},
        {"reader inside a writer outlives the mutex", "Aw. Ar. Bd. A-. A-."},
    };
    for (const auto& row : rows) {
        std::optional<YReadWriteMutex> mutex(std::in_place);
        Testing::Play(row, [&] { return MakeAction(mutex); });
    }
}

} // namespace
} // namespace Krt::Thread

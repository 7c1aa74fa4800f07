// Trees of rules that are swapped and copied during walks and queries, in one order of events per row: each
// query finds one tree or the other, never a part of each, and every thread wakes.
#include "testing/Actor.h"
#include "testing/SelectionText.h"

#include <gtest/gtest.h>

using Backup::File::YSelectionManager;
using Krt::File::YPath;
using Testing::Actor;

namespace {

// The rules of two trees, and which of them a tree has: '1', '2', or '3' for both.
constexpr const char* RulesOf[] = {"include /1 recursive any; include /1a recursive any",
                                   "include /2 recursive any; include /2a recursive any"};
char Which(const YSelectionManager& tree)
{
    return static_cast<char>('0' + tree.IsPathSelected("/1/file") + 2 * tree.IsPathSelected("/2/file"));
}

// 'v' begins a walk of the first tree and stays in it, and '-' takes it to its end; 'w' does so for the
// second.
char Walk(Actor& self, const YSelectionManager& tree)
{
    int found = 0, visits = 0;
    tree.VisitPathsAndDescriptors(
        "/",
        [&](const YPath& path, const auto&) {
            found |= path.Bytes()[1] - '0';
            if (++visits == 1)
                self.StayUntil('-');
            return false;
        },
        true);
    return visits == 2 ? static_cast<char>('0' + found) : '?';
}

char Act(Actor& self, char order, YSelectionManager& first, YSelectionManager& second)
{
    switch (order) {
    case 'v':
        return Walk(self, first);
    case 'w':
        return Walk(self, second);
    case '1':
        return Which(first);
    case '2':
        return Which(second);
    case 's':
        first.Swap(second);
        break;
    case 'c':
        return Which(YSelectionManager(first));
    case '=':
        first = second;
        break;
    case 'e':
        return first == second || second == first ? '=' : '.';
    case '+':
        first.CopyDescriptorsFromPath(second, "/", "/");
        break;
    default:
        break;
    }
    return Actor::Done;
}

TEST(SelectionInterleaving, EachQueryFindsOneTree)
{
    const Testing::Scenario rows[] = {
        {"swap waits for a walk, which sees one tree", "Av. Bsz A-1 B*. A12 A21"},
        {"walk asks both trees while a swap waits", "Av. Bsz A11 A22 A-1 B*. A12 A21"},
        {"query during a swap waits and finds the new tree", "Aw. Bsz C1z A-2 B*. C*2"},
        {"copy during a swap waits and is of the new tree", "Aw. Bsz Ccz A-2 B*. C*2"},
        {"second tree answers until the swap locks it", "Aw. Bsz C22 A-2 B*. C21"},
        {"comparison both ways while a swap waits", "Av. Bsz Ce. A-1 B*. Ce."},
        {"copy waits for a walk", "Av. Bcz A-1 B*1"},
        {"assignment waits for a walk of its target", "Av. B=z A11 A-1 B*. A12 A22"},
        {"assignment waits for a walk of its source", "Aw. B=z C11 A-2 B*. C12 C22"},
        {"copying rules waits for a walk of the target", "Av. B+z A11 C22 A-1 B*. A13 A22"},
        {"copying rules continues during a walk of the source", "Aw. B+. C13 A22 A-2"},
    };
    for (const auto& row : rows) {
        YSelectionManager first = Testing::Tree(RulesOf[0]), second = Testing::Tree(RulesOf[1]);
        Testing::Play(row, [&] {
            return [&](Actor& self, char order) {
                return Act(self, order, first, second);
            };
        });
    }
}

} // namespace

#include "Krt/Util/YMacroManager.h"

#include <gtest/gtest.h>

TEST(YMacroManager, OnlyKnownNamesAreExpanded)
{
    Krt::Util::YMacroManager macros;
    macros.Add("HOME", "/old");
    macros.Add("HOME", "/root");
    macros.Add("LOOP", "${HOME}");
    const std::pair<const char*, const char*> cases[] = {{"${HOME}/a/${HOME}", "/root/a//root"},
                                                         {"${NONE}/${HOME}", "${NONE}//root"},
                                                         {"${HOME", "${HOME"},
                                                         {"}${HOME}}", "}/root}"},
                                                         {"${${HOME}}", "${/root}"},
                                                         {"${LOOP}", "${HOME}"},
                                                         {"$HOME {HOME} ${}", "$HOME {HOME} ${}"},
                                                         {"", ""}};
    for (const auto& [text, expanded] : cases)
        EXPECT_EQ(macros.Expand(text), expanded) << text;
}

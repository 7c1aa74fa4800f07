// Sets a global locale that groups digits ("1.234") as long as the object exists.
#pragma once

#include <locale>
#include <string>

namespace Testing {

class GroupedDigits
{
public:
    GroupedDigits() : m_before(std::locale::global(std::locale(std::locale::classic(), new Form))) {}
    ~GroupedDigits() { std::locale::global(m_before); }
    GroupedDigits(const GroupedDigits&) = delete;
    GroupedDigits& operator=(const GroupedDigits&) = delete;

private:
    class Form : public std::numpunct<char>
    {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::locale m_before;
};

} // namespace Testing

// JsonNesting: finds where a JSON object or array ends, byte by byte and without its values. It breaks off at
// the first bracket or text that can't stand where it does; what else may be wrong is the parser's to tell.
#pragma once

#include <string>

namespace Agent {

class JsonNesting
{
public:
    enum State
    {
        Open,
        Closed,
        Broken
    };

    /// What comes next; the first byte is a bracket. Not to be called any more once it is closed or broken.
    State Feed(char byte);

private:
    State FeedText(char byte);
    State Begin(char bracket);
    State End(char bracket);
    bool TakesValue() const;

    std::string m_open; // the brackets that are open
    char m_last = '\0'; // byte outside of texts that is no blank; '"' stands for a text
    bool m_isText = false;
    bool m_isEscaped = false;
};

} // namespace Agent

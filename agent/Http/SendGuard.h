// SendGuard: ends the requests of a thread when what they change may no longer be changed, as after the
// repository's lock has expired. Each thread has its own.
#pragma once

#include <functional>
#include <utility>

namespace Agent::Http {

/// Decides whether requests may be sent.
struct SendRule
{
    std::function<bool()> maySend; ///< called at least every 100 ms during a request
    std::function<void()> require; ///< raises if a request must not be sent. It may send requests
};

/// While an object of this class exists, the requests of its thread follow the rule. One that may not be sent
/// any longer is stopped, and is sent again only after `require` has returned.
class SendGuard
{
public:
    /// Null for no rule. The rule outlives this object, which replaces the thread's guard until its end.
    explicit SendGuard(const SendRule* rule) : m_previous(std::exchange(t_rule, rule)) {}
    ~SendGuard() { t_rule = m_previous; }
    SendGuard(const SendGuard&) = delete;
    SendGuard& operator=(const SendGuard&) = delete;

    /// Returns false if a request of this thread has to stop.
    static bool MaySend() { return t_rule == nullptr || t_rule->maySend(); }
    /// To be called before a request is sent. Raises what the rule raises.
    static void Require()
    {
        if (MaySend())
            return;
        const SendRule& rule = *t_rule;
        const SendGuard none(nullptr); // for requests of the rule
        rule.require();
    }

private:
    static inline thread_local const SendRule* t_rule = nullptr;

    const SendRule* m_previous;
};

} // namespace Agent::Http

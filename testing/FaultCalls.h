// The calls that faults strike, and where the harness counts them.
#pragma once

namespace Testing {

/// What a fault can strike; each domain is counted for itself.
enum class FaultDomain
{
    SystemCalls,
    Transfers, ///< system calls that move bytes, which a fault cuts short
    Memory,    ///< operator new
    Crypto     ///< OpenSSL's memory
};

constexpr int FaultDomains = 4;

/// How a fault strikes.
struct FaultKind
{
    const char* name;
    FaultDomain domain;
    int error;            ///< what errno becomes
    unsigned long inARow; ///< of so many calls
    bool starves = false; ///< from then on there is no memory either
};

/// The state of the run that a process is in.
struct FaultRun
{
    const FaultKind* kind = nullptr; ///< null: no fault
    unsigned long target = 0;        ///< the first call that it strikes, from 1 on
    bool isArmed = false;
    unsigned long* calls = nullptr; ///< so far, while armed, by domain; shared with processes that it forks
    long objects = 0;               ///< allocations by operator new that live
    long crypto = 0;                ///< those of OpenSSL
};
extern FaultRun g_faultRun;

/// Counts this call, and tells whether the fault strikes it. Its name is kept where the parent process sees
/// it.
bool FaultStrikes(FaultDomain domain, const char* call);
/// The call that was struck first; empty if none was. Outlives the process that was struck.
const char* StruckCall();
void ForgetStruckCall();
/// Whether a call was struck that OpenSSL makes, which drops the error's number.
bool IsOpenSslStruck();

} // namespace Testing

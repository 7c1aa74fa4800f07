// The calls that faults strike, and the code that counts them.
#pragma once

namespace Testing {

/// What a fault can strike; the calls of each domain are counted separately.
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
    int error;            ///< the value of errno
    unsigned long inARow; ///< the number of calls in a row that it strikes
    bool starves = false; ///< from then on, allocations fail as well
};

/// The state of the run of this process.
struct FaultRun
{
    const FaultKind* kind = nullptr; ///< null: no fault
    unsigned long target = 0;        ///< the first call that the fault strikes, from 1 on
    bool isArmed = false;
    unsigned long* calls = nullptr; ///< so far, while armed, by domain; shared with processes that it forks
    long objects = 0;               ///< existing allocations by operator new
    long crypto = 0;                ///< existing allocations of OpenSSL
};
extern FaultRun g_faultRun;

/// Counts this call, and returns true if the fault strikes it. The call's name is kept in memory that is
/// shared with the parent process.
bool FaultStrikes(FaultDomain domain, const char* call);
/// Returns the name of the call that was struck first, or an empty string. It outlives the process that was
/// struck.
const char* StruckCall();
void ForgetStruckCall();
/// Returns true if the fault struck a call of OpenSSL, which drops the error's number.
bool IsOpenSslStruck();

} // namespace Testing

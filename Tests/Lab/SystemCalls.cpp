#include "Tests/Lab/SystemCalls.h"

#include <csignal>
#include <sys/ptrace.h>
#include <sys/wait.h>

namespace pelorin::lab {

bool advanceBySystemCalls(pid_t child, int calls)
{
    constexpr int systemCall = SIGTRAP | 0x80;
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD);
    long signal = 0; // for the child
    for (int stops = 0; stops < 2 * calls;) { // at each call, and at its return
        ::ptrace(PTRACE_SYSCALL, child, nullptr, signal);
        siginfo_t next{};
        if (::waitid(P_PID, static_cast<id_t>(child), &next, WEXITED | WSTOPPED | WNOWAIT) != 0) return false;
        if (next.si_code != CLD_TRAPPED && next.si_code != CLD_STOPPED) return false;
        int status = 0;
        ::waitpid(child, &status, 0);
        const int reason = WSTOPSIG(status);
        stops += reason == systemCall;
        signal = reason == systemCall || reason == SIGSTOP || reason == SIGTRAP ? 0 : reason;
    }
    return true;
}

} // namespace pelorin::lab

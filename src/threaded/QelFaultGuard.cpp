#include "threaded/QelFaultGuard.h"

#include <algorithm>
#include <array>
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <execinfo.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

namespace {

constexpr std::array<int, 4> kFaultSignals = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

// One entered guard on a thread's stack; guards nest, innermost first.
struct GuardFrame {
    sigjmp_buf jump;
    QelFaultRecord* fault;
    GuardFrame* outer;
};

thread_local GuardFrame* t_innermost = nullptr;

// The dispositions that were in force when ours went in; written before our
// handler for the signal exists, read-only after.
std::array<struct sigaction, kFaultSignals.size()> s_previous{};

std::size_t SlotOf(int signal) noexcept
{
    return static_cast<std::size_t>(std::find(kFaultSignals.begin(), kFaultSignals.end(), signal) -
                                    kFaultSignals.begin());
}

// A fault's address is that of the faulting instruction, which is never null:
// the reports read a null address as "no fault known". The data address of a bad
// access (si_addr) would be null for the commonest fault of all.
const void* InstructionAddress([[maybe_unused]] const siginfo_t* info, const void* context) noexcept
{
#if defined(__x86_64__)
    return reinterpret_cast<const void*>(static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
#elif defined(__i386__)
    return reinterpret_cast<const void*>(static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_EIP]);
#else
    (void)context;
    return info->si_addr;
#endif
}

// A fault we don't own takes the course it would have taken without us.
void PassOn(int signal, siginfo_t* info, void* context) noexcept
{
    const struct sigaction& previous = s_previous[SlotOf(signal)];
    if ((previous.sa_flags & SA_SIGINFO) != 0 && previous.sa_sigaction != nullptr) {
        previous.sa_sigaction(signal, info, context);
        return;
    }
    if ((previous.sa_flags & SA_SIGINFO) == 0 && previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(signal);
        return;
    }
    // The default action: put it back and let the signal come again. A fault does
    // so by itself when its instruction runs again; a sent signal must be resent,
    // and stays pending until this handler returns.
    sigaction(signal, &previous, nullptr);
    if (info->si_code <= 0)
        raise(signal);
}

void OnFault(int signal, siginfo_t* info, void* context)
{
    GuardFrame* const frame = t_innermost;
    // Only the kernel's faults are ours; a signal that someone sent (si_code of 0
    // or below) is no fault of the guarded code.
    if (frame == nullptr || info->si_code <= 0) {
        PassOn(signal, info, context);
        return;
    }
    QelFaultRecord& fault = *frame->fault;
    fault.Code = QelExceptionCodeFromSignal(signal, info->si_code);
    fault.Signal = signal;
    fault.Address = InstructionAddress(info, context);
    fault.FrameCount = backtrace(fault.Frames.data(), QelFaultRecord::kMaxFrames);
    // A second fault before the guard has returned belongs to the next guard out.
    t_innermost = frame->outer;
    siglongjmp(frame->jump, 1);
}

void InstallHandlers() noexcept
{
    static const bool installed = [] {
        // backtrace loads its unwinder on first use, which allocates; that must
        // happen here and not first inside a handler.
        void* warmUp[1];
        backtrace(warmUp, 1);
        struct sigaction ours {};
        ours.sa_sigaction = OnFault;
        ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&ours.sa_mask);
        for (std::size_t slot = 0; slot < kFaultSignals.size(); ++slot) {
            sigaction(kFaultSignals[slot], nullptr, &s_previous[slot]);
            sigaction(kFaultSignals[slot], &ours, nullptr);
        }
        return true;
    }();
    (void)installed;
}

// A stack for the handler to run on when the thread's own stack is exhausted,
// with a guard page below it. Lives as long as its thread.
class AltStack {
public:
    AltStack() noexcept
    {
        stack_t current{};
        if (sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0)
            return;  // the thread has one already, perhaps a sanitizer's or the host's
        const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const long minimum = sysconf(_SC_MINSIGSTKSZ);
        m_bytes = std::max<std::size_t>(kStackBytes, minimum > 0 ? 4 * static_cast<std::size_t>(minimum) : 0);
        m_bytes = (m_bytes + page - 1) / page * page + page;
        void* block = mmap(nullptr, m_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (block == MAP_FAILED)
            return;
        mprotect(block, page, PROT_NONE);
        stack_t ours{};
        ours.ss_sp = static_cast<char*>(block) + page;
        ours.ss_size = m_bytes - page;
        if (sigaltstack(&ours, nullptr) != 0) {
            munmap(block, m_bytes);
            return;
        }
        m_block = block;
    }

    ~AltStack()
    {
        if (!m_block)
            return;
        stack_t off{};
        off.ss_flags = SS_DISABLE;
        sigaltstack(&off, nullptr);
        munmap(m_block, m_bytes);
    }

    AltStack(const AltStack&) = delete;
    AltStack& operator=(const AltStack&) = delete;

private:
    static constexpr std::size_t kStackBytes = 128 * 1024;  // the handler's backtrace needs room

    void* m_block = nullptr;
    std::size_t m_bytes = 0;
};

void EnsureAltStack() noexcept
{
    thread_local AltStack stack;
}

// The frame that a fault jumps back into. Nothing in it may need destroying:
// siglongjmp skips destructors.
[[gnu::noinline]] bool RunInFrame(GuardFrame& frame, void (*body)(void*), void* context)
{
    if (sigsetjmp(frame.jump, 1) != 0)
        return false;
    body(context);
    return true;
}

// Makes a frame innermost for its life, and restores the outer one also when an
// exception leaves the body.
class EnteredGuard {
public:
    explicit EnteredGuard(GuardFrame& frame) noexcept : m_frame(frame)
    {
        m_frame.outer = t_innermost;
        t_innermost = &m_frame;
    }
    ~EnteredGuard() { t_innermost = m_frame.outer; }

    EnteredGuard(const EnteredGuard&) = delete;
    EnteredGuard& operator=(const EnteredGuard&) = delete;

private:
    GuardFrame& m_frame;
};

}  // namespace

bool QelRunGuardedCall(const char* name, void (*body)(void*), void* context, QelFaultRecord& fault)
{
    InstallHandlers();
    EnsureAltStack();
    GuardFrame frame{};
    frame.fault = &fault;
    bool survived = false;
    {
        EnteredGuard entered(frame);
        survived = RunInFrame(frame, body, context);
    }
    if (!survived)
        QelCrashReport(name, &fault, fault.Code, true);
    return survived;
}

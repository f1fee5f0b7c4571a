#pragma once

#include "base/QelCrashReport.h"

#include <memory>
#include <type_traits>

/// Runs `body(context)` so that a hardware fault raised by its own instructions
/// (SIGSEGV, SIGBUS, SIGFPE, SIGILL) ends the body rather than the process: the
/// fault is written to `fault` (code, signal, address of the faulting instruction,
/// stack), reported through QelCrashReport under `name`, and the call returns
/// false. True when the body returns normally. C++ exceptions pass through.
///
/// A fault abandons the body's frames without unwinding them: no destructor runs,
/// so whatever they owned leaks and whatever lock they held stays held. Guarded
/// bodies should keep owning objects and locks in frames outside the guard.
///
/// The first call installs the process's handlers for the four signals. A fault
/// outside any guard goes on as if they weren't there: to the handler that was
/// installed before, or to the default action. A handler installed later by
/// someone else replaces ours, and the guards then catch nothing.
/// Each thread that enters a guard gets an alternate signal stack if it has none,
/// so that a stack overflow in the body can be caught too.
bool QelRunGuardedCall(const char* name, void (*body)(void*), void* context, QelFaultRecord& fault);

/// The same for any callable, which stays in the caller's frame.
template <class Body>
bool QelRunGuarded(const char* name, Body&& body, QelFaultRecord& fault)
{
    using Callable = std::remove_reference_t<Body>;
    return QelRunGuardedCall(
        name, [](void* context) { (*static_cast<Callable*>(context))(); },
        const_cast<void*>(static_cast<const void*>(std::addressof(body))), fault);
}

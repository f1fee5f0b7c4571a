#pragma once

#include "base/QelNoncopyable.h"

#include <cstdint>
#include <vector>

/// The instruction-set levels that hot routines are built for, lowest first. A
/// component with vector bodies keeps one table of function pointers per level and
/// picks the table once, before its loops, with QelBestIsa(); every table gives the
/// scalar table's results bit for bit.
enum class QelIsa : std::uint8_t { Scalar, Sse2, Avx2, Avx512 };

/// The levels this processor and its operating system can run, lowest first;
/// Scalar is always there. The answer ignores any QelIsaLimit, so that tests can
/// reach every body the machine can run. The processor is asked once, on first use,
/// from any thread.
[[nodiscard]] std::vector<QelIsa> QelSupportedIsas();

/// Whether the processor can run `isa`; ignores any QelIsaLimit.
[[nodiscard]] bool QelIsaSupported(QelIsa isa) noexcept;

/// The highest supported level, lowered to the cap of any live QelIsaLimit.
[[nodiscard]] QelIsa QelBestIsa() noexcept;

/// "Scalar", "Sse2", "Avx2" or "Avx512": usable as a test or benchmark name.
[[nodiscard]] const char* QelIsaName(QelIsa isa) noexcept;

/// For tests: caps QelBestIsa() at `cap` while the object lives, so that the
/// lower bodies can be run on a machine that has higher ones. Limits nest, and an
/// inner limit never raises the cap of an outer one. The cap is process-wide: a
/// test must not create limits from two threads at once.
class QelIsaLimit : QelNoncopyable {
public:
    explicit QelIsaLimit(QelIsa cap) noexcept;
    ~QelIsaLimit();

private:
    QelIsa m_previous;
};

#pragma once

#include "ax/rendering/IAborter.h"
#include "ax/rendering/Owned.h"

#include <cstdint>

class QelAborter;

namespace Ax::Rendering {

/// An IAborter with a flag and an optional time limit. Abort and Reset may be
/// called from any thread while a render polls it.
class Aborter final : public IAborter {
public:
    /// Without a time limit.
    Aborter();
    /// Aborts once `expireMillis` milliseconds have passed from now. 4294967000 or
    /// more is no limit.
    explicit Aborter(std::int64_t expireMillis);
    ~Aborter() override;
    Aborter(const Aborter&) = delete;
    Aborter& operator=(const Aborter&) = delete;

    /// True once Abort was called or the time limit has passed (strictly: a limit
    /// of 0 fires only when the millisecond clock has moved on).
    [[nodiscard]] bool HasAborted() override;
    void Abort();
    /// Lowers the flag; the time limit is not restarted.
    void Reset();
    /// Milliseconds to the limit, negative once it has passed; INT64_MAX without one.
    [[nodiscard]] std::int64_t TimeLeft() const;

private:
    Owned<QelAborter> m_aborter;
};

}  // namespace Ax::Rendering

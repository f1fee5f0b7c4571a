#include "ax/rendering/Aborter.h"

#include "threaded/QelAborter.h"

#include <limits>

namespace Ax::Rendering {

Aborter::Aborter() : m_aborter(std::make_unique<QelAborter>(false)) {}

Aborter::Aborter(std::int64_t expireMillis)
    : m_aborter(std::make_unique<QelAborter>(static_cast<double>(expireMillis) / 1000.0, false))
{
}

Aborter::~Aborter() = default;

bool Aborter::HasAborted()
{
    return m_aborter->HasAborted();
}

void Aborter::Abort()
{
    m_aborter->Abort();
}

void Aborter::Reset()
{
    m_aborter->Reset();
}

std::int64_t Aborter::TimeLeft() const
{
    const double seconds = m_aborter->TimeLeft();
    if (seconds == std::numeric_limits<double>::max())
        return std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(seconds * 1000.0);
}

}  // namespace Ax::Rendering

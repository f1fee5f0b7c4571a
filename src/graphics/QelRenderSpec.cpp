#include "graphics/QelRenderSpec.h"

#include "base/QelDebug.h"
#include "graphics/QelThreadScopeGuard.h"

// Out of line, so that the virtual table has one home.
QelRenderSpec::~QelRenderSpec() = default;

// The getters of unset values report the bug and then return the default value,
// which a handler that returns can go on with.

const QelPixelVariant& QelRenderSpec::UndefinedPixelVal() const
{
    QEL_ASSERT(m_undefinedPixelVal.HasValue(), "QelRenderSpec::UndefinedPixelVal not set");
    return m_undefinedPixelVal.Value();
}

const QelMatrix34& QelRenderSpec::SlabCenterTransform() const
{
    QEL_ASSERT(m_slabCenterTransform.HasValue(), "QelRenderSpec::SlabCenterTransform not set");
    return m_slabCenterTransform.Value();
}

QelSlabMode::QelSlabModeEnum QelRenderSpec::SlabMode() const
{
    QEL_ASSERT(m_slabMode.HasValue(), "QelRenderSpec::SlabMode not set");
    return m_slabMode.Value();
}

void QelRenderSpec::SetSampleSliceNumber(std::int32_t count)
{
    QEL_ASSERT(count > 0, "Error - slab thickness must be greater than 0");
    m_sampleSliceNumber = count;
}

void QelRenderSpec::CaptureCallerPriority() noexcept
{
    if (m_threadPriority.HasValue() && m_threadPriority.Value() == QelThreadPriority::Caller)
        m_callerThreadPriority = QelCurrentThreadPriorityLevel();
}

#include "threaded/QelImageStackOneStepImpl.h"

bool QelImageStackOneStepImpl::StartDraw(QelImageStack* stack, QelRenderSpec* spec)
{
    m_stack = stack;
    m_spec = spec;
    m_finished = false;
    return true;
}

bool QelImageStackOneStepImpl::Step()
{
    if (m_finished)
        return true;
    const bool drawn = Draw(m_stack, m_spec);
    m_finished = true;
    return drawn;
}

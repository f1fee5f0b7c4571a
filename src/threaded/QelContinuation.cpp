#include "threaded/QelContinuation.h"

bool QelContinuation::Go()
{
    if (IsDone())
        return true;
    bool result = true;
    do {
        result = Step() && result;
    } while (!IsDone());
    return result;
}

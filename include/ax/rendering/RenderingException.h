#pragma once

#include "ax/system/Exception.h"

namespace Ax::Rendering {

/// What a failed render or a report of the native engine becomes at the boundary.
class RenderingException : public Ax::System::Exception {
public:
    RenderingException();
    explicit RenderingException(std::string message);
    RenderingException(std::string message, std::exception_ptr innerException);
};

}  // namespace Ax::Rendering

#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"

namespace Ax::System {

Exception::Exception() : m_message("Exception of type 'Ax::System::Exception' was thrown.") {}

Exception::Exception(std::string message) : m_message(std::move(message)) {}

Exception::Exception(std::string message, std::exception_ptr innerException)
    : m_message(std::move(message)), m_inner(std::move(innerException))
{
}

ArgumentException::ArgumentException(std::string message, std::string paramName)
    : Exception(std::move(message)), m_paramName(std::move(paramName))
{
}

}  // namespace Ax::System

namespace Ax::Rendering {

RenderingException::RenderingException()
    : Exception("Exception of type 'Ax::Rendering::RenderingException' was thrown.")
{
}

RenderingException::RenderingException(std::string message) : Exception(std::move(message)) {}

RenderingException::RenderingException(std::string message, std::exception_ptr innerException)
    : Exception(std::move(message), std::move(innerException))
{
}

}  // namespace Ax::Rendering

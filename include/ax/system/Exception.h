#pragma once

#include <exception>
#include <string>

/// The host's exception types, as the library's public classes throw them. Each
/// carries its exact message and, where one is named, the parameter.
namespace Ax::System {

class Exception : public std::exception {
public:
    Exception();
    explicit Exception(std::string message);
    Exception(std::string message, std::exception_ptr innerException);

    [[nodiscard]] const char* what() const noexcept override { return m_message.c_str(); }
    [[nodiscard]] const std::string& Message() const noexcept { return m_message; }
    /// The exception that caused this one, or null.
    [[nodiscard]] const std::exception_ptr& InnerException() const noexcept { return m_inner; }

private:
    std::string m_message;
    std::exception_ptr m_inner;
};

class ArgumentException : public Exception {
public:
    explicit ArgumentException(std::string message, std::string paramName = {});
    /// The name of the offending parameter; empty when none was named.
    [[nodiscard]] const std::string& ParamName() const noexcept { return m_paramName; }

private:
    std::string m_paramName;
};

class ArgumentNullException : public ArgumentException {
public:
    using ArgumentException::ArgumentException;
};

class ArgumentOutOfRangeException : public ArgumentException {
public:
    using ArgumentException::ArgumentException;
};

class InvalidOperationException : public Exception {
public:
    using Exception::Exception;
};

class SerializationException : public Exception {
public:
    using Exception::Exception;
};

}  // namespace Ax::System

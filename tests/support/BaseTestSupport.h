#pragma once

// Printers and names for the foundation's value types, so that failed
// expectations show values instead of bytes. Every test binary that compares
// these types includes this one header, so all agree on how they print.

#include "base/QelIntRange.h"
#include "base/QelIsa.h"
#include "base/QelMatrix34.h"
#include "base/QelSize2.h"
#include "base/QelVector.h"
#include "base/imp/QelThrowBugHandler.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

inline void PrintTo(const QelVector3& v, std::ostream* os)
{
    *os << "(" << v.X() << ", " << v.Y() << ", " << v.Z() << ")";
}

inline void PrintTo(const QelMatrix34& m, std::ostream* os)
{
    for (int r = 0; r < QelMatrix34::kRows; ++r) {
        *os << (r == 0 ? "[" : "; ");
        for (int c = 0; c < QelMatrix34::kColumns; ++c)
            *os << (c == 0 ? "" : " ") << m.Elem(r, c);
    }
    *os << "]";
}

inline void PrintTo(const QelIntRange& range, std::ostream* os)
{
    *os << "[" << range.Min << ", " << range.Max << "]";
}

inline void PrintTo(const QelSize2& size, std::ostream* os)
{
    *os << size.Width() << "x" << size.Height();
}

inline void PrintTo(QelIsa isa, std::ostream* os)
{
    *os << QelIsaName(isa);
}

/// Names the instances of a test suite parametrised over QelSupportedIsas().
inline std::string IsaName(const ::testing::TestParamInfo<QelIsa>& info)
{
    return QelIsaName(info.param);
}

/// A report of the default bug handler, split at the end of its heading line.
struct CaughtReport {
    std::string heading;  // "QEL_ASSERT in <file>, line <n>", or empty when nothing was thrown
    std::string text;     // what the report form was given
};

/// Runs `call` and returns the report it threw as an `Exception`.
template <class Exception, class Call>
CaughtReport CatchReport(Call&& call)
{
    try {
        call();
    } catch (const Exception& e) {
        const std::string message = e.what();
        const std::size_t end = message.find('\n');
        if (end == std::string::npos)
            return {message, {}};
        return {message.substr(0, end), message.substr(end + 1)};
    }
    return {};
}

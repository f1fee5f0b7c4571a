#pragma once

#include "base/imp/QelThrowBugHandler.h"
#include "support/MessageOf.h"

#include <string>

// The text that `action` reports through QEL_ASSERT under the default throwing
// handler, without the heading line that names the source file and line.
template <class Action>
std::string AssertionText(Action action)
{
    const std::string message = MessageOf<QelThrowBugHandler::AssertException>(action);
    const std::size_t newline = message.find('\n');
    return newline == std::string::npos ? message : message.substr(newline + 1);
}

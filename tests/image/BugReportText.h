#pragma once

#include "base/imp/QelThrowBugHandler.h"

#include <gtest/gtest.h>

#include <string>

// The text of the bug report that `action` raises through the default handler, without
// the heading line that names the file and line. Empty, with a failure, when the action
// reports nothing.
template <class Action>
std::string BugReportText(Action action)
{
    try {
        action();
    } catch (const QelThrowBugHandler::AssertException& e) {
        const std::string what = e.what();
        return what.substr(what.find('\n') + 1);
    }
    ADD_FAILURE() << "no bug report";
    return {};
}

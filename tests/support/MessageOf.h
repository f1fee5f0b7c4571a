#pragma once

#include <gtest/gtest.h>

#include <string>

// The text of the Exception that `action` throws; a test failure when it throws none.
template <class Exception, class Action>
std::string MessageOf(Action action)
{
    try {
        action();
    } catch (const Exception& e) {
        return e.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

#pragma once

namespace Ax::Rendering {

/// Installs the handler that turns every report of the native engine (assertion,
/// error or trace) into a RenderingException carrying the report's text.
/// Initializer::Initialize calls it; a host needs it only to reinstall the handler.
class BugHandler {
public:
    BugHandler() = delete;
    static void SetManagedBugHandler();
};

}  // namespace Ax::Rendering

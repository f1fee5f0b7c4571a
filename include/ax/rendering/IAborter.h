#pragma once

namespace Ax::Rendering {

/// What a caller gives a render to stop it: polled on the rendering thread before
/// every step of the render.
class IAborter {
public:
    virtual ~IAborter() = default;
    [[nodiscard]] virtual bool HasAborted() = 0;

protected:
    IAborter() = default;
    IAborter(const IAborter&) = default;
    IAborter& operator=(const IAborter&) = default;
};

}  // namespace Ax::Rendering

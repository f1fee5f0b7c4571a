#pragma once

#include <memory>

namespace Ax::Rendering {

/// How a public object owns its native object: one owner, deleted through the
/// native object's virtual destructor.
template <class T>
using Owned = std::unique_ptr<T>;

}  // namespace Ax::Rendering

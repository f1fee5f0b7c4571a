// Any bytes given to the bit tree's stream reader end in a sound tree or in null:
// never a crash, a leak or an allocation beyond what the bytes can describe.

#include "bittree/QelBlockedBitTree.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;  // fmemopen refuses an empty buffer
    std::FILE* file = fmemopen(const_cast<std::uint8_t*>(data), size, "rb");
    if (!file)
        return 0;
    const auto tree = QelBlockedBitTree::Load(file);
    std::fclose(file);
    if (tree && !tree->Verify(nullptr, 0))
        __builtin_trap();
    return 0;
}

// Any bytes given to the mask file reader end in a mask or in a SerializationException:
// never a crash, a leak or an allocation beyond what the bytes can describe.

#include "ax/rendering/BitVolume.h"
#include "ax/rendering/Initializer.h"
#include "ax/system/Exception.h"
#include "ax/system/SerializationInfo.h"

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool initialized = [] {
        Ax::Rendering::Initializer::Initialize();
        return true;
    }();
    (void)initialized;
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    try {
        const Ax::Rendering::BitVolume mask(Ax::System::SerializationInfo::Read(in));
        // What was read must persist to the same voxels.
        Ax::System::SerializationInfo again;
        mask.GetObjectData(again);
        if (again.GetBitArray("Data").Length() !=
            std::int64_t{mask.Width()} * mask.Height() * mask.Depth())
            __builtin_trap();
    } catch (const Ax::System::SerializationException&) {
    }
    return 0;
}

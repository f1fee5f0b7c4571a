#pragma once

#include "ax/rendering/ImageStack.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Axr {

/// The sample types that volume files store.
enum class ScalarType { I8, U8, I16, U16, I32, U32, F32, F64 };

[[nodiscard]] std::size_t SizeOf(ScalarType type) noexcept;
/// "i8", "u16", "f32"...: the names --type takes and errors quote.
[[nodiscard]] std::string_view NameOf(ScalarType type) noexcept;
/// The type named as NameOf names it; empty for anything else.
[[nodiscard]] std::optional<ScalarType> ScalarTypeNamed(std::string_view name) noexcept;

/// Reverses the bytes of every sample of `size` bytes in place.
void SwapSampleBytes(std::span<std::byte> bytes, std::size_t size) noexcept;

/// `raw` cut to its low `bits` bits and sign-extended when `isSigned`: the value of
/// a sample whose higher bits may hold overlays or garbage. `raw` itself for `bits`
/// outside 1 .. 63.
[[nodiscard]] std::int64_t KeepStoredBits(std::int64_t raw, std::int32_t bits, bool isSigned) noexcept;

/// value = stored * slope + intercept, as DICOM and NIfTI rescale.
struct Rescale {
    double slope = 1, intercept = 0;
};

/// One slice as a file stores it: width x height samples in native byte order, rows
/// top to bottom without padding, with its own rescale and its z in stack units.
struct SliceSamples {
    std::span<const std::byte> bytes;
    Rescale rescale;
    double z = 0;
};

/// What all slices of one volume share.
struct SampleLayout {
    std::int32_t width = 0, height = 0;
    ScalarType type = ScalarType::U16;
    /// Integer types: only the low bits carry the value, sign-extended for signed
    /// types; 0 for all bits.
    std::int32_t bitsStored = 0;
    /// A stored value (before rescale) that marks voxels without data.
    std::optional<double> paddingStored;
    /// The rescaled values are Hounsfield units: store them as HU + 1024 where they
    /// fit, the scale the tool's windows read.
    bool hounsfield = false;
};

/// How the samples became 16-bit stack values, for `axr info`.
struct StackConversion {
    bool isSigned = false;
    std::int32_t offset = 0;  // stack value = rescaled value + offset
    bool rounded = false;     // some rescaled values were not whole and were rounded
};

/// Turns the slices into a stack of 16-bit images. The stack's sample type follows
/// from the rescaled values: Hounsfield data as HU + 1024 when every value fits
/// 0 .. 65535 that way, else signed HU; other data unsigned when the file's type is
/// unsigned and the values fit, else signed. Padding voxels get the stack's padding
/// value, the padding's rescaled value clamped into range. Throws InputError naming
/// `name` for values that fit no 16-bit type, a value that is not a number, or a z
/// the stack refuses.
[[nodiscard]] std::unique_ptr<Ax::Rendering::ImageStack> BuildStack(std::string_view name, const SampleLayout& layout,
                                                                    std::span<const SliceSamples> slices,
                                                                    StackConversion* conversion = nullptr);

}  // namespace Axr

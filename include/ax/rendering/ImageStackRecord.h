#pragma once

#include "ax/rendering/RasterImage.h"

#include <memory>
#include <utility>

namespace Ax::Rendering {

/// One slice of an ImageStack as the caller gave it: the caller's own image and the
/// z it asked for, as a double (the native stack keeps the z as a float).
class ImageStackRecord {
public:
    ImageStackRecord(std::shared_ptr<RasterImage> image, double zCoord) noexcept
        : m_image(std::move(image)), m_zCoord(zCoord)
    {
    }

    [[nodiscard]] const std::shared_ptr<RasterImage>& Image() const noexcept { return m_image; }
    [[nodiscard]] double ZCoord() const noexcept { return m_zCoord; }

private:
    std::shared_ptr<RasterImage> m_image;
    double m_zCoord;
};

}  // namespace Ax::Rendering

#pragma once

#include "base/QelArray.h"
#include "base/QelMaybe.h"
#include "base/QelVector.h"
#include "graphics/QelRenderEnums.h"

#include <array>
#include <cstdint>
#include <type_traits>

class QelBlockedBitTree;

/// One object of a render: its voxels, the voxels sculpted away from it, its colour
/// and opacity table and how it is drawn. The record points at the trees and the
/// table and owns none of them. An entry whose BitTree is null is ignored by every
/// reader.
struct QelBitTreeInformation {
    QelBitTreeProperty Property = QelBitTreeProperty::Shaded;
    QelArray<std::uint32_t>* OpacityTable = nullptr;
    QelBlockedBitTree* BitTree = nullptr;
    QelBlockedBitTree* SculptTree = nullptr;
    /// Which stack of the fusion stack set the object's voxels come from.
    std::int32_t StackIndex = 0;
    bool CopyTables = true;
    bool HasSculpt = true;
    bool UsesRgbTables = true;
    float Dimmer = 1.0f;
    bool NicheClipped = false;
    QelMaybe<std::array<QelVector3, 2>> LocalClip;
    float LocalScale = 1.0f;
    float LocalOffset = 0.0f;
};

// Lists of objects are QelArrays, which move and fill their entries as bytes.
static_assert(std::is_trivially_copyable_v<QelBitTreeInformation>);

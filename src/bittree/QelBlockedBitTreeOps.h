#pragma once

#include "bittree/QelBlockedBitTree.h"

#include <cstdint>
#include <memory>

/// The algebra of masks: free functions that read one or two trees and build a new
/// one, deciding per table entry from its form (empty, full, real) before touching a
/// bit, so that the cost follows the number of real blocks. Operands are only read,
/// so any number of operations may share them; the result is the caller's. Result
/// blocks come from the first operand's memory manager.
///
/// Every function that returns a tree returns null when memory runs out, with
/// nothing left behind. The binary operations size the result from `a` and expect
/// `b` to have the same size; only Equal compares sizes.
///
/// The operations work on whole blocks: bits outside the volume in the last block
/// of an axis (padding) take part like any other, except where a function says so.
namespace QelBlockedBitTreeOps {

/// Structural equality: same size, and per entry the same form and, for real
/// blocks, the same 4096 bytes of bits, padding included (summaries aren't
/// compared). A real block with no bit set differs from an empty entry. Different
/// sizes give false without reading a block.
[[nodiscard]] bool Equal(const QelBlockedBitTree& a, const QelBlockedBitTree& b) noexcept;

/// Voxels set in a or b. Summaries are the AND of the sources' words, flags the
/// AND of the sources' flags; a real block that happens to be all ones stays real.
[[nodiscard]] std::unique_ptr<QelBlockedBitTree> Union(const QelBlockedBitTree& a, const QelBlockedBitTree& b);
/// Voxels set in a and b. Real results get exact summaries, flags are the OR of
/// the sources' flags; a real block whose AND is empty stays real.
[[nodiscard]] std::unique_ptr<QelBlockedBitTree> Intersection(const QelBlockedBitTree& a,
                                                              const QelBlockedBitTree& b);
/// Voxels set in exactly one of a and b. Equal real blocks leave the entry empty;
/// flags are computed afresh.
[[nodiscard]] std::unique_ptr<QelBlockedBitTree> Xor(const QelBlockedBitTree& a, const QelBlockedBitTree& b);
/// Voxels of a's box that are clear in a. Padding rows beyond the height come out
/// set, padding bits beyond the width come out inverted, and planes beyond the
/// depth stay clear. Flags are computed afresh.
[[nodiscard]] std::unique_ptr<QelBlockedBitTree> Invert(const QelBlockedBitTree& a);

/// Every set bit of a, padding included, reaches out by the given distances: to
/// x - xMinus ... x + xPlus, and likewise in Y and Z (a box, not a ball). Bits that
/// land in a block of the table count, padding too; beyond the table they vanish.
/// Distances run from 0 to 8 in X and Z and 0 to 4 in Y; others are a bug report,
/// after which (should the handler return) the result is null. Runs on the render
/// threads; the result doesn't depend on their number.
[[nodiscard]] std::unique_ptr<QelBlockedBitTree> CubicDilate(const QelBlockedBitTree& a, int xMinus, int xPlus,
                                                             int yMinus, int yPlus, int zMinus, int zPlus);
/// The mirror image of CubicDilate with the same distances: voxel v survives when
/// every voxel from v - xPlus to v + xMinus (likewise in Y and Z) that lies inside
/// the volume is set. Voxels outside the volume count as set, so the volume's edge
/// doesn't eat into a mask that touches it; a's padding bits play no part, and the
/// result's padding is clear. Same limits and bug report as CubicDilate.
[[nodiscard]] std::unique_ptr<QelBlockedBitTree> CubicErode(const QelBlockedBitTree& a, int xMinus, int xPlus,
                                                            int yMinus, int yPlus, int zMinus, int zPlus);

/// Fills `target`, made by the caller, from the source entries [firstBlock,
/// lastBlock). The factor f = round(source width / target width) serves all three
/// axes and must be 2, 4, 8, 16 or 32 (anything else is a bug report, then false).
/// A target voxel is set when any (anySet) or all (!anySet) of its f^3 source
/// voxels are set; with a mask tree of the source's size, source rows are ANDed
/// with the mask's first and source blocks where the mask is empty are skipped.
/// Empty source entries leave the target clear. Summaries and flags of the target
/// are made only when lastBlock is the source's block count; ranges that write the
/// same target block must not run at once. False when a target block can't be had.
[[nodiscard]] bool Downsize(const QelBlockedBitTree& source, QelBlockedBitTree& target, std::uint32_t firstBlock,
                            std::uint32_t lastBlock, bool anySet, const QelBlockedBitTree* maskTree);

// ---- Range forms ----
//
// The entries [first, last) of `result`, a fresh tree of a's size (as New makes it)
// whose entries in the range nothing else writes, so that disjoint ranges may run
// at once. False when a block can't be had; the caller then destroys `result`.
// Union and Intersection leave each entry and its flag finished. Xor and Invert
// leave the flags to the caller: ComputeBlockEmptiness on `result` once every
// range is done.

[[nodiscard]] bool UnionRange(const QelBlockedBitTree& a, const QelBlockedBitTree& b, QelBlockedBitTree& result,
                              std::uint32_t first, std::uint32_t last);
[[nodiscard]] bool IntersectionRange(const QelBlockedBitTree& a, const QelBlockedBitTree& b,
                                     QelBlockedBitTree& result, std::uint32_t first, std::uint32_t last);
[[nodiscard]] bool XorRange(const QelBlockedBitTree& a, const QelBlockedBitTree& b, QelBlockedBitTree& result,
                            std::uint32_t first, std::uint32_t last);
[[nodiscard]] bool InvertRange(const QelBlockedBitTree& a, QelBlockedBitTree& result, std::uint32_t first,
                               std::uint32_t last);

}  // namespace QelBlockedBitTreeOps

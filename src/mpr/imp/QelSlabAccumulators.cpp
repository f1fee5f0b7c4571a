#include "mpr/imp/QelSlabAccumulators.h"

namespace qel::scalar {
namespace {

// The reference bodies: one sample at a time, exactly as the arithmetic reads.

void SampleOne(const QelSlabVolume& volume, const QelSlabPolicy& policy, const QelSlabRow& row, std::int32_t j,
               const QelFixedPoint3& at, std::int32_t& hint) noexcept
{
    QelSlabPair pair;
    if (!QelSlabFindPair(volume, at.Z, hint, pair))
        return;
    std::uint32_t value = 0;
    if (QelSlabSampleAt(volume, pair, at.X, at.Y, value))
        QelSlabTakeIn(policy, row, volume, j, value);
}

void GeneralRow(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept
{
    std::int32_t firstHint = QelSlabValidHint(volume, row.FirstHint);
    std::int32_t laterHint = QelSlabValidHint(volume, row.LaterHint);
    const std::int32_t laterFirst = row.FirstSample > 1 ? row.FirstSample : 1;
    QelFixedPoint3 p = row.P;
    QelFixedPoint3 pixelQ = row.Q;
    for (std::int32_t j = 0; j < row.Pixels; ++j) {
        if (row.FirstSample == 0) {
            SampleOne(volume, policy, row, j, p, firstHint);
            p = QelSlabWrapAdd(p, row.XStep);
        }
        QelFixedPoint3 q = pixelQ;
        for (std::int32_t s = laterFirst; s <= row.LastSample; ++s) {
            SampleOne(volume, policy, row, j, q, laterHint);
            q = QelSlabWrapAdd(q, row.SlabStep);
        }
        pixelQ = QelSlabWrapAdd(pixelQ, row.XStep);
    }
    row.FirstHint = firstHint;
    row.LaterHint = laterHint;
}

// All pixels of the row share z, so the pair is found once per sample.
void PlaneRow(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept
{
    std::int32_t firstHint = QelSlabValidHint(volume, row.FirstHint);
    std::int32_t laterHint = QelSlabValidHint(volume, row.LaterHint);
    const std::int32_t laterFirst = row.FirstSample > 1 ? row.FirstSample : 1;
    for (std::int32_t s = row.FirstSample; s <= row.LastSample; ++s) {
        const QelFixedPoint3 start =
            s == 0 ? row.P : QelSlabWrapAddScaled(row.Q, row.SlabStep, s - laterFirst);
        std::int32_t& hint = s == 0 ? firstHint : laterHint;
        QelSlabPair pair;
        if (!QelSlabFindPair(volume, start.Z, hint, pair))
            continue;
        QelFixedPoint3 at = start;
        for (std::int32_t j = 0; j < row.Pixels; ++j) {
            std::uint32_t value = 0;
            if (QelSlabSampleAt(volume, pair, at.X, at.Y, value))
                QelSlabTakeIn(policy, row, volume, j, value);
            at = QelSlabWrapAdd(at, row.XStep);
        }
    }
    row.FirstHint = firstHint;
    row.LaterHint = laterHint;
}

}  // namespace

constinit const QelSlabKernels kSlabKernels{&GeneralRow, &PlaneRow};

}  // namespace qel::scalar

const QelSlabKernels& QelSlabKernelsFor(QelIsa isa) noexcept
{
    switch (isa) {
    case QelIsa::Scalar:
        break;
    case QelIsa::Sse2:
        return qel::sse2::kSlabKernels;
    case QelIsa::Avx2:
        return qel::avx2::kSlabKernels;
    case QelIsa::Avx512:
        return qel::avx512::kSlabKernels;
    }
    return qel::scalar::kSlabKernels;
}

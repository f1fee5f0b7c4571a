#include "bittree/imp/QelThresholdRow.h"

namespace qel::scalar {
namespace {

void ThresholdRow(const QelThresholdRow& row, std::uint32_t* words) noexcept
{
    qel::threshold::TailWords(row, 0, words);
}

}  // namespace
}  // namespace qel::scalar

QelThresholdRowFn QelThresholdRowFor(QelIsa isa) noexcept
{
    switch (isa) {
    case QelIsa::Scalar:
        break;
    case QelIsa::Sse2:
        return &qel::sse2::ThresholdRow;
    case QelIsa::Avx2:
    case QelIsa::Avx512:
        return &qel::avx2::ThresholdRow;
    }
    return &qel::scalar::ThresholdRow;
}

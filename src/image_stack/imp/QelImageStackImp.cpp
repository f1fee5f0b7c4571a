#include "image_stack/imp/QelImageStackImp.h"

#include "base/QelCrashReport.h"
#include "base/QelDebug.h"
#include "image/QelRasterImage.h"
#include "threaded/QelFaultGuard.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <new>

namespace {

constexpr const char* kVerifyGuardName = "QelImageStackImp::Verify";

// Stacks made so far in the process; a stack's serial numbers start at this count
// times 65536, so two stacks share none until one of them has seen 65536 changes.
constinit std::atomic<std::uint32_t> g_stacksMade{0};

constexpr QelImageRecord kNoRecord{nullptr, 0.0f, false};

// Formats a Verify finding into the caller's buffer, truncated and terminated;
// always false, so that a check reads `return Fail(...)`.
[[gnu::format(printf, 3, 4)]] bool Fail(char* message, std::uint32_t size, const char* format, ...)
{
    if (message && size > 0) {
        std::va_list args;
        va_start(args, format);
        std::vsnprintf(message, size, format, args);
        va_end(args);
    }
    return false;
}

// Reads three bytes of a slice: its first, the last of its last pixel and the one
// halfway. Only a fault guard makes this safe; the volatile reads keep the compiler
// from dropping them. The address arithmetic is integer arithmetic, because a wild
// origin or a negative pitch would make pointer arithmetic undefined.
[[gnu::noinline]] void TouchSlice(const QelRasterImage& image) noexcept
{
    const auto origin = reinterpret_cast<std::uintptr_t>(image.OriginAddress());
    std::ptrdiff_t last = 0;
    if (image.Width() > 0 && image.Height() > 0)
        last = std::ptrdiff_t{image.Height() - 1} * image.BytesPerLine() +
               std::ptrdiff_t{image.Width()} * image.BytesPerPixel() - 1;
    const auto at = [origin](std::ptrdiff_t offset) {
        return reinterpret_cast<const volatile std::uint8_t*>(origin + static_cast<std::uintptr_t>(offset));
    };
    (void)*at(0);
    (void)*at(last / 2);
    (void)*at(last);
}

}  // namespace

std::unique_ptr<QelImageStack> QelImageStack::New()
{
    return QelImageStackImp::New(nullptr);
}

std::unique_ptr<QelImageStackImp> QelImageStackImp::New(QelMemoryManager* recordsManager)
{
    std::unique_ptr<QelImageStackImp> stack(new (std::nothrow) QelImageStackImp(recordsManager));
    if (!stack || !stack->Init())
        return nullptr;
    const std::uint32_t before = g_stacksMade.fetch_add(1);
    stack->m_serialNumber = before * 65536u;
    return stack;
}

bool QelImageStackImp::Init() noexcept
{
    m_records = QelArray<QelImageRecord>::New(0, kNoRecord, m_recordsManager);
    m_dataMapping.reset(new (std::nothrow) QelDataMapping);
    m_segmentation = QelImageStackSegmentationAccelerator::New(*this);
    return m_records && m_dataMapping && m_segmentation;
}

QelImageStackImp::~QelImageStackImp()
{
    if (m_records)
        DeleteOwnedImages();
}

void QelImageStackImp::Changed() noexcept
{
    m_changed = true;
    ++m_serialNumber;
    DropFixedPointAccelerator();
}

void QelImageStackImp::DeleteOwnedImages() noexcept
{
    QelImageRecord* records = RecordData();
    for (std::int32_t i = 0; i < m_count; ++i) {
        if (records[i].Owned)
            delete records[i].Image;
    }
}

void QelImageStackImp::ClearGeometry() noexcept
{
    m_width = m_height = 0;
    m_bytesPerLine = m_bytesPerPixel = 0;
    m_minPoint = QelVector3{0.0f, 0.0f, 0.0f};
    m_maxPoint = QelVector3{0.0f, 0.0f, 0.0f};
    m_box = QelIntBBox3{};
}

void QelImageStackImp::LoseRecords() noexcept
{
    (void)m_records->Resize(QelIntRange::Empty());  // giving the block back cannot fail
    m_count = 0;
    m_signed = false;
    ClearGeometry();
    m_changed = true;
    DropFixedPointAccelerator();
    RebuildSegmentation();
}

void QelImageStackImp::DropFixedPointAccelerator() noexcept
{
    m_fixedPoint.store(nullptr, std::memory_order_relaxed);
    m_fixedPointOwner.reset();
}

void QelImageStackImp::RebuildSegmentation() noexcept
{
    m_segmentation->DropTables();
    m_segmentation->Rebuild(SerialNumber());
}

void QelImageStackImp::Reset()
{
    DeleteOwnedImages();
    (void)m_records->Resize(QelIntRange::Empty());
    m_count = 0;
    m_signed = false;
    ClearGeometry();
    Changed();
    RebuildSegmentation();
}

bool QelImageStackImp::ImportStack(const QelImageStack& other, float zScale, bool shortenBox)
{
    if (!(zScale > 0.0f) || !std::isfinite(zScale))
        return false;
    // Everything is taken from `other` before anything here changes: it may be this stack.
    const bool self = &other == this;
    const std::int32_t count = other.ImageCount();
    std::unique_ptr<QelArray<QelImageRecord>> records =
        QelArray<QelImageRecord>::New(count, kNoRecord, m_recordsManager);
    const QelDataMapping* otherMapping = other.DataMapping();
    std::unique_ptr<QelDataMapping> mapping =
        otherMapping ? otherMapping->Clone() : std::unique_ptr<QelDataMapping>(new (std::nothrow) QelDataMapping);
    if (!records || !mapping)
        return false;
    const QelImageRecord* source = other.Records();
    for (std::int32_t i = 0; i < count; ++i) {
        // A copy shares the images of its source; only a stack that imports itself
        // still owns what it owned.
        records->Elem(i) = {source[i].Image, source[i].Z / zScale, self && source[i].Owned};
    }
    std::int32_t valuePair[2] = {0, 0};
    const bool hasValuePair = other.ValuePair(&valuePair[0], &valuePair[1]);
    std::uint16_t storedRange[2] = {0, 65535};
    const bool hasStoredRange = other.StoredRange(&storedRange[0], &storedRange[1]);
    const QelVector3 minPoint = other.MinPoint();
    const QelVector3 maxPoint = other.MaxPoint();
    QelIntBBox3 box = other.BoundingBox();

    if (!self)
        DeleteOwnedImages();
    m_records = std::move(records);
    m_count = count;
    m_width = other.Width();
    m_height = other.Height();
    m_bytesPerLine = other.BytesPerLine();
    m_bytesPerPixel = other.BytesPerPixel();
    m_minPoint = QelVector3{minPoint.X(), minPoint.Y(), minPoint.Z() / zScale};
    m_maxPoint = QelVector3{maxPoint.X(), maxPoint.Y(), maxPoint.Z() / zScale};
    if (count > 0) {
        box.Z = QelIntRange(static_cast<std::int32_t>(m_records->Elem(0).Z),
                            static_cast<std::int32_t>(m_records->Elem(count - 1).Z));
        if (shortenBox)
            --box.Z.Max;
    }
    m_box = box;
    m_signed = other.IsSigned();
    m_hasPadding = other.HasPadding();
    m_paddingValue = other.PaddingValue();
    m_hasValuePair = hasValuePair;
    std::copy_n(valuePair, 2, m_valuePair);
    m_hasStoredRange = hasStoredRange;
    std::copy_n(storedRange, 2, m_storedRange);
    m_dataMapping = std::move(mapping);
    Changed();
    RebuildSegmentation();
    return true;
}

bool QelImageStackImp::InsertImage(QelRasterImage* image, float z, bool owned, bool isSigned)
{
    QEL_ASSERT(image != nullptr, "InsertImage():\nNULL pointer (image)\n");
    if (!image)
        return false;
    // The range test is written so that a NaN z fails it too.
    if (m_count >= kMaxImages || !IsZInRange(z))
        return false;
    if (IndexAtZ(z) != -1)
        return false;
    if (m_count == 0) {
        m_signed = isSigned;
    } else if (image->Width() != m_width || image->Height() != m_height ||
               image->BytesPerPixel() != m_bytesPerPixel || isSigned != m_signed) {
        return false;
    }

    ++m_serialNumber;
    m_bytesPerLine = image->BytesPerLine();
    m_bytesPerPixel = image->BytesPerPixel();
    std::int32_t lower = -1;
    std::int32_t upper = -1;
    (void)NeighborsAtZ(z, lower, upper);
    if (!m_records->Resize(QelIntRange(0, m_count))) {
        LoseRecords();
        return false;
    }
    m_changed = true;
    m_segmentation->DropTables();

    QelImageRecord* records = RecordData();
    const std::int32_t index = lower + 1;
    std::copy_backward(records + index, records + m_count, records + m_count + 1);
    records[index] = {image, z, owned};
    ++m_count;

    const auto zBox = static_cast<std::int32_t>(z);  // toward zero: -0.5 lies in slab 0
    if (m_count == 1) {
        m_width = image->Width();
        m_height = image->Height();
        m_minPoint = QelVector3{0.0f, 0.0f, z};
        m_maxPoint = QelVector3{static_cast<float>(m_width), static_cast<float>(m_height), z};
        m_box = QelIntBBox3(QelIntRange(0, m_width - 1), QelIntRange(0, m_height - 1), QelIntRange(zBox, zBox));
    } else if (z < m_minPoint.Z()) {
        m_minPoint.SetZ(z);
        m_box.Z.Min = zBox;
    } else if (z > m_maxPoint.Z()) {
        m_maxPoint.SetZ(z);
        m_box.Z.Max = zBox;
    }
    m_segmentation->ImageInserted(z, index, SerialNumber());
    DropFixedPointAccelerator();
    return true;
}

bool QelImageStackImp::ReplaceImage(QelRasterImage* image, float z, bool owned, bool isSigned)
{
    QEL_ASSERT(image != nullptr, "ReplaceImage():\n  NULL pointer (image)\n");
    if (!image)
        return false;
    if (m_count >= kMaxImages || !IsZInRange(z) || isSigned != m_signed)
        return false;
    const std::int32_t index = IndexAtZ(z);
    if (index == -1)
        return false;
    Changed();
    m_segmentation->DropTables();
    QelImageRecord& record = RecordData()[index];
    // Putting an owned image in its own place must not delete it.
    if (record.Owned && record.Image != image)
        delete record.Image;
    record.Image = image;
    record.Owned = owned;
    m_segmentation->ImageReplaced(z, index, SerialNumber());
    return true;
}

bool QelImageStackImp::RemoveImage(QelRasterImage* image, float z)
{
    QEL_ASSERT(image != nullptr, "RemoveImage():\n  NULL pointer (image)\n");
    if (!image)
        return false;
    const std::int32_t index = IndexAtZ(z);
    if (index == -1)
        return false;
    return RemoveImageAt(index);
}

bool QelImageStackImp::RemoveImageAt(std::int32_t index)
{
    if (static_cast<std::uint32_t>(index) >= static_cast<std::uint64_t>(m_records->Length()))
        return false;
    m_changed = true;
    m_segmentation->DropTables();
    QelImageRecord* records = RecordData();
    if (records[index].Owned)
        delete records[index].Image;
    std::copy(records + index + 1, records + m_count, records + index);
    const std::int32_t count = m_count - 1;
    if (!m_records->Resize(count == 0 ? QelIntRange::Empty() : QelIntRange(0, count - 1))) {
        LoseRecords();
        return false;
    }
    m_count = count;
    Changed();
    m_segmentation->DropRowTable();

    if (count == 0) {
        // Width, height and the box's x and y stay: only Reset forgets them.
        m_minPoint = QelVector3{0.0f, 0.0f, 0.0f};
        m_maxPoint = QelVector3{0.0f, 0.0f, 1.0f};
        m_box.Z = QelIntRange(0, 0);
        m_segmentation->Rebuild(SerialNumber());
        return true;
    }
    records = RecordData();
    const QelImageRecord& first = records[0];
    const QelImageRecord& last = records[count - 1];
    m_minPoint = QelVector3{0.0f, 0.0f, first.Z};
    m_maxPoint = QelVector3{static_cast<float>(last.Image->Width()), static_cast<float>(last.Image->Height()), last.Z};
    m_box.Z = QelIntRange(static_cast<std::int32_t>(first.Z), static_cast<std::int32_t>(last.Z));
    m_segmentation->Rebuild(SerialNumber());
    return true;
}

QelImageRecord QelImageStackImp::Image(std::int32_t index) const
{
    const bool inRange = static_cast<std::uint32_t>(index) < static_cast<std::uint32_t>(m_count);
    QEL_ASSERT(inRange, "Image()\n  Index (%d) out of range [0..%d]\n", index, m_count - 1);
    if (!inRange)
        return kNoRecord;
    return m_records->Elem(index);
}

std::int32_t QelImageStackImp::LowerBound(float z) const noexcept
{
    const QelImageRecord* records = m_records->Data();
    std::int32_t lo = 0;
    std::int32_t hi = m_count - 1;
    while (lo < hi) {
        const std::int32_t mid = (lo + hi) / 2;
        if (records[mid].Z < z)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

std::int32_t QelImageStackImp::IndexAtZ(float z) const noexcept
{
    if (m_count == 0)
        return -1;
    const std::int32_t index = LowerBound(z);
    return m_records->Elem(index).Z == z ? index : -1;
}

QelNeighborCodes QelImageStackImp::NeighborsAtZ(float z, std::int32_t& lower, std::int32_t& upper) const noexcept
{
    if (m_count == 0) {
        lower = upper = -1;
        return NoNeighbors;
    }
    std::int32_t i = LowerBound(z);
    const float found = m_records->Elem(i).Z;
    if (found != z && z < found)
        --i;
    lower = i;
    if (i == m_count - 1) {
        upper = -1;
        return LowerNeighborOnly;
    }
    if (i == -1) {
        upper = 0;
        return UpperNeighborOnly;
    }
    upper = i + 1;
    return BothNeighbors;
}

QelNeighborCodes QelImageStackImp::NeighborsAtFixedZ(std::int32_t fixedZ, std::int32_t& lower, std::int32_t& upper,
                                                     std::int32_t& hint) const
{
    const QelImageStackFixedPointAccelerator* accelerator = m_count > 0 ? FixedPointAccelerator() : nullptr;
    if (!accelerator) {
        lower = upper = -1;
        return NoNeighbors;
    }
    accelerator->FindIndices(fixedZ, hint, upper, lower);
    // Outside the slices the nearest one stands in for both, so that a sampler
    // blends a slice with itself instead of testing for a missing side.
    if (lower < 0)
        lower = upper;
    if (upper < 0)
        upper = lower;
    return BothNeighbors;
}

const QelImageStackFixedPointAccelerator* QelImageStackImp::FixedPointAccelerator() const
{
    const QelImageStackFixedPointAccelerator* accelerator = m_fixedPoint.load(std::memory_order_acquire);
    if (accelerator || m_count <= 0)
        return accelerator;
    QelAutoLockCriticalSection lock(m_acceleratorLock);
    accelerator = m_fixedPoint.load(std::memory_order_relaxed);
    if (!accelerator) {
        m_fixedPointOwner = QelImageStackFixedPointAccelerator::New(*this);
        accelerator = m_fixedPointOwner.get();
        m_fixedPoint.store(accelerator, std::memory_order_release);
    }
    return accelerator;
}

void QelImageStackImp::SetValuePair(std::int32_t first, std::int32_t second) noexcept
{
    m_valuePair[0] = first;
    m_valuePair[1] = second;
    m_hasValuePair = true;
}

bool QelImageStackImp::ValuePair(std::int32_t* first, std::int32_t* second) const noexcept
{
    if (first)
        *first = m_valuePair[0];
    if (second)
        *second = m_valuePair[1];
    return m_hasValuePair;
}

void QelImageStackImp::SetStoredRange(std::uint16_t low, std::uint16_t high) noexcept
{
    m_storedRange[0] = low;
    m_storedRange[1] = high;
    m_hasStoredRange = true;
}

bool QelImageStackImp::StoredRange(std::uint16_t* low, std::uint16_t* high) const noexcept
{
    if (low)
        *low = m_storedRange[0];
    if (high)
        *high = m_storedRange[1];
    return m_hasStoredRange;
}

void QelImageStackImp::SetDataMapping(float slope, float intercept)
{
    std::unique_ptr<QelDataMapping> mapping(new (std::nothrow) QelDataMapping(slope, intercept));
    if (mapping)
        m_dataMapping = std::move(mapping);
}

bool QelImageStackImp::Verify(char* message, std::uint32_t size) const
{
    bool verified = false;
    QelFaultRecord fault;
    if (!QelRunGuarded(kVerifyGuardName, [&] { verified = VerifyGuarded(message, size); }, fault))
        return Fail(message, size, "An unknown error (exception) occurred during ImageStack check");
    return verified;
}

bool QelImageStackImp::VerifyGuarded(char* message, std::uint32_t size) const
{
    if (m_count == 0) {
        if (m_records && m_records->Length() != 0)
            return Fail(message, size, "Invalid Image Records in Image Stack");
        if (!m_box.X.IsEmpty() || !m_box.Y.IsEmpty() || !m_box.Z.IsEmpty())
            return Fail(message, size, "Invalid BBox in Image Stack");
        return true;
    }
    if (!m_records || m_records->Length() != m_count)
        return Fail(message, size, "Invalid Image Records in Image Stack");
    if (m_box.Width() != m_width || m_box.Height() != m_height)
        return Fail(message, size, "Invalid BBox in Image Stack");

    const QelImageRecord* records = m_records->Data();
    for (std::int32_t i = 0; i < m_count; ++i) {
        const QelRasterImage* image = records[i].Image;
        if (!image)
            return Fail(message, size, "Invalid Image Pointer in Image Stack (slice=%d)", i);
        if (image->Width() != m_width)
            return Fail(message, size, "Invalid Image Width in Image Stack (slice=%d)", i);
        if (image->Height() != m_height)
            return Fail(message, size, "Invalid Image Height in Image Stack (slice=%d)", i);
        if (image->BytesPerPixel() != m_bytesPerPixel)
            return Fail(message, size, "Invalid Image Bpp in Image Stack (slice=%d)", i);
        if (image->BytesPerLine() != m_bytesPerLine)
            return Fail(message, size, "Invalid Image Bpl in Image Stack (slice=%d)", i);
    }
    for (std::int32_t i = 0; i < m_count; ++i) {
        const QelRasterImage* image = records[i].Image;
        QelFaultRecord fault;
        if (!QelRunGuarded(kVerifyGuardName, [image] { TouchSlice(*image); }, fault))
            return Fail(message, size, "Invalid Image pointer in Image Stack (slice=%d)", i);
    }

    if (const QelImageStackFixedPointAccelerator* accelerator = m_fixedPoint.load(std::memory_order_acquire)) {
        if (accelerator->Count() != m_count)
            return false;
        for (std::int32_t i = 0; i < m_count; ++i) {
            const QelFixedPointSliceRecord& record = accelerator->Record(i);
            if (record.Origin != records[i].Image->OriginAddress())
                return Fail(message, size, "Invalid Image pointer in accelerator (slice=%d)", i);
            if (record.BytesPerLine != m_bytesPerLine)
                return Fail(message, size, "Invalid Image Bpl in accelerator (slice=%d)", i);
        }
    }

    const QelImageStackSegmentationAccelerator& segmentation = *m_segmentation;
    std::int32_t hint = 0;
    for (std::int32_t row = 0; row < segmentation.RowCount(); ++row) {
        const std::uint8_t* above = nullptr;
        const std::uint8_t* below = nullptr;
        (void)segmentation.RowAt(row, above, below);
        if (above && !IsSliceOrigin(above, hint))
            return Fail(message, size, "Invalid Image Above pointer in Segmentation accelerator (seg slice=%d)", row);
        if (below && !IsSliceOrigin(below, hint))
            return Fail(message, size, "Invalid Image Below pointer in Segmentation accelerator (seg slice=%d)", row);
    }
    return true;
}

bool QelImageStackImp::IsSliceOrigin(const std::uint8_t* origin, std::int32_t& hint) const noexcept
{
    // Rows climb through the slices, so the search starts where the last one ended.
    const QelImageRecord* records = m_records->Data();
    for (std::int32_t step = 0; step < m_count; ++step) {
        const std::int32_t i = (hint + step) % m_count;
        if (records[i].Image && records[i].Image->OriginAddress() == origin) {
            hint = i;
            return true;
        }
    }
    return false;
}

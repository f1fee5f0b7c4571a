#include "Phantom.h"

#include "ax/rendering/MemoryRasterImage.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

namespace Axr {

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::MemoryRasterImage;

// Stored values: Hounsfield units + 1024.
constexpr int kAir = 0;
constexpr int kFat = 930;
constexpr int kCsf = 1030;
constexpr int kVitreous = 1034;
constexpr int kSoftTissue = 1060;
constexpr int kCortex = 1070;
constexpr int kDisc = 1090;
constexpr int kTable = 1200;
constexpr int kContrast = 1400;
constexpr int kMarrow = 1700;
constexpr int kVertebraRim = 2000;
constexpr int kDiploe = 1800;
constexpr int kCorticalBone = 2300;

struct Ellipsoid {
    double cx, cy, cz, rx, ry, rz;
};

// The head: skin outermost; scalp fat, skull, cortex and brain are shells of the
// same shape, given as squared fractions of the skin's quadratic form.
using namespace PhantomLandmarks;
constexpr Ellipsoid kHead{kBrainCentre[0], kBrainCentre[1], kBrainCentre[2], 0.66, 0.80, 0.62};
constexpr double kScalpFat2 = 0.975 * 0.975;
constexpr double kSkullOuter2 = 0.95 * 0.95;
constexpr double kDiploeOuter2 = 0.925 * 0.925;
constexpr double kDiploeInner2 = 0.885 * 0.885;
constexpr double kSkullInner2 = 0.86 * 0.86;
constexpr double kCortexInner2 = 0.80 * 0.80;

constexpr Ellipsoid kFace{0.0, -0.08, -0.40, 0.42, 0.60, 0.28};
constexpr Ellipsoid kNose{0.0, -0.72, -0.10, 0.07, 0.12, 0.14};
// Inside the skull the brain sits above a floor that rises toward the face, so the
// orbits and the face lie under the front of it; the floor itself is bone.
constexpr double kSkullBase = -0.06, kSkullBaseRise = 0.28, kSkullBaseThickness = 0.035;
constexpr Ellipsoid kVentricles[2] = {{0.11, 0.0, kVentricleZ, 0.06, 0.25, 0.09},
                                       {-0.11, 0.0, kVentricleZ, 0.06, 0.25, 0.09}};
constexpr Ellipsoid kOrbits[2] = {{0.22, -0.56, 0.0, 0.13, 0.13, 0.13}, {-0.22, -0.56, 0.0, 0.13, 0.13, 0.13}};
constexpr Ellipsoid kEyes[2] = {{0.22, -0.56, 0.0, 0.09, 0.09, 0.09}, {-0.22, -0.56, 0.0, 0.09, 0.09, 0.09}};

// The neck and the jaw are vertical prisms: a cross-section over a z range.
constexpr double kNeckX = 0.0, kNeckY = 0.12, kNeckRadius = 0.32, kNeckFatRadius = 0.29, kNeckTop = -0.2;
constexpr double kSpineY = 0.28, kSpineRadius = 0.075, kSpineTop = -0.3, kVertebraPeriod = 0.14,
                 kDiscHeight = 0.03;
constexpr double kTracheaY = -0.10, kTracheaRadius = 0.06, kTracheaTop = -0.45;
constexpr double kJawY = 0.0, kJawRx = 0.34, kJawRy = 0.48, kJawInner = 0.82, kJawBack = 0.12, kJawBottom = -0.5,
                 kJawTop = -0.38;

// The table cradles the head: its top rises toward the sides.
constexpr double kTableTop = 0.84, kTableCurve = 0.12, kTableThickness = 0.05, kTableHalfWidth = 0.9;

struct Capsule {
    double ax, ay, az, bx, by, bz, radius;
};

constexpr Capsule kVessels[] = {
    {kCarotidLeft[0], kCarotidLeft[1], -1.1, kCarotidLeft[0], kCarotidLeft[1], -0.25, 0.025},  // carotids
    {-0.15, -0.02, -1.1, -0.15, -0.02, -0.25, 0.025},
    {0.15, -0.02, -0.25, 0.12, 0.0, 0.0, 0.02},       // into the skull
    {-0.15, -0.02, -0.25, -0.12, 0.0, 0.0, 0.02},
    {0.12, 0.0, 0.0, 0.42, 0.05, 0.08, 0.015},        // middle cerebral arteries
    {-0.12, 0.0, 0.0, -0.42, 0.05, 0.08, 0.015},
    {0.12, 0.0, 0.0, 0.0, -0.08, 0.02, 0.012},        // to the front of the circle
    {-0.12, 0.0, 0.0, 0.0, -0.08, 0.02, 0.012},
    {0.0, -0.08, 0.02, 0.0, -0.30, 0.45, 0.012},      // anterior cerebral artery
    {0.0, 0.12, -0.30, 0.0, 0.08, 0.0, 0.015},        // basilar artery
};
constexpr int kVesselCount = static_cast<int>(std::size(kVessels));

[[nodiscard]] constexpr double Square(double v) noexcept { return v * v; }

// A capsule prepared for a distance test without a division per voxel.
struct ActiveVessel {
    const Capsule* capsule;
    double dx, dy, dz, inverseLength2, radius2;
    double minX, maxX, minY, maxY;  // the bounding box's cross-section
};

// Everything about one slice that doesn't depend on x or y.
struct Slice {
    double z = 0;
    double headZ = 0, faceZ = 0, noseZ = 0;          // the ellipsoids' z terms, > 1 when missed
    double ventricleZ = 0, orbitZ = 0, eyeZ = 0;
    bool neck = false, spine = false, disc = false, trachea = false, jaw = false;
    ActiveVessel vessels[kVesselCount];
    int vesselCount = 0;
};

[[nodiscard]] double ZTerm(const Ellipsoid& e, double z) noexcept { return Square((z - e.cz) / e.rz); }

[[nodiscard]] Slice PrepareSlice(double z)
{
    Slice s;
    s.z = z;
    s.headZ = ZTerm(kHead, z);
    s.faceZ = ZTerm(kFace, z);
    s.noseZ = ZTerm(kNose, z);
    s.ventricleZ = ZTerm(kVentricles[0], z);
    s.orbitZ = ZTerm(kOrbits[0], z);
    s.eyeZ = ZTerm(kEyes[0], z);
    s.neck = z <= kNeckTop;
    s.spine = z <= kSpineTop;
    // Vertebrae repeat from the bottom of the volume, each with a disc under it.
    s.disc = std::fmod(z + 1.0, kVertebraPeriod) < kDiscHeight;
    s.trachea = z <= kTracheaTop;
    s.jaw = z >= kJawBottom && z <= kJawTop;
    for (const Capsule& c : kVessels) {
        const double r = c.radius;
        if (z < std::min(c.az, c.bz) - r || z > std::max(c.az, c.bz) + r)
            continue;
        ActiveVessel& v = s.vessels[s.vesselCount++];
        v.capsule = &c;
        v.dx = c.bx - c.ax;
        v.dy = c.by - c.ay;
        v.dz = c.bz - c.az;
        v.inverseLength2 = 1.0 / (v.dx * v.dx + v.dy * v.dy + v.dz * v.dz);
        v.radius2 = r * r;
        v.minX = std::min(c.ax, c.bx) - r;
        v.maxX = std::max(c.ax, c.bx) + r;
        v.minY = std::min(c.ay, c.by) - r;
        v.maxY = std::max(c.ay, c.by) + r;
    }
    return s;
}

[[nodiscard]] bool InVessel(const ActiveVessel& v, double x, double y, double z) noexcept
{
    if (x < v.minX || x > v.maxX || y < v.minY || y > v.maxY)
        return false;
    const Capsule& c = *v.capsule;
    const double px = x - c.ax, py = y - c.ay, pz = z - c.az;
    const double t = std::clamp((px * v.dx + py * v.dy + pz * v.dz) * v.inverseLength2, 0.0, 1.0);
    return Square(px - t * v.dx) + Square(py - t * v.dy) + Square(pz - t * v.dz) <= v.radius2;
}

[[nodiscard]] bool InPair(const Ellipsoid (&pair)[2], double zTerm, double x, double y) noexcept
{
    if (zTerm >= 1.0)
        return false;
    const double yTerm = Square((y - pair[0].cy) / pair[0].ry) + zTerm;
    return Square((x - pair[0].cx) / pair[0].rx) + yTerm < 1.0 || Square((x - pair[1].cx) / pair[1].rx) + yTerm < 1.0;
}

[[nodiscard]] bool IsBone(int value) noexcept { return value >= kMarrow; }

// The value at normalized (x, y) of slice `s`, before noise.
[[nodiscard]] int Value(const Slice& s, double x, double y) noexcept
{
    const double yTable = kTableTop - kTableCurve * x * x;
    if (std::abs(x) <= kTableHalfWidth && y >= yTable && y <= yTable + kTableThickness)
        return kTable;

    const double head = Square((x - kHead.cx) / kHead.rx) + Square((y - kHead.cy) / kHead.ry) + s.headZ;
    const double face = Square((x - kFace.cx) / kFace.rx) + Square((y - kFace.cy) / kFace.ry) + s.faceZ;
    const double neck2 = Square(x - kNeckX) + Square(y - kNeckY);
    const bool inNeck = s.neck && neck2 <= kNeckRadius * kNeckRadius;
    if (head >= 1.0 && face >= 1.0 && !inNeck) {
        const bool inNose = s.noseZ < 1.0 && Square(x / kNose.rx) + Square((y - kNose.cy) / kNose.ry) + s.noseZ < 1.0;
        return inNose ? kSoftTissue : kAir;
    }

    int value = kSoftTissue;
    if (head < 1.0) {
        if (head >= kScalpFat2)
            value = kSoftTissue;
        else if (head >= kSkullOuter2)
            value = kFat;
        else if (head >= kSkullInner2)
            value = head < kDiploeOuter2 && head >= kDiploeInner2 ? kDiploe : kCorticalBone;
        else if (const double floor = kSkullBase + kSkullBaseRise * std::max(0.0, -y); s.z < floor)
            value = s.z >= floor - kSkullBaseThickness ? kCorticalBone : kSoftTissue;
        else if (head >= kCortexInner2)
            value = kCortex;
        else
            value = InPair(kVentricles, s.ventricleZ, x, y) ? kCsf : kSoftTissue;
    } else if (inNeck && neck2 >= kNeckFatRadius * kNeckFatRadius) {
        value = kFat;
    }

    if (s.jaw) {
        const double q = Square((x) / kJawRx) + Square((y - kJawY) / kJawRy);
        if (y < kJawBack && q <= 1.0 && q >= kJawInner * kJawInner)
            value = kCorticalBone;
    }
    if (s.spine) {
        const double spine2 = Square(x) + Square(y - kSpineY);
        if (spine2 <= kSpineRadius * kSpineRadius) {
            if (s.disc)
                value = kDisc;
            else
                value = spine2 >= Square(0.8 * kSpineRadius) ? kVertebraRim : kMarrow;
        }
    }
    if (s.trachea && Square(x) + Square(y - kTracheaY) <= kTracheaRadius * kTracheaRadius)
        return kAir;

    if (InPair(kOrbits, s.orbitZ, x, y))
        value = InPair(kEyes, s.eyeZ, x, y) ? kVitreous : kFat;

    if (!IsBone(value)) {
        for (int i = 0; i < s.vesselCount; ++i)
            if (InVessel(s.vessels[i], x, y, s.z))
                return kContrast;
    }
    return value;
}

// Mild noise, -6 .. +6, from the voxel's own indices: no shared generator, so any
// split of the slices between threads gives the same bytes.
[[nodiscard]] int Noise(std::uint32_t x, std::uint32_t y, std::uint32_t k) noexcept
{
    std::uint64_t h = (std::uint64_t{k} << 42) ^ (std::uint64_t{y} << 21) ^ x;
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ULL;
    h ^= h >> 33;
    return static_cast<int>(h % 13) - 6;
}

void FillSlice(MemoryRasterImage& image, std::int32_t size, std::int32_t sliceIndex, double stackZ)
{
    const auto normalized = [size](double voxel) { return (2.0 * voxel + 1.0) / size - 1.0; };
    const Slice slice = PrepareSlice(normalized(stackZ));
    for (std::int32_t j = 0; j < size; ++j) {
        const double y = normalized(j);
        auto* row = reinterpret_cast<std::uint16_t*>(image.GetPixelAddress(0, j));
        for (std::int32_t i = 0; i < size; ++i) {
            int value = Value(slice, normalized(i), y);
            if (value != kAir)
                value += Noise(static_cast<std::uint32_t>(i), static_cast<std::uint32_t>(j),
                               static_cast<std::uint32_t>(sliceIndex));
            row[i] = static_cast<std::uint16_t>(value);
        }
    }
}

}  // namespace

std::vector<double> PhantomSliceZ(std::int32_t size, bool unevenSpacing)
{
    std::vector<double> z(static_cast<std::size_t>(std::max(size, 0)));
    // The gap after each of these slices is doubled.
    const std::int32_t wideGaps[] = {size * 3 / 10, size * 55 / 100, size * 8 / 10};
    double position = 0;
    for (std::int32_t k = 0; k < size; ++k) {
        z[static_cast<std::size_t>(k)] = position;
        const bool wide = unevenSpacing && std::find(std::begin(wideGaps), std::end(wideGaps), k) != std::end(wideGaps);
        position += wide ? 2.0 : 1.0;
    }
    return z;
}

std::unique_ptr<Ax::Rendering::ImageStack> MakePhantom(const PhantomOptions& options)
{
    const std::int32_t size = options.size;
    if (size < 16 || size > 1024)
        throw std::invalid_argument("phantom size must be 16 to 1024, not " + std::to_string(size));
    const std::vector<double> z = PhantomSliceZ(size, options.unevenSpacing);

    std::vector<std::shared_ptr<MemoryRasterImage>> slices(static_cast<std::size_t>(size));
    for (auto& slice : slices) {
        slice = std::make_shared<MemoryRasterImage>();
        slice->Resize(GrayscalePixelFormat::Gray16(), Size(size, size));
        if (slice->OriginAddress() == nullptr)
            throw std::bad_alloc();
    }

    unsigned threadCount = options.generatorThreads > 0 ? static_cast<unsigned>(options.generatorThreads)
                                                        : std::max(1u, std::thread::hardware_concurrency());
    threadCount = std::min(threadCount, static_cast<unsigned>(size));
    std::atomic<std::int32_t> next{0};
    const auto work = [&] {
        for (std::int32_t k = next++; k < size; k = next++)
            FillSlice(*slices[static_cast<std::size_t>(k)], size, k, z[static_cast<std::size_t>(k)]);
    };
    std::vector<std::jthread> threads;
    for (unsigned t = 1; t < threadCount; ++t)
        threads.emplace_back(work);
    work();
    threads.clear();

    auto stack = std::make_unique<Ax::Rendering::ImageStack>();
    for (std::int32_t k = 0; k < size; ++k)
        if (!stack->InsertImage(slices[static_cast<std::size_t>(k)], z[static_cast<std::size_t>(k)]))
            throw std::runtime_error("the image stack refused phantom slice " + std::to_string(k));
    return stack;
}

}  // namespace Axr

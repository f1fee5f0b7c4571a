#pragma once

#include "base/QelArray.h"
#include "base/QelIntRange.h"
#include "base/QelMatrix34.h"
#include "base/QelMaybe.h"
#include "base/QelVector.h"
#include "graphics/QelBitTreeInformation.h"
#include "graphics/QelRenderEnums.h"
#include "image/QelPixelVariant.h"

#include <cstdint>
#include <string>

class QelAborter;
class QelFusionImageStackSet;
class QelImageStack;
class QelImplant;
class QelLight;
class QelNicheClipInformation;
class QelRasterImage;
class QelTextureFusionParameters;
class QelZBufferContainer;

/// The curve of a curved reformat and its normals. Not owned.
struct QelCurveMprSetup {
    QelArray<QelVector3>* Curve = nullptr;
    QelArray<QelVector3>* CurveNormalX = nullptr;
    QelArray<QelVector3>* CurveNormalZ = nullptr;
};

/// Every parameter of one render, carried from the public layer to a renderer.
/// A public renderer object owns one record for its life and fills it before each
/// draw; the record keeps what was set earlier unless a later call overwrites it.
/// The record owns nothing it points to: canvas, tables, light, aborter, object
/// lists and the rest belong to whoever set them and must outlive the draw.
///
/// Threads: the renderer's StartDraw may write the record (CaptureCallerPriority,
/// and target finding its SupersamplingFactorXY and DrawGate); from then until the
/// draw ends, workers on any thread read it without a lock and nobody writes it.
class QelRenderSpec {
public:
    QelRenderSpec() = default;
    virtual ~QelRenderSpec();

    QelRenderSpec(const QelRenderSpec&) = delete;
    QelRenderSpec& operator=(const QelRenderSpec&) = delete;

    /// The serial number that follows `n`: n + 1, past 0 to 1, since 0 is never a
    /// serial number.
    [[nodiscard]] static constexpr std::uint32_t NextTablesSerialNum(std::uint32_t n) noexcept
    {
        const std::uint32_t next = n + 1;
        return next == 0 ? 1 : next;
    }

    /// The image the render fills; renderers refuse null.
    [[nodiscard]] QelRasterImage* Canvas() const noexcept { return m_canvas; }
    void SetCanvas(QelRasterImage* canvas) noexcept { m_canvas = canvas; }

    /// Volume to view, for the volume renderers and the tri-cubic reformat.
    [[nodiscard]] const QelMatrix34& Transform() const noexcept { return m_transform; }
    void SetTransform(const QelMatrix34& transform) noexcept { m_transform = transform; }

    [[nodiscard]] QelArray<std::uint8_t>* BrightnessTable() const noexcept { return m_brightnessTable; }
    // One entry per 16-bit voxel value, read when UseRgbTables is set.
    [[nodiscard]] QelArray<std::uint8_t>* RedTable() const noexcept { return m_redTable; }
    [[nodiscard]] QelArray<std::uint8_t>* GreenTable() const noexcept { return m_greenTable; }
    [[nodiscard]] QelArray<std::uint8_t>* BlueTable() const noexcept { return m_blueTable; }
    /// Packed colours, red in bits 0-7, green 8-15, blue 16-23, opacity 24-31.
    [[nodiscard]] QelArray<std::uint32_t>* ColorTable() const noexcept { return m_colorTable; }

    /// The version of the tables and objects. A renderer that last drew with another
    /// number drops what it derived from them. Never 0.
    [[nodiscard]] std::uint32_t TablesSerialNum() const noexcept { return m_tablesSerialNum; }
    /// Stores `serialNum`, and 1 for 0.
    void SetTablesSerialNum(std::uint32_t serialNum) noexcept { m_tablesSerialNum = serialNum == 0 ? 1 : serialNum; }
    /// Marks the tables as changed, so that the next draw derives everything afresh.
    void RaiseTablesSerialNum() noexcept { m_tablesSerialNum = NextTablesSerialNum(m_tablesSerialNum); }

    /// The background: what a ray that meets no data writes. A bug report when unset.
    [[nodiscard]] const QelPixelVariant& UndefinedPixelVal() const;
    void SetUndefinedPixelVal(const QelPixelVariant& value) noexcept { m_undefinedPixelVal = value; }

    [[nodiscard]] QelLight* Light() const noexcept { return m_light; }
    void SetLight(QelLight* light) noexcept { m_light = light; }

    /// Only voxels inside this box are rendered.
    [[nodiscard]] const QelIntBBox3& VoxelClipBox() const noexcept { return m_voxelClipBox; }
    void SetVoxelClipBox(const QelIntBBox3& box) noexcept { m_voxelClipBox = box; }

    /// Distance between slab samples, in voxels.
    [[nodiscard]] float CurrSliceSpacing() const noexcept { return m_currSliceSpacing; }
    void SetCurrSliceSpacing(float spacing) noexcept { m_currSliceSpacing = spacing; }

    /// Number of slab samples.
    [[nodiscard]] std::int32_t SampleSliceNumber() const noexcept { return m_sampleSliceNumber; }
    /// A bug report unless `count` is above 0; the count is stored either way.
    void SetSampleSliceNumber(std::int32_t count);

    [[nodiscard]] QelAborter* Aborter() const noexcept { return m_aborter; }
    void SetAborter(QelAborter* aborter) noexcept { m_aborter = aborter; }

    [[nodiscard]] const QelCurveMprSetup& CurveSetup() const noexcept { return m_curveSetup; }

    /// With all three of RedTable, GreenTable and BlueTable, objects that use RGB
    /// tables take their colour from them.
    [[nodiscard]] bool UseRgbTables() const noexcept { return m_useRgbTables; }

    /// Volume to the centre plane of the slab. A bug report when unset.
    [[nodiscard]] const QelMatrix34& SlabCenterTransform() const;
    void SetSlabCenterTransform(const QelMatrix34& transform) noexcept { m_slabCenterTransform = transform; }

    /// Stored as given; QelSlabMode::Effective says which reduction a renderer runs.
    /// A bug report when unset.
    [[nodiscard]] QelSlabMode::QelSlabModeEnum SlabMode() const;
    void SetSlabMode(QelSlabMode::QelSlabModeEnum mode) noexcept { m_slabMode = mode; }

    /// The fusion renderer's StartDraw refuses to draw at 0 or below.
    [[nodiscard]] std::int32_t DrawGate() const noexcept { return m_drawGate; }
    /// For target finding, which opens the gate before its draw.
    void SetDrawGate(std::int32_t gate) noexcept { m_drawGate = gate; }

    [[nodiscard]] QelSamplingMode SamplingMode() const noexcept { return m_samplingMode; }
    [[nodiscard]] QelWarperSamplingMode WarperSamplingMode() const noexcept { return m_warperSamplingMode; }

    /// Refinement of the sampled grid on all three volume axes, not rays per pixel.
    [[nodiscard]] std::int32_t SupersamplingFactorXY() const noexcept { return m_supersamplingFactorXY; }
    void SetSupersamplingFactorXY(std::int32_t factor) noexcept { m_supersamplingFactorXY = factor; }

    /// The objects of the render; 8 entries from the public layer.
    [[nodiscard]] QelArray<QelBitTreeInformation>* BitTreeInformation() const noexcept
    {
        return m_bitTreeInformation;
    }
    void SetBitTreeInformation(QelArray<QelBitTreeInformation>* objects) noexcept { m_bitTreeInformation = objects; }

    [[nodiscard]] QelArray<QelPlaneEquation>* ClippingPlanes() const noexcept { return m_clippingPlanes; }

    /// Inverts the cube convertor's selection.
    [[nodiscard]] bool IPOptionFlag() const noexcept { return m_ipOptionFlag; }
    /// The cube convertor's sculpt combination mode.
    [[nodiscard]] std::int32_t IPOptionValue() const noexcept { return m_ipOptionValue; }
    /// How the fusion worker merges object rows: 1 the alpha-weighted mean, any other
    /// value the lowest object.
    [[nodiscard]] std::int32_t ObjectBlendValue() const noexcept { return m_objectBlendValue; }

    [[nodiscard]] QelIPRenderMode IPRenderMode() const noexcept { return m_ipRenderMode; }
    void SetIPRenderMode(QelIPRenderMode mode) noexcept { m_ipRenderMode = mode; }

    /// False skips the warp of the intermediate image to the canvas.
    [[nodiscard]] bool WarpToCanvas() const noexcept { return m_warpToCanvas; }
    [[nodiscard]] bool KeepIntermediate() const noexcept { return m_keepIntermediate; }

    // The fusion texture: its stack, the word its generator stores, its objects and
    // its transform. A non-zero FusionImage or a FusionStack makes workers build one.
    [[nodiscard]] QelImageStack* FusionStack() const noexcept { return m_fusionStack; }
    [[nodiscard]] std::uint32_t FusionImage() const noexcept { return m_fusionImage; }
    [[nodiscard]] QelArray<QelBitTreeInformation>* FusionBitTreeInformation() const noexcept
    {
        return m_fusionBitTreeInformation;
    }
    [[nodiscard]] const QelMatrix34& FusionTransform() const noexcept { return m_fusionTransform; }

    /// The shaded renderer's z-buffer store, and whether to make or use it.
    [[nodiscard]] QelZBufferContainer* SVRZBufferData() const noexcept { return m_svrZBufferData; }
    void SetSVRZBufferData(QelZBufferContainer* data) noexcept { m_svrZBufferData = data; }
    [[nodiscard]] bool SVRZBuffer() const noexcept { return m_svrZBuffer; }
    void SetSVRZBuffer(bool enabled) noexcept { m_svrZBuffer = enabled; }
    /// With SVRZBuffer: stop after the z-buffer, without the final warp.
    [[nodiscard]] bool ZBufferOnly() const noexcept { return m_zBufferOnly; }

    [[nodiscard]] const QelIntBBox3& SecondClipBox() const noexcept { return m_secondClipBox; }
    /// Sample value limits of the intensity renderer.
    [[nodiscard]] const QelIntRange& MprClipRange() const noexcept { return m_mprClipRange; }
    /// When set, the fusion renderer draws from this set instead of the stack given to
    /// StartDraw.
    [[nodiscard]] QelFusionImageStackSet* FusionImageStackSet() const noexcept { return m_fusionImageStackSet; }
    [[nodiscard]] QelRasterImage* MprFrontClipImage() const noexcept { return m_mprFrontClipImage; }
    /// Bit o selects object o for the fusion texture pass.
    [[nodiscard]] std::uint32_t ObjectMask() const noexcept { return m_objectMask; }
    /// With SupersamplingFactorXY 1, the fusion renderer makes pre-integrated tables.
    [[nodiscard]] bool PreIntegrate() const noexcept { return m_preIntegrate; }
    [[nodiscard]] QelNicheClipInformation* NicheClip() const noexcept { return m_nicheClip; }
    [[nodiscard]] QelTextureFusionParameters* TextureFusion() const noexcept { return m_textureFusion; }
    /// Non-zero, with objects, makes the intensity renderer keep two more images.
    [[nodiscard]] std::uint32_t DualImageOutput() const noexcept { return m_dualImageOutput; }
    /// False gives objects under the RGB tables the full diffuse value.
    [[nodiscard]] bool ShadeObjects() const noexcept { return m_shadeObjects; }
    [[nodiscard]] const std::string& Label() const noexcept { return m_label; }

    /// The priority level of the thread that called StartDraw, for workers whose
    /// ThreadPriority is QelThreadPriority::Caller.
    [[nodiscard]] std::int32_t CallerThreadPriority() const noexcept { return m_callerThreadPriority; }
    /// Stores the calling thread's priority level when ThreadPriority is set to
    /// QelThreadPriority::Caller; does nothing otherwise. StartDraw calls it first.
    void CaptureCallerPriority() noexcept;

    // What workers take for each piece of work (QelThreadScopeGuard). Unset leaves the
    // thread as it is. Native callers set them through these references.
    [[nodiscard]] QelMaybe<QelThreadPriority::QelThreadPriorityEnum>& ThreadPriority() noexcept
    {
        return m_threadPriority;
    }
    [[nodiscard]] const QelMaybe<QelThreadPriority::QelThreadPriorityEnum>& ThreadPriority() const noexcept
    {
        return m_threadPriority;
    }
    /// Bit i allows processor i.
    [[nodiscard]] QelMaybe<std::uint32_t>& ThreadAffinity() noexcept { return m_threadAffinity; }
    [[nodiscard]] const QelMaybe<std::uint32_t>& ThreadAffinity() const noexcept { return m_threadAffinity; }

    [[nodiscard]] Cubic_Filter CubicFilter() const noexcept { return m_cubicFilter; }
    [[nodiscard]] bool DrawImplantsOnly() const noexcept { return m_drawImplantsOnly; }
    /// Surface objects of the intensity renderer; null skips the implant pass.
    [[nodiscard]] QelArray<QelImplant*>* Implants() const noexcept { return m_implants; }

private:
    QelRasterImage* m_canvas = nullptr;
    QelMatrix34 m_transform;  // identity
    QelArray<std::uint8_t>* m_brightnessTable = nullptr;
    QelArray<std::uint8_t>* m_redTable = nullptr;
    QelArray<std::uint8_t>* m_greenTable = nullptr;
    QelArray<std::uint8_t>* m_blueTable = nullptr;
    QelArray<std::uint32_t>* m_colorTable = nullptr;
    std::uint32_t m_tablesSerialNum = 1;
    QelMaybe<QelPixelVariant> m_undefinedPixelVal;
    QelLight* m_light = nullptr;
    QelIntBBox3 m_voxelClipBox{QelIntRange::Infinite(), QelIntRange::Infinite(), QelIntRange::Infinite()};
    float m_currSliceSpacing = 1.0f;
    std::int32_t m_sampleSliceNumber = 1;
    QelAborter* m_aborter = nullptr;
    QelCurveMprSetup m_curveSetup;
    bool m_useRgbTables = false;
    QelMaybe<QelMatrix34> m_slabCenterTransform;
    QelMaybe<QelSlabMode::QelSlabModeEnum> m_slabMode;
    std::int32_t m_drawGate = 1;
    QelSamplingMode m_samplingMode = QelSamplingMode::Standard;
    QelWarperSamplingMode m_warperSamplingMode = QelWarperSamplingMode::Bilinear;
    std::int32_t m_supersamplingFactorXY = 1;
    QelArray<QelBitTreeInformation>* m_bitTreeInformation = nullptr;
    QelArray<QelPlaneEquation>* m_clippingPlanes = nullptr;
    bool m_ipOptionFlag = false;
    std::int32_t m_ipOptionValue = 1;
    std::int32_t m_objectBlendValue = 1;
    QelIPRenderMode m_ipRenderMode = QelIPRenderMode::MIP;
    bool m_warpToCanvas = true;
    bool m_keepIntermediate = false;
    QelImageStack* m_fusionStack = nullptr;
    std::uint32_t m_fusionImage = 0;
    QelArray<QelBitTreeInformation>* m_fusionBitTreeInformation = nullptr;
    QelMatrix34 m_fusionTransform;  // identity
    QelZBufferContainer* m_svrZBufferData = nullptr;
    bool m_svrZBuffer = false;
    bool m_zBufferOnly = false;
    QelIntBBox3 m_secondClipBox;  // three empty ranges
    QelIntRange m_mprClipRange = QelIntRange::Infinite();
    QelFusionImageStackSet* m_fusionImageStackSet = nullptr;
    QelRasterImage* m_mprFrontClipImage = nullptr;
    std::uint32_t m_objectMask = 0xFFFFFFFF;
    bool m_preIntegrate = false;
    QelNicheClipInformation* m_nicheClip = nullptr;
    QelTextureFusionParameters* m_textureFusion = nullptr;
    std::uint32_t m_dualImageOutput = 0;
    bool m_shadeObjects = true;
    std::string m_label;
    std::int32_t m_callerThreadPriority = 0;
    QelMaybe<QelThreadPriority::QelThreadPriorityEnum> m_threadPriority;
    QelMaybe<std::uint32_t> m_threadAffinity;
    Cubic_Filter m_cubicFilter = Cubic_Filter::CatmullRom;
    bool m_drawImplantsOnly = false;
    QelArray<QelImplant*>* m_implants = nullptr;
};

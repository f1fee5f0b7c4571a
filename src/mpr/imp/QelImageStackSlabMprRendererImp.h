#pragma once

#include "base/QelArray.h"
#include "image/QelPixelVariant.h"
#include "mpr/QelImageStackSlabMprRenderer.h"
#include "mpr/imp/QelImageStackSlabMprRendererWorker.h"

#include <cstdint>
#include <memory>
#include <vector>

class QelMTIntLoopMgrStepAdaptor;
class QelMemoryRasterImage;
class QelTPIntLoopMgr;

/// The slab reformat's driver: checks and sets up a draw, hands bands to the loop
/// manager through the step adaptor, and owns the per-thread band images. The state
/// machine is told by QelSlabMprState; every call comes from the driver's thread.
class QelImageStackSlabMprRendererImp final : public QelImageStackSlabMprRenderer {
public:
    [[nodiscard]] static std::unique_ptr<QelImageStackSlabMprRendererImp> Create(QelMemoryManager* memoryManager,
                                                                                 int threadCount);
    ~QelImageStackSlabMprRendererImp() override;

    /// The whole draw in one call; true when the canvas holds the picture.
    bool Draw(QelImageStack* stack, QelRenderSpec* spec) override;
    /// True when the draw is set up, or is done already: with an empty canvas, and
    /// with fewer than 2 slices, which leaves the canvas undefined. False for a
    /// missing record, canvas or stack and when memory runs out (the canvas then
    /// holds the undefined value).
    bool StartDraw(QelImageStack* stack, QelRenderSpec* spec) override;
    [[nodiscard]] bool HasFailed() const override { return m_state == QelSlabMprState::OutOfMemory; }
    /// After a worker faulted: the stack's verdict on itself.
    bool GetErrorText(char* buffer, std::uint32_t size) const override;

    /// Up to 16 bands; then one more step that ends the draw. A fired record aborter
    /// ends it at once with no picture.
    bool Step() override;
    [[nodiscard]] bool IsDone() const override
    {
        return m_state == QelSlabMprState::Finished || m_state == QelSlabMprState::NoPicture;
    }
    [[nodiscard]] const QelProgress* GetProgress() const override;
    /// Gives up the run between steps; bands drawn so far stay on the canvas.
    void Abort() override;

    [[nodiscard]] std::unique_ptr<QelMTIntLoopWkr> CreateWorker() override;
    [[nodiscard]] QelSlabMprState State() const noexcept override { return m_state; }

private:
    explicit QelImageStackSlabMprRendererImp(QelMemoryManager* memoryManager) noexcept;

    // Sets the state: Finished for an empty canvas, NoPicture without data,
    // OutOfMemory, or Idle with everything ready for the workers. False, changing
    // nothing, after a bug report.
    [[nodiscard]] bool Setup(QelImageStack* stack, QelRenderSpec* spec);
    [[nodiscard]] bool MakeBandImages();
    void DropBandImages() noexcept;
    // Fills the canvas with the undefined value at the canvas's pixel size.
    static void ClearCanvas(const QelRenderSpec& spec);

    QelMemoryManager* m_memoryManager;
    QelSlabMprState m_state = QelSlabMprState::Idle;
    QelImageStack* m_stack = nullptr;  // of the running or last draw, for GetErrorText
    QelSlabMprDraw m_draw;
    QelPixelVariant m_undefinedValue;
    bool m_inDraw = false;
    bool m_workerFault = false;
    // One of each per thread; the sums only for AVIP. Declared before the loop
    // manager, so that the workers, which point at them, go first.
    std::vector<std::unique_ptr<QelMemoryRasterImage>> m_sumImages;
    std::vector<std::unique_ptr<QelMemoryRasterImage>> m_countImages;
    std::unique_ptr<QelArray<std::int32_t>> m_firstHints;
    std::unique_ptr<QelArray<std::int32_t>> m_laterHints;
    std::unique_ptr<QelTPIntLoopMgr> m_loopManager;
    std::unique_ptr<QelMTIntLoopMgrStepAdaptor> m_stepAdaptor;
};

#include "mpr/imp/QelImageStackSlabMprRendererImp.h"

#include "base/QelDebug.h"
#include "base/QelMemoryManager.h"
#include "graphics/QelRenderSpec.h"
#include "image/QelMemoryRasterImage.h"
#include "image/QelRgbColorSpec.h"
#include "image_stack/QelImageStack.h"
#include "threaded/QelAborter.h"
#include "threaded/QelMTIntLoopMgrStepAdaptor.h"
#include "threaded/QelSystemInfo.h"
#include "threaded/QelTPIntLoopMgr.h"

#include <cstdio>
#include <new>

std::unique_ptr<QelImageStackSlabMprRenderer> QelImageStackSlabMprRenderer::New(QelMemoryManager* memoryManager,
                                                                               int threadCount)
{
    return QelImageStackSlabMprRendererImp::Create(memoryManager, threadCount);
}

std::unique_ptr<QelImageStackSlabMprRendererImp> QelImageStackSlabMprRendererImp::Create(
    QelMemoryManager* memoryManager, int threadCount)
{
    if (!memoryManager)
        memoryManager = QelMemoryManager::GetDefault();
    std::unique_ptr<QelImageStackSlabMprRendererImp> renderer(new (std::nothrow)
                                                                   QelImageStackSlabMprRendererImp(memoryManager));
    if (!renderer || !memoryManager)
        return nullptr;
    renderer->m_loopManager = QelTPIntLoopMgr::New(QelTPIntLoopMgr::kDynamic, threadCount);
    if (!renderer->m_loopManager)
        return nullptr;
    renderer->m_stepAdaptor = QelMTIntLoopMgrStepAdaptor::New(renderer->m_loopManager.get());
    if (!renderer->m_stepAdaptor)
        return nullptr;
    try {
        const auto threads = static_cast<std::size_t>(renderer->m_loopManager->NumberOfThreads());
        renderer->m_sumImages.resize(threads);
        renderer->m_countImages.resize(threads);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return renderer;
}

QelImageStackSlabMprRendererImp::QelImageStackSlabMprRendererImp(QelMemoryManager* memoryManager) noexcept
    : m_memoryManager(memoryManager)
{
}

QelImageStackSlabMprRendererImp::~QelImageStackSlabMprRendererImp() = default;

std::unique_ptr<QelMTIntLoopWkr> QelImageStackSlabMprRendererImp::CreateWorker()
{
    // Called by all threads of the manager at once: it reads nothing but the manager.
    return std::unique_ptr<QelMTIntLoopWkr>(new (std::nothrow) QelImageStackSlabMprRendererWorker(m_memoryManager));
}

void QelImageStackSlabMprRendererImp::ClearCanvas(const QelRenderSpec& spec)
{
    QelRasterImage* canvas = spec.Canvas();
    if (!canvas || canvas->Width() <= 0 || canvas->Height() <= 0)
        return;
    const QelPixelVariant& undefined = spec.UndefinedPixelVal();
    std::uint32_t value = 0;
    switch (canvas->BytesPerPixel()) {
    case 1:
        value = undefined.AsUnsigned8();
        break;
    case 2:
        value = undefined.AsUnsigned16();
        break;
    default:
        value = undefined.AsColor32();
        break;
    }
    canvas->Clear(true, value);
}

bool QelImageStackSlabMprRendererImp::StartDraw(QelImageStack* stack, QelRenderSpec* spec)
{
    if (!spec || !spec->Canvas())
        return false;
    // A running draw keeps pointers into the record and the canvas: it must be given
    // up first, whatever the new draw would be.
    if (m_state == QelSlabMprState::Running) {
        QEL_ASSERT(false,
                   "QelImageStackSlabMprRendererImp::StartDraw()\nPlease call Abort() before Draw() or StartDraw()\n");
        return false;
    }
    m_workerFault = false;
    m_stack = stack;
    m_draw.Aborter = nullptr;
    if (!stack) {
        ClearCanvas(*spec);
        return false;
    }
    // No data is no failure: the picture of an empty volume is the undefined value.
    if (stack->ImageCount() < 2) {
        ClearCanvas(*spec);
        m_state = QelSlabMprState::NoPicture;
        return true;
    }
    if (spec->SupersamplingFactorXY() > 1) {
        QEL_ERROR("XY supersampling in this renderer not supported");
        return false;
    }

    m_state = QelSlabMprState::Idle;
    if (!Setup(stack, spec))
        return false;
    switch (m_state) {
    case QelSlabMprState::Finished:
        return true;
    case QelSlabMprState::NoPicture:
        ClearCanvas(*spec);
        return true;
    case QelSlabMprState::OutOfMemory:
        ClearCanvas(*spec);
        return false;
    default:
        break;
    }

    spec->CaptureCallerPriority();
    m_draw.Aborter = spec->Aborter();
    // Built here, on one thread, and not by the first band of every thread at once.
    if (!stack->FixedPointAccelerator()) {
        m_state = QelSlabMprState::OutOfMemory;
        ClearCanvas(*spec);
        return false;
    }

    m_loopManager->SetFactory(this);
    if (!m_loopManager->CreateWorkers()) {
        ClearCanvas(*spec);
        return false;
    }
    for (int i = 0; i < m_loopManager->NumberOfThreads(); ++i) {
        auto* worker = static_cast<QelImageStackSlabMprRendererWorker*>(m_loopManager->Worker(i));
        const auto thread = static_cast<std::size_t>(i);
        if (!worker || !worker->Prepare(m_draw, m_sumImages[thread].get(), m_countImages[thread].get())) {
            ClearCanvas(*spec);
            return false;
        }
    }

    m_stepAdaptor->SetLoopRange(QelSlabBands(m_draw.CanvasY, QelSlabMprTiling::kBandHeight));
    m_stepAdaptor->SetBlockSize(QelSlabMprTiling::kBandsPerStep);
    m_state = QelSlabMprState::Running;
    return true;
}

bool QelImageStackSlabMprRendererImp::Setup(QelImageStack* stack, QelRenderSpec* spec)
{
    if (!stack) {
        QEL_ASSERT(false, "QelImageStackSlabMprRendererImp::StartDraw()\nNULL pointer trapped (image stack).\n");
        return false;
    }
    if (!spec) {
        QEL_ASSERT(false, "QelImageStackSlabMprRendererImp::StartDraw()\nNULL pointer trapped (render spec).\n");
        return false;
    }
    QelRasterImage* canvas = spec->Canvas();
    if (!canvas) {
        QEL_ASSERT(false, "QelImageStackSlabMprRendererImp::StartDraw()\nNULL pointer trapped (spec->Canvas()).\n");
        return false;
    }
    const QelSystemInfo& processor = QelSystemInfo::Instance();
    if (!processor.IsMMXAvailable() || !processor.IsSSEAvailable() || stack->ImageCount() < 2) {
        m_state = QelSlabMprState::NoPicture;
        return true;
    }

    m_undefinedValue = spec->UndefinedPixelVal();
    m_draw.ViewMatrix = spec->SlabCenterTransform();
    m_draw.Tiling = QelSlabMprTiling::ForView(m_draw.ViewMatrix);

    m_draw.CanvasX = canvas->XRange();
    m_draw.CanvasY = canvas->YRange();
    if (canvas->Width() <= 0 || canvas->Height() <= 0) {
        m_state = QelSlabMprState::Finished;
        return true;
    }
    // Canvases of 1 and 4 bytes per pixel would show the result through a colour
    // table, and MIP and MinIP would then need a 16-bit band image of their own.
    // No caller draws into them.
    if (canvas->BytesPerPixel() != 2) {
        QEL_ERROR("QelImageStackSlabMprRendererImp::StartDraw()\nCanvas of %d bytes per pixel not supported: "
                  "only 2 bytes per pixel\n",
                  canvas->BytesPerPixel());
        return false;
    }

    m_draw.Stack = stack;
    m_draw.Spec = spec;
    m_draw.Canvas = canvas;
    m_draw.SlabMode = QelSlabMode::Effective(spec->SlabMode());
    m_draw.IsSigned = stack->IsSigned();
    m_draw.LastSample = spec->SampleSliceNumber() - 1;
    m_draw.SliceSpacing = spec->CurrSliceSpacing();
    m_draw.UndefinedValue = m_undefinedValue.AsUnsigned16();
    m_draw.FirstHints = nullptr;
    m_draw.LaterHints = nullptr;

    DropBandImages();
    m_firstHints = QelArray<std::int32_t>::New(m_draw.CanvasY, 0, m_memoryManager);
    m_laterHints = QelArray<std::int32_t>::New(m_draw.CanvasY, 0, m_memoryManager);
    if (!m_firstHints || !m_laterHints || !MakeBandImages()) {
        DropBandImages();
        m_state = QelSlabMprState::OutOfMemory;
        return true;
    }
    m_draw.FirstHints = m_firstHints.get();
    m_draw.LaterHints = m_laterHints.get();
    return true;
}

bool QelImageStackSlabMprRendererImp::MakeBandImages()
{
    const bool average = m_draw.SlabMode == QelSlabMode::AVIP;
    const QelIntRange bandRows(0, QelSlabMprTiling::kBandHeight - 1);
    for (std::size_t thread = 0; thread < m_countImages.size(); ++thread) {
        auto counts = QelMemoryRasterImage::New(m_memoryManager);
        if (!counts || !counts->Resize(average ? 2 : 1, m_draw.CanvasX, bandRows))
            return false;
        m_countImages[thread] = std::move(counts);
        if (!average)
            continue;
        auto sums = QelMemoryRasterImage::New(m_memoryManager);
        if (!sums || !sums->Resize(4, m_draw.CanvasX, bandRows))
            return false;
        m_sumImages[thread] = std::move(sums);
    }
    return true;
}

void QelImageStackSlabMprRendererImp::DropBandImages() noexcept
{
    for (auto& image : m_sumImages)
        image.reset();
    for (auto& image : m_countImages)
        image.reset();
}

bool QelImageStackSlabMprRendererImp::Step()
{
    if (m_draw.Aborter && m_draw.Aborter->HasAborted()) {
        m_stepAdaptor->Abort();
        m_state = QelSlabMprState::NoPicture;
        return true;
    }
    switch (m_state) {
    case QelSlabMprState::Running: {
        bool stepped = false;
        try {
            stepped = m_stepAdaptor->Step();
        } catch (...) {
            // A bug report from a band: give the run up, so that the renderer can
            // start afresh once the caller has dealt with the report.
            Abort();
            throw;
        }
        m_workerFault = m_workerFault || m_loopManager->Failed();
        if (m_stepAdaptor->IsDone())
            m_state = QelSlabMprState::BandsDone;
        return stepped;
    }
    case QelSlabMprState::BandsDone:
        DropBandImages();
        m_state = QelSlabMprState::Finished;
        return true;
    default:
        return false;
    }
}

const QelProgress* QelImageStackSlabMprRendererImp::GetProgress() const
{
    return m_stepAdaptor->GetProgress();
}

void QelImageStackSlabMprRendererImp::Abort()
{
    m_stepAdaptor->Abort();
    // A run given up after its first step leaves the manager skipping Setup and
    // Finish; the next run in one piece (Draw) must not inherit that.
    m_loopManager->SetSkipSetup(false);
    m_loopManager->SetSkipFinish(false);
    m_state = QelSlabMprState::Idle;
}

bool QelImageStackSlabMprRendererImp::Draw(QelImageStack* stack, QelRenderSpec* spec)
{
    if (m_inDraw)
        return false;
    struct InDraw {
        bool& flag;
        explicit InDraw(bool& f) : flag(f) { flag = true; }
        ~InDraw() { flag = false; }
    } inDraw(m_inDraw);

    if (!StartDraw(stack, spec))
        return false;
    if (m_state == QelSlabMprState::Running) {
        const bool looped = m_stepAdaptor->Go();
        m_workerFault = !looped && m_loopManager->Failed();
        if (m_draw.Aborter && m_draw.Aborter->HasAborted()) {
            m_state = QelSlabMprState::NoPicture;
            return false;
        }
        m_state = QelSlabMprState::BandsDone;
        Step();
        if (!looped)
            return false;
    }
    if (m_state == QelSlabMprState::Finished)
        return true;
    ClearCanvas(*spec);
    return false;
}

bool QelImageStackSlabMprRendererImp::GetErrorText(char* buffer, std::uint32_t size) const
{
    if (!m_workerFault || !m_stack)
        return false;
    if (buffer && size > 0)
        buffer[0] = '\0';
    // The usual cause of a fault is a slice that went away under the draw; when
    // the stack is sound after all, the text still says what happened.
    if (m_stack->Verify(buffer, size) && buffer && size > 0)
        std::snprintf(buffer, size, "QelImageStackSlabMprRendererImp: a worker faulted; the image stack is sound");
    return true;
}
